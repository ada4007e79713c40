#ifndef HTTP2CLIENT_TOOLS_PROGRESS_H
#define HTTP2CLIENT_TOOLS_PROGRESS_H

#include <cstdint>

#include "timing.h"

// A bar on standard error for a transfer of more than 1 MB.
class Progress {
public:
    void enable(bool enabled) { m_enabled = enabled; }
    // `total` is 0 when unknown. Draws at most ten times a second, and always when it is complete.
    void show(const char* what, uint64_t done, uint64_t total);
    // Leaves the bar as it is and goes to the next line.
    void end();

private:
    bool m_enabled = false;
    bool m_shown = false;
    TimePoint m_next;
};

#endif  // HTTP2CLIENT_TOOLS_PROGRESS_H
