#include "interrupt.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <utility>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "message.h"
#include "options.h"

namespace {

constexpr int kGraceMs = 5000;

// An event for each SIGINT. The handler reads it, so it is an atomic without a lock.
std::atomic<int> events{-1};
static_assert(std::atomic<int>::is_always_lock_free);

void post() {
    const uint64_t one = 1;
    const ssize_t written = write(events, &one, sizeof(one));
    static_cast<void>(written);  // fails only when as many as can be counted are there
}

extern "C" void onInterrupt(int) {
    const int error = errno;
    post();
    errno = error;
}

// Waits for an event and takes it. False when the time is over.
bool take(int timeoutMs) {
    pollfd ready{events, POLLIN, 0};
    int result = 0;
    do {
        result = poll(&ready, 1, timeoutMs);
    } while (result < 0 && errno == EINTR);
    uint64_t count = 0;
    return result == 1 && read(events, &count, sizeof(count)) == sizeof(count);
}

bool isIgnored() {
    struct sigaction now {};
    return sigaction(SIGINT, nullptr, &now) == 0 && now.sa_handler == SIG_IGN;
}

void setMask(int how) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    pthread_sigmask(how, &set, nullptr);
}

[[noreturn]] void leave(const char* message) {
    complain(message);
    _exit(EXIT_INTERRUPTED);
}

}  // namespace

Interrupt::Interrupt() {
    if (isIgnored()) return;
    events = eventfd(0, EFD_CLOEXEC);
    if (events == -1) return;  // then SIGINT simply ends the process
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, nullptr);
    setMask(SIG_BLOCK);
    m_thread = std::thread(&Interrupt::run, this);
}

Interrupt::~Interrupt() {
    if (!m_thread.joinable()) return;
    m_ending = true;
    post();
    m_thread.join();
    // SIGINT stays blocked, and the event open: nothing is left that it could end.
}

void Interrupt::setWake(std::function<void()> wake) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_wake = std::move(wake);
    if (m_requested && m_wake) m_wake();
}

void Interrupt::run() {
    setMask(SIG_UNBLOCK);
    take(-1);
    if (m_ending) return;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_requested = true;
        if (!m_wake) leave("interrupted; no request was running");
        m_wake();
    }
    take(kGraceMs);
    if (!m_ending) leave("interrupted; the request was given up");
}
