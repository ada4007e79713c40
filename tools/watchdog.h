#ifndef HTTP2CLIENT_TOOLS_WATCHDOG_H
#define HTTP2CLIENT_TOOLS_WATCHDOG_H

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "timing.h"

// Ends the process with EXIT_TIMED_OUT when something that cannot be called back takes too long:
// a connect, a TLS handshake, a write to a pipe that nobody reads.
class Watchdog {
public:
    Watchdog();
    ~Watchdog();
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

    // From `deadline` on, `message` goes to standard error, `lastWords` is called, on a thread of
    // its own, and the process ends. Replaces what was set before; without a deadline nothing
    // happens.
    void arm(const Deadline& deadline, const std::string& message,
             std::function<void()> lastWords = {});
    void disarm() { arm({}, {}); }

private:
    void run();

    std::mutex m_mutex;  // guards all below but the thread
    std::condition_variable m_changed;
    Deadline m_deadline;
    std::string m_message;
    std::function<void()> m_lastWords;
    bool m_ending = false;
    std::thread m_thread;
};

#endif  // HTTP2CLIENT_TOOLS_WATCHDOG_H
