#ifndef HTTP2CLIENT_TOOLS_TIMING_H
#define HTTP2CLIENT_TOOLS_TIMING_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

using Clock = std::chrono::steady_clock;
using TimePoint = Clock::time_point;
using Duration = Clock::duration;

// How long an answer took, each from the request's start.
struct AnswerTimes {
    std::optional<Duration> firstByte;  // to the first headers, those of interim answers included
    Duration total{};                   // to the answer's end, or to its failure
    uint64_t bodySize = 0;              // bytes of the answer's body

    uint64_t bytesPerSecond() const;
};

// What connecting consisted of.
struct ConnectTimes {
    Duration name;  // look-up
    Duration tcp;
    Duration tls;
};

struct Timing {
    std::optional<Duration> connect;  // TLS included; of the connection's first request only
    std::optional<ConnectTimes> connectTimes;  // likewise; when the library tells
    bool joined = false;                       // `connect` joined a connection that was there
    std::optional<AnswerTimes> answer;         // nothing when no request was made
};

double milliseconds(Duration duration);
// As in "12.345 ms".
std::string inMilliseconds(Duration duration);

// The line that --timing prints, without its end.
std::string timingLine(const Timing& timing);

#endif  // HTTP2CLIENT_TOOLS_TIMING_H
