#ifndef HTTP2CLIENTSTANDARD_CLIENT_WATCHDOG_H
#define HTTP2CLIENTSTANDARD_CLIENT_WATCHDOG_H

#include <mutex>
#include <utility>

#include "Http2ClientStandard/base/ref.h"
#include "Http2ClientStandard/client/client_exchange.h"
#include "Http2ClientStandard/loop/loop.h"

namespace h2 {

// Ends a client's requests when their time-outs have passed. The loop is told of a deadline only
// when it would wake too late: request after request costs nothing.
class Watchdog final : public RefCounted, private Handler {
public:
    explicit Watchdog(Loop& loop) : m_loop(loop) {}

    // Watches `exchange`, and nothing else, from now on. Any thread.
    void watch(const Ref<ClientExchange>& exchange) {
        const Time deadline = exchange ? exchange->checkTime(0) : kNever;
        {
            const std::lock_guard<std::mutex> hold(m_lock);
            m_exchange = exchange;
            if (deadline >= m_armed) return;
            m_armed = deadline;
        }
        m_loop.post([self = Ref<Watchdog>(this)] { self->arm(); });
    }

private:
    void onReady(uint32_t /*events*/) override {}
    void onDeadline() override {
        const Ref<Watchdog> self = std::move(m_inLoop);
        Ref<ClientExchange> exchange;
        {
            const std::lock_guard<std::mutex> hold(m_lock);
            m_armed = kNever;
            exchange = m_exchange;
        }
        if (!exchange) return;
        const Time next = exchange->checkTime(steadyNow());
        {
            const std::lock_guard<std::mutex> hold(m_lock);
            if (next < m_armed) m_armed = next;
        }
        arm();
    }
    void arm() {
        const std::lock_guard<std::mutex> hold(m_lock);
        if (m_armed == kNever) return;
        m_inLoop = Ref<Watchdog>(this);
        m_loop.setDeadline(*this, m_armed);
    }

    Loop& m_loop;
    Ref<Watchdog> m_inLoop;  // itself, while it has a deadline; of the loop's thread

    std::mutex m_lock;  // guards what follows
    Ref<ClientExchange> m_exchange;
    Time m_armed = kNever;  // when the loop calls, or is about to be told to
};

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_CLIENT_WATCHDOG_H
