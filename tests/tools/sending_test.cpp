// What h2request sends, for each of its options.
#include <map>
#include <string>
#include <vector>

#include <sys/stat.h>

#include "tool_support.h"

namespace h2test {
namespace {

constexpr uint8_t kWhole = kEndHeaders | kEndStream;

std::string hostField(const ScriptedServer& server) {
    // "host" is entry 38 of the static table (RFC 7541, A).
    return hpackLiteral(38, "127.0.0.1:" + std::to_string(server.port()), Literal::kIncremental);
}

std::string pathField(std::string_view path) {
    return hpackLiteral(4, path, Literal::kIncremental);
}

// The HEADERS frames that the first connection has sent.
std::vector<WireFrame> headerFrames(ScriptedServer& server) { return server.frames(0, kHeaders); }

TEST(H2requestSending, MakesOneGetWithAHostHeaderAndNothingElse) {
    ScriptedServer server(answeringWith(200, "ok"));
    expectAnswer(runTool(request(server, {}, "/a?b=c")), "ok");
    ASSERT_EQ(server.connections(), 1u);
    ASSERT_EQ(headerFrames(server).size(), 1u);
    const WireFrame frame = headerFrames(server)[0];
    EXPECT_EQ(toHex(frame.payload), toHex(hex("82 86") + pathField("/a?b=c") + hostField(server)));
    EXPECT_EQ(frame.flags, kWhole);
    EXPECT_EQ(frame.streamId, 1u);
    EXPECT_TRUE(server.frames(0, kData).empty());
}

TEST(H2requestSending, SpeaksTlsAndSaysThatNothingIsVerified) {
    const std::string note =
        "h2request: note: the server's certificate is not verified (-k: leave out this note)\n";
    for (const bool quiet : {false, true}) {
        ScriptedServer server(answeringWith(200, "secret", {}, true));
        const std::vector<std::string> options = {"--tls", "-k"};
        const Ended ended = runTool(request(server, {options.begin(), options.end() - !quiet}));
        EXPECT_EQ(ended.code, kAnswered);
        EXPECT_EQ(ended.output, "secret");
        EXPECT_EQ(ended.errors, quiet ? "" : note);
        ASSERT_EQ(headerFrames(server).size(), 1u);
        EXPECT_EQ(toHex(headerFrames(server)[0].payload),
                  toHex(hex("82 87") + pathField("/") + hostField(server)));
    }
}

TEST(H2requestSending, TakesAUrlInPlaceOfAddressPortAndPath) {
    const std::vector<std::pair<std::string, std::string>> paths = {
        {"", "/"}, {"/", "/"}, {"/a?b=c", "/a?b=c"}, {"?b=c", "/?b=c"}};
    for (const bool tls : {false, true}) {
        for (const auto& [given, sent] : paths) {
            ScriptedServer server(answeringWith(200, "ok", {}, tls));
            const std::string url = (tls ? "https://127.0.0.1:" : "http://127.0.0.1:") +
                                    std::to_string(server.port()) + given;
            expectAnswer(runTool({"-k", url}), "ok");
            ASSERT_EQ(headerFrames(server).size(), 1u);
            EXPECT_EQ(toHex(headerFrames(server)[0].payload),
                      toHex(hex(tls ? "82 87" : "82 86") + pathField(sent) + hostField(server)));
        }
    }
}

TEST(H2requestSending, KnowsThreeMethods) {
    const std::map<std::string, std::string> methods = {
        {"GET", hex("82")},
        {"POST", hex("83")},
        {"DELETE", hpackLiteral(2, "DELETE", Literal::kIncremental)},
    };
    for (const auto& [name, coded] : methods) {
        ScriptedServer server(answeringWith(200, "ok"));
        expectAnswer(runTool(request(server, {"-X", name})), "ok");
        ASSERT_EQ(headerFrames(server).size(), 1u);
        EXPECT_EQ(toHex(headerFrames(server)[0].payload),
                  toHex(coded + hex("86") + pathField("/") + hostField(server)))
            << name;
        EXPECT_EQ(headerFrames(server)[0].flags, kWhole) << name;
    }
}

TEST(H2requestSending, SendsHeadersInOrderWithNamesInLowerCase) {
    ScriptedServer server(answeringWith(200, "ok"));
    expectAnswer(
        runTool(request(server, {"-H", "X-One: 1", "-H", "x-two:  a: b ", "-H", "x-one:3"})), "ok");
    ASSERT_EQ(headerFrames(server).size(), 1u);
    EXPECT_EQ(toHex(headerFrames(server)[0].payload),
              toHex(hex("82 86") + pathField("/") + hostField(server) +
                    hpackLiteral("x-one", "1", Literal::kIncremental) +
                    hpackLiteral("x-two", "a: b", Literal::kIncremental) +
                    hpackLiteral("x-one", "3", Literal::kIncremental)));
}

TEST(H2requestSending, NeverIndexesVolatileHeaders) {
    ScriptedServer server(answeringWith(200, "ok"));
    expectAnswer(runTool(request(server, {"--volatile-header", "X-Key: k1", "-H", "x-one: 1",
                                          "--volatile-header", "x-nonce: n"})),
                 "ok");
    ASSERT_EQ(headerFrames(server).size(), 1u);
    EXPECT_EQ(toHex(headerFrames(server)[0].payload),
              toHex(hex("82 86") + pathField("/") + hostField(server) +
                    hpackLiteral("x-one", "1", Literal::kIncremental) +
                    hpackLiteral("x-key", "k1", Literal::kNeverIndexed) +
                    hpackLiteral("x-nonce", "n", Literal::kNeverIndexed)));
}

TEST(H2requestSending, LeavesOutItsHostHeaderWhenOneIsGiven) {
    for (const char* option : {"-H", "--volatile-header"}) {
        ScriptedServer server(answeringWith(200, "ok"));
        expectAnswer(runTool(request(server, {option, "Host: example.org"})), "ok");
        ASSERT_EQ(headerFrames(server).size(), 1u);
        const Literal form = option[1] == 'H' ? Literal::kIncremental : Literal::kNeverIndexed;
        EXPECT_EQ(toHex(headerFrames(server)[0].payload),
                  toHex(hex("82 86") + pathField("/") + hpackLiteral(38, "example.org", form)))
            << option;
    }
}

// Longer than what the library asks for at a time, and not a multiple of it.
TEST(H2requestSending, PostsATextAsBodyWhole) {
    for (const char* option : {"-d", "--data"}) {
        for (const size_t size : {7u, 16384u, 50000u}) {
            const std::string text(size, 'x');
            ScriptedServer server(answeringWith(200, "ok"));
            expectAnswer(runTool(request(server, {option, text})), "ok");
            ASSERT_EQ(headerFrames(server).size(), 1u);
            EXPECT_EQ(headerFrames(server)[0].flags, kEndHeaders);
            EXPECT_EQ(headerFrames(server)[0].payload[0], '\x83');  // POST
            EXPECT_TRUE(sentBody(server, 1).bytes == text) << size;
            EXPECT_TRUE(sentBody(server, 1).whole) << size;
        }
    }
}

TEST(H2requestSending, SendsABodyWithGetAndDeleteWhenToldTo) {
    for (const char* method : {"GET", "DELETE"}) {
        ScriptedServer server(answeringWith(200, "ok"));
        expectAnswer(runTool(request(server, {"-X", method, "--data", "x"})), "ok");
        EXPECT_EQ(sentBody(server, 1).bytes, "x") << method;
    }
}

TEST(H2requestSending, SendsAnEmptyBodyAsAnEmptyDataFrame) {
    const TempDir dir;
    const std::vector<std::vector<std::string>> bodies = {
        {"--data", ""}, {"--data-file", dir.write("empty", "")}, {"--data-file", "-"}};
    for (const auto& body : bodies) {
        ScriptedServer server(answeringWith(200, "ok"));
        std::vector<std::string> options = {"-X", "POST"};
        options.insert(options.end(), body.begin(), body.end());
        expectAnswer(runTool(request(server, options)), "ok");
        ASSERT_EQ(headerFrames(server).size(), 1u);
        EXPECT_EQ(headerFrames(server)[0].flags, kEndHeaders);
        ASSERT_EQ(server.frames(0, kData).size(), 1u);
        EXPECT_EQ(server.frames(0, kData)[0].payload, "");
        EXPECT_TRUE(sentBody(server, 1).whole);
    }
}

// The library asks for 16384 bytes at a time, and takes less for the end.
TEST(H2requestSending, SendsFilesOfAnySizeWhole) {
    const TempDir dir;
    for (const size_t size : {1u, 16383u, 16384u, 16385u, 32768u, 3000000u}) {
        const std::string body = binaryBytes(size);
        const std::string file = dir.write("body", body);
        ScriptedServer server(answeringWith(200, "ok"));
        expectAnswer(runTool(request(server, {"--data-file", file})), "ok");
        const SentBody sent = sentBody(server, 1);
        EXPECT_TRUE(sent.bytes == body) << size;
        EXPECT_TRUE(sent.whole) << size;
    }
}

TEST(H2requestSending, SendsStandardInputWhole) {
    const std::string body = binaryBytes(300001);
    ScriptedServer server(answeringWith(200, "ok"));
    expectAnswer(runTool(request(server, {"--data-file", "-"}), body), "ok");
    const SentBody sent = sentBody(server, 1);
    EXPECT_TRUE(sent.bytes == body);
    EXPECT_TRUE(sent.whole);
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

TEST(H2requestSending, RepeatsABodyFromAnySource) {
    const TempDir dir;
    const std::string fifo = dir.path() + "/fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::string body = binaryBytes(40000);
    const std::vector<std::pair<std::vector<std::string>, std::string>> sources = {
        {{"--data", "text"}, "text"},
        {{"--data-file", dir.write("body", body)}, body},
        {{"--data-file", "-"}, body},
        {{"--data-file", fifo}, body},
    };
    for (const auto& [source, expected] : sources) {
        ScriptedServer server(answeringWith(200, "ok"));
        std::vector<std::string> options = {"-X", "POST", "--repeat", "3"};
        options.insert(options.end(), source.begin(), source.end());
        std::thread writer;
        if (source[1] == fifo) {
            writer = std::thread([&] {
                FILE* file = fopen(fifo.c_str(), "wb");
                ASSERT_NE(file, nullptr);
                EXPECT_EQ(fwrite(body.data(), 1, body.size(), file), body.size());
                fclose(file);
            });
        }
        expectAnswer(runTool(request(server, options), source[1] == "-" ? body : ""), "okokok");
        if (writer.joinable()) writer.join();
        EXPECT_EQ(server.connections(), 1u);
        for (const uint32_t streamId : {1u, 3u, 5u}) {
            EXPECT_TRUE(sentBody(server, streamId).bytes == expected) << source[1] << streamId;
            EXPECT_TRUE(sentBody(server, streamId).whole) << source[1] << streamId;
        }
    }
}

// A file of no size whose first byte cannot be read.
TEST(H2requestSending, NeverEndsABodyThatCannotBeRead) {
    for (const bool blocking : {false, true}) {
        ScriptedServer server(silent());
        std::vector<std::string> options = {"-X", "POST", "--data-file", "/proc/self/mem"};
        if (blocking) options.emplace_back("--blocking");
        expectComplaint(runTool(request(server, options)), kUsage,
                        "reading the body failed: Input/output error");
        ASSERT_TRUE(server.waitClosedByPeer(0));
        EXPECT_FALSE(sentBody(server, 1).whole);
    }
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
    ASSERT_EQ(headerFrames(server).size(), 12u);
    for (size_t i = 0; i < 12; ++i) EXPECT_EQ(headerFrames(server)[i].streamId, 2 * i + 1);
}

}  // namespace
}  // namespace h2test
