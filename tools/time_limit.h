#ifndef HTTP2CLIENT_TOOLS_TIME_LIMIT_H
#define HTTP2CLIENT_TOOLS_TIME_LIMIT_H

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

#include "options.h"
#include "timing.h"

// When to give up a connect or a request. With --timeout: so long after its start. Without: when
// nothing has been sent or received for a minute.
//
// One thread uses it; another one may call isOver.
class TimeLimit {
public:
    // Of a request.
    explicit TimeLimit(const Options& options) : TimeLimit(options.timeoutMs, options.idleMs) {}
    // `totalMs`: as --timeout, if it is given.
    TimeLimit(std::optional<unsigned int> totalMs, unsigned int idleMs);

    void start();
    void stop() { m_end = TimePoint::max(); }
    // `count` is what has been sent and received so far; a change is progress.
    void setProgress(uint64_t count);
    // Without --timeout, starts anew.
    void extend();
    bool isOver(Duration slack = {}) const;

    // What is said of its end, as in "no connection within 500 ms".
    std::string text(const char* what) const;

private:
    const Duration m_length;  // zero: no limit
    const bool m_isTotal;     // as with --timeout
    uint64_t m_progress = 0;
    std::atomic<TimePoint> m_end{TimePoint::max()};
};

#endif  // HTTP2CLIENT_TOOLS_TIME_LIMIT_H
