// Many requests over several connections, and the summary of them.
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "tool_support.h"
#include "tools/summary.h"

namespace h2test {
namespace {

using testing::MatchesRegex;

std::vector<std::string> parallel(const ScriptedServer& server, const std::string& repeat,
                                  const std::string& connections,
                                  std::vector<std::string> options = {}) {
    options.insert(options.end(), {"--repeat", repeat, "--parallel", connections});
    return request(server, options);
}

size_t requestsOf(ScriptedServer& server, size_t connection) {
    return server.frames(connection, kHeaders).size();
}

TEST(H2requestParallel, PrintsASummaryInPlaceOfTheAnswers) {
    ScriptedServer server(answeringWith(200, "0123456789", {}, true));
    const Ended ended = runTool(parallel(server, "40", "3", {"--tls", "-k"}));
    EXPECT_EQ(ended.code, kAnswered);
    EXPECT_EQ(ended.errors, "");
    EXPECT_EQ(server.connections(), 3u);
    EXPECT_EQ(requestsOf(server, 0) + requestsOf(server, 1) + requestsOf(server, 2), 40u);
    const std::vector<std::string> lines = linesOf(ended.output);
    ASSERT_GE(lines.size(), 8u) << ended.output;
    const std::string ms = "[0-9]+[.][0-9][0-9][0-9] ms";
    EXPECT_THAT(lines[0],
                MatchesRegex("requests  40 over 3 connections in [0-9]+[.][0-9][0-9][0-9] s"));
    EXPECT_THAT(lines[1],
                MatchesRegex("answered  40, [0-9]+[.][0-9] requests per second; status 200: 40"));
    EXPECT_EQ(lines[2], "failed    0");
    EXPECT_THAT(lines[3], MatchesRegex("received  400 bytes of bodies, [0-9]+ per second"));
    EXPECT_THAT(lines[4], MatchesRegex("times     p50 " + ms + ", p90 " + ms + ", p99 " + ms));
    EXPECT_THAT(lines[5], MatchesRegex("          fastest " + ms + ", slowest " + ms));
    EXPECT_EQ(lines[6], "");
    // The histogram has each answer once.
    size_t counted = 0;
    for (size_t i = 7; i < lines.size(); ++i) {
        EXPECT_THAT(lines[i], MatchesRegex(" *[0-9.]+ - +[0-9.]+ ms  #* * [0-9]+"));
        counted += std::stoul(lines[i].substr(lines[i].rfind(' ')));
    }
    EXPECT_EQ(counted, 40u);
}

TEST(H2requestParallel, AsksOnAllConnectionsAtOnce) {
    ScriptedServer server(silent());
    Process process(H2REQUEST_PROGRAM, parallel(server, "4", "4"));
    for (size_t i = 0; i < 4; ++i) ASSERT_TRUE(server.waitFramesOf(i, kHeaders)) << i;
    for (size_t i = 0; i < 4; ++i) server.send(i, response(1, 200, ""));
    EXPECT_TRUE(contains(process.wait().output, "status 200: 4\nfailed    0\n"));
    for (size_t i = 0; i < 4; ++i) EXPECT_EQ(requestsOf(server, i), 1u) << i;
}

TEST(H2requestParallel, SendsTheWholeBodyEachTime) {
    const std::string body = binaryBytes(40000);
    ScriptedServer server(answeringWith(200, ""));
    const Ended ended = runTool(parallel(server, "6", "2", {"--data-file", "-"}), body);
    EXPECT_EQ(ended.code, kAnswered) << ended.errors;
    std::map<std::pair<size_t, uint32_t>, std::string> sent;
    for (size_t i = 0; i < server.connections(); ++i) {
        for (const auto& frame : server.frames(i, kData))
            sent[{i, frame.streamId}] += frame.payload;
    }
    EXPECT_EQ(sent.size(), 6u);
    for (const auto& [stream, bytes] : sent) EXPECT_TRUE(bytes == body) << stream.second;
}

// The second request is reset, the fourth loses its connection; the rest are answered, those after
// a failure on new connections.
TEST(H2requestParallel, CountsFailuresByKindAndGoesOn) {
    std::atomic<ScriptedServer*> connected{nullptr};
    ServerOptions options = silent();
    options.responder = [&, nth = 0](size_t index, const WireFrame& frame) mutable {
        if (frame.type != kHeaders) return std::string();
        ++nth;
        if (nth == 2) return rstStream(frame.streamId, 2);
        if (nth == 4) connected.load()->close(index);
        return nth == 4 ? std::string() : response(frame.streamId, nth == 5 ? 404 : 200, "ok");
    };
    ScriptedServer server(options);
    connected = &server;
    const Ended ended = runTool(parallel(server, "7", "1"));
    EXPECT_EQ(ended.code, kRequestFailed);  // the first one
    EXPECT_EQ(ended.errors, "");
    EXPECT_THAT(ended.output, testing::StartsWith("requests  7 over 3 connections in "));
    EXPECT_THAT(ended.output,
                testing::HasSubstr("; status 200: 4, status 404: 1\n"
                                   "failed    2; request failed: 1, connection lost: 1\n"
                                   "received  10 bytes of bodies"));
    const size_t requests[] = {2, 2, 3};
    for (size_t i = 0; i < 3; ++i) EXPECT_EQ(requestsOf(server, i), requests[i]) << i;
}

TEST(H2requestParallel, CountsTimeOutsAndTellsErrorStatusesByItsCode) {
    ScriptedServer server(answering([](uint32_t streamId, size_t nth) {
        return nth == 4 ? std::string() : response(streamId, nth == 2 ? 500 : 200, "");
    }));
    const Ended three = runTool(parallel(server, "3", "1"));
    EXPECT_EQ(three.code, kErrorStatus);
    EXPECT_TRUE(contains(three.output, "; status 200: 2, status 500: 1\nfailed    0\n"));
    const Ended two = runTool(parallel(server, "2", "1", {"--timeout", "3000"}));
    EXPECT_EQ(two.code, kTimedOut);
    EXPECT_TRUE(contains(two.output, "; status 200: 1\nfailed    1; timed out: 1\n"));
}

TEST(H2requestParallel, EndsWhenThereIsNobodyToConnectTo) {
    const RefusingPort port;
    const Ended ended = runTool(
        {"--repeat", "5", "--parallel", "2", "127.0.0.1", std::to_string(port.port()), "/"});
    expectComplaint(ended, kCannotConnect, "nobody listens there; start the server");
    EXPECT_EQ(linesOf(ended.errors).size(), 1u) << ended.errors;
    EXPECT_EQ(ended.output, "");
}

TEST(H2requestParallel, PrintsEachAnswerAsJsonAndTheSummaryBeside) {
    ScriptedServer server(answering([](uint32_t streamId, size_t nth) {
        return nth == 3 ? rstStream(streamId, 2) : response(streamId, 200, "body");
    }));
    const Ended ended = runTool(parallel(server, "10", "2", {"--json"}));
    EXPECT_EQ(ended.code, kRequestFailed);
    std::set<int> numbers;
    size_t failures = 0;
    for (const std::string& line : linesOf(ended.output)) {
        const auto object = nlohmann::json::parse(line);
        numbers.insert(object.at("request").get<int>());
        if (object.at("error").is_null()) {
            EXPECT_EQ(object.at("body"), "body");
        } else {
            EXPECT_EQ(object.at("error").at("kind"), "request failed");
            ++failures;
        }
    }
    EXPECT_EQ(numbers, (std::set<int>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
    EXPECT_EQ(linesOf(ended.output).size(), 10u);
    EXPECT_EQ(failures, 1u);
    EXPECT_TRUE(ended.errors.starts_with("requests  10 over 3 connections")) << ended.errors;
    EXPECT_TRUE(contains(ended.errors, "\nfailed    1; request failed: 1\n")) << ended.errors;
}

TEST(H2requestParallel, IsCancelledByAnInterrupt) {
    ScriptedServer server(silent());
    Process process(H2REQUEST_PROGRAM, parallel(server, "100", "2"));
    for (size_t i = 0; i < 2; ++i) ASSERT_TRUE(server.waitFramesOf(i, kHeaders)) << i;
    server.send(0, response(1, 200, "one"));
    ASSERT_TRUE(server.waitFramesOf(0, kHeaders, 2));
    process.signal(SIGINT);
    const Ended ended = process.wait();
    EXPECT_EQ(ended.code, kInterrupted);
    EXPECT_EQ(ended.errors, "h2request: interrupted\n");
    EXPECT_TRUE(contains(ended.output, "requests  3 over 2 connections")) << ended.output;
    EXPECT_TRUE(contains(ended.output, "\nfailed    2; interrupted: 2\n")) << ended.output;
    for (size_t i = 0; i < 2; ++i) EXPECT_TRUE(server.waitClosedByPeer(i));
}

// The library reads without a pause then, and lets nobody else near a connection.
TEST(H2requestParallel, TimesOutAndIsInterruptedInAFlood) {
    for (const std::string& frames : {ping(1), headers(1, statusField(103))}) {
        for (const bool interrupt : {false, true}) {
            ScriptedServer server(silent());
            const Flood flood(server, frames, 2);
            const auto start = std::chrono::steady_clock::now();
            Process process(H2REQUEST_PROGRAM, parallel(server, "3", "2", {"--timeout", "1000"}));
            if (interrupt) {
                EXPECT_TRUE(flood.waitRunning());
                process.signal(SIGINT);
            }
            const Ended ended = process.wait();
            EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(8));
            EXPECT_EQ(ended.code, interrupt ? kInterrupted : kTimedOut) << ended.errors;
            EXPECT_TRUE(contains(ended.output, "answered  0")) << ended.output;
            EXPECT_TRUE(contains(ended.output, interrupt ? "interrupted: 2" : "timed out: "))
                << ended.output;
        }
    }
}

TEST(H2requestParallel, EndsWhenAConnectHangs) {
    ScriptedServer server;  // accepts, and never answers the TLS handshake
    const Ended ended =
        runTool(parallel(server, "3", "2", {"--tls", "-k", "--timeout", "300", "--json"}));
    expectComplaint(ended, kTimedOut, "no connection or complete answer within 300 ms");
    EXPECT_EQ(ended.output, "");
}

TEST(H2requestParallel, ComplainsOfABrokenOutput) {
    ScriptedServer server(answeringWith(200, "body"));
    Streams streams;
    streams.outputFile = "/dev/full";
    expectComplaint(runTool(parallel(server, "4", "2"), {}, streams), kUsage,
                    "to standard output: No space left on device");
    const Ended json = runTool(parallel(server, "4", "2", {"--json"}), {}, streams);
    expectComplaint(json, kUsage, "to standard output: No space left on device");
    EXPECT_EQ(linesOf(json.errors).size(), 1u) << json.errors;
}

// ---- the figures

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::seconds;

// The nearest rank: the first value that has the share at or below it.
TEST(ToolSummary, FindsPercentiles) {
    const std::map<int, std::vector<int>> expected = {
        {1, {1, 1, 1}}, {2, {1, 2, 2}}, {10, {5, 9, 10}}, {100, {50, 90, 99}}, {101, {51, 91, 100}},
    };
    for (const auto& [count, ranks] : expected) {
        std::vector<Duration> sorted;
        for (int i = 1; i <= count; ++i) sorted.push_back(milliseconds(i));
        EXPECT_EQ(percentile(sorted, 0), milliseconds(1)) << count;
        EXPECT_EQ(percentile(sorted, 50), milliseconds(ranks[0])) << count;
        EXPECT_EQ(percentile(sorted, 90), milliseconds(ranks[1])) << count;
        EXPECT_EQ(percentile(sorted, 99), milliseconds(ranks[2])) << count;
        EXPECT_EQ(percentile(sorted, 100), milliseconds(count)) << count;
    }
}

Outcome answered(int status, Duration total, uint64_t size) {
    Outcome outcome;
    outcome.status = status;
    outcome.timing.answer = AnswerTimes{total, total, size};
    return outcome;
}

// Neither descriptor is a terminal, so nothing is painted.
Style plain() { return Style(-1); }

TEST(ToolSummary, PrintsWhatItWasGiven) {
    Summary summary;
    summary.addConnection();
    for (int i = 0; i < 3; ++i) summary.add(answered(200, microseconds(1500), 100));
    summary.add(answered(503, microseconds(20), 50));
    summary.add(answered(200, microseconds(10), 0));
    Outcome lost;
    lost.code = EXIT_CONNECTION_LOST;
    lost.timing.answer = AnswerTimes{{}, seconds(9), 7};
    summary.add(lost);
    const std::string bar40(40, '#');
    const std::string bar14 = std::string(14, '#') + std::string(26, ' ');
    const std::string none(40, ' ');
    EXPECT_EQ(summary.text(seconds(2), plain()),
              "requests  6 over 1 connection in 2.000 s\n"
              "answered  5, 2.5 requests per second; status 200: 4, status 503: 1\n"
              "failed    1; connection lost: 1\n"
              "received  357 bytes of bodies, 178 per second\n"
              "times     p50 1.500 ms, p90 1.500 ms, p99 1.500 ms\n"
              "          fastest 0.010 ms, slowest 1.500 ms\n"
              "\n"
              "    0.005 -      0.01 ms  " +
                  bar14 + " 1\n" + "     0.01 -      0.02 ms  " + bar14 + " 1\n" +
                  "     0.02 -      0.05 ms  " + none + " 0\n" + "     0.05 -       0.1 ms  " +
                  none + " 0\n" + "      0.1 -       0.2 ms  " + none + " 0\n" +
                  "      0.2 -       0.5 ms  " + none + " 0\n" + "      0.5 -         1 ms  " +
                  none + " 0\n" + "        1 -         2 ms  " + bar40 + " 3\n");
}

TEST(ToolSummary, HasNoTimesWithoutAnswers) {
    Summary summary;
    EXPECT_EQ(summary.text(seconds(0), plain()),
              "requests  0 over 0 connections in 0.000 s\n"
              "answered  0, 0.0 requests per second\n"
              "failed    0\n"
              "received  0 bytes of bodies, 0 per second\n");
}

}  // namespace
}  // namespace h2test
