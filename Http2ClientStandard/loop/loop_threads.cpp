#include "Http2ClientStandard/loop/loop_threads.h"

#include <pthread.h>
#include <signal.h>

#include <system_error>

namespace h2 {

namespace {

thread_local bool isOne = false;  // the calling thread runs a loop

// Threads inherit the mask. What a thread causes itself stays deliverable.
class BlockedSignals {
public:
    BlockedSignals() {
        sigset_t blocked;
        sigfillset(&blocked);
        for (const int own : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT}) {
            sigdelset(&blocked, own);
        }
        pthread_sigmask(SIG_SETMASK, &blocked, &m_former);
    }
    ~BlockedSignals() { pthread_sigmask(SIG_SETMASK, &m_former, nullptr); }
    BlockedSignals(const BlockedSignals&) = delete;
    BlockedSignals& operator=(const BlockedSignals&) = delete;

private:
    sigset_t m_former;
};

}  // namespace

LoopThreads::~LoopThreads() = default;

bool LoopThreads::isLoopThread() { return isOne; }

bool LoopThreads::running() const {
    const std::lock_guard<std::mutex> hold(m_lock);
    return !m_threads.empty();
}

bool LoopThreads::start(size_t count) {
    const std::lock_guard<std::mutex> hold(m_lock);
    if (!m_threads.empty()) return true;
    while (m_loops.size() < count && addLoopLocked() != nullptr) {
    }
    const BlockedSignals blocked;
    for (const std::unique_ptr<Loop>& loop : m_loops) {
        try {
            startThreadLocked(*loop);
        } catch (const std::system_error&) {
            return false;
        }
    }
    return !m_loops.empty();
}

void LoopThreads::startThreadLocked(Loop& loop) {
    m_threads.emplace_back([&loop] {
        isOne = true;
        pthread_setname_np(pthread_self(), "http2");
        loop.run();
    });
}

void LoopThreads::stop() {
    std::vector<std::thread> threads;
    {
        const std::lock_guard<std::mutex> hold(m_lock);
        threads.swap(m_threads);
        for (size_t i = 0; i < threads.size(); ++i) m_loops[i]->stop();
    }
    for (std::thread& thread : threads) thread.join();
}

Loop* LoopThreads::next() {
    const std::lock_guard<std::mutex> hold(m_lock);
    if (m_loops.empty()) return addLoopLocked();
    m_next = (m_next + 1) % m_loops.size();
    return m_loops[m_next].get();
}

Loop* LoopThreads::addLoopLocked() {
    auto loop = std::make_unique<Loop>();
    if (!loop->ready()) return nullptr;
    m_loops.push_back(std::move(loop));
    return m_loops.back().get();
}

}  // namespace h2
