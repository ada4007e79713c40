// Connecting, sharing, cancelling, destroying; what callbacks may do; starting and stopping.
#include <csignal>

#include <atomic>
#include <thread>

#include "tests/standard/wire/wire_support.h"

namespace {

using namespace h2test;

class Connecting : public BothTest {};
INSTANTIATE_TEST_SUITE_P(Connect, Connecting, testing::Bool(), protocolName);

TEST_P(Connecting, ClientsShareAConnection) {
    Http2Server server(options(answerAll()));
    RecordingClient first, second, own;
    ASSERT_EQ(connect(first, server), 0);
    EXPECT_EQ(getHttp2Number(&first, HTTP2_SHARED), 0);
    ASSERT_EQ(connect(second, server), 0);
    EXPECT_EQ(getHttp2Number(&second, HTTP2_SHARED), 1);
    ASSERT_EQ(setHttp2Option(&own, HTTP2_OWN_CONNECTION, 1), 0);
    ASSERT_EQ(connect(own, server), 0);
    EXPECT_EQ(getHttp2Number(&own, HTTP2_SHARED), 0);
    for (RecordingClient* client : {&first, &second, &own}) {
        ASSERT_EQ(client->setUri("/", HTTP_GET), 0);
        ASSERT_EQ(client->startRequest(nullptr), 0);
        ASSERT_TRUE(client->waitEnd());
    }
    EXPECT_EQ(server.wire().connections(), 2u);
    EXPECT_EQ(server.requests()[1].stream, 3u);
    EXPECT_EQ(server.requests()[2].connection, 1u);
    EXPECT_STREQ(getHttp2Text(&first, HTTP2_PEER), "127.0.0.1");
    EXPECT_STREQ(getHttp2Text(&first, HTTP2_PROTOCOL), tls() ? "h2" : "h2c");
    EXPECT_STREQ(getHttp2Text(&first, HTTP2_TLS_VERSION), tls() ? "TLSv1.3" : "");
    EXPECT_GE(getHttp2Number(&first, HTTP2_FIRST_BYTE_TIME), 0);
    EXPECT_GE(getHttp2Number(&first, HTTP2_TOTAL_TIME),
              getHttp2Number(&first, HTTP2_FIRST_BYTE_TIME));
}

TEST_P(Connecting, CallsAtTheSameTimeShareOneAttempt) {
    Http2Server server(options(answerAll()));
    std::vector<std::unique_ptr<RecordingClient>> clients;
    std::vector<std::thread> threads;
    std::atomic<int> connected{0};
    clients.reserve(8);
    threads.reserve(8);
    for (int i = 0; i < 8; ++i) clients.push_back(std::make_unique<RecordingClient>());
    for (const auto& client : clients) {
        threads.emplace_back([&] { connected += connect(*client, server) == 0 ? 1 : 0; });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(connected, 8);
    // The server has accepted all connections by the time that it answers.
    ASSERT_EQ(clients[0]->setUri("/", HTTP_GET), 0);
    ASSERT_EQ(clients[0]->startRequest(nullptr), 0);
    ASSERT_TRUE(clients[0]->waitEnd());
    EXPECT_EQ(server.wire().connections(), 1u);
}

TEST_P(Connecting, NothingElseWaitsMeanwhile) {
    Http2Server server(options(answerAll()));
    ScriptedServer silent;  // TCP only
    RecordingClient running, waiting, other;
    ASSERT_EQ(connect(running, server), 0);
    ASSERT_EQ(running.setUri("/", HTTP_GET), 0);
    std::atomic<int> result{-1};
    std::thread connecting(
        [&] { result = waiting.connectToServer(HTTPS_2, "127.0.0.1", silent.port()); });
    ASSERT_TRUE(silent.waitReceived(0, 1));  // its handshake has begun
    for (int i = 0; i < 3; ++i) {
        running.clear();
        ASSERT_EQ(running.startRequest(nullptr), 0);
        ASSERT_TRUE(running.waitEnd());
    }
    setHttp2Option(&other, HTTP2_OWN_CONNECTION, 1);
    EXPECT_EQ(connect(other, server), 0);
    EXPECT_EQ(result, -1);
    silent.close(0);
    connecting.join();
    EXPECT_EQ(result, 4);
    EXPECT_STREQ(getHttp2Text(&waiting, HTTP2_ERROR),
                 "the server ended the connection during the TLS handshake");
}

TEST_P(Connecting, ConnectionsPerServer) {
    Http2Server server(options(answerAll()));
    std::vector<std::unique_ptr<RecordingClient>> clients;
    for (int i = 0; i < 4; ++i) {
        clients.push_back(std::make_unique<RecordingClient>());
        ASSERT_EQ(setHttp2Option(clients[i].get(), HTTP2_CONNECTIONS_PER_SERVER, 2), 0);
        ASSERT_EQ(connect(*clients[i], server), 0);
        EXPECT_EQ(getHttp2Number(clients[i].get(), HTTP2_SHARED), i < 2 ? 0 : 1);
    }
    EXPECT_TRUE(server.wire().waitConnections(2));
    EXPECT_EQ(server.wire().connections(), 2u);
}

TEST_P(Connecting, AnotherServer) {
    Http2Server first(options(answerAll("first"))), second(options(answerAll("second")));
    RecordingClient client;
    ASSERT_EQ(connect(client, first), 0);
    ASSERT_EQ(client.setUri("/", HTTP_GET), 0);
    ASSERT_EQ(connect(client, second), 0);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(client.waitEnd());
    EXPECT_EQ(client.callbacks(), answered("second"));
    // A connect that fails leaves the client with its server.
    const RefusingPort refusing;
    EXPECT_EQ(client.connectToServer(schema(), "127.0.0.1", refusing.port()), 4);
    client.clear();
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(client.waitEnd());
    EXPECT_EQ(client.callbacks(), answered("second"));
}

TEST_P(Connecting, HostNames) {
    Http2Server server(options(answerAll()));
    RecordingClient client;
    ASSERT_EQ(client.connectToServer(schema(), "localhost", server.port()), 0)
        << getHttp2Text(&client, HTTP2_ERROR);
    ASSERT_EQ(client.setUri("/", HTTP_GET), 0);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(client.waitEnd());
    EXPECT_EQ(server.requests()[0].field(":authority"),
              "localhost:" + std::to_string(server.port()));
}

TEST_P(Connecting, FailureSaysWhy) {
    const RefusingPort refusing;
    RecordingClient client;
    EXPECT_EQ(client.connectToServer(schema(), "127.0.0.1", refusing.port()), 4);
    EXPECT_STREQ(getHttp2Text(&client, HTTP2_ERROR), "cannot connect: Connection refused");
    EXPECT_EQ(client.connectToServer(schema(), "no.such.host.invalid", 80), 4);
    EXPECT_THAT(getHttp2Text(&client, HTTP2_ERROR), testing::HasSubstr("no.such.host.invalid"));
    EXPECT_EQ(client.connectToServer(schema(), nullptr, 80), 4);
    EXPECT_EQ(client.setUri("/", HTTP_GET), 4);
}

class TlsConnecting : public LibraryTest {
protected:
    static std::string errorOf(const Http2Server& server, RecordingClient& client) {
        EXPECT_EQ(client.connectToServer(HTTPS_2, "127.0.0.1", server.port()), 4);
        return getHttp2Text(&client, HTTP2_ERROR);
    }
};

TEST_F(TlsConnecting, VerifiesTheServer) {
    Http2Options options;
    options.server.tls = true;
    options.reply = answerAll();
    Http2Server server(options);
    RecordingClient client;
    EXPECT_THAT(errorOf(server, client), testing::HasSubstr("certificate"));
    const TempDir directory;
    const std::string ca = directory.write("ca.pem", sharedCertificate().certificate);
    ASSERT_EQ(setHttp2TextOption(&client, HTTP2_CA_FILE, ca.c_str()), 0);
    ASSERT_EQ(setHttp2TextOption(&client, HTTP2_SERVER_NAME, "example.org"), 0);
    EXPECT_THAT(errorOf(server, client), testing::HasSubstr("mismatch"));
    ASSERT_EQ(setHttp2TextOption(&client, HTTP2_SERVER_NAME, ""), 0);
    EXPECT_EQ(client.connectToServer(HTTPS_2, "127.0.0.1", server.port()), 0);
    RecordingClient careless;
    ASSERT_EQ(setHttp2Option(&careless, HTTP2_VERIFY, 0), 0);
    EXPECT_EQ(careless.connectToServer(HTTP_VERSION_UNDEFINED, "127.0.0.1", server.port()), 0);
}

TEST_F(TlsConnecting, NeedsHttp2ByAlpn) {
    Http2Options options;
    options.server.tls = true;
    options.server.alpn = false;
    Http2Server server(options);
    RecordingClient client;
    ASSERT_EQ(setHttp2Option(&client, HTTP2_VERIFY, 0), 0);
    EXPECT_THAT(errorOf(server, client), testing::HasSubstr("ALPN"));
}

TEST_F(TlsConnecting, TimeOutBoundsTheHandshake) {
    ScriptedServer silent;  // TCP only
    RecordingClient client;
    ASSERT_EQ(setHttp2Option(&client, HTTP2_CONNECT_TIMEOUT, 50), 0);
    EXPECT_EQ(client.connectToServer(HTTPS_2, "127.0.0.1", silent.port()), 4);
    EXPECT_THAT(getHttp2Text(&client, HTTP2_ERROR), testing::HasSubstr("time-out"));
}

TEST_F(TlsConnecting, AttemptThatIsJoinedIsWaitedForAsLongAsTheOptionsSay) {
    ScriptedServer silent;  // TCP only
    RecordingClient first, second;
    std::atomic<int> result{-1};
    std::thread connecting(
        [&] { result = first.connectToServer(HTTPS_2, "127.0.0.1", silent.port()); });
    ASSERT_TRUE(silent.waitReceived(0, 1));  // its handshake has begun
    ASSERT_EQ(setHttp2Option(&second, HTTP2_CONNECT_TIMEOUT, 50), 0);
    EXPECT_EQ(second.connectToServer(HTTPS_2, "127.0.0.1", silent.port()), 4);
    EXPECT_STREQ(getHttp2Text(&second, HTTP2_ERROR), "no connection within the connect time-out");
    EXPECT_EQ(result, -1);
    EXPECT_EQ(silent.connections(), 1u);
    silent.close(0);
    connecting.join();
    EXPECT_EQ(result, 4);
}

class Cancelling : public LibraryTest {};

TEST_F(Cancelling, ResetsAnOpenStreamOnly) {
    Http2Server server(Http2Server::Reply{});
    RecordingClient client;
    prepareGet(client, server);
    EXPECT_EQ(client.cancelRequest(), 0);  // nothing runs
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(server.waitRequests(1));
    EXPECT_EQ(client.cancelRequest(), 0);
    ASSERT_TRUE(server.wire().waitFramesOf(0, kRstStream));
    EXPECT_EQ(server.wire().frames(0, kRstStream), parseFrames(rstStream(1, kCancelCode)));
    // The answer comes too late. The next request is not affected.
    server.wire().send(0, answer(1));
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(server.waitRequests(2));
    server.wire().send(0, answer(3, "second"));
    ASSERT_TRUE(client.waitEnd());
    EXPECT_EQ(client.callbacks(), answered("second"));
    EXPECT_EQ(client.cancelRequest(), 0);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(server.waitRequests(3));
    EXPECT_EQ(server.wire().frames(0, kRstStream).size(), 1u);
}

TEST_F(Cancelling, WaitsForARunningCallback) {
    Http2Server server(answerAll());
    Event entered, leave;
    std::atomic<bool> returned{false};
    RecordingClient client([&](const Callback& callback) {
        if (callback.kind != Callback::Kind::kHeaders) return;
        entered.set();
        EXPECT_TRUE(leave.wait());
    });
    prepareGet(client, server);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(entered.wait());
    std::thread canceller([&] {
        client.cancelRequest();
        returned = true;
    });
    ASSERT_TRUE(waitFor([&] { return client.parseHttpClientStatus(nullptr) == 0; }));
    EXPECT_FALSE(waitFor([&] { return returned.load(); }, std::chrono::milliseconds(50)));
    leave.set();
    canceller.join();
    EXPECT_EQ(client.callbacks().size(), 1u);  // the headers
}

TEST_F(Cancelling, InsideACallback) {
    Http2Server server([](const Request& request) {
        return answerHead(request.stream) + data(request.stream, "abc");
    });
    RecordingClient* self = nullptr;
    RecordingClient client([&](const Callback&) { EXPECT_EQ(self->cancelRequest(), 0); });
    self = &client;
    prepareGet(client, server);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(server.wire().waitFramesOf(0, kRstStream));
    EXPECT_EQ(client.callbacks().size(), 1u);
    EXPECT_EQ(client.parseHttpClientStatus(nullptr), 0);
}

// A client that does something in its callbacks and may be destroyed there.
class ActingClient : public tiny::HttpClientInterface {
public:
    std::function<void()> onHeaders = [] {};
    std::function<void()> onEnd = [] {};
    std::function<void()> onFailure = [] {};

    ~ActingClient() override { cancelRequest(); }
    void onSocketClosed() override { act(onFailure); }
    void onFailed(HTTP_ERROR) override { act(onFailure); }
    void onHeaderReceived(int, const HeaderDef*, size_t) override { act(onHeaders); }
    void onContentReceived(const char*, size_t, bool more) override {
        if (!more) act(onEnd);
    }

private:
    // The copy outlives the client.
    static void act(std::function<void()> action) { action(); }
};

TEST_F(Cancelling, DestructionInsideCallbacks) {
    Http2Server server([](const Request& request) {
        return request.field(":path") == "/fail" ? rstStream(request.stream, 2)
                                                 : answer(request.stream);
    });
    for (const char* where : {"headers", "end", "failure"}) {
        SCOPED_TRACE(where);
        Event destroyed;
        auto* client = new ActingClient;
        ASSERT_EQ(connectTo(*client, server), 0);
        const bool fails = std::string(where) == "failure";
        ASSERT_EQ(client->setUri(fails ? "/fail" : "/", HTTP_GET), 0);
        const auto destroy = [&destroyed, client] {
            delete client;
            destroyed.set();
        };
        if (fails) {
            client->onFailure = destroy;
        } else if (std::string(where) == "end") {
            client->onEnd = destroy;
        } else {
            client->onHeaders = destroy;
        }
        ASSERT_EQ(client->startRequest(nullptr), 0);
        ASSERT_TRUE(destroyed.wait());
    }
    RecordingClient last;
    prepareGet(last, server);
    ASSERT_EQ(last.startRequest(nullptr), 0);
    EXPECT_TRUE(last.waitEnd());
    EXPECT_EQ(server.wire().connections(), 1u);
}

TEST_F(Cancelling, DestructionOfAnotherClientInsideACallback) {
    Http2Server server([](const Request& request) {
        return request.field(":path") == "/wait" ? std::string() : answer(request.stream);
    });
    auto other = std::make_unique<ActingClient>();
    other->onEnd = other->onHeaders = other->onFailure = [] { FAIL(); };
    ASSERT_EQ(connectTo(*other, server), 0);
    ASSERT_EQ(other->setUri("/wait", HTTP_GET), 0);
    ASSERT_EQ(other->startRequest(nullptr), 0);
    ActingClient client;
    client.onHeaders = [&] { other.reset(); };
    ASSERT_EQ(connectTo(client, server), 0);
    ASSERT_EQ(client.setUri("/", HTTP_GET), 0);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(server.wire().waitFramesOf(0, kRstStream));
    EXPECT_EQ(other, nullptr);
}

class InCallbacks : public BothTest {};
INSTANTIATE_TEST_SUITE_P(Callbacks, InCallbacks, testing::Bool(), protocolName);

TEST_P(InCallbacks, TheNextRequestStarts) {
    Http2Server server(options(answerAll()));
    Event done;
    std::atomic<int> left{500};
    std::vector<std::unique_ptr<ActingClient>> clients;
    for (int i = 0; i < 10; ++i) {
        clients.push_back(std::make_unique<ActingClient>());
        ActingClient& client = *clients.back();
        ASSERT_EQ(connect(client, server), 0);
        ASSERT_EQ(client.setUri("/", HTTP_GET), 0);
        client.onEnd = [&client, &left, &done] {
            if (--left == 0) done.set();
            if (left >= 10) {
                EXPECT_EQ(client.startRequest(nullptr), 0);
            }
        };
    }
    for (const auto& client : clients) ASSERT_EQ(client->startRequest(nullptr), 0);
    EXPECT_TRUE(waitFor([&] { return left <= 0; }));
    clients.clear();
    EXPECT_EQ(server.wire().connections(), 1u);
}

TEST_P(InCallbacks, ConnectingDoesNotWait) {
    Http2Server server(options(answerAll()));
    Http2Server other(options(answerAll()));
    RecordingClient first, second, third;
    int live = -1, address = -1, name = -1;
    RecordingClient client([&](const Callback& callback) {
        if (callback.kind != Callback::Kind::kHeaders) return;
        live = connect(first, server);
        address = connect(second, other);
        name = third.connectToServer(schema(), "localhost", other.port());
    });
    ASSERT_EQ(connect(client, server), 0);
    ASSERT_EQ(client.setUri("/", HTTP_GET), 0);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(client.waitEnd());
    EXPECT_EQ(live, 0);
    EXPECT_EQ(address, 0);
    EXPECT_EQ(name, 4);
    ASSERT_EQ(second.setUri("/", HTTP_GET), 0);
    ASSERT_EQ(second.startRequest(nullptr), 0);
    EXPECT_TRUE(second.waitEnd());
}

TEST_P(InCallbacks, EveryMethodOfEachClientMayBeCalled) {
    Http2Server server(options(answerAll()));
    RecordingClient other;
    RecordingClient* self = nullptr;
    std::vector<int> results;
    RecordingClient client([&](const Callback& callback) {
        if (self == nullptr) return;  // its second request
        const bool ends = callback.kind == Callback::Kind::kContent;
        for (RecordingClient* one : {self, &other}) {
            results.push_back(one->parseHttpClientStatus(nullptr));
            one->clearClient();
            results.push_back(one->setUri("/again", HTTP_POST));
            results.push_back(one->addHeader("a", "1", false) == one ? 0 : -1);
            results.push_back(one->setContent(&BodySource::read, nullptr));
            results.push_back(one->setContent("abc", 3));
            results.push_back(setHttp2Option(one, HTTP2_PING_AFTER, 1000));
            results.push_back(getHttp2Text(one, HTTP2_ERROR)[0]);
            results.push_back(getHttp2Number(one, HTTP2_TOTAL_TIME) >= -1 ? 0 : -1);
            results.push_back(one->ctx() != nullptr ? 0 : -1);
            if (ends) results.push_back(one->startRequest(nullptr));
        }
        if (ends) self = nullptr;
    });
    self = &client;
    ASSERT_EQ(connect(other, server), 0);
    ASSERT_EQ(connect(client, server), 0);
    ASSERT_EQ(client.setUri("/", HTTP_GET), 0);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(client.waitHeaders());
    ASSERT_TRUE(other.waitEnd());
    client.cancelRequest();
    std::vector<int> expected(size_t{9} * 2, 0);
    expected[0] = 8;  // its own request runs
    expected.resize(expected.size() + size_t{10} * 2);
    EXPECT_EQ(results, expected);
    for (const Request& request : server.requests()) {
        if (request.field(":path") != "/again") continue;
        EXPECT_EQ(request.field(":method"), "POST");
        EXPECT_EQ(request.field("a"), "1");
        EXPECT_EQ(request.body, "abc");
    }
}

TEST_P(InCallbacks, RunOnTheBackgroundThread) {
    Http2Server server(options([](const Request& request) {
        return request.stream == 1 ? answer(1) : rstStream(request.stream, 2);
    }));
    RecordingClient client;
    ASSERT_EQ(connect(client, server), 0);
    ASSERT_EQ(client.setUri("/", HTTP_GET), 0);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(client.waitEnd());
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(client.waitFailed());
    EXPECT_EQ(client.threads().size(), 1u);
    EXPECT_EQ(client.threads().count(std::this_thread::get_id()), 0u);
}

class Stopping : public LibraryTest {};

// In the exact edition the time between two looks at the sockets.
TEST_F(Stopping, PollTimeHasNoEffect) {
    for (const unsigned pollTime : {0u, 600'000u, 4'294'967'295u}) {
        destroyHttp2Client();
        ASSERT_EQ(initHttp2Client(pollTime), 1);
        Http2Server server(answerAll());
        RecordingClient client;
        prepareGet(client, server);
        for (int i = 0; i < 10; ++i) {
            client.clear();
            ASSERT_EQ(client.startRequest(nullptr), 0);
            ASSERT_TRUE(client.waitEnd());
        }
    }
}

TEST_F(Stopping, TheThreadTakesNoSignalsOfTheProcess) {
    Http2Server server(answerAll());
    sigset_t mask;
    sigemptyset(&mask);
    RecordingClient client([&](const Callback&) { pthread_sigmask(SIG_SETMASK, nullptr, &mask); });
    prepareGet(client, server);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(client.waitEnd());
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGUSR1, SIGCHLD, SIGALRM, SIGPROF}) {
        EXPECT_EQ(sigismember(&mask, signal), 1) << signal;
    }
    EXPECT_EQ(sigismember(&mask, SIGSEGV), 0);
}

TEST_F(Stopping, RequestsStayAsTheyAre) {
    Http2Server server(answerAll());
    RecordingClient client;
    prepareGet(client, server);
    EXPECT_EQ(destroyHttp2Client(), 1);
    EXPECT_EQ(destroyHttp2Client(), 1);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    EXPECT_EQ(client.parseHttpClientStatus(nullptr), 8);
    EXPECT_TRUE(client.callbacks().empty());
    EXPECT_EQ(initHttp2Client(5), 1);
    EXPECT_EQ(initHttp2Client(5), 1);
    ASSERT_TRUE(client.waitEnd());
    EXPECT_EQ(client.callbacks(), answered());
}

TEST_F(Stopping, NoCallWaitsForAThread) {
    Http2Server server(answerAll());
    destroyHttp2Client();
    auto client = std::make_unique<RecordingClient>();
    prepareGet(*client, server);
    RecordingClient second;
    prepareGet(second, server);
    ASSERT_EQ(client->startRequest(nullptr), 0);
    EXPECT_EQ(client->cancelRequest(), 0);
    ASSERT_EQ(client->startRequest(nullptr), 0);
    int status = 0;
    std::map<std::string, std::string> fields;
    std::string body;
    const char* error = "";
    EXPECT_EQ(second.blockedRequest(status, fields, body, error, 60000), 2);
    client.reset();
    initHttp2Client(5);
    ASSERT_EQ(second.startRequest(nullptr), 0);
    EXPECT_TRUE(second.waitEnd());
}

TEST_F(Stopping, DoesNothingInsideACallback) {
    Http2Server server(answerAll());
    int result = 0;
    RecordingClient client([&](const Callback&) { result = destroyHttp2Client(); });
    prepareGet(client, server);
    for (int i = 0; i < 2; ++i) {
        client.clear();
        ASSERT_EQ(client.startRequest(nullptr), 0);
        ASSERT_TRUE(client.waitEnd());
        EXPECT_EQ(result, 1);
    }
}

}  // namespace
