// What --timing prints.
#include <chrono>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "tool_support.h"
#include "tools/timing.h"

namespace h2test {
namespace {

using std::chrono::microseconds;

constexpr const char* kMs = " [0-9]+[.][0-9][0-9][0-9] ms";
constexpr const char* kBytes = ", [0-9]+ bytes/s";

// The line of an answer, after what it says of the connection.
std::string answerPattern() { return std::string(", first byte") + kMs + ", total" + kMs + kBytes; }

void expectLine(const std::string& line, const std::string& pattern) {
    EXPECT_THAT(line, testing::MatchesRegex("timing: " + pattern));
}

class H2requestTiming : public testing::TestWithParam<bool> {
protected:
    static std::vector<std::string> with(std::vector<std::string> options) {
        options.emplace_back("--timing");
        if (GetParam()) options.emplace_back("--blocking");
        return options;
    }
};

INSTANTIATE_TEST_SUITE_P(Way, H2requestTiming, testing::Bool(),
                         [](const auto& info) { return info.param ? "Blocking" : "Streaming"; });

TEST_P(H2requestTiming, IsALineOnStandardErrorForEachAnswer) {
    ScriptedServer server(answeringWith(200, "body"));
    const Ended ended = runTool(request(server, with({"--repeat", "2"})));
    EXPECT_EQ(ended.code, kAnswered);
    EXPECT_EQ(ended.output, "bodybody");
    const std::vector<std::string> lines = linesOf(ended.errors);
    ASSERT_EQ(lines.size(), 2u) << ended.errors;
    expectLine(lines[0], std::string("connect") + kMs + answerPattern());
    expectLine(lines[1], "connection reused" + answerPattern());
}

TEST_P(H2requestTiming, TellsTheHandshakeFromTheConnect) {
    ScriptedServer server(answeringWith(200, "body", {}, true));
    const Ended ended = runTool(request(server, with({"--tls"})));
    EXPECT_EQ(ended.output, "body");
    const std::vector<std::string> lines = linesOf(ended.errors);
    ASSERT_EQ(lines.size(), 1u) << ended.errors;
    expectLine(lines[0], std::string("connect") + kMs + ", TLS" + kMs + answerPattern());
}

TEST_P(H2requestTiming, FollowsTheMessageOfAFailure) {
    ScriptedServer server(
        answering([](uint32_t streamId, size_t) { return rstStream(streamId, 2); }));
    const Ended ended = runTool(request(server, with({})));
    expectComplaint(ended, kRequestFailed, "request failed");
    const std::vector<std::string> lines = linesOf(withoutLog(ended.errors));
    ASSERT_EQ(lines.size(), 2u) << ended.errors;
    expectLine(lines[1],
               std::string("connect") + kMs + ", first byte never, total" + kMs + ", 0 bytes/s");
}

TEST_P(H2requestTiming, HasTheConnectAloneWhenThatFails) {
    const RefusingPort port;
    const Ended ended = runTool(with({"127.0.0.1", std::to_string(port.port()), "/"}));
    const std::vector<std::string> lines = linesOf(ended.errors);
    ASSERT_EQ(lines.size(), 2u) << ended.errors;
    expectLine(lines[1], std::string("connect") + kMs);
}

TEST(ToolTiming, PrintsWhatItIsGiven) {
    Timing timing;
    timing.connect = ConnectTimes{microseconds(3000), microseconds(1001), microseconds(1999)};
    EXPECT_EQ(timingLine(timing), "timing: connect 1.001 ms, TLS 1.999 ms");
    timing.connect->tls.reset();
    EXPECT_EQ(timingLine(timing), "timing: connect 1.001 ms");
    timing.connect->tcp.reset();
    EXPECT_EQ(timingLine(timing), "timing: connect (with TLS, if any) 3.000 ms");
    timing.connect.reset();
    timing.answer = AnswerTimes{microseconds(20), microseconds(500000), 1000};
    EXPECT_EQ(timingLine(timing),
              "timing: connection reused, first byte 0.020 ms, total 500.000 ms, 2000 bytes/s");
}

TEST(ToolTiming, HasNoRateWithoutTime) {
    EXPECT_EQ((AnswerTimes{{}, microseconds(0), 1000}.bytesPerSecond()), 0u);
    EXPECT_EQ((AnswerTimes{{}, microseconds(3000000), 1000}.bytesPerSecond()), 333u);
}

}  // namespace
}  // namespace h2test
