#ifndef HTTP2CLIENT_TESTS_SUPPORT_SIGNALS_H
#define HTTP2CLIENT_TESTS_SUPPORT_SIGNALS_H

#include <atomic>
#include <chrono>
#include <csignal>
#include <thread>

#include <pthread.h>

namespace h2test {

// Counts a signal instead of what else it would do, as long as it lives. Interrupted system calls
// are not restarted. One at a time.
class SignalCounter {
public:
    explicit SignalCounter(int number) : m_number(number) {
        count() = 0;
        struct sigaction action {};
        action.sa_handler = [](int) { count().fetch_add(1); };
        sigaction(number, &action, &m_former);
    }
    ~SignalCounter() { sigaction(m_number, &m_former, nullptr); }
    SignalCounter(const SignalCounter&) = delete;
    SignalCounter& operator=(const SignalCounter&) = delete;

    static std::atomic<int>& count() {
        static std::atomic<int> value;
        return value;
    }

private:
    int m_number;
    struct sigaction m_former {};
};

// Interrupts the thread that made it with SIGUSR1, over and over, as long as it lives: whatever
// system call that thread waits in ends with EINTR.
class Interrupter {
public:
    Interrupter() : m_target(pthread_self()), m_thread([this] { run(); }) {}
    ~Interrupter() {
        m_stop = true;
        m_thread.join();
    }
    Interrupter(const Interrupter&) = delete;
    Interrupter& operator=(const Interrupter&) = delete;

private:
    void run() {
        while (!m_stop) {
            pthread_kill(m_target, SIGUSR1);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

    SignalCounter m_counter{SIGUSR1};
    pthread_t m_target;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

}  // namespace h2test

#endif  // HTTP2CLIENT_TESTS_SUPPORT_SIGNALS_H
