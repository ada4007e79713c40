// What h2request prints, and where: answers, files, times, bars.
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "tool_support.h"
#include "tools/text.h"
#include "tools/timing.h"

namespace h2test {
namespace {

using testing::MatchesRegex;
using namespace std::string_literals;

class H2requestPrinting : public BothWays {};
H2TEST_BOTH_WAYS(H2requestPrinting);

TEST_P(H2requestPrinting, BodiesUnchanged) {
    for (const std::string& body : {""s, binaryBytes(100000), "\x1b[31m\xc2\x9b"s}) {
        ScriptedServer server(answeringWith(200, body));
        expectAnswer(runTool(request(server, with())), body);
    }
}

TEST_P(H2requestPrinting, OverTls) {
    const std::string body = binaryBytes(50000);
    ScriptedServer server(answeringWith(200, body, {}, true));
    expectAnswer(runTool(request(server, with({"--tls", "-k"}))), body);
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

// The headers that end an answer are known only to the callbacks, so this is the streaming way's.
TEST(H2requestPrinting, InterimAnswersAreNoAnswers) {
    ScriptedServer server(answering([](uint32_t streamId, size_t) {
        return headers(streamId, statusField(100)) +
               headers(streamId, statusField(103) + field("link", "l")) +
               response(streamId, 200, "final");
    }));
    // The library adds the headers of one block to those of the next.
    expectAnswer(runTool(request(server, {"-i"})), "status: 200\nlink: l\n\nfinal");
}

TEST(H2requestPrinting, TheBodyAsItArrives) {
    ScriptedServer server(silent());
    Process process(H2REQUEST_PROGRAM, request(server, {"-i"}));
    ASSERT_TRUE(server.waitFramesOf(0, kHeaders));
    server.send(0, headers(1, statusField(200)));
    ASSERT_TRUE(process.waitOutput("status: 200\n\n"));
    server.send(0, data(1, "a"));
    ASSERT_TRUE(process.waitOutput("\n\na"));
    server.send(0, data(1, "b", kEndStream));
    expectAnswer(process.wait(), "status: 200\n\nab");
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

// ---- files

// A longer file, an empty body, a new file, and two dashes of another meaning.
TEST_P(H2requestPrinting, TheBodyIntoAFile) {
    const TempDir dir;
    const std::string old = dir.write("old", std::string(30000, 'x'));
    for (const std::string& body : {binaryBytes(20000), ""s}) {
        for (const std::string& file : {old, dir.path() + "/new"}) {
            ScriptedServer server(answeringWith(200, body));
            expectAnswer(runTool(request(server, with({"-i", "-o", file}))), "status: 200\n\n");
            EXPECT_TRUE(contentOf(file) == body) << file;
        }
    }
    ScriptedServer server(answeringWith(200, "abc"));
    expectAnswer(runTool(request(server, with({"--repeat", "3", "-o", old}))), "");
    EXPECT_EQ(contentOf(old), "abcabcabc");
    expectAnswer(runTool(request(server, with({"-o", "-"}))), "abc");
    EXPECT_EQ(filesIn(dir), (std::set<std::string>{"new", "old"}));
}

TEST(H2requestPrinting, AFileKeepsItsModeAndItsLink) {
    const TempDir dir;
    const std::string file = dir.write("file", "old");
    std::filesystem::permissions(file, std::filesystem::perms(0640));
    std::filesystem::create_symlink("file", dir.path() + "/link");
    ScriptedServer server(answeringWith(404, "not found"));
    EXPECT_EQ(runTool(request(server, {"-o", dir.path() + "/link"})).code, kErrorStatus);
    EXPECT_EQ(contentOf(file), "not found");
    EXPECT_EQ(std::filesystem::status(file).permissions(), std::filesystem::perms(0640));
    EXPECT_TRUE(std::filesystem::is_symlink(dir.path() + "/link"));
}

TEST_P(H2requestPrinting, NoPartOfABodyIntoAFile) {
    const TempDir dir;
    const std::string file = dir.write("old", "old content");
    for (const std::string& name : {file, dir.path() + "/new"}) {
        for (const bool interrupted : {false, true}) {
            ScriptedServer server(silent());
            Process process(H2REQUEST_PROGRAM, request(server, with({"-i", "-o", name})));
            ASSERT_TRUE(server.waitFramesOf(0, kHeaders));
            server.send(0, headers(1, statusField(200)) + data(1, "part"));
            if (GetParam() == "Streaming") {
                ASSERT_TRUE(process.waitOutput("200"));
            }
            if (interrupted) {
                process.signal(SIGINT);
            } else {
                server.close(0);
            }
            EXPECT_EQ(process.wait().code, interrupted ? kInterrupted : kConnectionLost);
            EXPECT_EQ(contentOf(file), "old content");
            EXPECT_EQ(filesIn(dir), std::set<std::string>{"old"});
        }
    }
}

// ---- what a terminal would obey

constexpr std::string_view kHostile = "a\x1b[31m\r\nx: y\x7f\xc2\x9b\x9b\t\xc3\xa4";
constexpr std::string_view kEscaped = "a\\x1b[31m\\r\\nx: y\\x7f\\xc2\\x9b\\x9b\\t\xc3\xa4";

TEST_P(H2requestPrinting, ControlCharactersOfHeadersEscaped) {
    ScriptedServer server(answeringWith(200, "", field("x-a", kHostile)));
    expectAnswer(runTool(request(server, with({"-i"}))),
                 "status: 200\nx-a: " + std::string(kEscaped) + "\n\n");
}

TEST_P(H2requestPrinting, LogAndConsoleLinesOnStandardErrorOnDemand) {
    ScriptedServer server(answeringWith(200, "body", field("x-a", kHostile)));
    const Ended ended = runTool(request(server, with({"-v"})));
    EXPECT_EQ(ended.code, kAnswered);
    EXPECT_EQ(ended.output, "body");
    // The library's console lines, whole, and a message of its log.
    const std::string lines = "\n" + ended.errors;
    EXPECT_TRUE(contains(lines, "\nselect\n")) << lines;
    EXPECT_TRUE(contains(lines, "\nx-a    " + std::string(kEscaped) + "\n")) << lines;
    EXPECT_TRUE(contains(lines, "\nreceived a stream: id = 1 name = ")) << lines;
    EXPECT_TRUE(contains(lines, " INFO Sock_Linux.cpp:")) << lines;
}

TEST_P(H2requestPrinting, BodiesOnATerminalEscapedAndBinaryOnesNot) {
    Streams streams;
    streams.terminalOutput = true;
    ScriptedServer text(answeringWith(200, "a\x1b[31m\tb\r\nc\rd\x9b\xc3\xa4\n\xc3"));
    // A terminal puts a carriage return before each line end.
    expectAnswer(runTool(request(text, with({"-o", "-"})), {}, streams),
                 "a\\x1b[31m\tb\r\nc\\rd\\x9b\xc3\xa4\r\n\\xc3");
    ScriptedServer binary(answeringWith(200, "a\0b"s));
    const Ended ended = runTool(request(binary, with()), {}, streams);
    expectComplaint(ended, kAnswered, "binary, which is not for a terminal: write it with -o FILE");
    EXPECT_EQ(ended.output, "");
}

// Cut at every position, it looks as it does whole.
TEST(ToolText, WaitsForTheRestOfACutCharacter) {
    const std::string text = "\xc2\x9b\r\n\xe2\x82\xac\r\xf0\x9f\x98\x80\xff\xe2\x82";
    for (size_t cut = 0; cut <= text.size(); ++cut) {
        TerminalText shown;
        std::string all = shown.add(text.substr(0, cut));
        all += shown.add(text.substr(cut));
        EXPECT_EQ(all + shown.end(), "\\xc2\\x9b\n\xe2\x82\xac\\r\xf0\x9f\x98\x80\\xff\\xe2\\x82")
            << cut;
    }
}

// The first and last of each length, and what lies just outside (RFC 3629, 3 and 4).
TEST(ToolText, KnowsUtf8) {
    for (const std::string& text : {""s, "\0\x7f"s, "\xc2\x80"s, "\xdf\xbf"s, "\xe0\xa0\x80"s,
                                    "\xed\x9f\xbf"s, "\xee\x80\x80"s, "\xef\xbf\xbf"s,
                                    "\xf0\x90\x80\x80"s, "\xf4\x8f\xbf\xbf"s, "a\xc3\xa4z"s}) {
        EXPECT_TRUE(isUtf8(text)) << toHex(text);
    }
    for (const std::string& text :
         {"\x80"s, "\xbf"s, "\xc0\x80"s, "\xc1\xbf"s, "\xc2"s, "\xc2\x7f"s, "\xc2\xc0"s,
          "\xe0\x9f\xbf"s, "\xe1\x80"s, "\xe1\x80\x7f"s, "\xed\xa0\x80"s, "\xf0\x8f\xbf\xbf"s,
          "\xf1\x80\x80"s, "\xf1\x80\x80\xc0"s, "\xf4\x90\x80\x80"s, "\xf5\x80\x80\x80"s, "\xff"s,
          "a\xe4z"s}) {
        EXPECT_FALSE(isUtf8(text)) << toHex(text);
    }
}

// ---- --timing

void expectTiming(const std::string& line, const std::string& connect, const std::string& answer) {
    const std::string ms = " [0-9]+[.][0-9][0-9][0-9] ms";
    const std::string first = answer == "failed" ? "never" : "[0-9]+[.][0-9][0-9][0-9] ms";
    const std::string rest =
        answer.empty() ? "" : ", first byte " + first + ", total" + ms + ", [0-9]+ bytes/s";
    EXPECT_THAT(line, MatchesRegex("timing: " + connect + (connect == "connect" ? ms : "") + rest));
}

TEST_P(H2requestPrinting, ALineOfTimesForEachAnswer) {
    for (const bool tls : {false, true}) {
        ScriptedServer server(answeringWith(200, "body", {}, tls));
        std::vector<std::string> options = with({"--timing", "--repeat", "2"});
        if (tls) options.insert(options.end(), {"--tls", "-k"});
        const Ended ended = runTool(request(server, options));
        EXPECT_EQ(ended.code, kAnswered);
        EXPECT_EQ(ended.output, "bodybody");
        const std::vector<std::string> lines = linesOf(ended.errors);
        ASSERT_EQ(lines.size(), 2u) << ended.errors;
        expectTiming(lines[0], "connect", "answered");
        expectTiming(lines[1], "connection reused", "answered");
    }
}

TEST_P(H2requestPrinting, TimesAfterTheMessageOfAFailure) {
    ScriptedServer server(
        answering([](uint32_t streamId, size_t) { return rstStream(streamId, 2); }));
    const RefusingPort port;
    for (const bool refused : {false, true}) {
        std::vector<std::string> arguments = request(server, with({"--timing"}));
        if (refused) *(arguments.end() - 2) = std::to_string(port.port());
        const std::vector<std::string> lines = linesOf(runTool(arguments).errors);
        ASSERT_EQ(lines.size(), 2u);
        expectTiming(lines[1], "connect", refused ? "" : "failed");
    }
}

TEST(ToolTiming, PrintsWhatItIsGiven) {
    using std::chrono::microseconds;
    Timing timing;
    timing.connect = microseconds(1001);
    EXPECT_EQ(timingLine(timing), "timing: connect 1.001 ms");
    timing.connect.reset();
    timing.answer = AnswerTimes{microseconds(20), microseconds(500000), 1000};
    EXPECT_EQ(timingLine(timing),
              "timing: connection reused, first byte 0.020 ms, total 500.000 ms, 2000 bytes/s");
    EXPECT_EQ((AnswerTimes{{}, microseconds(0), 1000}.bytesPerSecond()), 0u);
    EXPECT_EQ((AnswerTimes{{}, microseconds(3000000), 1000}.bytesPerSecond()), 333u);
}

// ---- the progress bar

std::string errorsOnTerminal(const std::vector<std::string>& arguments,
                             std::string_view input = {}) {
    Streams streams;
    streams.terminalErrors = true;
    const Ended ended = runTool(arguments, input, streams);
    EXPECT_EQ(ended.code, kAnswered);
    return ended.errors;
}

// A terminal puts a carriage return before each line end.
const std::string kFullBar = "[" + std::string(40, '#') + "] 100%\r\n";

TEST_P(H2requestPrinting, AProgressBarForALargeUpload) {
    ScriptedServer server(answeringWith(200, "ok"));
    const std::string errors =
        errorsOnTerminal(request(server, with({"--data-file", "-"})), binaryBytes(1500000));
    EXPECT_TRUE(contains(errors, "\rsent [")) << errors;
    EXPECT_TRUE(errors.ends_with(kFullBar)) << errors;
}

TEST(H2requestPrinting, AProgressBarForALargeDownloadOnATerminal) {
    ScriptedServer server(
        answeringWith(200, binaryBytes(1500000), field("content-length", "1500000")));
    const std::string errors = errorsOnTerminal(request(server));
    EXPECT_TRUE(contains(errors, "\rreceived [")) << errors;
    EXPECT_TRUE(errors.ends_with(kFullBar)) << errors;
    EXPECT_EQ(runTool(request(server)).errors, "");
    // The terminal is the log's.
    const std::string log = errorsOnTerminal(request(server, {"-v"}));
    EXPECT_TRUE(contains(log, " INFO ")) << log;
    EXPECT_FALSE(contains(log, "received [")) << log;
}

TEST(H2requestPrinting, NoProgressBarForOneMegabyteAndACountWithoutASize) {
    ScriptedServer small(
        answeringWith(200, binaryBytes(1000000), field("content-length", "1000000")));
    EXPECT_EQ(errorsOnTerminal(request(small)), "");
    ScriptedServer unknown(answeringWith(200, binaryBytes(1500000)));
    const std::string errors = errorsOnTerminal(request(unknown));
    EXPECT_TRUE(contains(errors, "\rreceived 1")) << errors;
    EXPECT_TRUE(contains(errors, " bytes")) << errors;
    EXPECT_FALSE(contains(errors, "%")) << errors;
}

}  // namespace
}  // namespace h2test
