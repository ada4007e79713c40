// What a client hears when something goes wrong, and what becomes of the connection.
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <unistd.h>

#include "wire_support.h"

namespace h2test {
namespace {

const std::vector<Callback> kOnlyClosed = {Callback::closed()};
const std::vector<Callback> kOnlyFailed = {Callback::failed(ERR_FETAL)};

// Each test runs over plain TCP and over TLS.
class Failure : public testing::TestWithParam<bool> {
protected:
    static bool tls() { return GetParam(); }

    void connectAndStart(RecordingClient& client, size_t index) {
        ASSERT_EQ(connectTo(client, m_server, tls()), 0);
        ASSERT_EQ(client.setUri("/", HTTP_GET), 0);
        ASSERT_EQ(client.startRequest(nullptr), 0);
        ASSERT_TRUE(m_server.waitFramesOf(index, kHeaders));
    }

    // The connection is gone: nothing starts on it, until the client connects again.
    void expectDropped(RecordingClient& client, size_t index) {
        EXPECT_TRUE(m_server.waitClosedByPeer(index));
        EXPECT_EQ(client.startRequest(nullptr), 2);
        EXPECT_EQ(client.parseHttpClientStatus(nullptr), 0);  // not taken for running
        EXPECT_EQ(client.cancelRequest(), 0);
        client.clear();
        connectAndStart(client, index + 1);
        m_server.send(index + 1, okResponse(1));
        ASSERT_TRUE(client.waitEnd());
        EXPECT_EQ(client.callbacks(), okCallbacks());
    }

    // Sends `bytes` in answer to a request; the client's only callback is `expected`, and the
    // connection is dropped.
    void expectAnswerKills(const std::string& bytes, const Callback& expected) {
        RecordingClient client;
        const size_t index = m_server.connections();
        connectAndStart(client, index);
        m_server.send(index, bytes);
        ASSERT_TRUE(client.waitCallbacks(1));
        EXPECT_TRUE(m_server.waitClosedByPeer(index));
        EXPECT_EQ(client.callbacks(), std::vector<Callback>{expected});
        EXPECT_EQ(client.startRequest(nullptr), 2);
    }

    RunningLibrary m_library;
    ScriptedServer m_server{serverOptions(tls())};
};

INSTANTIATE_TEST_SUITE_P(Transport, Failure, testing::Bool(),
                         [](const auto& info) { return info.param ? "Tls" : "Plain"; });

// ---- the connection ends

TEST_P(Failure, ClosedConnectionIsReportedOnce) {
    RecordingClient client;
    connectAndStart(client, 0);
    m_server.close(0);
    ASSERT_TRUE(client.waitClosed());
    EXPECT_TRUE(m_server.waitClosedByPeer(0));
    EXPECT_EQ(client.callbacks(), kOnlyClosed);
    expectDropped(client, 0);
}

TEST_P(Failure, ConnectionClosedWithoutCloseNotifyIsReportedOnce) {
    RecordingClient client;
    connectAndStart(client, 0);
    m_server.closeWithoutCloseNotify(0);
    ASSERT_TRUE(client.waitClosed());
    EXPECT_TRUE(m_server.waitClosedByPeer(0));
    EXPECT_EQ(client.callbacks(), kOnlyClosed);
    expectDropped(client, 0);
}

TEST_P(Failure, ResetConnectionIsReportedOnce) {
    RecordingClient client;
    connectAndStart(client, 0);
    m_server.reset(0);
    ASSERT_TRUE(client.waitClosed());
    EXPECT_EQ(client.callbacks(), kOnlyClosed);
    EXPECT_EQ(client.startRequest(nullptr), 2);
}

TEST_P(Failure, HalfClosedConnectionIsDropped) {
    RecordingClient client;
    connectAndStart(client, 0);
    m_server.send(0, headers(1, hpackIndexed(8)) + data(1, "part"));
    m_server.shutdownWrite(0);
    ASSERT_TRUE(client.waitClosed());
    EXPECT_TRUE(m_server.waitClosedByPeer(0));
    EXPECT_EQ(client.callbacks(),
              (std::vector<Callback>{Callback::headers(200, {{":status", "200"}}),
                                     Callback::content("part", true), Callback::closed()}));
    expectDropped(client, 0);
}

TEST_P(Failure, ConnectionClosedInsideAFrameIsReported) {
    const std::string answer = okResponse(1, "body");
    const size_t headersSize = headers(1, hpackIndexed(8)).size();
    for (size_t size = 1; size < answer.size(); ++size) {
        RecordingClient client;
        connectAndStart(client, size - 1);
        m_server.send(size - 1, answer.substr(0, size));
        m_server.close(size - 1);
        ASSERT_TRUE(client.waitClosed()) << size;
        std::vector<Callback> expected;
        if (size >= headersSize) expected.push_back(okCallbacks()[0]);
        expected.push_back(Callback::closed());
        ASSERT_EQ(client.callbacks(), expected) << size;
    }
}

TEST_P(Failure, IsSilentWhenNoRequestIsRunning) {
    RecordingClient client;
    connectAndStart(client, 0);
    m_server.send(0, okResponse(1));
    ASSERT_TRUE(client.waitEnd());
    client.clear();
    ASSERT_TRUE(m_server.waitFramesOf(0, kRstStream));
    m_server.close(0);
    EXPECT_TRUE(m_server.waitClosedByPeer(0));
    // The client closes its socket as the last act of dropping the connection.
    EXPECT_EQ(client.callbacks(), std::vector<Callback>());
    expectDropped(client, 0);
}

TEST_P(Failure, ThreadWokenByItConnectsAndStartsAtOnce) {
    RecordingClient client;
    for (size_t i = 0; i < 20; ++i) {
        client.clear();
        connectAndStart(client, i);
        m_server.close(i);
        ASSERT_TRUE(client.waitClosed());
        ASSERT_EQ(client.callbacks(), kOnlyClosed);
    }
}

// ---- the server says that it is over

TEST_P(Failure, ResetStreamFailsItsRequestAndDropsTheConnection) {
    RecordingClient client;
    connectAndStart(client, 0);
    m_server.send(0, rstStream(1, 2));
    ASSERT_TRUE(client.waitFailed());
    EXPECT_TRUE(m_server.waitClosedByPeer(0));
    EXPECT_EQ(client.callbacks(), kOnlyFailed);
    // The connection goes before the reset that answers the server's could be sent.
    EXPECT_EQ(m_server.received(0), opening() + getRequest(1, "/", tls()));
    expectDropped(client, 0);
}

TEST_P(Failure, FramesBehindAResetAreLost) {
    RecordingClient client;
    connectAndStart(client, 0);
    m_server.send(0, headers(1, hpackIndexed(8)) + data(1, "part") + rstStream(1, 0) +
                         headers(1, hpackIndexed(8)) + data(1, "more", kEndStream));
    ASSERT_TRUE(client.waitFailed());
    EXPECT_TRUE(m_server.waitClosedByPeer(0));
    EXPECT_EQ(
        client.callbacks(),
        (std::vector<Callback>{Callback::headers(200, {{":status", "200"}}),
                               Callback::content("part", true), Callback::failed(ERR_FETAL)}));
}

TEST_P(Failure, ResetOfAnotherStreamCostsTheConnection) {
    expectAnswerKills(rstStream(3, 8), Callback::closed());
}

TEST_P(Failure, ResetThatIsTooShortCountsAsOne) {
    expectAnswerKills(frame(kRstStream, 0, 1, "abc"), Callback::failed(ERR_FETAL));
}

TEST_P(Failure, GoawayClosesTheConnectionOfARunningRequest) {
    expectAnswerKills(goaway(0, 0), Callback::closed());
    expectAnswerKills(goaway(1, 11, "enhance your calm"), Callback::closed());
}

TEST_P(Failure, GoawayOnTheRequestsOwnStreamFailsIt) {
    expectAnswerKills(frame(kGoaway, 0, 1, be32(0) + be32(0)), Callback::failed(ERR_FETAL));
}

TEST_P(Failure, GoawayThatIsTooShortCountsAsOne) {
    expectAnswerKills(frame(kGoaway, 0, 0, "abc"), Callback::closed());
    expectAnswerKills(frame(kGoaway, 0, 1, ""), Callback::failed(ERR_FETAL));
}

TEST_P(Failure, GoawayBehindTheWholeAnswerReportsNothing) {
    RecordingClient client;
    connectAndStart(client, 0);
    m_server.send(0, okResponse(1) + goaway(1, 0));
    ASSERT_TRUE(client.waitEnd());
    EXPECT_TRUE(m_server.waitClosedByPeer(0));
    EXPECT_EQ(client.callbacks(), okCallbacks());
    client.clear();
    expectDropped(client, 0);
}

TEST_P(Failure, UnknownFrameTypeFailsTheRequest) {
    for (const int type : {10, 11, 12, 0x7F, 0x80, 0xFF}) {
        SCOPED_TRACE(type);
        expectAnswerKills(frame(static_cast<uint8_t>(type), 0, 0, ""), Callback::failed(ERR_FETAL));
    }
}

TEST_P(Failure, BytesThatAreNoFramesFailTheRequest) {
    // "HTTP/1.1 400 ..." reads as a frame of type 'P'.
    expectAnswerKills("HTTP/1.1 400 Bad Request\r\n\r\n", Callback::failed(ERR_FETAL));
}

TEST_P(Failure, UnknownFrameTypeTakesTheFramesBeforeItAlong) {
    // All of them come in one read: the reassembler fails before the engine has seen any.
    expectAnswerKills(okResponse(1) + frame(10, 0, 0, ""), Callback::failed(ERR_FETAL));
}

TEST_P(Failure, EndedRequestStaysEndedWhenTheConnectionFails) {
    RecordingClient client;
    connectAndStart(client, 0);
    m_server.send(0, okResponse(1));
    ASSERT_TRUE(client.waitEnd());
    ASSERT_TRUE(m_server.waitFramesOf(0, kRstStream));
    m_server.send(0, frame(10, 0, 0, ""));
    EXPECT_TRUE(m_server.waitClosedByPeer(0));
    EXPECT_EQ(client.callbacks(), okCallbacks());
}

TEST_P(Failure, ThreadWokenByAFailureConnectsAndStartsAtOnce) {
    RecordingClient client;
    for (size_t i = 0; i < 20; ++i) {
        client.clear();
        connectAndStart(client, i);
        m_server.send(i, i % 2 == 0 ? rstStream(1, 2) : frame(10, 0, 0, ""));
        ASSERT_TRUE(client.waitFailed());
        ASSERT_EQ(client.callbacks(), kOnlyFailed);
    }
}

TEST_P(Failure, OneConnectionsEndLeavesTheOthersAlone) {
    RecordingClient closed;
    RecordingClient failed;
    RecordingClient well;
    connectAndStart(closed, 0);
    connectAndStart(failed, 1);
    connectAndStart(well, 2);
    m_server.send(2, headers(1, hpackIndexed(8)) + data(1, "first"));
    ASSERT_TRUE(well.waitContent());
    m_server.close(0);
    m_server.send(1, frame(99, 0, 0, ""));
    ASSERT_TRUE(closed.waitClosed());
    ASSERT_TRUE(failed.waitFailed());
    EXPECT_TRUE(m_server.waitClosedByPeer(0));
    EXPECT_TRUE(m_server.waitClosedByPeer(1));
    m_server.send(2, data(1, "second", kEndStream));
    ASSERT_TRUE(well.waitEnd());
    EXPECT_EQ(closed.callbacks(), kOnlyClosed);
    EXPECT_EQ(failed.callbacks(), kOnlyFailed);
    EXPECT_EQ(well.callbacks(), (std::vector<Callback>{Callback::headers(200, {{":status", "200"}}),
                                                       Callback::content("first", true),
                                                       Callback::content("second", false)}));
}

// ---- no connection to begin with

TEST_P(Failure, RefusedConnectionIsAReturnCode) {
    const RefusingPort port;
    RecordingClient client;
    EXPECT_EQ(client.connectToServer(schemaOf(tls()), "127.0.0.1", port.port()), 4);
    EXPECT_EQ(client.setUri("/", HTTP_GET), 4);
    EXPECT_EQ(client.startRequest(nullptr), 4);
    EXPECT_EQ(client.callbacks(), std::vector<Callback>());
}

TEST_P(Failure, RefusedConnectionLeavesTheFormerOneInUse) {
    const RefusingPort port;
    RecordingClient client;
    ASSERT_EQ(connectTo(client, m_server, tls()), 0);
    EXPECT_EQ(client.connectToServer(HTTP_2, "127.0.0.1", port.port()), 4);
    ASSERT_EQ(client.setUri("/", HTTP_GET), 0);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    expectReceived(m_server, 0, opening() + getRequest(1, "/", tls()));
    m_server.send(0, okResponse(1));
    ASSERT_TRUE(client.waitEnd());
}

TEST_P(Failure, MissingAddressMeansThisHost) {
    for (const char* ip : {static_cast<const char*>(nullptr), "", "no address"}) {
        RecordingClient client;
        EXPECT_EQ(client.connectToServer(schemaOf(tls()), ip, m_server.port()), 0);
        const RefusingPort port;
        EXPECT_EQ(client.connectToServer(schemaOf(tls()), ip, port.port()), 4);
    }
    EXPECT_TRUE(m_server.waitConnections(3));
}

TEST_P(Failure, DescriptorBeyondSelectIsRefused) {
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit former = limit;
    ASSERT_GE(limit.rlim_max, rlim_t{2} * FD_SETSIZE);
    if (limit.rlim_cur < rlim_t{2} * FD_SETSIZE) limit.rlim_cur = rlim_t{2} * FD_SETSIZE;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);

    RecordingClient low;
    connectAndStart(low, 0);
    std::vector<int> fill;
    do {
        fill.push_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
        ASSERT_GE(fill.back(), 0);
    } while (fill.back() < FD_SETSIZE - 1);

    RecordingClient high;
    EXPECT_EQ(connectTo(high, m_server, tls()), 4);
    EXPECT_TRUE(m_server.waitClosedByPeer(1));
    EXPECT_EQ(m_server.received(1), "");
    EXPECT_EQ(high.startRequest(nullptr), 4);

    // Others are served as before, and so is the same client once there is room.
    m_server.send(0, okResponse(1));
    ASSERT_TRUE(low.waitEnd());
    for (const int fd : fill) ::close(fd);
    connectAndStart(high, 2);
    m_server.send(2, okResponse(1));
    ASSERT_TRUE(high.waitEnd());
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &former), 0);
}

// ---- the wrong protocol

TEST(FailureOfTls, PlainServerIsNoTlsServer) {
    CoutCapture console;
    {
        LibraryThread library;
        ServerOptions options;
        options.greeting = settings({});  // no TLS record
        ScriptedServer server(options);
        RecordingClient client;
        RecordingClient first;  // "select" is printed when the library is first used
        ASSERT_EQ(connectTo(first, server), 0);
        console.clear();
        EXPECT_EQ(connectTo(client, server, true), 4);
        EXPECT_EQ(client.startRequest(nullptr), 4);
        EXPECT_TRUE(server.waitClosedByPeer(1));
    }
    EXPECT_EQ(console.lines(), (std::vector<std::string>{"connect to ssl server failed"}));
}

TEST(FailureOfTls, ServerThatClosesDuringTheHandshakeIsNoServer) {
    RunningLibrary library;
    ServerOptions options;
    options.closeAfterGreeting = true;
    ScriptedServer server(options);
    RecordingClient client;
    EXPECT_EQ(connectTo(client, server, true), 4);
    EXPECT_TRUE(server.waitClosedByPeer(0));
}

TEST(FailureOfTls, PlainClientHearsThatATlsServerHasClosed) {
    RunningLibrary library;
    ScriptedServer server(serverOptions(true));
    RecordingClient client;
    ASSERT_EQ(connectTo(client, server, false), 0);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(client.waitCallbacks(1));
    EXPECT_TRUE(server.tlsFailed(0));
    EXPECT_TRUE(server.waitClosedByPeer(0));
    EXPECT_EQ(client.callbacks(), kOnlyClosed);
}

TEST(FailureOfTls, BytesThatAreNoRecordEndTheConnection) {
    RunningLibrary library;
    ScriptedServer server(serverOptions(true));
    RecordingClient client;
    ASSERT_EQ(connectTo(client, server, true), 0);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(server.waitFramesOf(0, kHeaders));
    server.send(0, headers(1, hpackIndexed(8)));
    server.sendRaw(0, okResponse(1));
    ASSERT_TRUE(client.waitClosed());
    EXPECT_TRUE(server.waitClosedByPeer(0));
    EXPECT_EQ(client.callbacks(), (std::vector<Callback>{okCallbacks()[0], Callback::closed()}));
    EXPECT_EQ(client.startRequest(nullptr), 2);
}

TEST(FailureOfTls, BrokenConnectionLeavesTheOthersAlone) {
    RunningLibrary library;
    ScriptedServer server(serverOptions(true));
    RecordingClient well;
    ASSERT_EQ(connectTo(well, server, true), 0);
    ASSERT_EQ(well.startRequest(nullptr), 0);
    ASSERT_TRUE(server.waitFramesOf(0, kHeaders));
    for (size_t i = 1; i <= 10; ++i) {
        RecordingClient broken;
        ASSERT_EQ(connectTo(broken, server, true), 0);
        ASSERT_EQ(broken.startRequest(nullptr), 0);
        ASSERT_TRUE(server.waitFramesOf(i, kHeaders));
        server.sendRaw(i, "this is no TLS record");
        ASSERT_TRUE(broken.waitClosed());
        server.send(0, data(1, "still here"));
        ASSERT_TRUE(well.waitContent(i));
    }
    EXPECT_EQ(well.count(Callback::Kind::kClosed), 0u);
}

TEST(FailureOfTls, ConnectingHoldsTheOtherConnectionsUp) {
    RunningLibrary library;
    ScriptedServer mute;  // takes the handshake's first bytes and says nothing
    ScriptedServer server;
    RecordingClient running;
    ASSERT_EQ(connectTo(running, server), 0);
    ASSERT_EQ(running.startRequest(nullptr), 0);
    ASSERT_TRUE(server.waitFramesOf(0, kHeaders));

    int result = -2;
    std::thread connecting([&] {
        RecordingClient client;
        result = connectTo(client, mute, true);
    });
    const bool began = mute.waitReceived(0, 1);
    server.send(0, okResponse(1));
    EXPECT_FALSE(running.waitEnd(std::chrono::milliseconds(200)));
    mute.close(0);
    connecting.join();
    EXPECT_TRUE(began);
    EXPECT_EQ(result, 4);
    ASSERT_TRUE(running.waitEnd());
    EXPECT_EQ(running.callbacks(), okCallbacks());
}

// ---- the console

TEST(FailureConsole, TellsOfGoawayAndUnknownFrames) {
    CoutCapture console;
    {
        LibraryThread library;
        ScriptedServer server;
        RecordingClient gone;
        RecordingClient unknown;
        ASSERT_EQ(connectTo(gone, server), 0);
        ASSERT_EQ(connectTo(unknown, server), 0);
        ASSERT_EQ(gone.startRequest(nullptr), 0);
        ASSERT_EQ(unknown.startRequest(nullptr), 0);
        ASSERT_TRUE(server.waitFramesOf(0, kHeaders));
        ASSERT_TRUE(server.waitFramesOf(1, kHeaders));
        console.clear();
        server.send(0, goaway(3, 7, "bye"));
        ASSERT_TRUE(gone.waitClosed());
        server.send(1, frame(0x0A, 0, 5, ""));
        ASSERT_TRUE(unknown.waitFailed());
    }
    EXPECT_EQ(console.lines(),
              (std::vector<std::string>{
                  "GOAWAY", "received a stream: id = 0 name = GOAWAY    length = 11",
                  "goaway frame: errorcode = 7", "fetal error", "fetal error"}));
}

}  // namespace
}  // namespace h2test
