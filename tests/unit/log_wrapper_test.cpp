// The log library, linked as an application links it.

#include "CLogWrapper/CLogWrapper.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/threads.h"

namespace {

using ::testing::MatchesRegex;

constexpr int kInfo = 20000;
constexpr int kError = 40000;

// Taken before main, and so before any test has set a level.
const int kLevelAtStart = CLogWrapper::GetLevel();

const char kDate[] = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} ";

// Turns file descriptor 2 into a temporary file, from construction to text().
class StderrCapture {
public:
    StderrCapture() : m_file(tmpfile()), m_saved(dup(STDERR_FILENO)) {
        dup2(fileno(m_file), STDERR_FILENO);
    }
    ~StderrCapture() {
        restore();
        fclose(m_file);
    }
    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;

    // Everything written so far; ends the capture.
    std::string text() {
        restore();
        std::string result;
        rewind(m_file);
        char block[4096];
        for (size_t n = 0; (n = fread(block, 1, sizeof block, m_file)) > 0;) {
            result.append(block, n);
        }
        return result;
    }

private:
    void restore() {
        if (m_saved < 0) return;
        dup2(m_saved, STDERR_FILENO);
        close(m_saved);
        m_saved = -1;
    }

    FILE* m_file;
    int m_saved;
};

class LogWrapper : public ::testing::Test {
protected:
    void SetUp() override { CLogWrapper::SetLevel(kError); }
    void TearDown() override { CLogWrapper::SetLevel(kError); }
};

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    for (size_t at = 0; at < text.size();) {
        const size_t end = text.find('\n', at);
        if (end == std::string::npos) {
            lines.push_back(text.substr(at) + "<no line end>");
            break;
        }
        lines.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    return lines;
}

TEST_F(LogWrapper, StartsAtLevelError) { EXPECT_EQ(kLevelAtStart, 40000); }

TEST_F(LogWrapper, WritesOneLineWithTimeLevelFileLineFunctionAndMessage) {
    StderrCapture capture;
    CLogWrapper::Log(kError, "cannot connect: 100% of 3", "Http2.cpp", "void tiny::f(int)", 42);
    EXPECT_THAT(capture.text(),
                MatchesRegex(std::string(kDate) + "ERROR Http2\\.cpp:42 void tiny::f\\(int\\): "
                                                  "cannot connect: 100% of 3\n"));
}

TEST_F(LogWrapper, WritesTheThresholdAndAboveAndNothingBelow) {
    StderrCapture capture;
    CLogWrapper::Log(kInfo, "unseen", "a.cpp", "f", 1);
    CLogWrapper::Log(kError - 1, "unseen", "a.cpp", "f", 2);
    CLogWrapper::Log(kError, "third", "a.cpp", "f", 3);
    CLogWrapper::Log(50000, "fourth", "a.cpp", "f", 4);
    CLogWrapper::SetLevel(kInfo);
    EXPECT_EQ(CLogWrapper::GetLevel(), kInfo);
    CLogWrapper::Log(kInfo - 1, "unseen", "a.cpp", "f", 5);
    CLogWrapper::Log(kInfo, "sixth", "a.cpp", "f", 6);
    CLogWrapper::SetLevel(50001);
    CLogWrapper::Log(50000, "unseen", "a.cpp", "f", 7);

    const std::vector<std::string> lines = linesOf(capture.text());
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_THAT(lines[0], MatchesRegex(std::string(kDate) + "ERROR a\\.cpp:3 f: third"));
    EXPECT_THAT(lines[1], MatchesRegex(std::string(kDate) + "FATAL a\\.cpp:4 f: fourth"));
    EXPECT_THAT(lines[2], MatchesRegex(std::string(kDate) + "INFO a\\.cpp:6 f: sixth"));
}

TEST_F(LogWrapper, WritesAnyTextsAsOneLine) {
    StderrCapture capture;
    CLogWrapper::Log(kError, std::string("a\r\nb\tc\0d\x1b[1m\x7f \xc3\xa9 \xc2\x9b \x9b", 21),
                     "f\n.cpp", "g\n", 1);
    CLogWrapper::Log(kError, "text", nullptr, nullptr, 7);
    CLogWrapper::Log(kError, "", "/src/Http2Client/HttpIO.cpp", "f", 1);  // its base name only
    const std::vector<std::string> lines = linesOf(capture.text());
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_THAT(
        lines[0],
        MatchesRegex(std::string(kDate) +
                     "ERROR f\\\\n\\.cpp:1 g\\\\n: "
                     "a\\\\r\\\\nb\\\\tc\\\\x00d\\\\x1b\\[1m\\\\x7f \xc3\xa9 \xc2\\\\x9b \\\\x9b"));
    EXPECT_THAT(lines[1], MatchesRegex(std::string(kDate) + "ERROR \\?:7 \\?: text"));
    EXPECT_THAT(lines[2], MatchesRegex(std::string(kDate) + "ERROR HttpIO\\.cpp:1 f: "));
}

TEST_F(LogWrapper, LeavesErrnoAlone) {
    StderrCapture capture;
    close(STDERR_FILENO);  // the write fails, too
    errno = ECONNREFUSED;
    CLogWrapper::Log(kError, "text", "a.cpp", "f", 1);
    EXPECT_EQ(errno, ECONNREFUSED);
}

TEST_F(LogWrapper, WaitsForRoomOnANonBlockingStderr) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
    const int saved = dup(STDERR_FILENO);
    dup2(ends[1], STDERR_FILENO);
    const std::string message(1 << 20, 'x');  // far more than a pipe holds
    std::thread writer([&] { CLogWrapper::Log(kError, message, "a.cpp", "f", 1); });
    std::string text;
    char block[65536];
    while (text.empty() || text.back() != '\n') {
        pollfd ready{ends[0], POLLIN, 0};
        if (poll(&ready, 1, 10000) != 1) break;
        const ssize_t n = read(ends[0], block, sizeof block);
        if (n > 0) text.append(block, static_cast<size_t>(n));
    }
    dup2(saved, STDERR_FILENO);
    close(saved);
    close(ends[1]);
    close(ends[0]);  // a write that still waits fails now
    writer.join();
    // The date has 24 bytes. (No matcher: it would print the megabyte.)
    const std::string rest = "ERROR a.cpp:1 f: " + message + "\n";
    ASSERT_EQ(text.size(), 24 + rest.size());
    EXPECT_TRUE(text.substr(24) == rest);
}

TEST_F(LogWrapper, WritesWholeLinesFromManyThreads) {
    constexpr int kThreads = 8;
    constexpr int kMessages = 200;
    const std::string filler(300, '.');
    StderrCapture capture;
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &filler] {
            for (int i = 0; i < kMessages; ++i) {
                CLogWrapper::SetLevel(kInfo + t);  // changes meanwhile, never above ERROR
                const std::string id = std::to_string(t) + "/" + std::to_string(i);
                CLogWrapper::Log(kError, id + filler + id, "a.cpp", "f", i);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();

    const std::vector<std::string> lines = linesOf(capture.text());
    EXPECT_EQ(lines.size(), static_cast<size_t>(kThreads * kMessages));
    std::set<std::string> seen;
    for (const std::string& line : lines) {
        const size_t at = line.find(": ", 24);
        ASSERT_NE(at, std::string::npos) << line;
        seen.insert(line.substr(at + 2));
    }
    for (int t = 0; t < kThreads; ++t) {
        for (int i = 0; i < kMessages; ++i) {
            const std::string id = std::to_string(t) + "/" + std::to_string(i);
            EXPECT_EQ(seen.count(id + filler + id), 1u) << id;
        }
    }
}

TEST_F(LogWrapper, KeepsNoBackgroundThread) {
#if defined(__SANITIZE_THREAD__)
    constexpr size_t kExpected = 2;  // the sanitizer has one of its own
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
    constexpr size_t kExpected = 2;
#else
    constexpr size_t kExpected = 1;
#endif
#else
    constexpr size_t kExpected = 1;
#endif
    // A thread that has been joined may be listed for a moment longer.
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (h2test::threadsOfThisProcess() != kExpected &&
           std::chrono::steady_clock::now() < limit) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(h2test::threadsOfThisProcess(), kExpected);
}

TEST_F(LogWrapper, LetsAForkedChildLogAndExit) {
    StderrCapture capture;
    const pid_t child = fork();
    if (child == 0) {
        CLogWrapper::Log(kError, "from the child", "a.cpp", "f", 1);
        exit(7);  // runs the static destructors, unlike _exit
    }
    ASSERT_GT(child, 0);
    // If the child hangs, the test reaches its time limit.
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 7);
    EXPECT_THAT(capture.text(),
                MatchesRegex(std::string(kDate) + "ERROR a\\.cpp:1 f: from the child\n"));
}

// Logs when the program's static objects are destroyed.
struct LogsAtExit {
    bool armed = false;
    ~LogsAtExit() {
        if (armed) CLogWrapper::Log(kError, "from a destructor", "a.cpp", "f", 1);
    }
} g_logsAtExit;

TEST_F(LogWrapper, WritesNothingOfItsOwnFromLoadToUnload) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto run = [] {
        g_logsAtExit.armed = true;
        exit(CLogWrapper::GetLevel() == kError ? 0 : 1);
    };
    // The process writes only this line.
    EXPECT_EXIT(run(), ::testing::ExitedWithCode(0),
                MatchesRegex(std::string(kDate) + "ERROR a\\.cpp:1 f: from a destructor\n"));
}

}  // namespace
