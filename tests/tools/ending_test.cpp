// How h2request ends: every exit code, its time-outs, and what breaks on either side.
#include <atomic>
#include <chrono>
#include <csignal>
#include <map>
#include <string>
#include <vector>

#include "tool_support.h"

namespace h2test {
namespace {

// How a request is made: both ways end alike.
class H2requestEnding : public testing::TestWithParam<bool> {
protected:
    static std::vector<std::string> with(std::vector<std::string> options) {
        if (GetParam()) options.emplace_back("--blocking");
        return options;
    }
};

INSTANTIATE_TEST_SUITE_P(Way, H2requestEnding, testing::Bool(),
                         [](const auto& info) { return info.param ? "Blocking" : "Streaming"; });

// Runs until the request is at the server, lets `act` do its deed there, and waits for the end.
template <typename Act>
Ended endBy(ScriptedServer& server, const std::vector<std::string>& arguments, Act act) {
    Process process(H2REQUEST_PROGRAM, arguments);
    EXPECT_TRUE(server.waitFramesOf(0, kHeaders));
    act();
    Ended ended;
    ended.code = process.wait();
    ended.output = process.output();
    ended.errors = process.errors();
    return ended;
}

// ---- answers

TEST_P(H2requestEnding, TellsErrorStatusesByItsCode) {
    const std::map<int, int> codes = {{200, kAnswered},    {299, kAnswered},    {302, kAnswered},
                                      {399, kAnswered},    {400, kErrorStatus}, {404, kErrorStatus},
                                      {500, kErrorStatus}, {599, kErrorStatus}};
    for (const auto& [status, code] : codes) {
        ScriptedServer server(answeringWith(status, "the body"));
        const Ended ended = runTool(request(server, with({})));
        EXPECT_EQ(ended.code, code) << status;
        EXPECT_EQ(ended.output, "the body") << status;
        const std::string message =
            "h2request: the server answered with status " + std::to_string(status) +
            (status < 500 ? "; check PATH, -X and the headers; -i shows the answer's\n"
                          : "; see the server's log\n");
        EXPECT_EQ(ended.errors, code == kAnswered ? "" : message);
    }
}

TEST_P(H2requestEnding, RemembersAnErrorStatusOfARepeat) {
    ScriptedServer server(answering([](uint32_t streamId, size_t nth) {
        return response(streamId, nth == 2 ? 404 : 200, std::to_string(nth));
    }));
    const Ended ended = runTool(request(server, with({"--repeat", "3"})));
    EXPECT_EQ(ended.code, kErrorStatus);
    EXPECT_EQ(ended.output, "123");
}

// No body follows these, and the library does not report the end of the stream.
TEST_P(H2requestEnding, KnowsAnswersWithoutABody) {
    const std::vector<std::pair<int, std::string>> answers = {
        {204, ""}, {304, ""}, {200, field("content-length", "0")}};
    for (const auto& [status, fields] : answers) {
        ScriptedServer server(
            answering([status = status, fields = fields](uint32_t streamId, size_t) {
                return headers(streamId, statusField(status) + fields, kEndHeaders | kEndStream);
            }));
        std::string head = "status: " + std::to_string(status) + "\n";
        if (!fields.empty()) head += "content-length: 0\n";
        expectAnswer(runTool(request(server, with({"-i"}))), head + "\n");
    }
}

TEST(H2requestEnding, GoesOnAfterAnswersWithoutABody) {
    ScriptedServer server(answering([](uint32_t streamId, size_t nth) {
        return nth < 3 ? headers(streamId, statusField(204), kEndHeaders | kEndStream)
                       : response(streamId, 200, "last");
    }));
    expectAnswer(runTool(request(server, {"-i", "--repeat", "3"})),
                 "status: 204\n\nstatus: 204\n\nstatus: 200\n\nlast");
    EXPECT_EQ(server.connections(), 1u);
    // The requests were withdrawn before the next one started.
    std::vector<std::pair<uint8_t, uint32_t>> order;
    for (const WireFrame& frame : server.frames(0)) {
        if (frame.type == kHeaders || (frame.type == kRstStream && frame.streamId < 5)) {
            order.emplace_back(frame.type, frame.streamId);
        }
    }
    EXPECT_EQ(order,
              (std::vector<std::pair<uint8_t, uint32_t>>{
                  {kHeaders, 1}, {kRstStream, 1}, {kHeaders, 3}, {kRstStream, 3}, {kHeaders, 5}}));
}

TEST(H2requestEnding, CannotRepeatBlockingAfterAnAnswerWithoutABody) {
    ScriptedServer server(answering([](uint32_t streamId, size_t) {
        return headers(streamId, statusField(204), kEndHeaders | kEndStream);
    }));
    const Ended ended = runTool(request(server, {"-i", "--blocking", "--repeat", "2"}));
    expectComplaint(ended, kRequestFailed, "leave out --blocking or --repeat");
    EXPECT_EQ(ended.output, "status: 204\n\n");
}

TEST(H2requestEnding, EndsWithTrailers) {
    const auto answer = [](uint32_t streamId, size_t) {
        return headers(streamId, statusField(200)) + data(streamId, "body") +
               headers(streamId, field("x-trailer", "1"), kEndHeaders | kEndStream);
    };
    ScriptedServer server(answering(answer));
    expectAnswer(runTool(request(server, {"-i", "--repeat", "2"})),
                 "status: 200\n\nbodystatus: 200\n\nbody");
    ScriptedServer other(answering(answer));
    expectComplaint(runTool(request(other, {"--blocking"})), kRequestFailed,
                    "an answer with trailers; leave out --blocking");
}

TEST_P(H2requestEnding, FailsWithoutAReadableStatus) {
    const std::vector<std::string> blocks = {
        field("server", "s"),
        // ":status" "201", Huffman-coded: 5 bits each.
        hex("08") + hpackHuffmanString(hex("10 03")),
    };
    for (const std::string& block : blocks) {
        ScriptedServer server(answering([&](uint32_t streamId, size_t) {
            return headers(streamId, block) + data(streamId, "body", kEndStream);
        }));
        const Ended ended = runTool(request(server, with({})));
        expectComplaint(ended, kRequestFailed, "without a status that can be read");
        EXPECT_EQ(ended.output, "body");
    }
}

TEST(H2requestEnding, RefusesWhatTheBlockingCallCannotHold) {
    // One byte less than this still goes through: the last chunk may cross the limit.
    ScriptedServer server(answering([](uint32_t streamId, size_t) {
        return headers(streamId, statusField(200)) + bodyFrames(streamId, binaryBytes(1100000));
    }));
    const Ended ended = runTool(request(server, {"--blocking"}));
    expectComplaint(ended, kRequestFailed, "leave out --blocking");
    EXPECT_EQ(ended.output, "");
}

// ---- connecting

TEST_P(H2requestEnding, CannotConnectWhereNobodyListens) {
    const RefusingPort port;
    for (const bool tls : {false, true}) {
        std::vector<std::string> arguments = with({});
        if (tls) arguments.emplace_back("--tls");
        arguments.insert(arguments.end(), {"127.0.0.1", std::to_string(port.port()), "/"});
        const Ended ended = runTool(arguments);
        expectComplaint(ended, kCannotConnect,
                        "cannot connect to 127.0.0.1 port " + std::to_string(port.port()));
        EXPECT_EQ(ended.output, "");
    }
}

TEST(H2requestEnding, CannotConnectWithTlsToAServerThatSpeaksOtherwise) {
    ServerOptions options;
    options.greeting = "HTTP/1.1 400 Bad Request\r\n\r\n";
    options.closeAfterGreeting = true;
    ScriptedServer server(options);
    expectComplaint(runTool(request(server, {"--tls"})), kCannotConnect, "with TLS");
}

TEST(H2requestEnding, TimesOutWhileItConnects) {
    ScriptedServer server;  // accepts, and never answers the TLS handshake
    const auto start = std::chrono::steady_clock::now();
    const Ended ended = runTool(request(server, {"--tls", "--timeout", "150"}));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(150));
    EXPECT_EQ(ended.code, kTimedOut);
    EXPECT_EQ(ended.errors, "h2request: no connection within 150 ms; allow more with --timeout\n");
}

// ---- failures on the way

TEST_P(H2requestEnding, FailsWhenTheServerResetsTheStream) {
    ScriptedServer server(silent());
    const Ended ended =
        endBy(server, request(server, with({})), [&] { server.send(0, rstStream(1, 7)); });
    expectComplaint(ended, kRequestFailed, "request failed");
}

TEST_P(H2requestEnding, FailsOnBytesThatAreNoFrames) {
    ScriptedServer server(silent());
    const Ended ended = endBy(server, request(server, with({})),
                              [&] { server.send(0, frame(0x2a, 0, 1, "????")); });
    expectComplaint(ended, kRequestFailed, "request failed");
}

TEST_P(H2requestEnding, LosesItsConnection) {
    const std::map<std::string, std::function<void(ScriptedServer&)>> ways = {
        {"close", [](ScriptedServer& server) { server.close(0); }},
        {"reset", [](ScriptedServer& server) { server.reset(0); }},
        {"goaway", [](ScriptedServer& server) { server.send(0, goaway(0, 0)); }},
    };
    for (const auto& [name, way] : ways) {
        ScriptedServer server(silent());
        const Ended ended =
            endBy(server, request(server, with({})), [&, act = way] { act(server); });
        expectComplaint(ended, kConnectionLost, "connection lost");
        EXPECT_EQ(ended.output, "") << name;
    }
}

TEST(H2requestEnding, PrintsWhatCameBeforeTheConnectionWasLost) {
    ScriptedServer server(silent());
    const Ended ended = endBy(server, request(server, {"-i"}), [&] {
        server.send(0, headers(1, statusField(200)) + data(1, "part"));
        server.close(0);
    });
    expectComplaint(ended, kConnectionLost, "connection lost before the answer was complete");
    EXPECT_EQ(ended.output, "status: 200\n\npart");
}

TEST_P(H2requestEnding, StopsARepeatWhenTheConnectionIsLost) {
    std::atomic<ScriptedServer*> connected{nullptr};
    ServerOptions options = answering([&](uint32_t streamId, size_t nth) {
        if (nth == 1) return response(streamId, 200, "first");
        connected.load()->close(0);
        return std::string();
    });
    ScriptedServer server(options);
    connected = &server;
    const Ended ended = runTool(request(server, with({"--repeat", "3"})));
    expectComplaint(ended, kConnectionLost, "connection lost");
    EXPECT_EQ(ended.output, "first");
    EXPECT_EQ(server.connections(), 1u);
}

TEST_P(H2requestEnding, TimesOutByTheWallClock) {
    ScriptedServer server(silent());
    const auto start = std::chrono::steady_clock::now();
    const Ended ended = runTool(request(server, with({"--timeout", "2000"})));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2000));
    EXPECT_EQ(ended.code, kTimedOut);
    EXPECT_EQ(ended.errors,
              "h2request: no complete answer within 2000 ms; allow more with --timeout\n");
    EXPECT_EQ(ended.output, "");
}

TEST(H2requestEnding, PrintsWhatCameBeforeItsTimeWasOver) {
    ServerOptions options = silent();
    options.responder = [](size_t, const WireFrame& frame) {
        if (frame.type != kHeaders) return std::string();
        return headers(1, statusField(200)) + data(1, "part");
    };
    ScriptedServer server(options);
    const Ended ended = runTool(request(server, {"-i", "--timeout", "8000"}));
    EXPECT_EQ(ended.code, kTimedOut) << ended.errors;
    EXPECT_EQ(ended.output, "status: 200\n\npart");
}

// More than fits between the two processes: the library's thread is in a callback that waits.
TEST(H2requestEnding, TimesOutWhileNobodyReadsItsOutput) {
    ScriptedServer server(answeringWith(200, std::string(60000000, 'x')));
    Streams streams;
    streams.unreadOutput = true;
    Process process(H2REQUEST_PROGRAM, request(server, {"--timeout", "2000"}), streams);
    EXPECT_EQ(process.wait(), kTimedOut);
    EXPECT_EQ(process.errors(),
              "h2request: no complete answer within 2000 ms; allow more with --timeout\n");
}

// ---- outputs and inputs that break

TEST(H2requestEnding, ComplainsOfAClosedPipe) {
    ScriptedServer server(silent());
    Process process(H2REQUEST_PROGRAM, request(server));
    ASSERT_TRUE(server.waitFramesOf(0, kHeaders));
    server.send(0, headers(1, statusField(200)) + data(1, "first"));
    ASSERT_TRUE(process.waitOutput("first"));
    process.closeOutput();
    server.send(0, bodyFrames(1, std::string(60000000, 'x')));
    EXPECT_EQ(process.wait(), kUsage);
    EXPECT_TRUE(contains(process.errors(),
                         "h2request: cannot write the answer to standard output: Broken pipe"))
        << process.errors();
}

// What waits for the output is bounded, so the library's thread is in a callback, with its locks
// held, when the output breaks.
TEST(H2requestEnding, ComplainsOfAPipeThatIsClosedWhileTheServerIsHeldBack) {
    ScriptedServer server(silent());
    Streams streams;
    streams.unreadOutput = true;
    Process process(H2REQUEST_PROGRAM, request(server), streams);
    ASSERT_TRUE(server.waitFramesOf(0, kHeaders));
    const size_t before = process.residentBytes();
    server.send(0, headers(1, statusField(200)) + bodyFrames(1, std::string(60000000, 'x')));
    ASSERT_TRUE(waitHeldBack(process, before));
    process.closeOutput();
    EXPECT_EQ(process.wait(), kUsage);
    EXPECT_TRUE(contains(process.errors(), "to standard output: Broken pipe")) << process.errors();
}

TEST_P(H2requestEnding, ComplainsOfAnOutputThatIsClosedFromTheStart) {
    ScriptedServer server(answeringWith(200, "body"));
    Streams streams;
    streams.closedOutput = true;
    const Ended ended = runTool(request(server, with({})), {}, streams);
    expectComplaint(ended, kUsage,
                    "cannot write the answer to standard output: Bad file descriptor");
    // The body has not gone to the socket in the output's place: all are frames.
    EXPECT_NO_THROW(parseFrames(withoutPreface(server.received(0))));
}

TEST_P(H2requestEnding, NeedsNoInput) {
    ScriptedServer server(answeringWith(200, "body"));
    Streams streams;
    streams.closedInput = true;
    expectAnswer(runTool(request(server, with({})), {}, streams), "body");
}

TEST_P(H2requestEnding, ComplainsOfAFullDevice) {
    ScriptedServer server(answeringWith(200, "body"));
    expectComplaint(runTool(request(server, with({"-o", "/dev/full"}))), kUsage,
                    "cannot write the answer to /dev/full: No space left on device");
    Streams streams;
    streams.outputFile = "/dev/full";
    expectComplaint(runTool(request(server, with({"-i"})), {}, streams), kUsage,
                    "cannot write the answer to standard output: No space left on device");
}

TEST(H2requestEnding, NeedsItsFilesBeforeItConnects) {
    const TempDir dir;
    ScriptedServer server(answeringWith(200, "body"));
    expectComplaint(runTool(request(server, {"-o", dir.path() + "/no/file"})), kUsage,
                    "/no/file: No such file or directory; choose another file with -o");
    expectComplaint(runTool(request(server, {"-X", "POST", "--data-file", dir.path() + "/none"})),
                    kUsage, "/none: No such file or directory; check --data-file");
    expectComplaint(runTool(request(server, {"-X", "POST", "--data-file", dir.path()})), kUsage,
                    "Is a directory; check --data-file");
    EXPECT_EQ(server.connections(), 0u);
}

TEST(H2requestEnding, LeavesAnOldFileAloneWithoutAnAnswer) {
    const TempDir dir;
    const std::string file = dir.write("old", "old content");
    const RefusingPort port;
    const Ended ended = runTool({"-o", file, "127.0.0.1", std::to_string(port.port()), "/"});
    EXPECT_EQ(ended.code, kCannotConnect);
    ScriptedServer server(answeringWith(200, "sent back"));
    expectAnswer(runTool(request(server, {"-X", "POST", "--data-file", file})), "sent back");
    EXPECT_EQ(sentBody(server, 1).bytes, "old content");
}

}  // namespace
}  // namespace h2test
