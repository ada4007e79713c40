#include "watchdog.h"

#include <utility>

#include <unistd.h>

#include "message.h"
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

void Watchdog::arm(const Deadline& deadline, const std::string& message,
                   std::function<void()> lastWords) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_deadline = deadline;
    m_message = message;
    m_lastWords = std::move(lastWords);
    m_changed.notify_all();
}

void Watchdog::run() {
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_ending) {
        if (!m_deadline) {
            m_changed.wait(lock);
            continue;
        }
        const TimePoint deadline = *m_deadline;
        m_changed.wait_until(lock, deadline);
        if (m_ending || m_deadline != deadline || Clock::now() < deadline) {
            continue;
        }
        complain(m_message);
        if (m_lastWords) m_lastWords();
        _exit(EXIT_TIMED_OUT);
    }
}
