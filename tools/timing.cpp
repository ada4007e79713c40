#include "timing.h"

#include <array>
#include <cstdio>

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
    std::string line = "timing: ";
    line += timing.connect && !timing.joined ? "connect " + inMilliseconds(*timing.connect)
                                             : "connection reused";
    if (const auto& times = timing.connectTimes) {
        line += " (name look-up " + inMilliseconds(times->name) + ", TCP " +
                inMilliseconds(times->tcp) + ", TLS " + inMilliseconds(times->tls) + ")";
    }
    if (!timing.answer) return line;
    const AnswerTimes& answer = *timing.answer;
    line += ", first byte " + (answer.firstByte ? inMilliseconds(*answer.firstByte) : "never");
    line += ", total " + inMilliseconds(answer.total);
    return line + ", " + std::to_string(answer.bytesPerSecond()) + " bytes/s";
}
