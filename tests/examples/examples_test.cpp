// The examples, each as a process: what they print, what they send, how they end.
#include <algorithm>
#include <chrono>
#include <functional>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "program.h"
#include "tests/standard/field_decoder.h"
#include "tests/standard/tls_peer.h"
#include "tests/support/bytes.h"
#include "tests/support/scripted_server.h"
#include "tests/support/temp.h"
#include "tests/support/tls_context.h"

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
    // The standard edition keeps to the server's windows.
    options.greeting = settings({{4, 1 << 20}}) + windowUpdate(0, 1 << 20);
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

// Each program runs with both editions.
std::string editionName(Edition edition) {
    return edition == Edition::kExact ? "Exact" : "Standard";
}

class EveryExample : public testing::TestWithParam<std::tuple<std::string, Edition>> {
protected:
    static std::string name() { return std::get<0>(GetParam()); }
    static bool standard() { return std::get<1>(GetParam()) == Edition::kStandard; }
    static Ended run(const std::vector<std::string>& arguments) {
        return runExample(std::get<1>(GetParam()), name(), arguments);
    }
};

TEST_P(EveryExample, TellsItsUsage) {
    const Ended ended = run({"one"});
    EXPECT_EQ(ended.code, 2);
    EXPECT_EQ(ended.output, "");
    EXPECT_TRUE(ended.errors.starts_with("usage: " + name() + " IP PORT PATH")) << ended.errors;
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
        argumentsOf(name(), std::to_string(port.port()), "/", dir);
    const Ended ended = run(arguments);
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
            argumentsOf(name(), std::to_string(server.port()), "/", dir);
        const auto start = std::chrono::steady_clock::now();
        const Ended ended = run(arguments);
        EXPECT_EQ(ended.code, 0) << ended.errors;
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
        EXPECT_EQ(server.connections(), name() == "many_clients" && !standard() ? 2u : 1u);
    }
}

// A body of no bytes in a DATA frame ends the answer a second time.
TEST_P(EveryExample, TakesAnEmptyDataFrameAfterContentLength0) {
    ScriptedServer server(answering([&](size_t, uint32_t streamId) {
        return headers(streamId, status(200) + hpackLiteral("content-length", "0")) +
               data(streamId, "", kEndStream);
    }));
    const TempDir dir;
    const Ended ended = run(argumentsOf(name(), std::to_string(server.port()), "/", dir));
    EXPECT_EQ(ended.code, 0) << ended.errors;
}

INSTANTIATE_TEST_SUITE_P(Examples, EveryExample,
                         testing::Combine(testing::Values("get", "post_stream", "blocking",
                                                          "many_clients", "reconnect", "cancel",
                                                          "custom_logging", "quiet"),
                                          testing::Values(Edition::kExact, Edition::kStandard)),
                         [](const auto& info) {
                             return std::get<0>(info.param) + editionName(std::get<1>(info.param));
                         });

// The tests of single programs.
class EachEdition : public testing::TestWithParam<Edition> {
protected:
    static bool standard() { return GetParam() == Edition::kStandard; }
    static Ended run(const std::string& name, const std::vector<std::string>& arguments) {
        return runExample(GetParam(), name, arguments);
    }
    // The first request of a connection: the exact edition's header block, the standard edition's
    // fields.
    static void expectRequest(ScriptedServer& server, size_t index, const std::string& exactBlock,
                              const FieldLines& fields) {
        ASSERT_FALSE(server.frames(index, kHeaders).empty());
        const std::string block = server.frames(index, kHeaders)[0].payload;
        if (standard()) {
            EXPECT_EQ(FieldDecoder().decode(block), fields);
        } else {
            EXPECT_EQ(toHex(block), toHex(exactBlock));
        }
    }
    // The fields of a request in the standard edition.
    static FieldLines requestFields(const std::string& method, const std::string& path) {
        return {{":path", path},
                {":method", method},
                {":scheme", "http"},
                {":authority", ScriptedServer::ip()}};
    }
};

#define H2TEST_WITH_EACH_EDITION(suite)                                            \
    using suite = EachEdition;                                                     \
    INSTANTIATE_TEST_SUITE_P(Editions, suite,                                      \
                             testing::Values(Edition::kExact, Edition::kStandard), \
                             [](const auto& info) { return editionName(info.param); })

H2TEST_WITH_EACH_EDITION(ExampleGet);

TEST_P(ExampleGet, ShowsStatusHeadersAndBody) {
    ScriptedServer server(answering([](size_t, uint32_t streamId) {
        return headers(streamId,
                       status(200) + hpackLiteral("x-b", "2") + hpackLiteral("x-a", "1")) +
               data(streamId, "the ") + data(streamId, "body", kEndStream);
    }));
    const Ended ended = run("get", to(server, {"/page"}));
    EXPECT_EQ(ended.code, 0);
    // The standard edition keeps the server's order.
    const std::string fields = standard() ? "x-b: 2\nx-a: 1\n" : "x-a: 1\nx-b: 2\n";
    EXPECT_EQ(ended.errors, "status 200\n:status: 200\n" + fields + "the body\ncomplete\n");
    ASSERT_EQ(server.frames(0, kHeaders).size(), 1u);
    expectRequest(server, 0, requestBlock("82", "/page"), requestFields("GET", "/page"));
}

TEST_P(ExampleGet, EndsWithTheHeadersOfAResponseWithoutABody) {
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
        const Ended ended = run("get", to(server, {"/"}));
        EXPECT_EQ(ended.code, 0);
        EXPECT_EQ(ended.errors, text);
    }
}

TEST_P(ExampleGet, TellsAFailureFromALostConnection) {
    ScriptedServer resetting(answering([](size_t, uint32_t id) { return rstStream(id, 7); }));
    const Ended failed = run("get", to(resetting, {"/"}));
    EXPECT_EQ(failed.code, 1);
    EXPECT_EQ(withoutLog(failed.errors), "\nfailed\n");

    ScriptedServer leaving(answering([](size_t, uint32_t) { return goaway(0, 0); }));
    const Ended lost = run("get", to(leaving, {"/"}));
    EXPECT_EQ(lost.code, 1);
    // A request that was not processed: sent again, on four connections in all.
    EXPECT_EQ(lost.errors, standard() ? "\nfailed\n" : "\nconnection lost\n");
    EXPECT_EQ(leaving.connections(), standard() ? 4u : 1u);
}

H2TEST_WITH_EACH_EDITION(ExamplePostStream);

TEST_P(ExamplePostStream, SendsTheFileWholeWhateverItsSize) {
    const TempDir dir;
    for (const size_t size : {size_t{0}, size_t{1}, size_t{16384}, size_t{100000}}) {
        std::string body(size, '\0');
        for (size_t i = 0; i < size; ++i) body[i] = static_cast<char>(i * 7 % 251);
        ScriptedServer server(answeringWith(201, "thanks"));
        const Ended ended = run("post_stream", to(server, {"/in", dir.write("body", body)}));
        EXPECT_EQ(ended.code, 0);
        EXPECT_EQ(ended.errors, "status 201\nthanks\ncomplete\n");
        std::string sent;
        for (const WireFrame& frame : server.frames(0, kData)) sent += frame.payload;
        EXPECT_TRUE(sent == body) << sent.size() << " bytes of " << size;
        ASSERT_EQ(server.frames(0, kHeaders).size(), 1u);
        const WireFrame request = server.frames(0, kHeaders)[0];
        FieldLines fields = requestFields("POST", "/in");
        fields.emplace_back("content-type", "application/octet-stream");
        expectRequest(server, 0,
                      requestBlock("83", "/in") +
                          hpackLiteral(31, "application/octet-stream", Literal::kIncremental),
                      fields);
        EXPECT_FALSE(request.hasFlags(kEndStream));
    }
}

TEST_P(ExamplePostStream, TellsAMissingFile) {
    const RefusingPort port;
    const Ended ended = run(
        "post_stream", {ScriptedServer::ip(), std::to_string(port.port()), "/", "/no/such/file"});
    EXPECT_EQ(ended.code, 1);
    EXPECT_EQ(ended.errors, "/no/such/file: No such file or directory\n");
}

H2TEST_WITH_EACH_EDITION(ExampleBlocking);

TEST_P(ExampleBlocking, ShowsTheWholeAnswer) {
    ScriptedServer server(answering([](size_t, uint32_t streamId) {
        return headers(streamId, status(404) + hpackLiteral("x-a", "1")) +
               data(streamId, "not here", kEndStream);
    }));
    const Ended ended = run("blocking", to(server, {"/page", "2000"}));
    EXPECT_EQ(ended.code, 0);
    EXPECT_EQ(ended.errors, std::string("status 404\n:status: 404\nx-a: 1\nnot here\n") +
                                (standard() ? "\n" : "all content received\n"));
}

TEST_P(ExampleBlocking, ShowsTheStatusOfAnAnswerWithoutABody) {
    ScriptedServer server(answering([](size_t, uint32_t streamId) {
        return headers(streamId, status(204), kEndHeaders | kEndStream);
    }));
    const Ended ended = run("blocking", to(server, {"/page", "10"}));
    EXPECT_EQ(ended.code, 0);
    // To the exact edition it is no answer: the program has its headers from the callback.
    EXPECT_EQ(ended.errors,
              standard() ? "status 204\n:status: 204\n\n\n" : "status 204, no body\n");
}

TEST_P(ExampleBlocking, TimesOutWithAPartOfTheBody) {
    ScriptedServer server(answering([](size_t, uint32_t streamId) {
        return headers(streamId, status(200)) + data(streamId, "half");
    }));
    const Ended ended = run("blocking", to(server, {"/page", "20"}));
    EXPECT_EQ(ended.code, 1);
    EXPECT_EQ(ended.errors, standard() ? "the answer did not come in time\n"
                                       : "request timeout, partial content received\n");
}

H2TEST_WITH_EACH_EDITION(ExampleManyClients);

TEST_P(ExampleManyClients, WaitsForAll) {
    ScriptedServer server(answeringWith(200, "hello"));
    const Ended ended = run("many_clients", to(server, {"/", "20"}));
    EXPECT_EQ(ended.code, 0);
    std::string expected;
    for (int i = 0; i < 20; ++i) {
        expected += "client " + std::to_string(i) + ": status 200, 5 bytes\n";
    }
    EXPECT_EQ(ended.errors, expected + "20 of 20 complete\n");
    EXPECT_EQ(server.connections(), standard() ? 1u : 20u);
}

TEST_P(ExampleManyClients, CountsThoseThatFail) {
    ScriptedServer server(answering([](size_t index, uint32_t streamId) {
        const bool second = standard() ? streamId == 3 : index == 1;
        return second ? rstStream(streamId, 2) : response(streamId, 200, "hello");
    }));
    const Ended ended = run("many_clients", to(server, {"/", "3"}));
    EXPECT_EQ(ended.code, 1);
    EXPECT_EQ(withoutLog(ended.errors),
              "client 0: status 200, 5 bytes\n"
              "client 1: status 0, 0 bytes, incomplete\n"
              "client 2: status 200, 5 bytes\n"
              "2 of 3 complete\n");
}

H2TEST_WITH_EACH_EDITION(ExampleReconnect);

TEST_P(ExampleReconnect, MakesTheRequestAgainOnANewConnection) {
    // The first connection answers one request and resets the next, the second one answers with a
    // GOAWAY, the third one answers. (In the standard edition a reset request leaves the connection
    // in order: it resets one more.)
    ScriptedServer server(answering([](size_t index, uint32_t streamId) {
        const bool over = standard() ? streamId == 3 || streamId == 5 : streamId > 1;
        if (index == 0 && over) return rstStream(streamId, 0);
        if (index == 1) return goaway(0, 0);
        return response(streamId, 200, "hello");
    }));
    const Ended ended = run("reconnect", to(server, {"/", "3"}));
    EXPECT_EQ(ended.code, 0);
    EXPECT_EQ(withoutLog(ended.errors),
              "request 1: status 200, 5 bytes\n"
              "connection lost\nconnection lost\n"
              "request 2: status 200, 5 bytes\n"
              "request 3: status 200, 5 bytes\n");
    EXPECT_EQ(server.connections(), standard() ? 1u : 3u);
    for (size_t index = 0; index < server.connections(); ++index) {
        expectRequest(server, index, requestBlock("82", "/"), requestFields("GET", "/"));
    }
}

TEST_P(ExampleReconnect, GivesUpAfterFiveTries) {
    ScriptedServer server(answering([](size_t, uint32_t) { return goaway(0, 0); }));
    const Ended ended = run("reconnect", to(server, {"/", "2"}));
    EXPECT_EQ(ended.code, 1);
    std::string expected;
    for (int i = 0; i < 5; ++i) expected += "connection lost\n";
    EXPECT_EQ(ended.errors, expected + "request 1: given up\n");
    EXPECT_EQ(server.connections(), standard() ? 20u : 5u);  // four for each try
}

H2TEST_WITH_EACH_EDITION(ExampleCancel);

TEST_P(ExampleCancel, LeavesTheDownloadAndUsesTheConnectionAgain) {
    ScriptedServer server(answering([](size_t, uint32_t streamId) {
        if (streamId > 1) return response(streamId, 200, "next");
        return headers(streamId, status(200)) + data(streamId, std::string(1000, 'x'));
    }));
    const Ended ended = run("cancel", to(server, {"/long", "1000", "/next"}));
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

TEST_P(ExampleCancel, LetsAShortDownloadEnd) {
    ScriptedServer server(answeringWith(200, "short"));
    const Ended ended = run("cancel", to(server, {"/a", "1000", "/b"}));
    EXPECT_EQ(ended.code, 0);
    EXPECT_EQ(ended.errors, "complete with 5 bytes\nthen 5 bytes\n");
}

H2TEST_WITH_EACH_EDITION(ExampleCustomLogging);

TEST_P(ExampleCustomLogging, HearsTheLibrary) {
    ScriptedServer server(answeringWith(200, "hello"));
    const Ended ended = run("custom_logging", to(server, {"/page"}));
    EXPECT_EQ(ended.code, 0);
    const std::string at = "127.0.0.1 port " + std::to_string(server.port()) + " (127.0.0.1)\n";
    const std::vector<std::string> logged =
        standard() ? std::vector<std::string>{"my log: info server.cpp:", " connected to " + at}
                   : std::vector<std::string>{
                         "my log: info Sock_Linux.cpp:", " connect new socket: ip :127.0.0.1\n",
                         "my log: info Http2.cpp:", " uri: /page status:200\n"};
    for (const std::string& part : logged) {
        EXPECT_TRUE(contains(ended.errors, part)) << ended.errors;
    }
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

TEST_P(ExampleCustomLogging, HearsErrors) {
    ScriptedServer server(answering([](size_t, uint32_t id) { return rstStream(id, 7); }));
    const Ended ended = run("custom_logging", to(server, {"/page"}));
    EXPECT_EQ(ended.code, 1);
    EXPECT_TRUE(contains(ended.errors, standard() ? "my log: info client_exchange.cpp:"
                                                  : "my log: error Http2.cpp:"))
        << ended.errors;
    EXPECT_TRUE(contains(ended.errors,
                         standard() ? " a request has failed: " : " this frame have RST! 1\n"))
        << ended.errors;
}

H2TEST_WITH_EACH_EDITION(ExampleQuiet);

TEST_P(ExampleQuiet, HasNothingButTheBodyOnItsOutput) {
    const TempDir dir;
    const std::string console = dir.path() + "/console";
    ScriptedServer server(answeringWith(200, "the body"));
    const Ended ended = run("quiet", to(server, {"/", console}));
    EXPECT_EQ(ended.code, 0);
    EXPECT_EQ(ended.output, "the body");
    EXPECT_EQ(ended.errors, "");
    const std::string lines = fileContent(console);
    if (standard()) {
        EXPECT_EQ(lines, "");
        return;
    }
    EXPECT_TRUE(contains(lines, "received a stream: id = 1 name = HEADERS")) << lines;
    EXPECT_TRUE(contains(lines, ":status    200\n")) << lines;
}

TEST_P(ExampleQuiet, TellsAFileThatItCannotWrite) {
    ScriptedServer server(answeringWith(200, "the body"));
    const Ended ended = run("quiet", to(server, {"/", "/no/such/file"}));
    EXPECT_EQ(ended.code, 1);
    EXPECT_EQ(ended.output, "");
    EXPECT_EQ(ended.errors, "cannot write /no/such/file\n");
    EXPECT_EQ(server.connections(), 0u);
}

// The programs that need the standard edition.

class StandardExample : public testing::TestWithParam<std::string> {};

TEST_P(StandardExample, TellsItsUsage) {
    const Ended ended = runStandardExample(GetParam(), {"one"});
    EXPECT_EQ(ended.code, 2);
    EXPECT_EQ(ended.output, "");
    EXPECT_TRUE(ended.errors.starts_with("usage: " + GetParam() + " ")) << ended.errors;
}

TEST_P(StandardExample, FailsWithoutAServer) {
    const RefusingPort port;
    const TempDir dir;
    std::vector<std::string> arguments = {ScriptedServer::ip(), std::to_string(port.port()), "/"};
    if (GetParam() == "client_certificate") {
        const std::string file = dir.write("all.pem", sharedCertificate().combined());
        arguments.insert(arguments.end(), {file, file, file});
    } else {
        arguments.push_back(GetParam() == "download" ? dir.path() + "/file" : "2");
    }
    const Ended ended = runStandardExample(GetParam(), arguments);
    EXPECT_EQ(ended.code, 1);
    EXPECT_TRUE(contains(ended.errors, "cannot connect") ||
                contains(ended.errors, "Connection refused"))
        << ended.errors;
}

INSTANTIATE_TEST_SUITE_P(Examples, StandardExample,
                         testing::Values("chain", "shared_connection", "client_certificate",
                                         "retry", "download"),
                         [](const auto& info) { return info.param; });

TEST(ExampleChain, MakesAllRequestsOnOneConnection) {
    ScriptedServer server(answeringWith(200, "hello"));
    const Ended ended = runStandardExample("chain", to(server, {"/", "1000"}));
    EXPECT_EQ(ended.code, 0) << ended.errors;
    EXPECT_TRUE(ended.output.starts_with("1000 of 1000 requests, 5000 bytes, in ")) << ended.output;
    EXPECT_EQ(ended.errors, "");
    EXPECT_EQ(server.connections(), 1u);
    EXPECT_EQ(server.frames(0, kHeaders).size(), 1000u);
}

TEST(ExampleChain, EndsWithAFailure) {
    ScriptedServer server(answering([](size_t, uint32_t streamId) {
        return streamId == 5 ? rstStream(streamId, 2) : response(streamId, 200, "hello");
    }));
    const Ended ended = runStandardExample("chain", to(server, {"/", "4"}));
    EXPECT_EQ(ended.code, 1);
    EXPECT_TRUE(ended.output.starts_with("2 of 4 requests, 10 bytes, in ")) << ended.output;
}

TEST(ExampleSharedConnection, HasHundredClientsOnOneConnection) {
    // Answers none before it has all.
    size_t requests = 0;
    ScriptedServer server(answering([&](size_t, uint32_t streamId) {
        std::string out;
        if (++requests == 100) {
            for (uint32_t id = 1; id <= streamId; id += 2) out += response(id, 200, "hello");
        }
        return out;
    }));
    const Ended ended = runStandardExample("shared_connection", to(server, {"/", "100"}));
    EXPECT_EQ(ended.code, 0) << ended.errors;
    EXPECT_EQ(ended.output, "100 of 100 complete, connections: 1\n");
    EXPECT_EQ(server.connections(), 1u);
}

TEST(ExampleSharedConnection, CountsThoseThatFail) {
    ScriptedServer server(answering([](size_t, uint32_t streamId) {
        return streamId == 3 ? rstStream(streamId, 2) : response(streamId, 200, "hello");
    }));
    const Ended ended = runStandardExample("shared_connection", to(server, {"/", "3"}));
    EXPECT_EQ(ended.code, 1);
    EXPECT_EQ(ended.output, "2 of 3 complete, connections: 1\n");
}

TEST(ExampleClientCertificate, ShowsIt) {
    const TempDir dir;
    const Certificate own = makeCertificate();
    PeerOptions options;
    options.certificate = sharedCertificate();
    options.wantCertificate = true;
    bool shown = false;
    TlsPeer peer(options, 1, [&](SSL* ssl) {
        shown = SSL_get0_peer_certificate(ssl) != nullptr;
        writeAll(ssl, settings({}));
        std::string got = readAll(ssl, kPreface.size());
        size_t rest = 0;
        const auto asked = [&] {
            const std::vector<WireFrame> frames = parseWholeFrames(withoutPreface(got), rest);
            return std::any_of(frames.begin(), frames.end(), isWholeRequest);
        };
        while (!asked()) got += readAll(ssl, 1);
        writeAll(ssl, response(1, 200, "hello"));
        readAll(ssl, 1 << 20);  // until the client has ended
    });
    const Ended ended =
        runStandardExample("client_certificate",
                           {"localhost", std::to_string(peer.port()), "/",
                            dir.write("ca.pem", options.certificate.certificate),
                            dir.write("own.pem", own.certificate), dir.write("own.key", own.key)});
    EXPECT_EQ(ended.code, 0);
    EXPECT_EQ(ended.errors, "connected to 127.0.0.1 by TLSv1.3\nstatus 200\n");
    EXPECT_EQ(ended.output, "hello");
    EXPECT_TRUE(shown);
}

TEST(ExampleRetry, SendsAgainWhatWasNotProcessed) {
    size_t requests = 0;
    ScriptedServer server(answering([&](size_t, uint32_t streamId) {
        return ++requests <= 4 ? rstStream(streamId, 7) : response(streamId, 201, "done");
    }));
    const Ended ended = runStandardExample("retry", to(server, {"/order", "one"}));
    EXPECT_EQ(ended.code, 0) << ended.errors;
    EXPECT_EQ(ended.output, "done");
    EXPECT_TRUE(ended.errors.starts_with("attempt 1: ")) << ended.errors;
    EXPECT_TRUE(ended.errors.ends_with("\nstatus 201\n")) << ended.errors;
    EXPECT_EQ(requests, 5u);
}

TEST(ExampleRetry, LeavesAloneWhatMayHaveBeenProcessed) {
    ScriptedServer* leaving = nullptr;
    ScriptedServer server(answering([&](size_t index, uint32_t) {
        leaving->close(index);
        return std::string();
    }));
    leaving = &server;
    const Ended ended = runStandardExample("retry", to(server, {"/order", "one"}));
    EXPECT_EQ(ended.code, 1);
    EXPECT_EQ(ended.errors,
              "attempt 1: the server closed the connection\n"
              "the request may have been processed: not sent again\n");
    EXPECT_EQ(server.connections(), 1u);
}

TEST(ExampleDownload, WritesTheFileAndShowsABar) {
    const TempDir dir;
    const std::string file = dir.path() + "/file";
    std::string body(1'000'000, '\0');
    for (size_t i = 0; i < body.size(); ++i) body[i] = static_cast<char>(i * 7 % 251);
    ScriptedServer server(answering([&](size_t, uint32_t streamId) {
        std::string out =
            headers(streamId, status(200) + hpackLiteral("content-length", "1000000"));
        for (size_t at = 0; at < body.size(); at += 10000) {
            out += data(streamId, body.substr(at, 10000));
        }
        return out + data(streamId, "", kEndStream);
    }));
    const Ended ended = runStandardExample("download", to(server, {"/", file}));
    EXPECT_EQ(ended.code, 0);
    EXPECT_EQ(ended.output, "");
    EXPECT_TRUE(contains(ended.errors, "\r[" + std::string(40, '#') + "] 100% of 1000000 bytes\n"))
        << ended.errors;
    EXPECT_TRUE(contains(ended.errors, "complete in ")) << ended.errors;
    EXPECT_TRUE(fileContent(file) == body);
}

TEST(ExampleDownload, TellsAnEndInTheMiddle) {
    const TempDir dir;
    ScriptedServer* leaving = nullptr;
    ScriptedServer server(answering([&](size_t index, uint32_t streamId) {
        leaving->send(index, headers(streamId, status(200)) + data(streamId, "part"));
        leaving->close(index);
        return std::string();
    }));
    leaving = &server;
    const Ended ended = runStandardExample("download", to(server, {"/", dir.path() + "/file"}));
    EXPECT_EQ(ended.code, 1);
    EXPECT_TRUE(ended.errors.ends_with("\r4 bytes\nfailed: the server closed the connection\n"))
        << ended.errors;
}

TEST(ExampleDownload, TellsAFileThatItCannotWrite) {
    ScriptedServer server(answeringWith(200, "the body"));
    const Ended ended = runStandardExample("download", to(server, {"/", "/no/such/file"}));
    EXPECT_EQ(ended.code, 1);
    EXPECT_EQ(ended.errors, "cannot write /no/such/file\n");
    EXPECT_EQ(server.connections(), 0u);
}

}  // namespace
}  // namespace h2test
