#ifndef HTTP2CLIENT_TESTS_SUPPORT_LOG_CAPTURE_H
#define HTTP2CLIENT_TESTS_SUPPORT_LOG_CAPTURE_H

#include <cstddef>
#include <string>
#include <vector>

namespace h2test {

// One call of CLogWrapper::Log.
struct LogRecord {
    int level = 0;
    std::string message;
    std::string file;
    std::string function;
    int line = 0;
};

// Records the library's log as long as it lives, from any thread.
//
// log_capture.cpp defines CLogWrapper itself, so a program that links it must not link
// libCLogWrapper. Without a capture the level is 40000 and records are dropped. Captures nest: the
// inner one gets the records.
class LogCapture {
public:
    explicit LogCapture(int level = 20000);
    ~LogCapture();  // restores the level and the outer capture
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogRecord> records() const;
    std::vector<std::string> messages() const;
    // The messages of one level only.
    std::vector<std::string> messages(int level) const;
    // How often CLogWrapper::GetLevel was called since this capture began, inner ones included.
    size_t levelQueries() const;
    // Forgets the records so far and starts counting GetLevel calls anew.
    void clear();

private:
    friend struct LogState;

    LogCapture* m_outer;  // null for the outermost
    int m_formerLevel;
    size_t m_queriesBefore;            // the count of GetLevel calls when this one began
    std::vector<LogRecord> m_records;  // guarded by the one lock in the .cpp
};

}  // namespace h2test

#endif  // HTTP2CLIENT_TESTS_SUPPORT_LOG_CAPTURE_H
