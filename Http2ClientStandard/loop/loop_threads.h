#ifndef HTTP2CLIENTSTANDARD_LOOP_LOOP_THREADS_H
#define HTTP2CLIENTSTANDARD_LOOP_LOOP_THREADS_H

#include <cstddef>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "Http2ClientStandard/loop/loop.h"

namespace h2 {

// The loops of the process and the threads that run them. Loops live as long as this object;
// threads come with start() and go with stop(), and what the loops serve stays as it is in between.
// Any thread may call any function.
class LoopThreads {
public:
    LoopThreads() = default;
    ~LoopThreads();  // no thread may be running
    LoopThreads(const LoopThreads&) = delete;
    LoopThreads& operator=(const LoopThreads&) = delete;

    // Starts a thread for each of `count` loops, or of as many as there are already. Signals that
    // are sent to the process are left to the application's threads. Does nothing while threads
    // run. False when the system gives no thread or no descriptors.
    bool start(size_t count);
    // Stops the threads and waits for them. Not on one of them.
    void stop();
    bool running() const;

    // Whether the caller is one of the threads, of this object or another.
    static bool isLoopThread();

    // A loop for something new, in turns; null when the system gives no descriptors. The first loop
    // is made when it is asked for: it serves once start() has been called.
    Loop* next();

private:
    Loop* addLoopLocked();
    void startThreadLocked(Loop& loop);

    mutable std::mutex m_lock;  // guards what follows
    std::vector<std::unique_ptr<Loop>> m_loops;
    std::vector<std::thread> m_threads;  // one a loop, or none
    size_t m_next = 0;
};

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_LOOP_LOOP_THREADS_H
