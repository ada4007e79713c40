#ifndef HTTP2CLIENTSTANDARD_SESSION_WINDOWS_H
#define HTTP2CLIENTSTANDARD_SESSION_WINDOWS_H

#include <cstdint>

#include "Http2ClientStandard/frames/frame.h"

namespace h2 {

// What the peer may still send. The whole payload of DATA counts, padding included.
class ReceiveWindow {
public:
    explicit ReceiveWindow(uint32_t size = kDefaultWindow) : m_size(size) {}

    // False, and nothing taken, when the peer has gone beyond the window.
    bool take(uint32_t octets) {
        if (octets > m_size - m_used) return false;
        m_used += octets;
        return true;
    }
    bool fits(uint32_t octets) const { return octets <= m_size - m_used; }
    // Time for a WINDOW_UPDATE: from half a window on, because some servers end connections that
    // send many small ones.
    bool due() const { return m_used != 0 && m_used >= m_size / 2; }
    // The increment to be sent.
    uint32_t giveBack() {
        const uint32_t used = m_used;
        m_used = 0;
        return used;
    }

private:
    uint32_t m_size;
    uint32_t m_used = 0;  // <= m_size
};

// What we may still send. Below zero after the peer has lowered SETTINGS_INITIAL_WINDOW_SIZE.
class SendWindow {
public:
    explicit SendWindow(uint32_t size = kDefaultWindow) : m_left(size) {}

    int64_t left() const { return m_left; }
    bool open() const { return m_left > 0; }
    void take(size_t octets) { m_left -= static_cast<int64_t>(octets); }
    // False, and nothing changed, when the window would exceed 2^31-1 (RFC 9113, 6.9.1).
    bool move(int64_t octets) {
        if (m_left + octets > int64_t{kMaxWindow}) return false;
        m_left += octets;
        return true;
    }

private:
    int64_t m_left;  // >= -(2^31-1), <= 2^31-1
};

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_SESSION_WINDOWS_H
