#ifndef HTTP2CLIENTSTANDARD_CLIENT_CALLBACK_GATE_H
#define HTTP2CLIENTSTANDARD_CLIENT_CALLBACK_GATE_H

#include <condition_variable>
#include <mutex>
#include <thread>

#include "Http2ClientStandard/base/ref.h"

namespace h2 {

// Decides which callbacks of a client may run: one at a time, none of a request that is over, and
// none after close() has returned. Every callback lies between enter() and leave(). Each request
// has a flag `over` of its own, which the gate guards.
//
// It outlives the client, so that a callback may destroy the client.
class CallbackGate final : public RefCounted {
public:
    // False: the request is over, and nothing may be called. `last`: it is over from now on.
    // Waits for a callback of the same client on another thread.
    bool enter(bool& over, bool last) {
        std::unique_lock<std::mutex> hold(m_lock);
        waitForOthers(hold);
        if (over) return false;
        over = last;
        m_inside = std::this_thread::get_id();
        return true;
    }
    void leave() {
        const std::lock_guard<std::mutex> hold(m_lock);
        m_inside = {};
        if (m_waiters != 0) m_left.notify_all();
    }
    // The request is over; waits for a callback that runs on another thread, whatever it is of.
    // False: the request had been over before.
    bool close(bool& over) {
        std::unique_lock<std::mutex> hold(m_lock);
        const bool wasOver = std::exchange(over, true);
        waitForOthers(hold);
        return !wasOver;
    }
    bool isOver(const bool& over) const {
        const std::lock_guard<std::mutex> hold(m_lock);
        return over;
    }
    void open(bool& over) {
        const std::lock_guard<std::mutex> hold(m_lock);
        over = false;
    }

private:
    void waitForOthers(std::unique_lock<std::mutex>& hold) {
        const std::thread::id self = std::this_thread::get_id();
        while (m_inside != std::thread::id() && m_inside != self) {
            ++m_waiters;
            m_left.wait(hold);
            --m_waiters;
        }
    }

    mutable std::mutex m_lock;  // guards what follows, and the flags
    std::condition_variable m_left;
    std::thread::id m_inside;  // the thread that is in a callback, if any
    unsigned m_waiters = 0;
};

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_CLIENT_CALLBACK_GATE_H
