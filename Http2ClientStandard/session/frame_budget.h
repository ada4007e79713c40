#ifndef HTTP2CLIENTSTANDARD_SESSION_FRAME_BUDGET_H
#define HTTP2CLIENTSTANDARD_SESSION_FRAME_BUDGET_H

#include <algorithm>
#include <cstdint>

#include "Http2ClientStandard/session/options.h"

namespace h2 {

// Bounds the frames that bring no request further: PING, SETTINGS, PRIORITY, WINDOW_UPDATE, unknown
// types, empty DATA and CONTINUATION, PUSH_PROMISE, frames on closed streams. Each takes one from
// the budget. Time fills it again, and so does progress: an answer, content sent, and content
// received.
class FrameBudget {
public:
    // What progress earns.
    static constexpr uint32_t kPerAnswer = 16;
    static constexpr uint32_t kOctetsSentPerFrame = 16;

    FrameBudget(uint32_t capacity, uint32_t perSecond)
        : m_capacity(capacity), m_perSecond(perSecond), m_left(capacity) {}

    // False when the budget is used up.
    bool spend(Time now) {
        if (m_left == m_capacity) m_refilledAt = now;  // a full budget earns nothing
        if (m_left == 0) refillByTime(now);
        if (m_left == 0) return false;
        --m_left;
        return true;
    }
    void earn(uint64_t frames) { m_left = std::min<uint64_t>(m_capacity, m_left + frames); }
    void earnForSending(size_t octets) {
        m_octetsSent += octets;
        earn(m_octetsSent / kOctetsSentPerFrame);
        m_octetsSent %= kOctetsSentPerFrame;
    }
    void refill() { m_left = m_capacity; }

private:
    void refillByTime(Time now) {
        const Time seconds = (now - std::min(now, m_refilledAt)) / 1000;
        if (seconds == 0) return;
        earn(std::min<Time>(seconds, m_capacity) * m_perSecond);
        m_refilledAt = now;
    }

    const uint64_t m_capacity;
    const uint64_t m_perSecond;
    uint64_t m_left;
    uint64_t m_octetsSent = 0;  // not yet earned for; < kOctetsSentPerFrame
    Time m_refilledAt = 0;
};

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_SESSION_FRAME_BUDGET_H
