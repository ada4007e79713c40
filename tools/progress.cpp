#include "progress.h"

#include <iostream>
#include <string>

namespace {

constexpr uint64_t kProgressFrom = 1000000;  // smaller transfers are over before one looks
constexpr uint64_t kBarWidth = 40;
constexpr std::chrono::milliseconds kProgressPause{100};

}  // namespace

void Progress::show(const char* what, uint64_t done, uint64_t total) {
    if (!m_enabled || (done <= kProgressFrom && total <= kProgressFrom)) return;
    const auto now = Clock::now();
    if (m_shown && now < m_next && done != total) return;
    m_shown = true;
    m_next = now + kProgressPause;
    std::string line = std::string("\r") + what + " ";
    if (total == 0 || done > total) {
        line += std::to_string(done) + " bytes";
    } else {
        const uint64_t filled = done * kBarWidth / total;
        line += "[" + std::string(filled, '#') + std::string(kBarWidth - filled, '.') + "] " +
                std::to_string(done * 100 / total) + "%";
    }
    std::cerr << line << std::flush;
}

void Progress::end() {
    if (m_shown) std::cerr << "\n";
    m_shown = false;
}
