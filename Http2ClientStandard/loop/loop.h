#ifndef HTTP2CLIENTSTANDARD_LOOP_LOOP_H
#define HTTP2CLIENTSTANDARD_LOOP_LOOP_H

#include <sys/epoll.h>

#include <atomic>
#include <cstddef>
#include <functional>
#include <mutex>
#include <vector>

#include "Http2ClientStandard/base/time.h"
#include "Http2ClientStandard/transport/socket.h"

namespace h2 {

class Loop;

// What a loop serves: a descriptor, a deadline, or both. Lives on the loop's thread; whoever owns
// it removes it from the loop before it ends. A handler may remove and destroy itself or any other
// during its own call.
class Handler {
public:
    Handler() = default;
    virtual ~Handler() = default;
    Handler(const Handler&) = delete;
    Handler& operator=(const Handler&) = delete;

    // The descriptor is ready: EPOLLIN, EPOLLOUT, EPOLLERR and EPOLLHUP combined.
    virtual void onReady(uint32_t events) = 0;
    // The deadline has come. It is unset by then.
    virtual void onDeadline() = 0;

private:
    friend class Loop;
    static constexpr size_t kNoTimer = static_cast<size_t>(-1);

    int m_descriptor = -1;  // registered with the loop
    uint32_t m_interest = 0;
    Time m_deadline = kNever;
    size_t m_timerIndex = kNoTimer;  // place in the loop's heap
};

// One thread's event loop: epoll for descriptors, a heap of deadlines, an eventfd to wake it. It
// never wakes while nothing is ready, no deadline has come and nobody posts.
//
// All calls are for the loop's thread, but post(), stop() and isLoopThread().
class Loop {
public:
    Loop();
    ~Loop();
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    // False when the system gave no epoll or eventfd descriptor; nothing else may be called then.
    bool ready() const { return m_epoll && m_wake; }

    // Serves until stop(). The thread that calls it is the loop's thread until it returns.
    void run();
    // Makes run() return after the handler that is being called. Any thread.
    void stop();
    // Runs `task` on the loop's thread, soon. Any thread. The loop is woken only by the first of
    // several tasks. A task posted while no thread runs the loop waits for the next run().
    void post(std::function<void()> task);
    bool isLoopThread() const;

    // Time at the begin of this turn.
    Time now() const { return m_now; }

    // Registers, with EPOLLIN and/or EPOLLOUT. False when the system refuses.
    bool add(Handler& handler, int descriptor, uint32_t interest);
    // Changes the interest; costs nothing when it is the same.
    void modify(Handler& handler, uint32_t interest);
    // Ends the registration and the deadline. To be called before the descriptor is closed.
    void remove(Handler& handler);
    // Calls onDeadline() once `deadline` has come; kNever unsets it.
    void setDeadline(Handler& handler, Time deadline);

private:
    void turn();
    int timeout() const;
    void runTasks();
    void runDeadlines();
    void siftUp(size_t index);
    void siftDown(size_t index);
    void place(Handler* handler, size_t index);
    void eraseTimer(Handler& handler);

    Socket m_epoll;
    Socket m_wake;
    Time m_now;
    std::vector<Handler*> m_timers;  // binary heap, the earliest deadline first

    // Events of this turn that are still to be handed out. remove() takes a handler out of them.
    std::vector<epoll_event> m_events;
    size_t m_eventCount = 0;

    std::mutex m_taskLock;  // guards m_tasks
    std::vector<std::function<void()>> m_tasks;
    std::vector<std::function<void()>> m_running;  // tasks of this turn; of the loop's thread
    std::atomic<bool> m_stop{false};
    std::atomic<uintptr_t> m_thread{0};  // of run(); 0 while there is none
};

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_LOOP_LOOP_H
