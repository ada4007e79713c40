#include "CLogWrapper.h"

#include <errno.h>
#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <memory>
#include <new>
#include <utility>

#include <log4cplus/appender.h>
#include <log4cplus/config.hxx>
#include <log4cplus/helpers/loglog.h>
#include <log4cplus/hierarchy.h>
#include <log4cplus/layout.h>
#include <log4cplus/logger.h>
#include <log4cplus/loglevel.h>
#include <log4cplus/spi/loggingevent.h>

namespace log4cplus {

// Exported by log4cplus 2.0.5 and later, though no header of it declares it. Weak: null elsewhere.
__attribute__((weak)) void shutdownThreadPool();

}  // namespace log4cplus

namespace {

// Initialised at compile time, so that it is right before this library's constructors have run.
std::atomic<int> g_level{40000};
static_assert(log4cplus::INFO_LOG_LEVEL == 20000 && log4cplus::ERROR_LOG_LEVEL == 40000,
              "log4cplus counts its levels as the callers of CLogWrapper do");

// Writes all of `line` to standard error. What cannot be written is dropped: a log has nowhere to
// report its own failure.
void writeToStderr(const std::string& line) {
    size_t done = 0;
    while (done < line.size()) {
        const ssize_t n = write(STDERR_FILENO, line.data() + done, line.size() - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
        } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            pollfd ready{STDERR_FILENO, POLLOUT, 0};
            if (poll(&ready, 1, -1) < 0 && errno != EINTR) return;
        } else if (n == 0 || errno != EINTR) {
            return;
        }
    }
}

// Whether a terminal may take `byte` for a control character: those of ASCII, and U+0080 to U+009F,
// in UTF-8 or as a byte of its own.
bool isControl(unsigned char previous, unsigned char byte) {
    if (byte < 0x80) return byte < 0x20 || byte == 0x7f;
    return byte < 0xa0 && (previous < 0x80 || previous == 0xc2);
}

// Returns `text` with its control bytes made visible, so that it stays on one line.
std::string oneLine(const std::string& text) {
    std::string result;
    result.reserve(text.size());
    unsigned char previous = 0;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (!isControl(std::exchange(previous, byte), byte)) {
            result += c;
        } else if (c == '\n') {
            result += "\\n";
        } else if (c == '\r') {
            result += "\\r";
        } else if (c == '\t') {
            result += "\\t";
        } else {
            constexpr std::array<char, 17> digits{"0123456789abcdef"};
            result += "\\x";
            result += digits[byte >> 4];
            result += digits[byte & 15];
        }
    }
    return result;
}

std::string orQuestionMark(const char* text) {
    return text != nullptr ? oneLine(text) : std::string("?");
}

// One write a line, straight to the descriptor: lines of several threads and processes do not
// mix, and the application's std::cerr keeps its state.
class StderrAppender : public log4cplus::Appender {
public:
    ~StderrAppender() override { destructorImpl(); }
    StderrAppender() = default;
    StderrAppender(const StderrAppender&) = delete;
    StderrAppender& operator=(const StderrAppender&) = delete;

    void close() override { closed = true; }

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override {
        writeToStderr(formatEvent(event));
    }
};

// A hierarchy of our own: whatever the application does with log4cplus's global one, neither sees
// the other's loggers, appenders or configuration.
class Backend {
public:
    Backend() : m_root(m_hierarchy.getRoot()) {
        m_root.setLogLevel(log4cplus::ALL_LOG_LEVEL);
        log4cplus::SharedAppenderPtr appender(new StderrAppender);
        appender->setLayout(std::make_unique<log4cplus::PatternLayout>(
            LOG4CPLUS_TEXT("%D{%Y-%m-%d %H:%M:%S.%q} %p %b:%L %M: %m%n")));
        m_root.addAppender(appender);
    }

    void log(int level, const std::string& message, const std::string& file,
             const std::string& function, int line) {
        m_root.forcedLog(level, message, file.c_str(), line, function.c_str());
    }

private:
    log4cplus::Hierarchy m_hierarchy;
    log4cplus::Logger m_root;
};

// log4cplus starts four threads for asynchronous appenders when it is loaded. There is none here,
// and the threads do harm: a child that the application forks lacks them, and waits for them for
// ever when it exits. Without the way to end them all, one is the fewest it can be brought to.
void endThreadPool() {
    if (log4cplus::shutdownThreadPool != nullptr) {
        log4cplus::shutdownThreadPool();
    } else {
        log4cplus::setThreadPoolSize(1);
    }
}

// The backend while log4cplus can be used: from this library's constructors to its destructors.
std::atomic<Backend*> g_backend{nullptr};

// Opens and closes that span. log4cplus's own constructors have run before, and its destructors
// run after, since this library depends on it.
class BackendSpan {
public:
    BackendSpan() {
        try {
            endThreadPool();
            log4cplus::helpers::LogLog::getLogLog()->setQuietMode(true);
            g_backend.store(new (m_memory.data()) Backend, std::memory_order_release);
        } catch (...) {
            // Log does without.
        }
    }

    // The backend itself is never destroyed: another thread may be in it at this moment.
    ~BackendSpan() { g_backend.store(nullptr, std::memory_order_release); }

    BackendSpan(const BackendSpan&) = delete;
    BackendSpan& operator=(const BackendSpan&) = delete;

private:
    alignas(Backend) std::array<unsigned char, sizeof(Backend)> m_memory;
};

BackendSpan g_backendSpan;

// Before and after the backend's time: the same line, put together by hand.
void logWithoutBackend(int level, const std::string& message, const std::string& file,
                       const std::string& function, int line) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm parts{};
    localtime_r(&now.tv_sec, &parts);
    std::array<char, 64> date{};
    strftime(date.data(), date.size(), "%Y-%m-%d %H:%M:%S", &parts);
    std::array<char, 8> millis{};
    snprintf(millis.data(), millis.size(), ".%03d", static_cast<int>(now.tv_nsec / 1000000));

    const char* name = "UNKNOWN";
    switch (level) {
        case log4cplus::TRACE_LOG_LEVEL: name = "TRACE"; break;
        case log4cplus::DEBUG_LOG_LEVEL: name = "DEBUG"; break;
        case log4cplus::INFO_LOG_LEVEL: name = "INFO"; break;
        case log4cplus::WARN_LOG_LEVEL: name = "WARN"; break;
        case log4cplus::ERROR_LOG_LEVEL: name = "ERROR"; break;
        case log4cplus::FATAL_LOG_LEVEL: name = "FATAL"; break;
        default: break;
    }
    const size_t slash = file.rfind('/');
    std::string text(date.data());
    text += millis.data();
    text.append(" ").append(name).append(" ");
    text += slash == std::string::npos ? file : file.substr(slash + 1);
    text.append(":").append(std::to_string(line)).append(" ").append(function);
    text.append(": ").append(message).append("\n");
    writeToStderr(text);
}

}  // namespace

int CLogWrapper::GetLevel() { return g_level.load(std::memory_order_relaxed); }

void CLogWrapper::SetLevel(int level) { g_level.store(level, std::memory_order_relaxed); }

void CLogWrapper::Log(int level, const std::string& message, const char* file, const char* function,
                      int line) {
    if (level < GetLevel()) return;
    const int savedErrno = errno;
    try {
        const std::string text = oneLine(message);
        const std::string place = orQuestionMark(file);
        const std::string signature = orQuestionMark(function);
        Backend* backend = g_backend.load(std::memory_order_acquire);
        if (backend != nullptr) {
            backend->log(level, text, place, signature, line);
        } else {
            logWithoutBackend(level, text, place, signature, line);
        }
    } catch (...) {
        // Out of memory: the message is lost, the application goes on.
    }
    errno = savedErrno;
}
