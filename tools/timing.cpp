#include "timing.h"

#include <array>
#include <cstdio>

namespace {

std::string connectPart(const std::optional<ConnectTimes>& times) {
    if (!times) return "connection reused";
    // Without a sight of the TCP connect there is one figure for both.
    if (!times->tcp) return "connect (with TLS, if any) " + inMilliseconds(times->all);
    std::string text = "connect " + inMilliseconds(*times->tcp);
    if (times->tls) text += ", TLS " + inMilliseconds(*times->tls);
    return text;
}

}  // namespace

uint64_t AnswerTimes::bytesPerSecond() const {
    const double seconds = std::chrono::duration<double>(total).count();
    return seconds > 0 ? static_cast<uint64_t>(static_cast<double>(bodySize) / seconds) : 0;
}

double milliseconds(Duration duration) {
    return std::chrono::duration<double, std::milli>(duration).count();
}

std::string inMilliseconds(Duration duration) {
    std::array<char, 64> text{};
    snprintf(text.data(), text.size(), "%.3f ms", milliseconds(duration));
    return text.data();
}

std::string timingLine(const Timing& timing) {
    std::string line = "timing: " + connectPart(timing.connect);
    if (!timing.answer) return line;
    const AnswerTimes& answer = *timing.answer;
    line += ", first byte " + (answer.firstByte ? inMilliseconds(*answer.firstByte) : "never");
    line += ", total " + inMilliseconds(answer.total);
    return line + ", " + std::to_string(answer.bytesPerSecond()) + " bytes/s";
}
