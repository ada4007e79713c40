// Time-outs, and pausing.
#include "tests/standard/tls_peer.h"
#include "tests/standard/wire/wire_support.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using namespace h2test;

// Accepts one connection; further ones are not answered, since its queue is full.
class FullServer {
public:
    // Takes the one connection, which is there already, ends it and waits until the client has
    // ended it, too.
    void endConnection() {
        const int descriptor = m_listener.accept();
        fill();
        shutdown(descriptor, SHUT_WR);
        char buffer[4096];
        while (recv(descriptor, buffer, sizeof buffer, 0) > 0) {
        }
        close(descriptor);
    }
    // Takes up the queue, which has room for one.
    void fill() {
        m_filler = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(port());
        EXPECT_EQ(connect(m_filler, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    ~FullServer() {
        if (m_filler != -1) close(m_filler);
    }
    uint16_t port() const { return m_listener.port(); }

private:
    Listener m_listener{"127.0.0.1", 0};
    int m_filler = -1;
};

class TimeOuts : public LibraryTest {
protected:
    // The callbacks of a request with that option set to 50 ms, whose server sends `bytes`.
    static std::vector<Callback> callbacksWith(HTTP2_OPTION option, const std::string& bytes) {
        Http2Server server([&](const Request&) { return bytes; });
        RecordingClient client;
        EXPECT_EQ(setHttp2Option(&client, option, 50), 0);
        prepareGet(client, server);
        EXPECT_EQ(client.startRequest(nullptr), 0);
        EXPECT_TRUE(client.waitFailed());
        EXPECT_STREQ(getHttp2Text(&client, HTTP2_ERROR), "a time-out of the request has passed");
        EXPECT_TRUE(server.wire().waitFramesOf(0, kRstStream));
        EXPECT_EQ(server.wire().frames(0, kRstStream), parseFrames(rstStream(1, kCancelCode)));
        return client.callbacks();
    }
    // The callbacks of a request with that option set to 50 ms that finds its connection gone, and
    // a server that answers no other.
    static std::vector<Callback> callbacksWithoutConnection(HTTP2_OPTION option) {
        FullServer server;
        RecordingClient client;
        EXPECT_EQ(setHttp2Option(&client, option, 50), 0);
        EXPECT_EQ(client.connectToServer(HTTP_2, "127.0.0.1", server.port()), 0);
        EXPECT_EQ(client.setUri("/", HTTP_GET), 0);
        server.endConnection();
        EXPECT_EQ(client.startRequest(nullptr), 0);
        EXPECT_TRUE(client.waitFailed());
        EXPECT_EQ(client.parseHttpClientStatus(nullptr), 0);
        return client.callbacks();
    }
};

TEST_F(TimeOuts, EndOneRequestAlone) {
    const Callback failed = Callback::failed(ERR_TIMEOUT);
    const Callback head = Callback::headers(200, {{":status", "200"}});
    EXPECT_EQ(callbacksWith(HTTP2_FIRST_BYTE_TIMEOUT, ""), std::vector<Callback>{failed});
    EXPECT_EQ(callbacksWith(HTTP2_REQUEST_TIMEOUT, answerHead(1)),
              (std::vector<Callback>{head, failed}));
    EXPECT_EQ(callbacksWith(HTTP2_SILENCE_TIMEOUT, ""), std::vector<Callback>{failed});
    EXPECT_EQ(callbacksWith(HTTP2_SILENCE_TIMEOUT, answerHead(1)),
              (std::vector<Callback>{head, failed}));
}

TEST_F(TimeOuts, HoldWhileARequestWaitsForAConnection) {
    const std::vector<Callback> failed{Callback::failed(ERR_TIMEOUT)};
    EXPECT_EQ(callbacksWithoutConnection(HTTP2_FIRST_BYTE_TIMEOUT), failed);
    EXPECT_EQ(callbacksWithoutConnection(HTTP2_REQUEST_TIMEOUT), failed);
    EXPECT_EQ(callbacksWithoutConnection(HTTP2_SILENCE_TIMEOUT), failed);
    EXPECT_EQ(callbacksWithoutConnection(HTTP2_CONNECT_TIMEOUT),
              std::vector<Callback>{Callback::failed(ERR_SOCKET_CLOSED)});
}

TEST_F(TimeOuts, HoldWhileARequestWaitsForTheServersLimit) {
    Http2Options options;
    options.greeting = settings({{3, 1}});
    Http2Server server(std::move(options));
    RecordingClient running, waiting;
    prepareGet(running, server);
    ASSERT_EQ(setHttp2Option(&waiting, HTTP2_FIRST_BYTE_TIMEOUT, 50), 0);
    prepareGet(waiting, server);
    ASSERT_TRUE(server.wire().waitFramesOf(0, kSettings, 2));  // the limit is known
    ASSERT_EQ(running.startRequest(nullptr), 0);
    ASSERT_TRUE(server.waitRequests(1));
    ASSERT_EQ(waiting.startRequest(nullptr), 0);
    ASSERT_TRUE(waiting.waitFailed());
    EXPECT_EQ(waiting.callbacks(), std::vector<Callback>{Callback::failed(ERR_TIMEOUT)});
    server.wire().send(0, ping(1));  // the connection has then forgotten it
    ASSERT_TRUE(server.wire().waitFramesOf(0, kPing));
    server.wire().send(0, answer(1) + ping(2));
    ASSERT_TRUE(running.waitEnd());
    ASSERT_TRUE(server.wire().waitFramesOf(0, kPing, 2));
    EXPECT_EQ(server.wire().frames(0, kHeaders).size(), 1u);
    EXPECT_TRUE(server.wire().frames(0, kRstStream).empty());
}

TEST_F(TimeOuts, OfSilenceIsPutOffByEachPiece) {
    Http2Server server(Http2Server::Reply{});
    RecordingClient client;
    ASSERT_EQ(setHttp2Option(&client, HTTP2_SILENCE_TIMEOUT, 1000), 0);
    prepareGet(client, server);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(server.waitRequests(1));
    server.wire().send(0, answerHead(1));
    const auto begun = std::chrono::steady_clock::now();
    // Pieces for longer than the time-out.
    while (std::chrono::steady_clock::now() < begun + std::chrono::milliseconds(1500)) {
        server.wire().send(0, data(1, "x"));
        ASSERT_FALSE(waitFor([&] { return client.count(Callback::Kind::kFailed) != 0; },
                             std::chrono::milliseconds(100)));
    }
    server.wire().send(0, data(1, "", kEndStream));
    EXPECT_TRUE(client.waitEnd());
}

TEST_F(TimeOuts, OfAConnectionEndTheCall) {
    FullServer server;
    server.fill();
    RecordingClient client;
    ASSERT_EQ(setHttp2Option(&client, HTTP2_CONNECT_TIMEOUT, 50), 0);
    const auto begun = std::chrono::steady_clock::now();
    EXPECT_EQ(client.connectToServer(HTTP_2, "127.0.0.1", server.port()), 4);
    EXPECT_GE(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(50));
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(8));
    EXPECT_STREQ(getHttp2Text(&client, HTTP2_ERROR),
                 "cannot connect: no answer within the connect time-out");
}

TEST_F(TimeOuts, PingKeepsASilentConnection) {
    Http2Server server(Http2Server::Reply{});  // answers PING
    RecordingClient client;
    ASSERT_EQ(setHttp2Option(&client, HTTP2_PING_AFTER, 20), 0);
    ASSERT_EQ(setHttp2Option(&client, HTTP2_PING_TIMEOUT, 30000), 0);
    prepareGet(client, server);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(server.wire().waitFramesOf(0, kPing, 3));
    EXPECT_TRUE(client.callbacks().empty());
    server.wire().send(0, answer(1));
    ASSERT_TRUE(client.waitEnd());
    EXPECT_EQ(client.callbacks(), answered());
}

class Pausing : public LibraryTest {};

TEST_F(Pausing, GivesNoWindow) {
    Http2Server server(Http2Server::Reply{});
    RecordingClient client;
    ASSERT_EQ(setHttp2Option(&client, HTTP2_STREAM_WINDOW, 1000), 0);
    EXPECT_EQ(pauseHttp2Response(&client), -1);
    EXPECT_EQ(resumeHttp2Response(&client), -1);
    prepareGet(client, server);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(server.waitRequests(1));
    ASSERT_EQ(pauseHttp2Response(&client), 0);
    server.wire().send(0, answerHead(1) + data(1, std::string(1000, 'x')));
    ASSERT_TRUE(client.waitContent());
    server.wire().send(0, ping(1));
    ASSERT_TRUE(server.wire().waitFramesOf(0, kPing));
    EXPECT_TRUE(framesOf(server, 0, kWindowUpdate, 1).empty());
    ASSERT_EQ(resumeHttp2Response(&client), 0);
    ASSERT_TRUE(waitFor([&] { return !framesOf(server, 0, kWindowUpdate, 1).empty(); }));
    EXPECT_EQ(framesOf(server, 0, kWindowUpdate, 1), parseFrames(windowUpdate(1, 1000)));
    server.wire().send(0, data(1, std::string(1000, 'x'), kEndStream));
    ASSERT_TRUE(client.waitEnd());
    EXPECT_EQ(resumeHttp2Response(&client), -1);
}

TEST_F(Pausing, InACallbackLeavesOtherRequestsAlone) {
    Http2Server server([](const Request& request) {
        return request.field(":path") == "/paused"
                   ? answerHead(request.stream) + data(request.stream, std::string(1000, 'x'))
                   : answer(request.stream);
    });
    RecordingClient* self = nullptr;
    RecordingClient paused([&](const Callback& callback) {
        if (callback.kind == Callback::Kind::kHeaders) {
            EXPECT_EQ(pauseHttp2Response(self), 0);
        }
    });
    self = &paused;
    ASSERT_EQ(setHttp2Option(&paused, HTTP2_STREAM_WINDOW, 1000), 0);
    prepareGet(paused, server);
    ASSERT_EQ(paused.setUri("/paused", HTTP_GET), 0);
    ASSERT_EQ(paused.startRequest(nullptr), 0);
    ASSERT_TRUE(paused.waitContent());
    RecordingClient other;
    prepareGet(other, server);
    for (int i = 0; i < 3; ++i) {
        other.clear();
        ASSERT_EQ(other.startRequest(nullptr), 0);
        ASSERT_TRUE(other.waitEnd());
        EXPECT_EQ(other.callbacks(), answered());
    }
    EXPECT_TRUE(framesOf(server, 0, kWindowUpdate, 1).empty());
    // The pause ends with the request: the next one is not paused.
    ASSERT_EQ(paused.cancelRequest(), 0);
    ASSERT_EQ(pauseHttp2Response(&paused), -1);
    EXPECT_EQ(server.wire().connections(), 1u);
}

}  // namespace
