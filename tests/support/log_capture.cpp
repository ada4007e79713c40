#include "log_capture.h"

#include <mutex>

#include "CLogWrapper.h"

namespace h2test {

// What CLogWrapper works on. Never destroyed: the library may log while the process ends.
struct LogState {
    std::mutex lock;  // guards all below and the fields of every LogCapture
    int level = 40000;
    LogCapture* current = nullptr;

    static LogState& instance() {
        static auto* const state = new LogState;
        return *state;
    }

    int queryLevel() {
        const std::lock_guard<std::mutex> hold(lock);
        if (current != nullptr) ++current->m_levelQueries;
        return level;
    }

    void record(LogRecord record) {
        const std::lock_guard<std::mutex> hold(lock);
        if (current != nullptr) current->m_records.push_back(std::move(record));
    }
};

LogCapture::LogCapture(int level) {
    LogState& state = LogState::instance();
    const std::lock_guard<std::mutex> hold(state.lock);
    m_outer = state.current;
    m_formerLevel = state.level;
    state.current = this;
    state.level = level;
}

LogCapture::~LogCapture() {
    LogState& state = LogState::instance();
    const std::lock_guard<std::mutex> hold(state.lock);
    state.current = m_outer;
    state.level = m_formerLevel;
}

std::vector<LogRecord> LogCapture::records() const {
    const std::lock_guard<std::mutex> hold(LogState::instance().lock);
    return m_records;
}

std::vector<std::string> LogCapture::messages() const {
    std::vector<std::string> out;
    for (const LogRecord& record : records()) out.push_back(record.message);
    return out;
}

std::vector<std::string> LogCapture::messages(int level) const {
    std::vector<std::string> out;
    for (const LogRecord& record : records()) {
        if (record.level == level) out.push_back(record.message);
    }
    return out;
}

size_t LogCapture::levelQueries() const {
    const std::lock_guard<std::mutex> hold(LogState::instance().lock);
    return m_levelQueries;
}

void LogCapture::clear() {
    const std::lock_guard<std::mutex> hold(LogState::instance().lock);
    m_records.clear();
    m_levelQueries = 0;
}

}  // namespace h2test

int CLogWrapper::GetLevel() { return h2test::LogState::instance().queryLevel(); }

void CLogWrapper::SetLevel(int level) {
    h2test::LogState& state = h2test::LogState::instance();
    const std::lock_guard<std::mutex> hold(state.lock);
    state.level = level;
}

void CLogWrapper::Log(int level, const std::string& message, const char* file,
                      const char* function, int line) {
    h2test::LogState::instance().record(
        {level, message, file != nullptr ? file : "", function != nullptr ? function : "", line});
}
