#ifndef HTTP2CLIENT_TOOLS_INTERRUPT_H
#define HTTP2CLIENT_TOOLS_INTERRUPT_H

#include <atomic>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

// Turns SIGINT (Ctrl-C) into an orderly end. What is running is woken, and looks at requested();
// if it has not ended 5 s later, or a second SIGINT comes, the process ends with EXIT_INTERRUPTED.
// Where SIGINT was ignored from the start, as under nohup, it stays ignored.
//
// Make it before any other thread: they inherit that SIGINT does not come to them. (The library
// takes a select that a signal has interrupted for the end of all its connections.)
class Interrupt {
public:
    Interrupt();
    ~Interrupt();
    Interrupt(const Interrupt&) = delete;
    Interrupt& operator=(const Interrupt&) = delete;

    bool requested() const { return m_requested; }

    // `wake` runs on a thread of its own, once, at a SIGINT. Without one, SIGINT ends the process
    // at once: there is nothing to cancel. When this returns, the one before is not running.
    void setWake(std::function<void()> wake);

private:
    void run();

    std::mutex m_mutex;  // guards m_wake, and is held while that runs
    std::function<void()> m_wake;
    std::atomic<bool> m_requested{false};
    std::atomic<bool> m_ending{false};
    std::thread m_thread;  // none when SIGINT stays ignored
};

// Sets a wake for as long as it lives.
class InterruptWake {
public:
    InterruptWake(Interrupt& interrupt, std::function<void()> wake) : m_interrupt(interrupt) {
        m_interrupt.setWake(std::move(wake));
    }
    ~InterruptWake() { m_interrupt.setWake({}); }
    InterruptWake(const InterruptWake&) = delete;
    InterruptWake& operator=(const InterruptWake&) = delete;

private:
    Interrupt& m_interrupt;
};

#endif  // HTTP2CLIENT_TOOLS_INTERRUPT_H
