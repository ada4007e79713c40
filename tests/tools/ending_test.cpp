// How h2request ends: every exit code, its time-outs, and what breaks on either side.
#include <map>

#include "Http2Client/httpClientApi.h"
#include "tool_support.h"
#include "tools/probe.h"
#include "tools/successive.h"

namespace h2test {
namespace {

using std::chrono::milliseconds;

class H2requestEnding : public BothWays {};
H2TEST_BOTH_WAYS(H2requestEnding);

// Runs until the request is at the server, lets `act` do its part there, and waits for the end.
template <typename Act>
Ended endBy(ScriptedServer& server, const std::vector<std::string>& arguments, Act act) {
    Process process(H2REQUEST_PROGRAM, arguments);
    EXPECT_TRUE(server.waitFramesOf(0, kHeaders));
    act(process);
    return process.wait();
}

// ---- answers

TEST_P(H2requestEnding, TellsErrorStatusesByItsCode) {
    const std::map<int, int> codes = {{200, kAnswered},    {399, kAnswered},
                                      {400, kErrorStatus}, {499, kErrorStatus},
                                      {500, kErrorStatus}, {599, kErrorStatus}};
    for (const auto& [status, code] : codes) {
        ScriptedServer server(answeringWith(status, "the body"));
        const Ended ended = runTool(request(server, with()));
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
    const auto answer = [](uint32_t streamId, size_t nth) {
        return nth < 3 ? headers(streamId, statusField(204), kEndHeaders | kEndStream)
                       : response(streamId, 200, "last");
    };
    ScriptedServer server(answering(answer));
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
    ScriptedServer other(answering(answer));
    const Ended ended = runTool(request(other, {"-i", "--blocking", "--repeat", "2"}));
    expectComplaint(ended, kRequestFailed, "leave out --blocking or --repeat");
    EXPECT_EQ(ended.output, "status: 204\n\n");
}

TEST(H2requestEnding, EndsWithTrailers) {
    ScriptedServer server(answering([](uint32_t streamId, size_t) {
        return headers(streamId, statusField(200)) + data(streamId, "body") +
               headers(streamId, field("x-trailer", "1"), kEndHeaders | kEndStream);
    }));
    expectAnswer(runTool(request(server, {"-i", "--repeat", "2"})),
                 "status: 200\n\nbodystatus: 200\n\nbody");
    expectComplaint(runTool(request(server, {"--blocking"})), kRequestFailed,
                    "an answer with trailers; leave out --blocking");
}

TEST_P(H2requestEnding, FailsWithoutAReadableStatus) {
    // None, and ":status" "201", Huffman-coded: 5 bits each.
    for (const std::string& block :
         {field("server", "s"), hex("08") + hpackHuffmanString(hex("10 03"))}) {
        ScriptedServer server(answering([&](uint32_t streamId, size_t) {
            return headers(streamId, block) + data(streamId, "body", kEndStream);
        }));
        const Ended ended = runTool(request(server, with()));
        expectComplaint(ended, kRequestFailed, "without a status that can be read");
        EXPECT_EQ(ended.output, "body");
    }
}

TEST(H2requestEnding, RefusesWhatTheBlockingCallCannotHold) {
    ScriptedServer server(answeringWith(200, binaryBytes(1100000)));
    const Ended ended = runTool(request(server, {"--blocking"}));
    expectComplaint(ended, kRequestFailed, "leave out --blocking");
    EXPECT_EQ(ended.output, "");
}

// ---- connecting

TEST_P(H2requestEnding, CannotConnectWhereNobodyListens) {
    const RefusingPort port;
    for (const char* option : {"-k", "--tls"}) {
        const Ended ended =
            runTool(with({option, "-k", "127.0.0.1", std::to_string(port.port()), "/"}));
        expectComplaint(ended, kCannotConnect,
                        "cannot connect to 127.0.0.1 port " + std::to_string(port.port()));
        EXPECT_TRUE(contains(ended.errors, ": nobody listens there; start the server, or see"));
        EXPECT_EQ(ended.output, "");
    }
}

TEST_P(H2requestEnding, NamesAServerThatDoesNotSpeakHttp2) {
    struct Case {
        std::string greeting;
        bool tlsServer;
        bool tlsClient;
        int code;
        std::string message;
    };
    const std::string http = "HTTP/1.1 400 Bad Request\r\n\r\n";
    const std::string quoted = "answers with \"HTTP/1.1 400 Bad Request\": ";
    const std::vector<Case> cases = {
        {http, false, false, kRequestFailed, quoted + "it speaks HTTP/1.1 on this port; switch"},
        {http, true, true, kRequestFailed, quoted + "without ALPN, which this client does not"},
        {"SSH-2.0-\x1b[31m\r\n", false, false, kRequestFailed,
         "does not speak HTTP/2 on this port: it answers with \"SSH-2.0-\\x1b[31m\""},
        // A fatal TLS alert: handshake_failure, and no_application_protocol.
        {hex("15 03 03 00 02 02 28"), false, false, kConnectionLost, "a TLS alert; add --tls"},
        {hex("15 03 03 00 02 02 28"), false, true, kCannotConnect,
         "alert handshake failure); leave out --tls if the port speaks plain HTTP/2"},
        {hex("15 03 03 00 02 02 78"), false, true, kCannotConnect,
         "the alert no_application_protocol: it demands ALPN, which this client does not send"},
        {http, false, true, kCannotConnect, "the TLS handshake failed ("},
    };
    for (const Case& one : cases) {
        ServerOptions options;
        options.tls = one.tlsServer;
        options.greeting = one.greeting;
        options.closeAfterGreeting = true;
        ScriptedServer server(options);
        const Ended ended =
            runTool(request(server, with(one.tlsClient ? std::vector<std::string>{"--tls", "-k"}
                                                       : std::vector<std::string>{})));
        expectComplaint(ended, one.code, one.message);
        EXPECT_EQ(linesOf(ended.errors).size(), 1u) << ended.errors;
        EXPECT_EQ(server.connections(), 2u) << one.message;
    }
}

TEST(ToolProbe, TakesNoFrameForAnythingElse) {
    for (const std::string& bytes : {settings({}), ping(1), goaway(0, 0), std::string("HTT")}) {
        EXPECT_EQ(describeFirstBytes(bytes, false), "") << toHex(bytes);
    }
}

// ---- failures on the way

TEST_P(H2requestEnding, FailsAndLosesItsConnection) {
    using Way = std::function<void(ScriptedServer&)>;
    const std::vector<std::tuple<std::string, int, Way>> ways = {
        {"request failed: the server reset it", kRequestFailed,
         [](ScriptedServer& server) { server.send(0, rstStream(1, 7)); }},
        {"request failed: the server reset it", kRequestFailed,
         [](ScriptedServer& server) { server.send(0, frame(0x2a, 0, 1, "????")); }},
        {"connection lost before", kConnectionLost,
         [](ScriptedServer& server) { server.close(0); }},
        {"connection lost before", kConnectionLost,
         [](ScriptedServer& server) { server.reset(0); }},
        {"connection lost before", kConnectionLost,
         [](ScriptedServer& server) { server.send(0, goaway(0, 0)); }},
    };
    for (const auto& [message, code, way] : ways) {
        ScriptedServer server(silent());
        const Ended ended =
            endBy(server, request(server, with()), [&, act = way](Process&) { act(server); });
        expectComplaint(ended, code, message);
        EXPECT_EQ(linesOf(ended.errors).size(), 1u) << ended.errors;  // no log
        EXPECT_EQ(ended.output, "");
    }
}

TEST(H2requestEnding, PrintsWhatCameBeforeTheConnectionWasLost) {
    ScriptedServer server(silent());
    const Ended ended = endBy(server, request(server, {"-i"}), [&](Process&) {
        server.send(0, headers(1, statusField(200)) + data(1, "part"));
        server.close(0);
    });
    expectComplaint(ended, kConnectionLost, "connection lost before the answer was complete");
    EXPECT_EQ(ended.output, "status: 200\n\npart");
    EXPECT_EQ(server.connections(), 1u);
}

TEST_P(H2requestEnding, SuggestsParallelWhenARepeatLosesItsConnection) {
    std::atomic<ScriptedServer*> connected{nullptr};
    ScriptedServer server(answering([&](uint32_t streamId, size_t nth) {
        if (nth <= 2) return response(streamId, 200, "answer");
        connected.load()->close(0);
        return std::string();
    }));
    connected = &server;
    const Ended ended = runTool(request(server, with({"--repeat", "4"})));
    expectComplaint(ended, kConnectionLost, "connection lost after 2 answers; ");
    EXPECT_TRUE(contains(ended.errors, "with --parallel 1 the rest is made on new ones\n"));
    EXPECT_EQ(ended.output, "answeranswer");
    EXPECT_EQ(server.connections(), 1u);
}

// ---- time-outs

// Each ends with this message, not before its time and not long after.
void expectTimeOut(const std::vector<std::string>& arguments, int ms, const std::string& message,
                   const std::string& output = {}, const Streams& streams = {}) {
    const auto start = std::chrono::steady_clock::now();
    std::vector<std::string> all = {"--timeout", std::to_string(ms)};
    all.insert(all.end(), arguments.begin(), arguments.end());
    Process process(H2REQUEST_PROGRAM, all, streams);
    const Ended ended = process.wait();
    const auto time = std::chrono::steady_clock::now() - start;
    EXPECT_GE(time, milliseconds(ms));
    EXPECT_LT(time, milliseconds(ms) + std::chrono::seconds(4));
    EXPECT_EQ(ended.code, kTimedOut);
    EXPECT_EQ(ended.errors, "h2request: " + message + "\n");
    EXPECT_EQ(ended.output, output);
}

const std::string kAdvice = "; allow more with --timeout";

TEST_P(H2requestEnding, TimesOut) {
    ScriptedServer deaf;  // accepts, and never answers the TLS handshake
    expectTimeOut(request(deaf, with({"--tls", "-k"})), 150,
                  "no connection within 150 ms; check the address and the port, or allow more with "
                  "--timeout");
    ScriptedServer mute(silent());
    expectTimeOut(request(mute, with()), 300,
                  "no complete answer within 300 ms; nothing had come" + kAdvice);
    expectTimeOut(
        request(mute, with({"--data", "text"})), 500,
        "no complete answer within 500 ms; 4 of 4 bytes were sent; nothing had come" + kAdvice);
}

TEST(H2requestEnding, PrintsWhatCameBeforeItsTimeWasOver) {
    ServerOptions options = silent();
    options.responder = [](size_t, const WireFrame& frame) {
        if (frame.type != kHeaders) return std::string();
        return headers(1, statusField(200)) + data(1, "part");
    };
    ScriptedServer server(options);
    expectTimeOut(
        request(server, {"-i"}), 3000,
        "no complete answer within 3000 ms; status 200 and 4 bytes of the body had come" + kAdvice,
        "status: 200\n\npart");
}

// More than fits between the two processes: the library's thread is in a callback that waits.
TEST(H2requestEnding, TimesOutWhileNobodyReadsItsOutput) {
    ScriptedServer server(answeringWith(200, std::string(4000000, 'x')));
    Streams streams;
    streams.unreadOutput = true;
    Process process(H2REQUEST_PROGRAM, request(server, {"--timeout", "6000"}), streams);
    const Ended ended = process.wait();
    expectComplaint(ended, kTimedOut, "no complete answer within 6000 ms; status 200 and ");
}

// The library reads without a pause then, and lets nobody else near a connection.
TEST_P(H2requestEnding, TimesOutAndIsInterruptedInAFlood) {
    for (const std::string& frames : {ping(1), headers(1, statusField(103))}) {
        {
            ScriptedServer server(silent());
            const Flood flood(server, frames);
            expectTimeOut(request(server, with()), 1000,
                          "no complete answer within 1000 ms; nothing had come" + kAdvice);
        }
        ScriptedServer server(silent());
        const Flood flood(server, frames);
        const auto start = std::chrono::steady_clock::now();
        const Ended ended = endBy(server, request(server, with()), [&](Process& process) {
            EXPECT_TRUE(flood.waitRunning());
            process.signal(SIGINT);
        });
        EXPECT_EQ(ended.code, kInterrupted);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
    }
}

// Eight bytes in two seconds and more, and then none.
TEST(H2requestEnding, GivesUpWithoutProgress) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    std::atomic<ScriptedServer*> connected{nullptr};
    ServerOptions serverOptions = silent();
    serverOptions.responder = [&](size_t, const WireFrame& frame) {
        if (frame.type != kHeaders) return std::string();
        // The process that asks ends without joining it.
        std::thread([&connected] {
            for (int i = 0; i < 12; ++i) {  // longer in all than the limit
                std::this_thread::sleep_for(milliseconds(400));
                connected.load()->send(0, data(1, "x"));
            }
        }).detach();
        return headers(1, statusField(200));
    };
    ScriptedServer server(serverOptions);
    connected = &server;
    Options options;
    EXPECT_EQ(options.idleMs, 60000u);
    options.host = ScriptedServer::ip();
    options.port = server.port();
    options.path = "/";
    options.idleMs = 4000;
    BodySource source;
    Output output;
    const auto request = [&] {
        initHttp2Client(5);
        runSuccessive(options, source, output);
    };
    EXPECT_EXIT(request(), testing::ExitedWithCode(kTimedOut),
                "no complete answer, and no progress for 4 s; status 200 and 12 bytes of the "
                "body had come; allow more with --timeout");
}

TEST(ToolTimeLimit, IsAMinuteWithoutProgressUnlessOneIsGiven) {
    Options options;
    EXPECT_EQ(TimeLimit(options).text("answer"), "no answer, and no progress for 60 s");
    options.timeoutMs = 0;
    TimeLimit none(options);
    none.start();
    EXPECT_FALSE(none.isOver());
    options.timeoutMs = 1;
    TimeLimit total(options);
    EXPECT_FALSE(total.isOver());
    total.start();
    std::this_thread::sleep_for(milliseconds(2));
    total.setProgress(1);
    EXPECT_TRUE(total.isOver());
    EXPECT_FALSE(total.isOver(std::chrono::hours(1)));
    options.timeoutMs.reset();
    options.idleMs = 3600000;
    TimeLimit idle(options);
    idle.start();
    EXPECT_FALSE(idle.isOver());
    idle.stop();
    EXPECT_FALSE(idle.isOver());
}

// ---- outputs and inputs that break

// What waits for the output is bounded, so the library's thread is in a callback, with its locks
// held, when an output that nobody reads breaks.
TEST(H2requestEnding, ComplainsOfAClosedPipe) {
    for (const bool unread : {false, true}) {
        ScriptedServer server(silent());
        Streams streams;
        streams.unreadOutput = unread;
        Process process(H2REQUEST_PROGRAM, request(server), streams);
        ASSERT_TRUE(server.waitFramesOf(0, kHeaders));
        server.send(0, headers(1, statusField(200)) + data(1, "first"));
        const size_t before = process.residentBytes();
        if (!unread) {
            ASSERT_TRUE(process.waitOutput("first"));
            process.closeOutput();
        }
        server.send(0, bodyFrames(1, std::string(60000000, 'x')));
        if (unread) {
            ASSERT_TRUE(waitHeldBack(process, before));
            process.closeOutput();
        }
        expectComplaint(process.wait(), kUsage,
                        "h2request: cannot write the answer to standard output: Broken pipe");
    }
}

TEST_P(H2requestEnding, MissesNoStandardStreams) {
    ScriptedServer server(answeringWith(200, "body"));
    Streams streams;
    streams.closedInput = true;
    expectAnswer(runTool(request(server, with()), {}, streams), "body");
    streams.closedOutput = true;
    expectComplaint(runTool(request(server, with()), {}, streams), kUsage,
                    "cannot write the answer to standard output: Bad file descriptor");
    // The body has not gone to the socket in the output's place: all are frames.
    EXPECT_NO_THROW(parseFrames(withoutPreface(server.received(1))));
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
    expectComplaint(runTool(request(server, {"--data-file", dir.path() + "/none"})), kUsage,
                    "/none: No such file or directory; check --data-file");
    expectComplaint(runTool(request(server, {"--data-file", dir.path()})), kUsage,
                    "Is a directory; check --data-file");
    EXPECT_EQ(server.connections(), 0u);
    EXPECT_EQ(filesIn(dir), std::set<std::string>());
}

}  // namespace
}  // namespace h2test
