#include "log_capture.h"

#include <atomic>
#include <mutex>

#include "CLogWrapper.h"

namespace h2test {

// What CLogWrapper works on. Never destroyed: the library may log while the process ends.
struct LogState {
    // Relaxed, and not under the lock: a lock taken before every statement of the library would
    // order its threads, and hide its data races from a race detector.
    std::atomic<int> level{40000};
    std::atomic<size_t> queries{0};

    std::mutex lock;  // guards what follows and the records of every LogCapture
    LogCapture* current = nullptr;

    static LogState& instance() {
        static auto* const state = new LogState;
        return *state;
    }

    int queryLevel() {
        queries.fetch_add(1, std::memory_order_relaxed);
        return level.load(std::memory_order_relaxed);
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
    m_formerLevel = state.level.exchange(level, std::memory_order_relaxed);
    m_queriesBefore = state.queries.load(std::memory_order_relaxed);
    state.current = this;
}

LogCapture::~LogCapture() {
    LogState& state = LogState::instance();
    const std::lock_guard<std::mutex> hold(state.lock);
    state.current = m_outer;
    state.level.store(m_formerLevel, std::memory_order_relaxed);
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
    return LogState::instance().queries.load(std::memory_order_relaxed) - m_queriesBefore;
}

void LogCapture::clear() {
    LogState& state = LogState::instance();
    const std::lock_guard<std::mutex> hold(state.lock);
    m_records.clear();
    m_queriesBefore = state.queries.load(std::memory_order_relaxed);
}

}  // namespace h2test

int CLogWrapper::GetLevel() { return h2test::LogState::instance().queryLevel(); }

void CLogWrapper::SetLevel(int level) {
    h2test::LogState::instance().level.store(level, std::memory_order_relaxed);
}

void CLogWrapper::Log(int level, const std::string& message, const char* file, const char* function,
                      int line) {
    h2test::LogState::instance().record(
        {level, message, file != nullptr ? file : "", function != nullptr ? function : "", line});
}
