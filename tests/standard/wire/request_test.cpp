// One request and its answer.
#include <atomic>

#include "tests/standard/wire/wire_support.h"

namespace {

using namespace h2test;
using Fields = std::vector<std::pair<std::string, std::string>>;

class Request_ : public BothTest {};
INSTANTIATE_TEST_SUITE_P(Request, Request_, testing::Bool(), protocolName);

TEST_P(Request_, SendsFieldsInOrder) {
    Http2Server server(options(answerAll()));
    RecordingClient client;
    ASSERT_EQ(connect(client, server), 0) << getHttp2Text(&client, HTTP2_ERROR);
    ASSERT_EQ(client.setUri("/a?b=c", HTTP_GET), 0);
    ASSERT_EQ(client.addHeader("x-one", "1", false), &client);
    ASSERT_EQ(client.addHeader("x-empty", "", true), &client);
    ASSERT_EQ(client.addHeader("x-high", "\xc3\xa9", false), &client);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(client.waitEnd());
    EXPECT_EQ(client.callbacks(), answered());
    const std::string authority = "127.0.0.1:" + std::to_string(server.port());
    EXPECT_EQ(server.requests()[0].fields, (Fields{{":path", "/a?b=c"},
                                                   {":method", "GET"},
                                                   {":scheme", tls() ? "https" : "http"},
                                                   {":authority", authority},
                                                   {"x-one", "1"},
                                                   {"x-empty", ""},
                                                   {"x-high", "\xc3\xa9"}}));
}

TEST_P(Request_, HostBecomesAuthority) {
    Http2Server server(options(answerAll()));
    RecordingClient client;
    ASSERT_EQ(connect(client, server), 0);
    ASSERT_EQ(client.setUri("", HTTP_DELETE), 0);
    ASSERT_NE(client.addHeader("host", "example.org", false), nullptr);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(client.waitEnd());
    EXPECT_EQ(server.requests()[0].fields, (Fields{{":path", "/"},
                                                   {":method", "DELETE"},
                                                   {":scheme", tls() ? "https" : "http"},
                                                   {":authority", "example.org"}}));
}

// What was encoded for one request is used again for the next, as long as nothing has changed.
TEST_P(Request_, EachHasTheFieldsOfItsTime) {
    Http2Server server(options(answerAll()));
    RecordingClient client;
    ASSERT_EQ(connect(client, server), 0);
    for (size_t i = 0; i < 12; ++i) {
        const std::string path = "/" + std::to_string(i);
        ASSERT_EQ(client.setUri(path.c_str(), HTTP_GET), 0);
        if (i % 4 == 0) {
            ASSERT_EQ(client.addHeader("x-since", path.c_str(), false), &client);
        }
        client.clear();
        ASSERT_EQ(client.startRequest(nullptr), 0);
        ASSERT_TRUE(client.waitEnd());
    }
    ASSERT_EQ(server.requests().size(), 12u);
    for (size_t i = 0; i < 12; ++i) {
        Fields fields = server.requests()[i].fields;
        EXPECT_EQ(fields[0], (Fields::value_type{":path", "/" + std::to_string(i)}));
        Fields expected;
        for (size_t j = 0; j <= i; j += 4) expected.push_back({"x-since", "/" + std::to_string(j)});
        EXPECT_EQ(Fields(fields.begin() + 4, fields.end()), expected) << i;
    }
}

TEST_P(Request_, BlockGoesOutWhole) {
    Http2Options with = options(answerAll());
    // Small windows, so that the block waits for updates of both.
    with.greeting = settings({{4, 40000}});
    Http2Server server(std::move(with));
    const std::string body = distinctBytes(100000);
    RecordingClient client;
    ASSERT_EQ(connect(client, server), 0);
    ASSERT_TRUE(server.wire().waitFramesOf(0, kSettings, 2));  // the windows are known
    ASSERT_EQ(client.setUri("/", HTTP_POST), 0);
    {
        std::string copy = body;
        ASSERT_EQ(client.setContent(copy.data(), copy.size()), 0);
        std::fill(copy.begin(), copy.end(), 'x');
    }
    ASSERT_EQ(client.startRequest(nullptr), 0);
    const auto received = [](size_t size) {
        return [size](const std::vector<WireFrame>& frames) {
            size_t sum = 0;
            for (const WireFrame& f : frames) sum += f.type == kData ? f.length : 0;
            return sum == size;
        };
    };
    ASSERT_TRUE(server.wire().waitFramesThat(0, received(40000)));
    server.wire().send(0, windowUpdate(1, 1000000));
    ASSERT_TRUE(server.wire().waitFramesThat(0, received(65535)));
    server.wire().send(0, windowUpdate(0, 1000000));
    ASSERT_TRUE(client.waitEnd());
    EXPECT_EQ(client.callbacks(), answered());
    EXPECT_EQ(server.requests()[0].field("content-length"), "100000");
    EXPECT_TRUE(server.requests()[0].body == body);
}

TEST_P(Request_, LargeBlockGoesOutWhole) {
    Http2Server server(options(answerAll()));
    const std::string body = distinctBytes(4 << 20);
    RecordingClient client;
    ASSERT_EQ(connect(client, server), 0);
    ASSERT_TRUE(server.wire().waitFramesOf(0, kSettings, 2));  // the windows are known
    ASSERT_EQ(client.setUri("/", HTTP_POST), 0);
    ASSERT_EQ(client.setContent(body.data(), body.size()), 0);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(client.waitEnd());
    EXPECT_TRUE(server.requests()[0].body == body);
}

TEST_P(Request_, EmptyBlockIsABody) {
    Http2Server server(options(answerAll()));
    RecordingClient client;
    ASSERT_EQ(connect(client, server), 0);
    ASSERT_EQ(client.setUri("/", HTTP_POST), 0);
    for (const char* block : {"unused", static_cast<const char*>(nullptr)}) {
        client.clear();
        ASSERT_EQ(client.setContent(block, 0), 0);
        ASSERT_EQ(client.startRequest(nullptr), 0);
        ASSERT_TRUE(client.waitEnd());
        EXPECT_EQ(server.requests().back().field("content-length"), "0");
    }
    for (const WireFrame& frame : server.wire().frames(0, kHeaders)) {
        EXPECT_TRUE(frame.hasFlags(kEndStream));
    }
}

TEST_P(Request_, IsKeptForTheNextUntilItIsCleared) {
    Http2Server server(options(answerAll()));
    RecordingClient client;
    ASSERT_EQ(connect(client, server), 0);
    ASSERT_EQ(client.setUri("/p", HTTP_POST), 0);
    ASSERT_NE(client.addHeader("a", "1", false), nullptr);
    ASSERT_EQ(client.setContent("abc", 3), 0);
    const auto next = [&] {
        client.clear();
        EXPECT_EQ(client.startRequest(nullptr), 0);
        EXPECT_TRUE(client.waitEnd());
        return server.requests().back();
    };
    const Request first = next(), second = next();
    EXPECT_EQ(first.body, "abc");
    EXPECT_EQ(second.body, "abc");
    EXPECT_EQ(second.fields, first.fields);
    client.clearClient();
    ASSERT_EQ(client.setUri("/q", HTTP_GET), 0);
    const std::string authority = "127.0.0.1:" + std::to_string(server.port());
    EXPECT_EQ(next().fields, (Fields{{":path", "/q"},
                                     {":method", "GET"},
                                     {":scheme", tls() ? "https" : "http"},
                                     {":authority", authority}}));
}

// Secrets: kept out of the compression's tables, here and on the way.
TEST_P(Request_, ValueThatMayChangeIsNeverIndexed) {
    Http2Server server(options(answerAll()));
    RecordingClient client;
    ASSERT_EQ(connect(client, server), 0);
    ASSERT_EQ(client.setUri("/", HTTP_GET), 0);
    ASSERT_NE(client.addHeader("a", "1", true), nullptr);
    for (size_t i = 0; i < 2; ++i) {
        client.clear();
        ASSERT_EQ(client.startRequest(nullptr), 0);
        ASSERT_TRUE(client.waitEnd());
        const std::string block = server.wire().frames(0, kHeaders)[i].payload;
        // The last field: never indexed, a new name, which is never entered into the table.
        ASSERT_GE(block.size(), 5u);
        EXPECT_EQ(static_cast<uint8_t>(block[block.size() - 5]), 0x10) << toHex(block);
    }
}

TEST_P(Request_, ReaderGivesTheBody) {
    for (const size_t size : {0, 1, 16383, 16384, 50000}) {
        SCOPED_TRACE(size);
        Http2Server server(options(answerAll()));
        BodySource source(distinctBytes(size));
        RecordingClient client;
        ASSERT_EQ(connect(client, server), 0);
        ASSERT_EQ(client.setUri("/", HTTP_POST), 0);
        ASSERT_EQ(client.setContent(&BodySource::read, &source), 0);
        ASSERT_EQ(client.startRequest(nullptr), 0);
        ASSERT_TRUE(client.waitEnd());
        EXPECT_TRUE(server.requests()[0].body == source.bytes);
        EXPECT_EQ(server.requests()[0].field("content-length"), "");
        EXPECT_EQ(source.asked, std::vector<size_t>(size / 16384 + 1, 16384));
    }
}

TEST_P(Request_, ManyInARowOnOneConnection) {
    Http2Server server(options(answerAll()));
    RecordingClient client;
    ASSERT_EQ(connect(client, server), 0);
    ASSERT_EQ(client.setUri("/", HTTP_GET), 0);
    for (int i = 0; i < 200; ++i) {
        client.clear();
        ASSERT_EQ(client.startRequest(nullptr), 0);
        ASSERT_TRUE(client.waitEnd());
        ASSERT_EQ(client.callbacks(), answered());
    }
    EXPECT_EQ(server.wire().connections(), 1u);
}

class Answer : public LibraryTest {
protected:
    // Sends `bytes` as the reply to a GET, and returns the client's callbacks after `count` of
    // them.
    std::vector<Callback> callbacksOf(const std::string& bytes, size_t count) {
        Http2Server server([&](const Request&) { return bytes; });
        RecordingClient client;
        prepareGet(client, server);
        EXPECT_EQ(client.startRequest(nullptr), 0);
        EXPECT_TRUE(client.waitCallbacks(count));
        return client.callbacks();
    }
};

TEST_F(Answer, EndsWithItsHeaders) {
    for (const int status : {200, 204, 304}) {
        EXPECT_EQ(
            callbacksOf(answerHead(1, status, {}, kEndHeaders | kEndStream), 2),
            (std::vector<Callback>{Callback::headers(status, {{":status", std::to_string(status)}}),
                                   Callback::content("", false)}));
    }
}

TEST_F(Answer, EndsWithEmptyData) {
    EXPECT_EQ(
        callbacksOf(answerHead(1) + data(1, "abc") + data(1, "", kEndStream), 3),
        (std::vector<Callback>{Callback::headers(200, {{":status", "200"}}),
                               Callback::content("abc", true), Callback::content("", false)}));
}

TEST_F(Answer, EndsWithPaddedData) {
    EXPECT_EQ(callbacksOf(answerHead(1) + dataPadded(1, "abc", 7, kEndStream), 2), answered("abc"));
}

TEST_F(Answer, TrailersComeWithTheHeaders) {
    const std::string first = hpackLiteral("a", "1");
    EXPECT_EQ(
        callbacksOf(answerHead(1, 200, first) + data(1, "abc") +
                        headers(1, hpackLiteral("t", "2"), kEndHeaders | kEndStream),
                    4),
        (std::vector<Callback>{Callback::headers(200, {{":status", "200"}, {"a", "1"}}),
                               Callback::content("abc", true),
                               Callback::headers(200, {{":status", "200"}, {"a", "1"}, {"t", "2"}}),
                               Callback::content("", false)}));
}

TEST_F(Answer, InterimAnswersArePassedOver) {
    EXPECT_EQ(
        callbacksOf(answerHead(1, 100) + answerHead(1, 103, hpackLiteral("link", "x")) + answer(1),
                    2),
        answered());
    EXPECT_EQ(callbacksOf(answerHead(1, 101), 1),
              (std::vector<Callback>{Callback::failed(ERR_FETAL)}));
}

TEST_F(Answer, KeepsOrderAndRepeatedFields) {
    const std::string fields = hpackLiteral("z", "1") + hpackLiteral("a", "2") +
                               hpackLiteral("set-cookie", "c=1") + hpackLiteral("z", "3");
    EXPECT_EQ(
        callbacksOf(answerHead(1, 200, fields) + data(1, "", kEndStream), 2),
        (std::vector<Callback>{
            Callback::headers(
                200,
                {{":status", "200"}, {"z", "1"}, {"a", "2"}, {"set-cookie", "c=1"}, {"z", "3"}}),
            Callback::content("", false)}));
}

TEST_F(Answer, ResetAndMalformed) {
    EXPECT_EQ(callbacksOf(rstStream(1, 2), 1),
              (std::vector<Callback>{Callback::failed(ERR_RECV_ERR)}));
    EXPECT_EQ(callbacksOf(headers(1, hpackLiteral("no", "status")), 1),
              (std::vector<Callback>{Callback::failed(ERR_FETAL)}));
    EXPECT_EQ(callbacksOf(answerHead(1, 200, hpackLiteral("content-length", "5")) +
                              data(1, "abc", kEndStream),
                          3),
              (std::vector<Callback>{
                  Callback::headers(200, {{":status", "200"}, {"content-length", "5"}}),
                  Callback::content("abc", true), Callback::failed(ERR_FETAL)}));
}

TEST_F(Answer, EarlyWithResetIsWhole) {
    Http2Server server(Http2Server::Reply{});
    RecordingClient client;
    prepareGet(client, server);
    ASSERT_EQ(client.setUri("/", HTTP_POST), 0);
    const std::string body(40 << 20, 'x');  // more than the windows take
    ASSERT_EQ(client.setContent(body.data(), body.size()), 0);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(server.wire().waitFramesOf(0, kData));
    server.wire().send(0, answer(1, "too large") + rstStream(1, kNoErrorCode));
    ASSERT_TRUE(client.waitEnd());
    EXPECT_EQ(client.callbacks(), answered("too large"));
    // The rest of the body is not sent.
    ASSERT_TRUE(server.wire().waitFramesOf(0, kRstStream));
    EXPECT_EQ(server.wire().frames(0, kRstStream)[0], parseFrames(rstStream(1, kCancelCode))[0]);
}

TEST_F(Answer, ReaderIsNotCalledBehindIt) {
    Http2Options options;
    options.greeting = settings({{4, 16384}});
    Http2Server server(std::move(options));
    BodySource source(distinctBytes(100000));
    RecordingClient client;
    prepareGet(client, server);
    ASSERT_TRUE(server.wire().waitFramesOf(0, kSettings, 2));  // the windows are known
    ASSERT_EQ(client.setUri("/", HTTP_POST), 0);
    ASSERT_EQ(client.setContent(&BodySource::read, &source), 0);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(server.wire().waitFramesOf(0, kData));
    server.wire().send(0, answer(1) + windowUpdate(1, 100000) + ping(1));
    ASSERT_TRUE(client.waitEnd());
    ASSERT_TRUE(server.wire().waitFramesOf(0, kPing));
    EXPECT_EQ(source.asked.size(), 1u);
    EXPECT_EQ(server.wire().frames(0, kRstStream), parseFrames(rstStream(1, kCancelCode)));
    EXPECT_EQ(client.callbacks(), answered());
}

class Reader : public LibraryTest {
protected:
    // The callbacks of a POST whose reader returns `results` one after the other.
    static std::vector<Callback> callbacksOf(std::vector<int> results, const char* length,
                                             uint32_t& resetCode) {
        struct Source {
            std::vector<int> results;
            size_t at = 0;
        } source{std::move(results)};
        Http2Server server(answerAll());
        RecordingClient client;
        prepareGet(client, server);
        client.setUri("/", HTTP_POST);
        if (length != nullptr) client.addHeader("content-length", length, false);
        client.setContent(
            [](char* buf, size_t len, void* opaque) {
                auto* self = static_cast<Source*>(opaque);
                std::memset(buf, 'x', len);
                return self->results.at(self->at++);
            },
            &source);
        EXPECT_EQ(client.startRequest(nullptr), 0);
        EXPECT_TRUE(client.waitCallbacks(1));
        if (client.count(Callback::Kind::kFailed) == 0) {
            EXPECT_TRUE(client.waitEnd());
        } else if (server.wire().waitFramesOf(0, kRstStream)) {
            resetCode = static_cast<uint8_t>(server.wire().frames(0, kRstStream)[0].payload[3]);
        }
        return client.callbacks();
    }
};

TEST_F(Reader, FailureResetsTheStream) {
    uint32_t code = 99;
    const std::vector<Callback> failed{Callback::failed(ERR_CONTENT_UNSET)};
    EXPECT_EQ(callbacksOf({-1}, nullptr, code), failed);
    EXPECT_EQ(code, kCancelCode);
    EXPECT_EQ(callbacksOf({16384, -1}, nullptr, code), failed);
    EXPECT_EQ(callbacksOf({16385}, nullptr, code), failed);
}

TEST_F(Reader, AgreesWithContentLength) {
    uint32_t code = 99;
    const std::vector<Callback> failed{Callback::failed(ERR_CONTENT_UNSET)};
    EXPECT_EQ(callbacksOf({10}, "10", code), answered());
    EXPECT_EQ(callbacksOf({16384, 0}, "16384", code), answered());
    EXPECT_EQ(callbacksOf({9}, "10", code), failed);
    EXPECT_EQ(callbacksOf({11}, "10", code), failed);
    EXPECT_EQ(callbacksOf({16384}, "10", code), failed);
}

class Calls : public LibraryTest {};

TEST_F(Calls, NothingWorksBeforeConnecting) {
    RecordingClient client;
    EXPECT_EQ(client.setUri("/", HTTP_GET), 4);
    EXPECT_EQ(client.addHeader("a", "b", false), nullptr);
    EXPECT_EQ(client.setContent("x", 1), 4);
    EXPECT_EQ(client.setContent(&BodySource::read, nullptr), 4);
    EXPECT_EQ(client.startRequest(nullptr), 4);
    EXPECT_EQ(client.cancelRequest(), 4);
    EXPECT_EQ(client.parseHttpClientStatus(nullptr), 4);
    EXPECT_NE(client.ctx(), nullptr);
}

TEST_F(Calls, RefusesWhatMayNotBeSent) {
    Http2Server server(answerAll());
    RecordingClient client;
    prepareGet(client, server);
    for (const char* path : {"/a b", "/a\x01", "/\x7f", "/\xc3\xa9", "/a\r\nb"}) {
        EXPECT_EQ(client.setUri(path, HTTP_GET), 5) << path;
    }
    for (const char* name : {"", "Upper", "a b", ":path", "connection", "keep-alive", "upgrade",
                             "proxy-connection", "transfer-encoding", "a\n", "te"}) {
        EXPECT_EQ(client.addHeader(name, "x", false), nullptr) << name;
    }
    for (const char* value : {"a\rb", "a\nb", "\x01", " a", "a ", "\x7f"}) {
        EXPECT_EQ(client.addHeader("a", value, false), nullptr) << value;
    }
    EXPECT_NE(client.addHeader("te", "trailers", false), nullptr);
    EXPECT_EQ(client.addHeader(nullptr, "x", false), nullptr);
    const std::string large(65000, 'x');
    EXPECT_NE(client.addHeader("large", large.c_str(), false), nullptr);
    EXPECT_EQ(client.addHeader("large", large.c_str(), false), nullptr);
    // What was refused is not sent.
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(client.waitEnd());
    EXPECT_EQ(server.requests()[0].field(":path"), "/");
    EXPECT_EQ(server.requests()[0].fields.size(), 6u);
}

TEST_F(Calls, HeadersMayBeAsLargeAs64KiB) {
    Http2Options options;
    options.greeting = settings({{4, 16 << 20}, {6, 100}});  // the server's limit is advice
    options.reply = answerAll();
    Http2Server server(std::move(options));
    RecordingClient client;
    prepareGet(client, server);
    ASSERT_TRUE(server.wire().waitFramesOf(0, kSettings, 2));
    const std::string path = "/" + std::string(30000, 'p');
    const std::string value(65536 - (path.size() + 5 + 32) - (1 + 32), 'v');
    ASSERT_EQ(client.setUri(path.c_str(), HTTP_GET), 0);
    EXPECT_EQ(client.addHeader("a", (value + "v").c_str(), false), nullptr);
    EXPECT_STREQ(getHttp2Text(&client, HTTP2_ERROR), "not a header that may be sent: a");
    EXPECT_EQ(client.addHeader("a", value.c_str(), false), &client);
    EXPECT_STREQ(getHttp2Text(&client, HTTP2_ERROR), "");
    EXPECT_EQ(client.setUri((path + "p").c_str(), HTTP_GET), 5);
    EXPECT_STREQ(getHttp2Text(&client, HTTP2_ERROR), "not a path that may be sent");
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(client.waitEnd());
    EXPECT_EQ(server.requests()[0].field(":path"), path);
    EXPECT_EQ(server.requests()[0].field("a"), value);
}

TEST_F(Calls, StartSaysWhatIsMissing) {
    Http2Server server(Http2Server::Reply{});
    RecordingClient client;
    ASSERT_EQ(connectTo(client, server), 0);
    EXPECT_EQ(client.startRequest(nullptr), 5);
    ASSERT_EQ(client.setUri("/", HTTP_METHOD_UNDEFINED), 0);
    EXPECT_EQ(client.startRequest(nullptr), 5);
    ASSERT_EQ(client.setUri("/", HTTP_POST), 0);
    ASSERT_EQ(client.setContent("abc", 3), 0);
    ASSERT_NE(client.addHeader("content-length", "4", false), nullptr);
    EXPECT_EQ(client.startRequest(nullptr), 7);
    client.clearClient();
    EXPECT_EQ(client.startRequest(nullptr), 5);
    ASSERT_EQ(client.setUri("/", HTTP_GET), 0);
    EXPECT_EQ(client.parseHttpClientStatus(nullptr), 0);
    EXPECT_EQ(client.startRequest(nullptr), 0);
    EXPECT_EQ(client.parseHttpClientStatus(nullptr), 8);
    EXPECT_EQ(client.startRequest(nullptr), 8);
}

TEST_F(Calls, MethodIsAnyToken) {
    Http2Server server([](const Request& request) {
        return answerHead(request.stream, 200, hpackLiteral("content-length", "5"),
                          kEndHeaders | kEndStream);
    });
    RecordingClient client;
    EXPECT_EQ(setHttp2TextOption(&client, HTTP2_METHOD, "HEAD"), -1);
    prepareGet(client, server);
    EXPECT_EQ(setHttp2TextOption(&client, HTTP2_METHOD, "CONNECT"), -1);
    EXPECT_EQ(setHttp2TextOption(&client, HTTP2_METHOD, "A B"), -1);
    EXPECT_EQ(setHttp2TextOption(&client, HTTP2_METHOD, "HEAD"), 0);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(client.waitEnd());
    EXPECT_EQ(server.requests()[0].field(":method"), "HEAD");
    EXPECT_EQ(client.callbacks().size(), 2u);
}

TEST_F(Calls, HundredRequestsRunUntilTheServerHasSpoken) {
    // Says nothing until the test does.
    ServerOptions options;
    ScriptedServer server(options);
    std::vector<std::unique_ptr<RecordingClient>> clients;
    for (int i = 0; i < 103; ++i) {
        clients.push_back(std::make_unique<RecordingClient>());
        RecordingClient& client = *clients.back();
        ASSERT_EQ(client.connectToServer(HTTP_2, "127.0.0.1", server.port()), 0);
        ASSERT_EQ(client.setUri("/", HTTP_GET), 0);
        ASSERT_EQ(client.startRequest(nullptr), 0);
    }
    ASSERT_TRUE(server.waitFramesOf(0, kHeaders, 100));
    server.send(0, settings({}) + answer(1));
    ASSERT_TRUE(clients[0]->waitEnd());
    // The empty SETTINGS lift the limit.
    ASSERT_TRUE(server.waitFramesOf(0, kHeaders, 103));
    const std::vector<WireFrame> frames = server.frames(0);
    size_t before = 0;
    for (const WireFrame& frame : frames) {
        if (frame.type == kSettings && frame.hasFlags(kAck)) break;
        before += frame.type == kHeaders ? 1 : 0;
    }
    EXPECT_EQ(before, 100u);
    EXPECT_EQ(server.connections(), 1u);
}

TEST_F(Calls, RequestsWaitForTheServersLimit) {
    Http2Options options;
    options.greeting = settings({{3, 1}});
    Http2Server server(std::move(options));
    RecordingClient first, second;
    prepareGet(first, server);
    prepareGet(second, server);
    ASSERT_TRUE(server.wire().waitFramesOf(0, kSettings, 2));  // the limit is known
    ASSERT_EQ(first.startRequest(nullptr), 0);
    ASSERT_EQ(second.startRequest(nullptr), 0);
    ASSERT_TRUE(server.waitRequests(1));
    server.wire().send(0, ping(1));
    ASSERT_TRUE(server.wire().waitFramesOf(0, kPing));
    EXPECT_EQ(server.requests().size(), 1u);
    server.wire().send(0, answer(1));
    ASSERT_TRUE(server.waitRequests(2));
    server.wire().send(0, answer(3));
    EXPECT_TRUE(first.waitEnd());
    EXPECT_TRUE(second.waitEnd());
}

}  // namespace
