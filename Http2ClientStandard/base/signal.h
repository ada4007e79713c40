#ifndef HTTP2CLIENTSTANDARD_BASE_SIGNAL_H
#define HTTP2CLIENTSTANDARD_BASE_SIGNAL_H

#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>

#include "Http2ClientStandard/base/time.h"

namespace h2 {

// Something that happens once and that one thread may wait for. A futex: one system call for the
// waiter and one for the waker, none when nobody waits.
class Signal {
public:
    // What was done before set() is visible to who has waited.
    void set() {
        if (m_state.exchange(kSet, std::memory_order_acq_rel) == kWaited)
            call(FUTEX_WAKE, 1, nullptr);
    }
    void reset() { m_state.store(kUnset, std::memory_order_relaxed); }

    // False: it has not happened until `deadline`.
    bool wait(Time deadline) {
        uint32_t unset = kUnset;
        m_state.compare_exchange_strong(unset, kWaited, std::memory_order_acq_rel);
        while (m_state.load(std::memory_order_acquire) != kSet) {
            const Time now = steadyNow();
            if (now >= deadline) return false;
            const Time left = deadline - now;
            const timespec limit{static_cast<time_t>(left / 1000),
                                 static_cast<long>(left % 1000 * 1'000'000)};
            call(FUTEX_WAIT, kWaited, &limit);
        }
        return true;
    }

private:
    static constexpr uint32_t kUnset = 0, kWaited = 1, kSet = 2;

    void call(int operation, uint32_t value, const timespec* limit) {
        syscall(SYS_futex, &m_state, operation | FUTEX_PRIVATE_FLAG, value, limit, nullptr, 0);
    }

    std::atomic<uint32_t> m_state{kUnset};
    static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t));
};

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_BASE_SIGNAL_H
