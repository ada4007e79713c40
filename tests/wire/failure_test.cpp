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

const Callbacks kOnlyClosed = {Callback::closed()};
const Callbacks kOnlyFailed = {Callback::failed(ERR_FETAL)};

class Failure : public OverEachTransport {
protected:
    // The connection is gone: nothing starts on it, until the client connects again.
    void expectDropped() {
        EXPECT_TRUE(m_server.waitClosedByPeer(0));
        EXPECT_EQ(m_client.startRequest(nullptr), 2);
        EXPECT_EQ(m_client.parseHttpClientStatus(nullptr), 0);  // not taken for running
        EXPECT_EQ(m_client.cancelRequest(), 0);
        m_client.clear();
        startGet(m_client, 1);
        m_server.send(1, okResponse(1));
        ASSERT_TRUE(m_client.waitEnd());
        EXPECT_EQ(m_client.callbacks(), okCallbacks());
    }
};
H2TEST_OVER_EACH_TRANSPORT(Failure);

// ---- the connection ends

TEST_P(Failure, ClosedConnectionIsReportedOnce) {
    startGet();
    m_server.close(0);
    ASSERT_TRUE(m_client.waitClosed());
    EXPECT_EQ(m_client.callbacks(), kOnlyClosed);
    expectDropped();
}

TEST_P(Failure, ResetConnectionIsReportedOnce) {
    startGet();
    m_server.reset(0);
    ASSERT_TRUE(m_client.waitClosed());
    EXPECT_EQ(m_client.callbacks(), kOnlyClosed);
    EXPECT_EQ(m_client.startRequest(nullptr), 2);
}

TEST_P(Failure, HalfClosedConnectionIsDropped) {
    startGet();
    m_server.send(0, headers(1, hpackIndexed(8)) + data(1, "part"));
    m_server.shutdownWrite(0);
    ASSERT_TRUE(m_client.waitClosed());
    EXPECT_EQ(m_client.callbacks(),
              (Callbacks{okHeaders(), Callback::content("part", true), Callback::closed()}));
    expectDropped();
}

TEST_P(Failure, IsSilentWhenNoRequestIsRunning) {
    startGet();
    expectAnswered();
    ASSERT_TRUE(m_server.waitFramesOf(0, kRstStream));
    m_server.close(0);
    EXPECT_TRUE(m_server.waitClosedByPeer(0));
    // The client closes its socket as the last act of dropping the connection.
    EXPECT_EQ(m_client.callbacks(), okCallbacks());
    expectDropped();
}

// ---- the server says that it is over

TEST_P(Failure, ResetStreamFailsItsRequestAndDropsTheConnection) {
    startGet();
    m_server.send(0, rstStream(1, 2));
    ASSERT_TRUE(m_client.waitFailed());
    EXPECT_TRUE(m_server.waitClosedByPeer(0));
    EXPECT_EQ(m_client.callbacks(), kOnlyFailed);
    // The connection goes before the reset that answers the server's could be sent.
    EXPECT_EQ(m_server.received(0), opening() + get(1));
    expectDropped();
}

TEST_P(Failure, GoawayBehindTheWholeAnswerReportsNothing) {
    startGet();
    expectHeard(okResponse(1) + goaway(1, 0), okCallbacks());
    EXPECT_TRUE(m_server.waitClosedByPeer(0));
    EXPECT_EQ(m_client.callbacks(), okCallbacks());
    expectDropped();
}

// What tests/hostile plays in full over plain TCP, over both transports.
TEST_P(Failure, FramesThatEndTheConnectionEndTheRequest) {
    const Callback closed = Callback::closed();
    const Callback failed = Callback::failed(ERR_FETAL);
    const std::string half = headers(1, hpackIndexed(8)) + data(1, "part");
    const Callbacks halfHeard = {okHeaders(), Callback::content("part", true), failed};
    const std::vector<std::pair<std::string, Callbacks>> answers = {
        {half + rstStream(1, 0) + okResponse(1, "more"), halfHeard},
        {rstStream(3, 8), {closed}},
        {frame(kRstStream, 0, 1, "abc"), {failed}},
        {goaway(1, 11, "enhance your calm"), {closed}},
        {frame(kGoaway, 0, 0, "abc"), {closed}},
        {frame(kGoaway, 0, 1, be32(0) + be32(0)), {failed}},
        {frame(0xFF, 0, 0, ""), {failed}},
        {"HTTP/1.1 400 Bad Request\r\n\r\n", {failed}},  // reads as a frame of type 'P'
        // Both come in one read: the reassembler fails before the engine has seen the answer.
        {okResponse(1) + frame(10, 0, 0, ""), {failed}},
    };
    for (const auto& [bytes, heard] : answers) {
        RecordingClient client;
        const size_t index = m_server.connections();
        startGet(client, index);
        m_server.send(index, bytes);
        EXPECT_TRUE(m_server.waitClosedByPeer(index)) << toHex(bytes);
        EXPECT_EQ(client.callbacks(), heard) << toHex(bytes);
        EXPECT_EQ(client.startRequest(nullptr), 2) << toHex(bytes);
    }
}

TEST_P(Failure, EndedRequestStaysEndedWhenTheConnectionFails) {
    startGet();
    expectAnswered();
    ASSERT_TRUE(m_server.waitFramesOf(0, kRstStream));
    m_server.send(0, frame(10, 0, 0, ""));
    EXPECT_TRUE(m_server.waitClosedByPeer(0));
    EXPECT_EQ(m_client.callbacks(), okCallbacks());
}

TEST_P(Failure, ThreadWokenByItConnectsAndStartsAtOnce) {
    for (size_t i = 0; i < 40; ++i) {
        m_client.clear();
        startGet(m_client, i);
        if (i % 2 == 0) {
            m_server.close(i);
        } else {
            m_server.send(i, i % 4 == 1 ? rstStream(1, 2) : frame(10, 0, 0, ""));
        }
        ASSERT_TRUE(m_client.waitCallbacks(1));
        ASSERT_EQ(m_client.callbacks(), i % 2 == 0 ? kOnlyClosed : kOnlyFailed);
    }
}

TEST_P(Failure, OneConnectionsEndLeavesTheOthersAlone) {
    RecordingClient closed;
    RecordingClient failed;
    RecordingClient well;
    startGet(closed);
    startGet(failed, 1);
    startGet(well, 2);
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
    EXPECT_EQ(well.callbacks(), (Callbacks{okHeaders(), Callback::content("first", true),
                                           Callback::content("second", false)}));
}

// ---- no connection to begin with

TEST_P(Failure, RefusedConnectionIsAReturnCode) {
    const RefusingPort port;
    RecordingClient client;
    EXPECT_EQ(client.connectToServer(schemaOf(m_tls), "127.0.0.1", port.port()), 4);
    EXPECT_EQ(client.setUri("/", HTTP_GET), 4);
    EXPECT_EQ(client.startRequest(nullptr), 4);
    EXPECT_EQ(client.callbacks(), Callbacks());
}

TEST_P(Failure, RefusedConnectionLeavesTheFormerOneInUse) {
    const RefusingPort port;
    connect();
    EXPECT_EQ(m_client.connectToServer(HTTP_2, "127.0.0.1", port.port()), 4);
    startNext();
    expectSent(get(1));
    expectAnswered();
}

TEST_P(Failure, MissingAddressMeansThisHost) {
    for (const char* ip : {static_cast<const char*>(nullptr), "", "no address"}) {
        RecordingClient client;
        EXPECT_EQ(client.connectToServer(schemaOf(m_tls), ip, m_server.port()), 0);
        const RefusingPort port;
        EXPECT_EQ(client.connectToServer(schemaOf(m_tls), ip, port.port()), 4);
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
    startGet(low, 0);
    std::vector<int> fill;
    do {
        fill.push_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
        ASSERT_GE(fill.back(), 0);
    } while (fill.back() < FD_SETSIZE - 1);

    RecordingClient high;
    EXPECT_EQ(connectTo(high, m_server, m_tls), 4);
    EXPECT_TRUE(m_server.waitClosedByPeer(1));
    EXPECT_EQ(m_server.received(1), "");
    EXPECT_EQ(high.startRequest(nullptr), 4);

    // Others are served as before, and so is the same client once there is room.
    m_server.send(0, okResponse(1));
    ASSERT_TRUE(low.waitEnd());
    for (const int fd : fill) ::close(fd);
    startGet(high, 2);
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
    ASSERT_TRUE(server.waitClosedByPeer(0));
    EXPECT_TRUE(server.tlsFailed(0));
    EXPECT_EQ(client.callbacks(), kOnlyClosed);
}

TEST(FailureOfTls, ConnectingStallsTheOtherConnections) {
    RunningLibrary library;
    ScriptedServer mute;  // takes the handshake's first bytes and says nothing
    ScriptedServer server;
    RecordingClient running;
    startGet(running, server);

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
        startGet(gone, server);
        startGet(unknown, server, 1);
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
