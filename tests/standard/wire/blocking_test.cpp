// blockedRequest.
#include "tests/standard/wire/wire_support.h"

namespace {

using namespace h2test;
using Map = std::map<std::string, std::string>;

struct Result {
    int code = -2;
    int status = -2;
    Map fields;
    std::string body;
    std::string error;
};

Result block(tiny::HttpClientInterface& client, uint32_t timeout = 60000) {
    Result result;
    const char* error = "";
    result.code = client.blockedRequest(result.status, result.fields, result.body, error, timeout);
    result.error = error;
    return result;
}

class Blocking : public BothTest {};
INSTANTIATE_TEST_SUITE_P(Blocked, Blocking, testing::Bool(), protocolName);

TEST_P(Blocking, HasTheWholeAnswer) {
    Http2Server server(options([](const Request& request) {
        const std::string fields = hpackLiteral("a", "1") + hpackLiteral("set-cookie", "x") +
                                   hpackLiteral("a", "2") + hpackLiteral("set-cookie", "y");
        return answerHead(request.stream, 404, fields) + data(request.stream, "abc") +
               data(request.stream, "def") +
               headers(request.stream, hpackLiteral("t", "3"), kEndHeaders | kEndStream);
    }));
    RecordingClient client;
    ASSERT_EQ(connect(client, server), 0);
    ASSERT_EQ(client.setUri("/", HTTP_GET), 0);
    for (int i = 0; i < 50; ++i) {
        client.clear();
        const Result result = block(client);
        ASSERT_EQ(result.code, 0) << result.error;
        EXPECT_EQ(result.status, 404);
        EXPECT_EQ(result.fields,
                  (Map{{":status", "404"}, {"a", "1, 2"}, {"set-cookie", "x\ny"}, {"t", "3"}}));
        EXPECT_EQ(result.body, "abcdef");
        EXPECT_EQ(client.callbacks().size(), 5u);
        EXPECT_EQ(client.callbacks().back(), Callback::content("", false));
    }
}

class Blocked : public LibraryTest {};

TEST_F(Blocked, AnswerWithoutBodyIsComplete) {
    Http2Server server([](const Request& request) {
        return answerHead(request.stream, 204, {}, kEndHeaders | kEndStream);
    });
    RecordingClient client;
    prepareGet(client, server);
    const Result result = block(client);
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.status, 204);
    EXPECT_EQ(result.body, "");
}

TEST_F(Blocked, TimesOut) {
    Http2Server server([](const Request& request) {
        return request.field(":path") == "/" ? std::string() : answerHead(request.stream);
    });
    RecordingClient client;
    prepareGet(client, server);
    const auto since = [](std::chrono::steady_clock::time_point begun) {
        return std::chrono::steady_clock::now() - begun;
    };
    auto begun = std::chrono::steady_clock::now();
    EXPECT_EQ(block(client, 0).code, 1);
    EXPECT_GE(since(begun), std::chrono::milliseconds(10));
    EXPECT_LT(since(begun), std::chrono::seconds(5));
    ASSERT_EQ(client.setUri("/begun", HTTP_GET), 0);
    begun = std::chrono::steady_clock::now();
    const Result result = block(client, 1000);
    EXPECT_GE(since(begun), std::chrono::milliseconds(1000));
    EXPECT_EQ(result.code, 3);
    EXPECT_EQ(result.error, "the answer did not come in time");
    // No callback behind it.
    const std::vector<Callback> heard = client.callbacks();
    EXPECT_EQ(heard, (std::vector<Callback>{Callback::headers(200, {{":status", "200"}})}));
    const uint32_t last = server.requests().back().stream;
    server.wire().send(0, data(last, "late", kEndStream) + ping(1));
    ASSERT_TRUE(server.wire().waitFramesOf(0, kPing));
    EXPECT_EQ(client.callbacks(), heard);
    ASSERT_TRUE(server.wire().waitFramesOf(0, kRstStream));
    EXPECT_EQ(client.parseHttpClientStatus(nullptr), 0);
}

TEST_F(Blocked, FailsAndRefuses) {
    Http2Server server([](const Request& request) {
        return request.stream == 1 ? rstStream(1, 2) : answer(request.stream, "abcd");
    });
    RecordingClient client;
    EXPECT_EQ(block(client).code, 2);
    prepareGet(client, server);
    EXPECT_EQ(block(client).code, 1);
    EXPECT_EQ(client.callbacks(), std::vector<Callback>{Callback::failed(ERR_RECV_ERR)});
    EXPECT_EQ(block(client, 60000).error, "");
    ASSERT_EQ(setHttp2Option(&client, HTTP2_MAX_BLOCKED_BODY, 4), 0);
    EXPECT_EQ(block(client).code, 0);
    ASSERT_EQ(setHttp2Option(&client, HTTP2_MAX_BLOCKED_BODY, 3), 0);
    const Result tooLarge = block(client);
    EXPECT_EQ(tooLarge.code, 1);
    EXPECT_EQ(tooLarge.error, "the body is larger than the limit");
    // While another request runs.
    ASSERT_EQ(setHttp2Option(&client, HTTP2_OWN_CONNECTION, 1), 0);
    Http2Server silent(Http2Server::Reply{});
    prepareGet(client, silent);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    EXPECT_EQ(block(client).code, 2);
}

TEST_F(Blocked, RefusesInsideACallback) {
    Http2Server server(answerAll());
    RecordingClient other;
    prepareGet(other, server);
    int code = 0;
    RecordingClient client([&](const Callback&) { code = block(other).code; });
    prepareGet(client, server);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(client.waitEnd());
    EXPECT_EQ(code, 2);
    EXPECT_TRUE(other.callbacks().empty());
}

}  // namespace
