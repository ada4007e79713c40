#ifndef HTTP2CLIENT_TOOLS_SUMMARY_H
#define HTTP2CLIENT_TOOLS_SUMMARY_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "message.h"
#include "request.h"
#include "timing.h"

// The value below or at which `percent` of `sorted` lie (nearest rank). `sorted` is not empty.
Duration percentile(const std::vector<Duration>& sorted, unsigned int percent);

// What many requests came to, in numbers. Not for several threads at once.
class Summary {
public:
    void add(const Outcome& outcome);
    void addConnection() { ++m_connections; }
    uint64_t connections() const { return m_connections; }
    // Lines for the user: `elapsed` is the time that all took together. `style` is that of where
    // they go.
    std::string text(Duration elapsed, const Style& style) const;

private:
    uint64_t answered() const { return m_times.size(); }
    uint64_t failed() const;
    std::string answerLine(double seconds) const;
    std::string failureLine(const Style& style) const;
    std::string timeLine(const std::vector<Duration>& sorted) const;
    std::string histogram(const std::vector<Duration>& sorted, const Style& style) const;

    std::map<int, uint64_t> m_statuses;
    std::map<int, uint64_t> m_failures;  // by exit code
    std::vector<Duration> m_times;       // of what was answered, whatever the status
    uint64_t m_connections = 0;
    uint64_t m_bytes = 0;  // of bodies
};

#endif  // HTTP2CLIENT_TOOLS_SUMMARY_H
