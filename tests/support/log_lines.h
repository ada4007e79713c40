#ifndef HTTP2CLIENT_TESTS_SUPPORT_LOG_LINES_H
#define HTTP2CLIENT_TESTS_SUPPORT_LOG_LINES_H

#include <string>
#include <vector>

#include "log_capture.h"

namespace h2test {

// What was logged, a string a record: "20000 HttpIO.cpp: text".
inline std::vector<std::string> logLines(const LogCapture& log) {
    std::vector<std::string> lines;
    for (const LogRecord& record : log.records()) {
        lines.push_back(std::to_string(record.level) + " " + record.file + ": " + record.message);
    }
    return lines;
}

// The name of the function that logged the text first, with its namespace and arguments; empty
// if none did.
inline std::string functionThatLogged(const LogCapture& log, const std::string& message) {
    for (const LogRecord& record : log.records()) {
        if (record.message == message) return record.line > 0 ? record.function : "";
    }
    return "";
}

}  // namespace h2test

#endif  // HTTP2CLIENT_TESTS_SUPPORT_LOG_LINES_H
