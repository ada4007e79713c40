#include "time_limit.h"

TimeLimit::TimeLimit(std::optional<unsigned int> totalMs, unsigned int idleMs)
    : m_length(std::chrono::milliseconds(totalMs.value_or(idleMs))),
      m_isTotal(totalMs.has_value()) {}

void TimeLimit::start() {
    m_progress = 0;
    m_end = m_length == Duration::zero() ? TimePoint::max() : Clock::now() + m_length;
}

void TimeLimit::setProgress(uint64_t count) {
    if (count == m_progress) return;
    m_progress = count;
    extend();
}

void TimeLimit::extend() {
    if (!m_isTotal) m_end = Clock::now() + m_length;
}

bool TimeLimit::isOver(Duration slack) const { return Clock::now() - slack >= m_end.load(); }

std::string TimeLimit::text(const char* what) const {
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(m_length).count();
    if (m_isTotal) return std::string("no ") + what + " within " + std::to_string(ms) + " ms";
    const std::string length =
        ms % 1000 == 0 ? std::to_string(ms / 1000) + " s" : std::to_string(ms) + " ms";
    return std::string("no ") + what + ", and no progress for " + length;
}
