// What h2request prints, and where.
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "tool_support.h"

namespace h2test {
namespace {

std::string contentOf(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// How a request is made: the same answers are expected of both.
class H2requestPrinting : public testing::TestWithParam<bool> {
protected:
    static std::vector<std::string> with(std::vector<std::string> options) {
        if (GetParam()) options.emplace_back("--blocking");
        return options;
    }
};

INSTANTIATE_TEST_SUITE_P(Way, H2requestPrinting, testing::Bool(),
                         [](const auto& info) { return info.param ? "Blocking" : "Streaming"; });

TEST_P(H2requestPrinting, BinaryBodiesUnchanged) {
    const std::string body = binaryBytes(100000);
    ScriptedServer server(answeringWith(200, body));
    expectAnswer(runTool(request(server, with({}))), body);
}

TEST_P(H2requestPrinting, OverTls) {
    const std::string body = binaryBytes(50000);
    ScriptedServer server(answeringWith(200, body, {}, true));
    expectAnswer(runTool(request(server, with({"--tls"}))), body);
}

TEST_P(H2requestPrinting, NothingForAnEmptyBody) {
    ScriptedServer server(answeringWith(200, ""));
    expectAnswer(runTool(request(server, with({}))), "");
}

TEST_P(H2requestPrinting, StatusAndHeadersBeforeTheBodyOnDemand) {
    ScriptedServer server(
        answeringWith(203, "body\n", field("x-b", "2") + field("server", "s") + field("x-a", "")));
    expectAnswer(runTool(request(server, with({"-i"}))),
                 "status: 203\nserver: s\nx-a: \nx-b: 2\n\nbody\n");
}

TEST_P(H2requestPrinting, EachAnswerOfARepeat) {
    ScriptedServer server(answering([](uint32_t streamId, size_t nth) {
        const std::string number = std::to_string(nth);
        return response(streamId, 200, "body" + number + "\n", field("x-nth", number));
    }));
    expectAnswer(runTool(request(server, with({"-i", "--repeat", "3"}))),
                 "status: 200\nx-nth: 1\n\nbody1\n"
                 "status: 200\nx-nth: 2\n\nbody2\n"
                 "status: 200\nx-nth: 3\n\nbody3\n");
    EXPECT_EQ(server.connections(), 1u);
}

TEST_P(H2requestPrinting, TheBodyIntoAFile) {
    const TempDir dir;
    const std::string body = binaryBytes(20000);
    // Longer than what comes: nothing of it may stay.
    const std::string file = dir.write("old", std::string(30000, 'x'));
    ScriptedServer server(answeringWith(200, body));
    expectAnswer(runTool(request(server, with({"-o", file}))), "");
    EXPECT_TRUE(contentOf(file) == body);
    expectAnswer(runTool(request(server, with({"-i", "-o", dir.path() + "/new"}))),
                 "status: 200\n\n");
    EXPECT_TRUE(contentOf(dir.path() + "/new") == body);
}

TEST_P(H2requestPrinting, AllBodiesOfARepeatIntoOneFile) {
    const TempDir dir;
    const std::string file = dir.path() + "/all";
    ScriptedServer server(answeringWith(200, "abc"));
    expectAnswer(runTool(request(server, with({"--repeat", "3", "-o", file}))), "");
    EXPECT_EQ(contentOf(file), "abcabcabc");
}

TEST_P(H2requestPrinting, AnEmptyBodyEmptiesTheFile) {
    const TempDir dir;
    const std::string file = dir.write("old", "old");
    ScriptedServer server(answeringWith(200, ""));
    expectAnswer(runTool(request(server, with({"-o", file}))), "");
    EXPECT_EQ(contentOf(file), "");
}

TEST_P(H2requestPrinting, LogAndConsoleLinesOnStandardErrorOnDemand) {
    ScriptedServer server(answeringWith(200, "body", field("x-a", "1")));
    const Ended ended = runTool(request(server, with({"-v"})));
    EXPECT_EQ(ended.code, kAnswered);
    EXPECT_EQ(ended.output, "body");
    // The library's console lines, whole, and a message of its log.
    const std::string lines = "\n" + ended.errors;
    EXPECT_TRUE(contains(lines, "\nselect\n")) << lines;
    EXPECT_TRUE(contains(lines, "\nx-a    1\n")) << lines;
    EXPECT_TRUE(contains(lines, "\nreceived a stream: id = 1 name = ")) << lines;
    EXPECT_TRUE(contains(lines, " INFO Sock_Linux.cpp:")) << lines;
}

// The headers that end an answer are known only to the callbacks, so this is the streaming way's;
// the blocking call has a test of its own.
TEST(H2requestPrinting, InterimAnswersAreNoAnswers) {
    ScriptedServer server(answering([](uint32_t streamId, size_t) {
        return headers(streamId, statusField(100)) +
               headers(streamId, statusField(103) + field("link", "l")) +
               response(streamId, 200, "final");
    }));
    const Ended ended = runTool(request(server, {"-i"}));
    // The library adds the headers of one block to those of the next.
    expectAnswer(ended, "status: 200\nlink: l\n\nfinal");
}

TEST(H2requestPrinting, TheBodyAsItArrives) {
    ScriptedServer server(silent());
    Process process(H2REQUEST_PROGRAM, request(server, {"-i"}));
    ASSERT_TRUE(server.waitFramesOf(0, kHeaders));
    server.send(0, headers(1, statusField(200)));
    ASSERT_TRUE(process.waitOutput("status: 200\n\n"));
    server.send(0, data(1, "a"));
    ASSERT_TRUE(process.waitOutput("\n\na"));
    server.send(0, data(1, "b"));
    ASSERT_TRUE(process.waitOutput("\n\nab"));
    server.send(0, data(1, "c", kEndStream));
    EXPECT_EQ(process.wait(), kAnswered);
    EXPECT_EQ(process.output(), "status: 200\n\nabc");
}

TEST(H2requestPrinting, BodiesOfManyMegabytesWhole) {
    const std::string body = binaryBytes(40000000);
    ScriptedServer server(answeringWith(200, body));
    expectAnswer(runTool(request(server)), body);
}

TEST(H2requestPrinting, BodiesOfAMebibyteThroughTheBlockingCall) {
    const std::string body = binaryBytes(1048576);
    ScriptedServer server(answeringWith(200, body));
    expectAnswer(runTool(request(server, {"--blocking"})), body);
}

// ---- the progress bar

Ended onTerminal(const std::vector<std::string>& arguments, std::string_view input = {}) {
    Streams streams;
    streams.terminalErrors = true;
    return runTool(arguments, input, streams);
}

TEST(H2requestProgress, ShowsALargeDownload) {
    const std::string body = binaryBytes(1500000);
    ScriptedServer server(answeringWith(200, body, field("content-length", "1500000")));
    const Ended ended = onTerminal(request(server));
    EXPECT_EQ(ended.code, kAnswered);
    EXPECT_TRUE(ended.output == body);
    EXPECT_TRUE(contains(ended.errors, "\rreceived [")) << ended.errors;
    // A terminal puts a carriage return before each line end.
    EXPECT_TRUE(ended.errors.ends_with("[" + std::string(40, '#') + "] 100%\r\n")) << ended.errors;
}

TEST(H2requestProgress, CountsWhatHasNoKnownSize) {
    ScriptedServer server(answeringWith(200, binaryBytes(1500000)));
    const Ended ended = onTerminal(request(server));
    EXPECT_EQ(ended.code, kAnswered);
    EXPECT_TRUE(contains(ended.errors, "\rreceived 1")) << ended.errors;
    EXPECT_TRUE(contains(ended.errors, " bytes")) << ended.errors;
    EXPECT_FALSE(contains(ended.errors, "%")) << ended.errors;
}

TEST_P(H2requestPrinting, AProgressBarForALargeUpload) {
    ScriptedServer server(answeringWith(200, "ok"));
    const Ended ended =
        onTerminal(request(server, with({"-X", "POST", "--data-file", "-"})), binaryBytes(1500000));
    EXPECT_EQ(ended.code, kAnswered);
    EXPECT_EQ(ended.output, "ok");
    EXPECT_TRUE(contains(ended.errors, "\rsent [")) << ended.errors;
    EXPECT_TRUE(ended.errors.ends_with("[" + std::string(40, '#') + "] 100%\r\n")) << ended.errors;
}

TEST(H2requestProgress, IsSilentForABodyOfOneMegabyte) {
    ScriptedServer server(
        answeringWith(200, binaryBytes(1000000), field("content-length", "1000000")));
    EXPECT_EQ(onTerminal(request(server)).errors, "");
}

TEST(H2requestProgress, IsSilentWhenStandardErrorIsNoTerminal) {
    ScriptedServer server(
        answeringWith(200, binaryBytes(1500000), field("content-length", "1500000")));
    EXPECT_EQ(runTool(request(server)).errors, "");
}

TEST(H2requestProgress, LeavesTheTerminalToTheLog) {
    ScriptedServer server(
        answeringWith(200, binaryBytes(1500000), field("content-length", "1500000")));
    const Ended ended = onTerminal(request(server, {"-v"}));
    EXPECT_EQ(ended.code, kAnswered);
    EXPECT_TRUE(contains(ended.errors, " INFO ")) << ended.errors;
    EXPECT_FALSE(contains(ended.errors, "received [")) << ended.errors;
}

}  // namespace
}  // namespace h2test
