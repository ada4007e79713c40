#include "watchdog.h"

#include <unistd.h>

#include "options.h"

Watchdog::Watchdog() : m_thread(&Watchdog::run, this) {}

Watchdog::~Watchdog() {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_ending = true;
        m_changed.notify_all();
    }
    m_thread.join();
}

void Watchdog::arm(const std::optional<Time>& deadline, const std::string& message) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_deadline = deadline;
    m_message = message;
    m_changed.notify_all();
}

void Watchdog::run() {
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_ending) {
        if (!m_deadline) {
            m_changed.wait(lock);
            continue;
        }
        const Time deadline = *m_deadline;
        m_changed.wait_until(lock, deadline);
        if (m_ending || m_deadline != deadline || std::chrono::steady_clock::now() < deadline) {
            continue;
        }
        const ssize_t written = write(STDERR_FILENO, m_message.data(), m_message.size());
        static_cast<void>(written);  // there is nowhere to complain
        _exit(EXIT_TIMED_OUT);
    }
}
