// What h2request sends, for each of its options.
#include <sys/stat.h>

#include "tool_support.h"

namespace h2test {
namespace {

constexpr uint8_t kWhole = kEndHeaders | kEndStream;

// "host" is entry 38 of the static table (RFC 7541, A), ":path" is entry 4.
std::string hostField(const std::string& value, Literal form = Literal::kIncremental) {
    return hpackLiteral(38, value, form);
}
std::string pathField(std::string_view path) {
    return hpackLiteral(4, path, Literal::kIncremental);
}
std::string plainField(std::string_view name, std::string_view value) {
    return hpackLiteral(name, value, Literal::kIncremental);
}
std::string volatileField(std::string_view name, std::string_view value) {
    return hpackLiteral(name, value, Literal::kNeverIndexed);
}

std::string addressOf(const ScriptedServer& server) {
    return "127.0.0.1:" + std::to_string(server.port());
}

// The first connection has sent one request, without a body, and this is its header block.
void expectRequest(ScriptedServer& server, const std::string& block) {
    ASSERT_EQ(server.connections(), 1u);
    ASSERT_EQ(server.frames(0, kHeaders).size(), 1u);
    const WireFrame frame = server.frames(0, kHeaders)[0];
    EXPECT_EQ(toHex(frame.payload), toHex(block));
    EXPECT_EQ(frame.flags, kWhole);
    EXPECT_EQ(frame.streamId, 1u);
    EXPECT_TRUE(server.frames(0, kData).empty());
}

TEST(H2requestSending, MakesOneRequestAsItsOptionsSay) {
    struct Case {
        std::vector<std::string> options;
        std::string path;
        std::string start;    // method, scheme and path
        std::string headers;  // none: the host header alone
        bool ownHost = false;
    };
    const std::string get = hex("82 86") + pathField("/");
    const std::vector<Case> cases = {
        {{}, "/a?b=c", hex("82 86") + pathField("/a?b=c"), ""},
        {{"-X", "GET"}, "/", get, ""},
        {{"-X", "POST"}, "/", hex("83 86") + pathField("/"), ""},
        {{"-X", "DELETE"},
         "/",
         hpackLiteral(2, "DELETE", Literal::kIncremental) + hex("86") + pathField("/"),
         ""},
        {{"-H", "X-One: 1", "-H", "x-two:  a: b ", "-H", "x-one:3"},
         "/",
         get,
         plainField("x-one", "1") + plainField("x-two", "a: b") + plainField("x-one", "3")},
        {{"--volatile-header", "X-Key: k1", "-H", "x-one: 1", "--volatile-header", "x-nonce: n"},
         "/",
         get,
         plainField("x-one", "1") + volatileField("x-key", "k1") + volatileField("x-nonce", "n")},
        {{"-H", "Host: example.org"}, "/", get, hostField("example.org"), true},
        {{"--volatile-header", "Host: example.org"},
         "/",
         get,
         hostField("example.org", Literal::kNeverIndexed),
         true},
    };
    for (const Case& one : cases) {
        ScriptedServer server(answeringWith(200, "ok"));
        expectAnswer(runTool(request(server, one.options, one.path)), "ok");
        expectRequest(server,
                      one.start + (one.ownHost ? "" : hostField(addressOf(server))) + one.headers);
    }
}

TEST(H2requestSending, SpeaksTlsAndSaysThatNothingIsVerified) {
    for (const bool quiet : {false, true}) {
        ScriptedServer server(answeringWith(200, "secret", {}, true));
        const std::vector<std::string> options = {"--tls", "-k"};
        const Ended ended = runTool(request(server, {options.begin(), options.end() - !quiet}));
        EXPECT_EQ(ended.code, kAnswered);
        EXPECT_EQ(ended.output, "secret");
        EXPECT_EQ(ended.errors, quiet ? ""
                                      : "h2request: note: the server's certificate is not verified "
                                        "(-k: leave out this note)\n");
        expectRequest(server, hex("82 87") + pathField("/") + hostField(addressOf(server)));
    }
}

TEST(H2requestSending, TakesAUrlInPlaceOfAddressPortAndPath) {
    const std::vector<std::pair<std::string, std::string>> paths = {
        {"", "/"}, {"/", "/"}, {"/a?b=c", "/a?b=c"}, {"?b=c", "/?b=c"}};
    for (const bool tls : {false, true}) {
        for (const auto& [given, sent] : paths) {
            ScriptedServer server(answeringWith(200, "ok", {}, tls));
            expectAnswer(
                runTool({"-k", (tls ? "https://" : "http://") + addressOf(server) + given}), "ok");
            expectRequest(server, hex(tls ? "82 87" : "82 86") + pathField(sent) +
                                      hostField(addressOf(server)));
        }
    }
}

// ---- bodies

// Sends a body, and looks at what comes of it on these streams.
void expectBody(const std::vector<std::string>& options, const std::string& body,
                const std::string& input = {}, const std::vector<uint32_t>& streams = {1}) {
    ScriptedServer server(answeringWith(200, "."));
    expectAnswer(runTool(request(server, options), input), std::string(streams.size(), '.'));
    EXPECT_EQ(server.connections(), 1u);
    for (const WireFrame& frame : server.frames(0, kHeaders)) EXPECT_EQ(frame.flags, kEndHeaders);
    for (const uint32_t streamId : streams) {
        const SentBody sent = sentBody(server, streamId);
        EXPECT_TRUE(sent.bytes == body) << testing::PrintToString(options) << streamId;
        EXPECT_TRUE(sent.whole) << testing::PrintToString(options) << streamId;
    }
    const size_t pieces = body.size() / 16384 + 1;  // the last one may be empty
    EXPECT_EQ(server.frames(0, kData).size(), pieces * streams.size());
    const size_t given =
        static_cast<size_t>(std::find(options.begin(), options.end(), "-X") - options.begin());
    if (given < options.size() && options[given + 1] != "POST") return;
    EXPECT_EQ(server.frames(0, kHeaders)[0].payload[0], '\x83');  // POST
}

// The library asks for 16384 bytes at a time, and takes less for the end.
TEST(H2requestSending, SendsBodiesOfAnySizeAndSourceWhole) {
    const TempDir dir;
    for (const size_t size : {0u, 1u, 16383u, 16384u, 16385u, 32768u, 100000u, 3000000u}) {
        const std::string body = binaryBytes(size);
        expectBody({"--data-file", dir.write("body", body)}, body);
        expectBody({"--data-file", "-"}, body, body);
        const std::string text(std::min<size_t>(size, 100000), 'x');
        expectBody({"-d", text}, text);
        expectBody({"-X", "POST", "--data", text}, text);
    }
    for (const char* method : {"GET", "DELETE"}) expectBody({"-X", method, "-d", "x"}, "x");
}

TEST(H2requestSending, RepeatsABodyFromAnySource) {
    const TempDir dir;
    const std::string fifo = dir.path() + "/fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::string body = binaryBytes(40000);
    const auto expectThree = [&](const std::string& option, const std::string& source,
                                 const std::string& expected, const std::string& input = {}) {
        expectBody({"--repeat", "3", option, source}, expected, input, {1, 3, 5});
    };
    expectThree("--data", "text", "text");
    expectThree("--data-file", dir.write("body", body), body);
    expectThree("--data-file", "-", body, body);
    std::thread writer([&] { std::ofstream(fifo, std::ios::binary) << body; });
    expectThree("--data-file", fifo, body);
    writer.join();
}

TEST(H2requestSending, ConnectsOnlyWhenStandardInputHasEnded) {
    ScriptedServer server(answeringWith(200, "ok"));
    Process process(H2REQUEST_PROGRAM, request(server, {"--data-file", "-"}));
    // Far more than a pipe holds: when all of it has gone in, the process has read from it.
    const std::string half = binaryBytes(1000000);
    ASSERT_TRUE(process.writeInput(half));
    EXPECT_EQ(server.connections(), 0u);
    ASSERT_TRUE(process.writeInput("the end"));
    process.closeInput();
    expectAnswer(process.wait(), "ok");
    EXPECT_TRUE(sentBody(server, 1).bytes == half + "the end");
}

class H2requestBrokenBody : public BothWays {};
H2TEST_BOTH_WAYS(H2requestBrokenBody);

// A file of no size whose first byte cannot be read.
TEST_P(H2requestBrokenBody, NeverEndsABodyThatCannotBeRead) {
    ScriptedServer server(silent());
    expectComplaint(runTool(request(server, with({"--data-file", "/proc/self/mem"}))), kUsage,
                    "reading the body failed: Input/output error");
    ASSERT_TRUE(server.waitClosedByPeer(0));
    EXPECT_FALSE(sentBody(server, 1).whole);
}

TEST(H2requestSending, TakesAnAnswerThatComesBeforeTheBodyIsSent) {
    const TempDir dir;
    ServerOptions options = silent();
    options.responder = [](size_t, const WireFrame& frame) {
        return frame.type == kHeaders ? response(frame.streamId, 200, "early") : std::string();
    };
    ScriptedServer server(options);
    // 400 MB: not sent before the answer is there.
    const std::string file = dir.write("body", "");
    ASSERT_EQ(truncate(file.c_str(), 400000000), 0);
    expectAnswer(runTool(request(server, {"--data-file", file})), "early");
    ASSERT_TRUE(server.waitClosedByPeer(0));
    EXPECT_FALSE(sentBody(server, 1).whole);
}

TEST(H2requestSending, RepeatsOnOneConnectionOneAfterTheOther) {
    ScriptedServer server(answering([](uint32_t streamId, size_t nth) {
        return response(streamId, 200, std::to_string(nth) + " ");
    }));
    expectAnswer(runTool(request(server, {"--repeat", "12"})), "1 2 3 4 5 6 7 8 9 10 11 12 ");
    EXPECT_EQ(server.connections(), 1u);
    ASSERT_EQ(server.frames(0, kHeaders).size(), 12u);
    for (size_t i = 0; i < 12; ++i) EXPECT_EQ(server.frames(0, kHeaders)[i].streamId, 2 * i + 1);
}

}  // namespace
}  // namespace h2test
