// The examples, each as a process: what they print, what they send, how they end.
#include <chrono>
#include <functional>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "program.h"
#include "tests/support/bytes.h"
#include "tests/support/scripted_server.h"
#include "tests/support/temp.h"

namespace h2test {
namespace {

constexpr uint32_t kCancel = 8;

bool contains(const std::string& text, std::string_view part) {
    return text.find(part) != std::string::npos;
}

// The lines that are not the log library's, which writes errors to standard error.
std::string withoutLog(const std::string& text) {
    std::istringstream lines(text);
    std::string out;
    for (std::string line; std::getline(lines, line);) {
        if (!contains(line, " ERROR Http2.cpp:")) out += line + "\n";
    }
    return out;
}

bool isWholeRequest(const WireFrame& frame) {
    return (frame.type == kHeaders || frame.type == kData) && frame.hasFlags(kEndStream);
}

std::string status(int code) { return hpackLiteral(8, std::to_string(code)); }

std::string response(uint32_t streamId, int code, std::string_view body) {
    return headers(streamId, status(code)) + data(streamId, body, kEndStream);
}

// Announces itself and answers each whole request with what `answer` says.
ServerOptions answering(std::function<std::string(size_t index, uint32_t streamId)> answer) {
    ServerOptions options;
    options.greeting = settings({});
    options.responder = [answer = std::move(answer)](size_t index, const WireFrame& frame) {
        return isWholeRequest(frame) ? answer(index, frame.streamId) : std::string();
    };
    return options;
}

ServerOptions answeringWith(int code, const std::string& body) {
    return answering([=](size_t, uint32_t streamId) { return response(streamId, code, body); });
}

// IP and PORT, and what follows them.
std::vector<std::string> to(const ScriptedServer& server, std::vector<std::string> rest) {
    rest.insert(rest.begin(), {ScriptedServer::ip(), std::to_string(server.port())});
    return rest;
}

std::string requestBlock(std::string_view method, std::string_view path) {
    return hex(method) + hex("86") + hpackLiteral(4, path, Literal::kIncremental) +
           hpackLiteral(38, ScriptedServer::ip(), Literal::kIncremental);
}

class EveryExample : public testing::TestWithParam<std::string> {};

TEST_P(EveryExample, TellsItsUsage) {
    const Ended ended = runExample(GetParam(), {"one"});
    EXPECT_EQ(ended.code, 2);
    EXPECT_EQ(ended.output, "");
    EXPECT_TRUE(ended.errors.starts_with("usage: " + GetParam() + " IP PORT PATH")) << ended.errors;
}

// The arguments of an example that makes its requests of `path`.
std::vector<std::string> argumentsOf(const std::string& name, const std::string& port,
                                     const std::string& path, const TempDir& dir) {
    std::vector<std::string> out = {ScriptedServer::ip(), port, path};
    if (name == "post_stream") out.push_back(dir.write("body", "x"));
    if (name == "blocking") out.emplace_back("10");
    if (name == "many_clients" || name == "reconnect") out.emplace_back("2");
    if (name == "cancel") out.insert(out.end(), {"10", path});
    if (name == "quiet") out.push_back(dir.path() + "/console");
    return out;
}

TEST_P(EveryExample, FailsWithoutAServer) {
    const RefusingPort port;
    const TempDir dir;
    const std::vector<std::string> arguments =
        argumentsOf(GetParam(), std::to_string(port.port()), "/", dir);
    const Ended ended = runExample(GetParam(), arguments);
    EXPECT_EQ(ended.code, 1) << ended.errors;
}

// Such an answer ends with its headers: no further callback comes.
TEST_P(EveryExample, TakesAnAnswerWithoutABodyAsComplete) {
    const std::string emptyBody = status(200) + hpackLiteral("content-length", "0");
    for (const std::string& block : {status(204), status(304), emptyBody}) {
        ScriptedServer server(answering([&](size_t, uint32_t streamId) {
            return headers(streamId, block, kEndHeaders | kEndStream);
        }));
        const TempDir dir;
        const std::vector<std::string> arguments =
            argumentsOf(GetParam(), std::to_string(server.port()), "/", dir);
        const auto start = std::chrono::steady_clock::now();
        const Ended ended = runExample(GetParam(), arguments);
        EXPECT_EQ(ended.code, 0) << ended.errors;
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
        EXPECT_EQ(server.connections(), GetParam() == "many_clients" ? 2u : 1u);
    }
}

// A body of no bytes in a DATA frame ends the answer a second time.
TEST_P(EveryExample, TakesAnEmptyDataFrameAfterContentLength0) {
    ScriptedServer server(answering([&](size_t, uint32_t streamId) {
        return headers(streamId, status(200) + hpackLiteral("content-length", "0")) +
               data(streamId, "", kEndStream);
    }));
    const TempDir dir;
    const Ended ended =
        runExample(GetParam(), argumentsOf(GetParam(), std::to_string(server.port()), "/", dir));
    EXPECT_EQ(ended.code, 0) << ended.errors;
}

INSTANTIATE_TEST_SUITE_P(Examples, EveryExample,
                         testing::Values("get", "post_stream", "blocking", "many_clients",
                                         "reconnect", "cancel", "custom_logging", "quiet"),
                         [](const auto& info) { return info.param; });

TEST(ExampleGet, ShowsStatusHeadersAndBody) {
    ScriptedServer server(answering([](size_t, uint32_t streamId) {
        return headers(streamId,
                       status(200) + hpackLiteral("x-b", "2") + hpackLiteral("x-a", "1")) +
               data(streamId, "the ") + data(streamId, "body", kEndStream);
    }));
    const Ended ended = runExample("get", to(server, {"/page"}));
    EXPECT_EQ(ended.code, 0);
    EXPECT_EQ(ended.errors,
              "status 200\n:status: 200\nx-a: 1\nx-b: 2\n"
              "the body\ncomplete\n");
    ASSERT_EQ(server.frames(0, kHeaders).size(), 1u);
    EXPECT_EQ(toHex(server.frames(0, kHeaders)[0].payload), toHex(requestBlock("82", "/page")));
}

TEST(ExampleGet, EndsWithTheHeadersOfAResponseWithoutABody) {
    const std::vector<std::pair<std::string, std::string>> blocks = {
        {status(204), "status 204\n:status: 204\n\ncomplete\n"},
        {status(304), "status 304\n:status: 304\n\ncomplete\n"},
        {status(200) + hpackLiteral("content-length", "0"),
         "status 200\n:status: 200\ncontent-length: 0\n\ncomplete\n"},
    };
    for (const auto& [block, text] : blocks) {
        ScriptedServer server(answering([&block = block](size_t, uint32_t streamId) {
            return headers(streamId, block, kEndHeaders | kEndStream);
        }));
        const Ended ended = runExample("get", to(server, {"/"}));
        EXPECT_EQ(ended.code, 0);
        EXPECT_EQ(ended.errors, text);
    }
}

TEST(ExampleGet, TellsAFailureFromALostConnection) {
    ScriptedServer resetting(answering([](size_t, uint32_t id) { return rstStream(id, 7); }));
    const Ended failed = runExample("get", to(resetting, {"/"}));
    EXPECT_EQ(failed.code, 1);
    EXPECT_EQ(withoutLog(failed.errors), "\nfailed\n");

    ScriptedServer leaving(answering([](size_t, uint32_t) { return goaway(0, 0); }));
    const Ended lost = runExample("get", to(leaving, {"/"}));
    EXPECT_EQ(lost.code, 1);
    EXPECT_EQ(lost.errors, "\nconnection lost\n");
}

TEST(ExamplePostStream, SendsTheFileWholeWhateverItsSize) {
    const TempDir dir;
    for (const size_t size : {size_t{0}, size_t{1}, size_t{16384}, size_t{100000}}) {
        std::string body(size, '\0');
        for (size_t i = 0; i < size; ++i) body[i] = static_cast<char>(i * 7 % 251);
        ScriptedServer server(answeringWith(201, "thanks"));
        const Ended ended = runExample("post_stream", to(server, {"/in", dir.write("body", body)}));
        EXPECT_EQ(ended.code, 0);
        EXPECT_EQ(ended.errors, "status 201\nthanks\ncomplete\n");
        std::string sent;
        for (const WireFrame& frame : server.frames(0, kData)) sent += frame.payload;
        EXPECT_TRUE(sent == body) << sent.size() << " bytes of " << size;
        ASSERT_EQ(server.frames(0, kHeaders).size(), 1u);
        const WireFrame request = server.frames(0, kHeaders)[0];
        EXPECT_EQ(toHex(request.payload),
                  toHex(requestBlock("83", "/in") +
                        hpackLiteral(31, "application/octet-stream", Literal::kIncremental)));
        EXPECT_FALSE(request.hasFlags(kEndStream));
    }
}

TEST(ExamplePostStream, TellsAMissingFile) {
    const RefusingPort port;
    const Ended ended = runExample(
        "post_stream", {ScriptedServer::ip(), std::to_string(port.port()), "/", "/no/such/file"});
    EXPECT_EQ(ended.code, 1);
    EXPECT_EQ(ended.errors, "/no/such/file: No such file or directory\n");
}

TEST(ExampleBlocking, ShowsTheWholeAnswer) {
    ScriptedServer server(answering([](size_t, uint32_t streamId) {
        return headers(streamId, status(404) + hpackLiteral("x-a", "1")) +
               data(streamId, "not here", kEndStream);
    }));
    const Ended ended = runExample("blocking", to(server, {"/page", "2000"}));
    EXPECT_EQ(ended.code, 0);
    EXPECT_EQ(ended.errors, "status 404\n:status: 404\nx-a: 1\nnot here\nall content received\n");
}

TEST(ExampleBlocking, ShowsTheStatusOfAnAnswerWithoutABody) {
    ScriptedServer server(answering([](size_t, uint32_t streamId) {
        return headers(streamId, status(204), kEndHeaders | kEndStream);
    }));
    const Ended ended = runExample("blocking", to(server, {"/page", "10"}));
    EXPECT_EQ(ended.code, 0);
    EXPECT_EQ(ended.errors, "status 204, no body\n");
}

TEST(ExampleBlocking, TimesOutWithAPartOfTheBody) {
    ScriptedServer server(answering([](size_t, uint32_t streamId) {
        return headers(streamId, status(200)) + data(streamId, "half");
    }));
    const Ended ended = runExample("blocking", to(server, {"/page", "20"}));
    EXPECT_EQ(ended.code, 1);
    EXPECT_EQ(ended.errors, "request timeout, partial content received\n");
}

TEST(ExampleManyClients, WaitsForAll) {
    ScriptedServer server(answeringWith(200, "hello"));
    const Ended ended = runExample("many_clients", to(server, {"/", "20"}));
    EXPECT_EQ(ended.code, 0);
    std::string expected;
    for (int i = 0; i < 20; ++i) {
        expected += "client " + std::to_string(i) + ": status 200, 5 bytes\n";
    }
    EXPECT_EQ(ended.errors, expected + "20 of 20 complete\n");
    EXPECT_EQ(server.connections(), 20u);
}

TEST(ExampleManyClients, CountsThoseThatFail) {
    ScriptedServer server(answering([](size_t index, uint32_t streamId) {
        return index == 1 ? rstStream(streamId, 2) : response(streamId, 200, "hello");
    }));
    const Ended ended = runExample("many_clients", to(server, {"/", "3"}));
    EXPECT_EQ(ended.code, 1);
    EXPECT_EQ(withoutLog(ended.errors),
              "client 0: status 200, 5 bytes\n"
              "client 1: status 0, 0 bytes, incomplete\n"
              "client 2: status 200, 5 bytes\n"
              "2 of 3 complete\n");
}

TEST(ExampleReconnect, MakesTheRequestAgainOnANewConnection) {
    // The first connection answers one request and resets the next, the second one answers with a
    // GOAWAY, the third one answers.
    ScriptedServer server(answering([](size_t index, uint32_t streamId) {
        if (index == 0 && streamId > 1) return rstStream(streamId, 0);
        if (index == 1) return goaway(0, 0);
        return response(streamId, 200, "hello");
    }));
    const Ended ended = runExample("reconnect", to(server, {"/", "3"}));
    EXPECT_EQ(ended.code, 0);
    EXPECT_EQ(withoutLog(ended.errors),
              "request 1: status 200, 5 bytes\n"
              "connection lost\nconnection lost\n"
              "request 2: status 200, 5 bytes\n"
              "request 3: status 200, 5 bytes\n");
    EXPECT_EQ(server.connections(), 3u);
    for (size_t index = 0; index < 3; ++index) {
        ASSERT_FALSE(server.frames(index, kHeaders).empty());
        EXPECT_EQ(toHex(server.frames(index, kHeaders)[0].payload), toHex(requestBlock("82", "/")));
    }
}

TEST(ExampleReconnect, GivesUpAfterFiveTries) {
    ScriptedServer server(answering([](size_t, uint32_t) { return goaway(0, 0); }));
    const Ended ended = runExample("reconnect", to(server, {"/", "2"}));
    EXPECT_EQ(ended.code, 1);
    std::string expected;
    for (int i = 0; i < 5; ++i) expected += "connection lost\n";
    EXPECT_EQ(ended.errors, expected + "request 1: given up\n");
    EXPECT_EQ(server.connections(), 5u);
}

TEST(ExampleCancel, LeavesTheDownloadAndUsesTheConnectionAgain) {
    ScriptedServer server(answering([](size_t, uint32_t streamId) {
        if (streamId > 1) return response(streamId, 200, "next");
        return headers(streamId, status(200)) + data(streamId, std::string(1000, 'x'));
    }));
    const Ended ended = runExample("cancel", to(server, {"/long", "1000", "/next"}));
    EXPECT_EQ(ended.code, 0);
    EXPECT_EQ(ended.errors, "cancelled after 1000 bytes\nthen 4 bytes\n");
    EXPECT_EQ(server.connections(), 1u);
    const std::vector<WireFrame> resets = server.frames(0, kRstStream);
    ASSERT_FALSE(resets.empty());
    EXPECT_EQ(resets[0].streamId, 1u);
    EXPECT_EQ(toHex(resets[0].payload), toHex(be32(kCancel)));
    const std::vector<WireFrame> requests = server.frames(0, kHeaders);
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[1].streamId, 3u);
}

TEST(ExampleCancel, LetsAShortDownloadEnd) {
    ScriptedServer server(answeringWith(200, "short"));
    const Ended ended = runExample("cancel", to(server, {"/a", "1000", "/b"}));
    EXPECT_EQ(ended.code, 0);
    EXPECT_EQ(ended.errors, "complete with 5 bytes\nthen 5 bytes\n");
}

TEST(ExampleCustomLogging, HearsTheLibrary) {
    ScriptedServer server(answeringWith(200, "hello"));
    const Ended ended = runExample("custom_logging", to(server, {"/page"}));
    EXPECT_EQ(ended.code, 0);
    EXPECT_TRUE(contains(ended.errors, "my log: info Sock_Linux.cpp:")) << ended.errors;
    EXPECT_TRUE(contains(ended.errors, " connect new socket: ip :127.0.0.1\n")) << ended.errors;
    EXPECT_TRUE(contains(ended.errors, "my log: info Http2.cpp:")) << ended.errors;
    EXPECT_TRUE(contains(ended.errors, " uri: /page status:200\n")) << ended.errors;
    // Every line is its own: none is of the log library that the process has loaded, too.
    std::set<std::string> others;
    size_t start = 0;
    for (size_t end = 0; (end = ended.errors.find('\n', start)) != std::string::npos;
         start = end + 1) {
        const std::string line = ended.errors.substr(start, end - start);
        if (!line.starts_with("my log: ")) others.insert(line);
    }
    EXPECT_EQ(others, (std::set<std::string>{"status 200", "complete"}));
}

TEST(ExampleCustomLogging, HearsErrors) {
    ScriptedServer server(answering([](size_t, uint32_t id) { return rstStream(id, 7); }));
    const Ended ended = runExample("custom_logging", to(server, {"/page"}));
    EXPECT_EQ(ended.code, 1);
    EXPECT_TRUE(contains(ended.errors, "my log: error Http2.cpp:")) << ended.errors;
    EXPECT_TRUE(contains(ended.errors, " this frame have RST! 1\n")) << ended.errors;
}

TEST(ExampleQuiet, HasNothingButTheBodyOnItsOutput) {
    const TempDir dir;
    const std::string console = dir.path() + "/console";
    ScriptedServer server(answeringWith(200, "the body"));
    const Ended ended = runExample("quiet", to(server, {"/", console}));
    EXPECT_EQ(ended.code, 0);
    EXPECT_EQ(ended.output, "the body");
    EXPECT_EQ(ended.errors, "");
    const std::string lines = fileContent(console);
    EXPECT_TRUE(contains(lines, "received a stream: id = 1 name = HEADERS")) << lines;
    EXPECT_TRUE(contains(lines, ":status    200\n")) << lines;
}

TEST(ExampleQuiet, TellsAFileThatItCannotWrite) {
    ScriptedServer server(answeringWith(200, "the body"));
    const Ended ended = runExample("quiet", to(server, {"/", "/no/such/file"}));
    EXPECT_EQ(ended.code, 1);
    EXPECT_EQ(ended.output, "");
    EXPECT_EQ(ended.errors, "cannot write /no/such/file\n");
    EXPECT_EQ(server.connections(), 0u);
}

}  // namespace
}  // namespace h2test
