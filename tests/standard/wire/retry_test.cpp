// What becomes of requests when the server refuses them, goes away or breaks the connection.
#include <atomic>
#include <set>

#include "tests/standard/wire/wire_support.h"

namespace {

using namespace h2test;

class Retrying : public LibraryTest {};

TEST_F(Retrying, AfterGoAwayOnAnotherConnection) {
    Http2Server server([](const Request& request) {
        return request.connection == 0 ? goaway(0, kNoErrorCode) : answer(request.stream);
    });
    RecordingClient client;
    prepareGet(client, server);
    ASSERT_EQ(client.setUri("/", HTTP_POST), 0);
    ASSERT_EQ(client.setContent("abc", 3), 0);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(client.waitEnd());
    EXPECT_EQ(client.callbacks(), answered());
    ASSERT_EQ(server.requests().size(), 2u);
    EXPECT_EQ(server.requests()[1].connection, 1u);
    EXPECT_EQ(server.requests()[1].body, "abc");
}

TEST_F(Retrying, AfterRefusalOnTheSameConnection) {
    std::atomic<int> refusals{3};
    Http2Server server([&](const Request& request) {
        return refusals-- > 0 ? rstStream(request.stream, kRefusedStreamCode)
                              : answer(request.stream);
    });
    RecordingClient client;
    prepareGet(client, server);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(client.waitEnd());
    EXPECT_EQ(client.callbacks(), answered());
    EXPECT_EQ(server.wire().connections(), 1u);
    EXPECT_EQ(server.requests().size(), 4u);

    refusals = 4;
    client.clear();
    const auto begun = std::chrono::steady_clock::now();
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(client.waitFailed());
    // Pauses of 10, 20 and 40 ms.
    EXPECT_GE(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(70));
    EXPECT_EQ(client.callbacks(), std::vector<Callback>{Callback::failed(ERR_SOCKET_CLOSED)});
    EXPECT_EQ(server.requests().size(), 8u);
}

TEST_F(Retrying, ThreeTimesOnConnectionsThatAnswerNothing) {
    Http2Server server([](const Request&) { return goaway(0, kNoErrorCode); });
    RecordingClient client;
    prepareGet(client, server);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(client.waitFailed());
    EXPECT_EQ(client.callbacks(), std::vector<Callback>{Callback::failed(ERR_SOCKET_CLOSED)});
    EXPECT_EQ(server.wire().connections(), 4u);
    EXPECT_EQ(server.requests().size(), 4u);
}

// Each connection answers its first request and none of the others.
TEST_F(Retrying, WithoutEndOnConnectionsThatHadAnsweredOthers) {
    Http2Server server([](const Request& request) {
        if (request.stream == 1) return answer(1);
        return request.stream == 3 ? goaway(1, kNoErrorCode) : std::string();
    });
    std::vector<std::unique_ptr<RecordingClient>> clients;
    for (int i = 0; i < 10; ++i) {
        clients.push_back(std::make_unique<RecordingClient>());
        prepareGet(*clients.back(), server);
    }
    for (const auto& client : clients) ASSERT_EQ(client->startRequest(nullptr), 0);
    for (const auto& client : clients) {
        ASSERT_TRUE(client->waitCallbacks(2));
        EXPECT_EQ(client->callbacks(), answered());
    }
    EXPECT_GE(server.wire().connections(), 5u);
}

TEST_F(Retrying, NotAfterTheAnswerHasBegun) {
    Http2Server server([](const Request& request) {
        return answerHead(request.stream) + rstStream(request.stream, kRefusedStreamCode);
    });
    RecordingClient client;
    prepareGet(client, server);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(client.waitFailed());
    EXPECT_EQ(client.callbacks().size(), 2u);
    EXPECT_EQ(server.requests().size(), 1u);
}

TEST_F(Retrying, NotAfterTheReaderWasAsked) {
    Http2Server server(Http2Server::Reply{});
    BodySource source("abc");
    RecordingClient client;
    prepareGet(client, server);
    ASSERT_EQ(client.setUri("/", HTTP_POST), 0);
    ASSERT_EQ(client.setContent(&BodySource::read, &source), 0);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(server.waitRequests(1));
    server.wire().send(0, rstStream(1, kRefusedStreamCode));
    ASSERT_TRUE(client.waitFailed());
    EXPECT_EQ(client.callbacks(), std::vector<Callback>{Callback::failed(ERR_SOCKET_CLOSED)});
}

TEST_F(Retrying, WhenTheReaderWasNotAsked) {
    Http2Options options;
    options.greeting = settings({{4, 0}});  // nothing of a body may be sent
    options.reply = answerAll();
    Http2Server server(std::move(options));
    BodySource source("abc");
    RecordingClient client;
    prepareGet(client, server);
    ASSERT_TRUE(server.wire().waitFramesOf(0, kSettings, 2));
    ASSERT_EQ(client.setUri("/", HTTP_POST), 0);
    ASSERT_EQ(client.setContent(&BodySource::read, &source), 0);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(server.wire().waitFramesOf(0, kHeaders));
    server.wire().send(0, rstStream(1, kRefusedStreamCode));
    ASSERT_TRUE(server.wire().waitFramesOf(0, kHeaders, 2));
    server.wire().send(0, windowUpdate(3, 100));
    ASSERT_TRUE(client.waitEnd());
    EXPECT_EQ(server.requests()[0].body, "abc");
}

TEST_F(Retrying, GoAwayLetsRunningRequestsFinish) {
    Http2Server server([](const Request& request) {
        return request.connection == 0 ? std::string() : answer(request.stream, "new");
    });
    RecordingClient running, next;
    prepareGet(running, server);
    prepareGet(next, server);
    ASSERT_EQ(running.startRequest(nullptr), 0);
    ASSERT_TRUE(server.waitRequests(1));
    server.wire().send(0, goaway(1, kNoErrorCode));
    server.wire().send(0, ping(7));
    ASSERT_TRUE(server.wire().waitFramesOf(0, kPing));
    ASSERT_EQ(next.startRequest(nullptr), 0);
    ASSERT_TRUE(next.waitEnd());
    EXPECT_EQ(next.callbacks(), answered("new"));
    EXPECT_TRUE(running.callbacks().empty());
    server.wire().send(0, answer(1, "old"));
    ASSERT_TRUE(running.waitEnd());
    EXPECT_EQ(running.callbacks(), answered("old"));
    EXPECT_TRUE(server.wire().waitClosedByPeer(0));
}

TEST_F(Retrying, ServerThatEndsEveryConnection) {
    Http2Server server([](const Request& request) {
        std::string reply = answer(request.stream);
        if (request.stream == 49) reply = goaway(49, kNoErrorCode) + reply;
        return request.stream > 49 ? std::string() : reply;
    });
    constexpr size_t kClients = 40, kRequests = 10000;
    std::atomic<size_t> started{0}, good{0}, bad{0};
    std::vector<std::unique_ptr<RecordingClient>> clients;
    std::vector<RecordingClient*> pointers(kClients);
    for (size_t i = 0; i < kClients; ++i) {
        clients.push_back(std::make_unique<RecordingClient>([&, i](const Callback& callback) {
            if (callback.kind == Callback::Kind::kHeaders || callback.more) return;
            ++(callback.kind == Callback::Kind::kContent ? good : bad);
            if (++started <= kRequests) {
                EXPECT_EQ(pointers[i]->startRequest(nullptr), 0);
            }
        }));
        pointers[i] = clients.back().get();
        prepareGet(*pointers[i], server);
    }
    for (RecordingClient* client : pointers) {
        ++started;
        ASSERT_EQ(client->startRequest(nullptr), 0);
    }
    EXPECT_TRUE(waitFor([&] { return good + bad >= kRequests; }));
    EXPECT_EQ(bad, 0u);
    EXPECT_GE(server.wire().connections(), kRequests / 25);
}

class Losing : public LibraryTest {};

TEST_F(Losing, RequestThatMayHaveBeenProcessed) {
    Http2Server server(Http2Server::Reply{});
    RecordingClient client;
    prepareGet(client, server);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(server.waitRequests(1));
    server.wire().close(0);
    ASSERT_TRUE(client.waitClosed());
    EXPECT_EQ(client.callbacks(), std::vector<Callback>{Callback::closed()});
}

TEST_F(Losing, IdempotentRequestIsRepeatedOnceOnAnOldConnection) {
    Http2Server server([](const Request& request) {
        return request.stream == 1 ? answer(request.stream) : std::string();
    });
    RecordingClient client;
    prepareGet(client, server);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(client.waitEnd());
    client.clear();
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(server.waitRequests(2));
    server.wire().close(0);
    ASSERT_TRUE(client.waitEnd());
    EXPECT_EQ(client.callbacks(), answered());
    EXPECT_EQ(server.wire().connections(), 2u);
    // A POST is not.
    client.clear();
    ASSERT_EQ(client.setUri("/", HTTP_POST), 0);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(server.waitRequests(4));
    server.wire().close(1);
    ASSERT_TRUE(client.waitClosed());
    EXPECT_EQ(client.callbacks(), std::vector<Callback>{Callback::closed()});
}

TEST_F(Losing, IdempotentRequestIsRepeatedOnlyOnce) {
    Http2Server server([](const Request& request) {
        return request.field(":path") == "/lost" ? std::string() : answer(request.stream);
    });
    RecordingClient lost, other;
    for (RecordingClient* client : {&lost, &other}) {
        ASSERT_EQ(setHttp2Option(client, HTTP2_CONNECTIONS_PER_SERVER, 2), 0);
        prepareGet(*client, server);
    }
    ASSERT_EQ(lost.setUri("/lost", HTTP_GET), 0);
    // Both connections answer something. A request goes to the one that has fewer.
    std::set<size_t> used;
    for (int i = 0; i < 1000 && used.size() < 2; ++i) {
        const size_t before = server.requests().size();
        if (i % 2 == 1) {
            ASSERT_EQ(lost.startRequest(nullptr), 0);
            ASSERT_TRUE(server.waitRequests(before + 1));
        }
        other.clear();
        ASSERT_EQ(other.startRequest(nullptr), 0);
        ASSERT_TRUE(other.waitEnd());
        used.insert(server.requests().back().connection);
        ASSERT_EQ(lost.cancelRequest(), 0);
    }
    ASSERT_EQ(used.size(), 2u);

    const size_t before = server.requests().size();
    ASSERT_EQ(lost.startRequest(nullptr), 0);
    ASSERT_TRUE(server.waitRequests(before + 1));
    const size_t first = server.requests().back().connection;
    server.wire().close(first);
    ASSERT_TRUE(server.waitRequests(before + 2));
    const size_t second = server.requests().back().connection;
    ASSERT_EQ(second, 1 - first);
    EXPECT_TRUE(lost.callbacks().empty());
    server.wire().close(second);
    ASSERT_TRUE(lost.waitClosed());
    EXPECT_EQ(lost.callbacks(), std::vector<Callback>{Callback::closed()});
    EXPECT_EQ(server.requests().size(), before + 2);
}

TEST_F(Losing, IdleConnectionIsReplaced) {
    Http2Server server(answerAll());
    RecordingClient client;
    prepareGet(client, server);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(client.waitEnd());
    server.wire().close(0);
    ASSERT_TRUE(server.wire().waitClosedByPeer(0));
    client.clear();
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(client.waitEnd());
    EXPECT_EQ(client.callbacks(), answered());
    EXPECT_EQ(server.wire().connections(), 2u);
}

TEST_F(Losing, ServerThatIsGone) {
    auto server = std::make_unique<Http2Server>(answerAll());
    RecordingClient client;
    prepareGet(client, *server);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(client.waitEnd());
    server->wire().close(0);
    ASSERT_TRUE(server->wire().waitClosedByPeer(0));
    server.reset();
    client.clear();
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(client.waitFailed());
    EXPECT_EQ(client.callbacks(), std::vector<Callback>{Callback::failed(ERR_SOCKET_CLOSED)});
    EXPECT_STREQ(getHttp2Text(&client, HTTP2_ERROR), "cannot connect: Connection refused");
}

TEST_F(Losing, ViolationFailsItsRequestAndLosesTheOthers) {
    Http2Server server(Http2Server::Reply{});
    RecordingClient culprit, other;
    prepareGet(culprit, server);
    prepareGet(other, server);
    ASSERT_EQ(culprit.startRequest(nullptr), 0);
    ASSERT_TRUE(server.waitRequests(1));
    ASSERT_EQ(other.startRequest(nullptr), 0);
    ASSERT_TRUE(server.waitRequests(2));
    server.wire().send(0, headers(1, hex("ff ff ff ff ff ff")));  // no index is that large
    ASSERT_TRUE(culprit.waitFailed());
    ASSERT_TRUE(other.waitClosed());
    EXPECT_EQ(culprit.callbacks(), std::vector<Callback>{Callback::failed(ERR_FETAL)});
    EXPECT_EQ(other.callbacks(), std::vector<Callback>{Callback::closed()});
    ASSERT_TRUE(server.wire().waitFramesOf(0, kGoaway));
    EXPECT_EQ(server.wire().frames(0, kGoaway)[0], parseFrames(goaway(0, 9))[0]);
    EXPECT_TRUE(server.wire().waitClosedByPeer(0));
    EXPECT_FALSE(server.wire().resetByPeer(0));
}

TEST_F(Losing, WaitingRequestIsSentAgain) {
    Http2Options options;
    options.greeting = settings({{3, 1}});
    options.reply = [](const Request& request) {
        return request.connection == 0 ? std::string() : answer(request.stream);
    };
    Http2Server server(std::move(options));
    RecordingClient running, waiting;
    prepareGet(running, server);
    prepareGet(waiting, server);
    ASSERT_EQ(waiting.setUri("/", HTTP_POST), 0);
    ASSERT_TRUE(server.wire().waitFramesOf(0, kSettings, 2));  // the limit is known
    ASSERT_EQ(running.startRequest(nullptr), 0);
    ASSERT_TRUE(server.waitRequests(1));
    ASSERT_EQ(waiting.startRequest(nullptr), 0);
    server.wire().close(0);
    ASSERT_TRUE(running.waitClosed());
    ASSERT_TRUE(waiting.waitEnd());
    EXPECT_EQ(waiting.callbacks(), answered());
}

TEST_F(Losing, SilentServer) {
    ServerOptions options;
    options.greeting = settings({});
    ScriptedServer silent(std::move(options));
    RecordingClient client;
    ASSERT_EQ(setHttp2Option(&client, HTTP2_PING_AFTER, 30), 0);
    ASSERT_EQ(setHttp2Option(&client, HTTP2_PING_TIMEOUT, 30), 0);
    ASSERT_EQ(client.connectToServer(HTTP_2, "127.0.0.1", silent.port()), 0);
    ASSERT_EQ(client.setUri("/", HTTP_GET), 0);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(client.waitClosed());
    EXPECT_EQ(client.callbacks(), std::vector<Callback>{Callback::closed()});
    EXPECT_EQ(silent.frames(0, kPing).size(), 1u);
}

TEST_F(Losing, RepeatedRequestThatFindsNoServer) {
    auto server = std::make_unique<Http2Server>([](const Request& request) {
        return request.stream == 1 ? answer(request.stream) : std::string();
    });
    RecordingClient client;
    prepareGet(client, *server);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(client.waitEnd());
    client.clear();
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(server->waitRequests(2));
    server.reset();
    // The first attempt may have been processed.
    ASSERT_TRUE(client.waitClosed());
    EXPECT_EQ(client.callbacks(), std::vector<Callback>{Callback::closed()});
}

class Idle : public BothTest {};
INSTANTIATE_TEST_SUITE_P(Losing, Idle, testing::Bool(), protocolName);

TEST_P(Idle, ConnectionIsClosedInOrder) {
    Http2Server server(options(answerAll()));
    RecordingClient client;
    ASSERT_EQ(setHttp2Option(&client, HTTP2_IDLE_TIMEOUT, 20), 0);
    ASSERT_EQ(connect(client, server), 0);
    ASSERT_EQ(client.setUri("/", HTTP_GET), 0);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(client.waitEnd());
    ASSERT_TRUE(server.wire().waitClosedByPeer(0));
    EXPECT_EQ(server.wire().frames(0, kGoaway), parseFrames(goaway(0, kNoErrorCode)));
    EXPECT_EQ(server.wire().closeNotifyReceived(0), tls());
    client.clear();
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(client.waitEnd());
    EXPECT_EQ(server.wire().connections(), 2u);
}

}  // namespace
