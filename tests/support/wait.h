#ifndef HTTP2CLIENT_TESTS_SUPPORT_WAIT_H
#define HTTP2CLIENT_TESTS_SUPPORT_WAIT_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <thread>

// Waiting for an event with a limit. A limit that passes is a failure of the test, so it is long:
// a busy machine must not fail a test.
namespace h2test {

constexpr std::chrono::milliseconds kWaitLimit{60000};

// Calls `pred` every millisecond until it returns true. Returns its last result: false means that
// the limit has passed. For state that cannot notify; prefer an Event where there is one.
template <typename Pred>
bool waitFor(Pred pred, std::chrono::milliseconds limit = kWaitLimit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= deadline) return pred();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// Happens once, however often it is set.
class Event {
public:
    void set() {
        const std::lock_guard<std::mutex> hold(m_lock);
        m_set = true;
        m_changed.notify_all();
    }
    bool isSet() const {
        const std::lock_guard<std::mutex> hold(m_lock);
        return m_set;
    }
    // false: the limit has passed.
    [[nodiscard]] bool wait(std::chrono::milliseconds limit = kWaitLimit) {
        std::unique_lock<std::mutex> hold(m_lock);
        return m_changed.wait_for(hold, limit, [this] { return m_set; });
    }

private:
    mutable std::mutex m_lock;  // guards m_set
    std::condition_variable m_changed;
    bool m_set = false;
};

// Counts up, from any thread.
class Counter {
public:
    void add(size_t amount = 1) {
        const std::lock_guard<std::mutex> hold(m_lock);
        m_count += amount;
        m_changed.notify_all();
    }
    size_t count() const {
        const std::lock_guard<std::mutex> hold(m_lock);
        return m_count;
    }
    // Waits until the count is `wanted` or more. false: the limit has passed.
    [[nodiscard]] bool waitAtLeast(size_t wanted, std::chrono::milliseconds limit = kWaitLimit) {
        std::unique_lock<std::mutex> hold(m_lock);
        return m_changed.wait_for(hold, limit, [&] { return m_count >= wanted; });
    }

private:
    mutable std::mutex m_lock;  // guards m_count
    std::condition_variable m_changed;
    size_t m_count = 0;
};

}  // namespace h2test

#endif  // HTTP2CLIENT_TESTS_SUPPORT_WAIT_H
