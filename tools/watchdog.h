#ifndef HTTP2CLIENT_TOOLS_WATCHDOG_H
#define HTTP2CLIENT_TOOLS_WATCHDOG_H

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

// Ends the process with EXIT_TIMED_OUT when something that cannot be called back takes too long:
// a connect, a TLS handshake, a write to a pipe that nobody reads.
class Watchdog {
public:
    using Time = std::chrono::steady_clock::time_point;

    Watchdog();
    ~Watchdog();
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

    // From `deadline` on, `message` goes to standard error and the process ends. Replaces what was
    // set before; without a deadline nothing happens.
    void arm(const std::optional<Time>& deadline, const std::string& message);

private:
    void run();

    std::mutex m_mutex;  // guards all below but the thread
    std::condition_variable m_changed;
    std::optional<Time> m_deadline;
    std::string m_message;
    bool m_ending = false;
    std::thread m_thread;
};

#endif  // HTTP2CLIENT_TOOLS_WATCHDOG_H
