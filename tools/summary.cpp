#include "summary.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace {

constexpr uint64_t kBarWidth = 40;

std::string fixed(double value, int decimals) {
    std::array<char, 64> text{};
    snprintf(text.data(), text.size(), "%.*f", decimals, value);
    return text.data();
}

// As in "    0.5 -         1 ms".
std::string range(Duration from, Duration to) {
    std::array<char, 64> text{};
    snprintf(text.data(), text.size(), "%9g - %9g ms", milliseconds(from), milliseconds(to));
    return text.data();
}

double perSecond(uint64_t count, double seconds) {
    return seconds > 0 ? static_cast<double>(count) / seconds : 0.0;
}

// Limits of the histogram's rows: 1, 2, 5, 10, 20, 50 ... microseconds.
Duration nextLimit(Duration limit) {
    auto leading = std::chrono::duration_cast<std::chrono::microseconds>(limit).count();
    while (leading >= 10) leading /= 10;
    return leading == 2 ? limit * 5 / 2 : limit * 2;
}

std::string counted(const std::map<int, uint64_t>& counts, std::string (*name)(int)) {
    std::string text;
    for (const auto& [key, count] : counts) {
        text += (text.empty() ? "" : ", ") + name(key) + ": " + std::to_string(count);
    }
    return text;
}

}  // namespace

Duration percentile(const std::vector<Duration>& sorted, unsigned int percent) {
    const size_t rank = (sorted.size() * percent + 99) / 100;
    return sorted[std::max<size_t>(rank, 1) - 1];
}

void Summary::add(const Outcome& outcome) {
    if (outcome.timing.answer) m_bytes += outcome.timing.answer->bodySize;
    if (outcome.isAnswer()) {
        ++m_statuses[*outcome.status];
        m_times.push_back(outcome.timing.answer->total);
    } else {
        ++m_failures[outcome.code];
    }
}

uint64_t Summary::failed() const {
    uint64_t count = 0;
    for (const auto& [code, number] : m_failures) count += number;
    return count;
}

std::string Summary::text(Duration elapsed, const Style& style) const {
    const double seconds = std::chrono::duration<double>(elapsed).count();
    std::string text = "requests  " + std::to_string(answered() + failed()) + " over " +
                       std::to_string(m_connections) +
                       (m_connections == 1 ? " connection" : " connections") + " in " +
                       fixed(seconds, 3) + " s\n";
    text += answerLine(seconds) + failureLine(style);
    text += "received  " + std::to_string(m_bytes) + " bytes of bodies, " +
            fixed(perSecond(m_bytes, seconds), 0) + " per second\n";
    if (m_times.empty()) return text;
    std::vector<Duration> sorted = m_times;
    std::sort(sorted.begin(), sorted.end());
    return text + timeLine(sorted) + "\n" + histogram(sorted, style);
}

std::string Summary::answerLine(double seconds) const {
    std::string line = "answered  " + std::to_string(answered()) + ", " +
                       fixed(perSecond(answered(), seconds), 1) + " requests per second";
    if (!m_statuses.empty()) {
        line += "; " +
                counted(m_statuses, [](int status) { return "status " + std::to_string(status); });
    }
    return line + "\n";
}

std::string Summary::failureLine(const Style& style) const {
    std::string line = "failed    " + std::to_string(failed());
    if (m_failures.empty()) return line + "\n";
    line += "; " + counted(m_failures, [](int code) { return std::string(kindOf(code)); });
    return style.paint(Colour::RED, line) + "\n";
}

std::string Summary::timeLine(const std::vector<Duration>& sorted) const {
    return "times     p50 " + inMilliseconds(percentile(sorted, 50)) + ", p90 " +
           inMilliseconds(percentile(sorted, 90)) + ", p99 " +
           inMilliseconds(percentile(sorted, 99)) + "\n          fastest " +
           inMilliseconds(sorted.front()) + ", slowest " + inMilliseconds(sorted.back()) + "\n";
}

std::string Summary::histogram(const std::vector<Duration>& sorted, const Style& style) const {
    struct Row {
        Duration from;
        Duration to;
        uint64_t count;
    };
    std::vector<Row> rows;
    Duration from{};
    Duration to = std::chrono::microseconds(1);
    uint64_t most = 1;
    for (auto next = sorted.begin(); next != sorted.end();) {
        const auto end = std::upper_bound(next, sorted.end(), to);
        const auto count = static_cast<uint64_t>(end - next);
        if (count > 0 || !rows.empty()) rows.push_back({from, to, count});
        most = std::max(most, count);
        next = end;
        from = to;
        to = nextLimit(to);
    }
    std::string text;
    for (const Row& row : rows) {
        const uint64_t filled = (row.count * kBarWidth + most - 1) / most;
        text += range(row.from, row.to) + "  ";
        text += style.paint(Colour::CYAN, std::string(filled, '#'));
        text += std::string(kBarWidth - filled, ' ') + " " + std::to_string(row.count) + "\n";
    }
    return text;
}
