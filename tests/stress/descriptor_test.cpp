// Processes that hold more descriptors than select can name, and what is left open on each path.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <unistd.h>

#include <vector>

#include <gtest/gtest.h>

#include "tests/support/descriptors.h"
#include "tests/wire/wire_support.h"

namespace h2test {
namespace {

class Descriptors : public testing::TestWithParam<bool> {
protected:
    static bool tls() { return GetParam(); }

    void start(RecordingClient& client, size_t index) {
        ASSERT_EQ(connectTo(client, m_server, tls()), 0);
        client.setUri("/", HTTP_GET);
        ASSERT_EQ(client.startRequest(nullptr), 0);
        ASSERT_TRUE(m_server.waitFramesOf(index, kHeaders));
    }

    RunningLibrary m_library;
    ScriptedServer m_server{serverOptions(tls())};
};

INSTANTIATE_TEST_SUITE_P(Transport, Descriptors, testing::Bool(),
                         [](const auto& info) { return info.param ? "Tls" : "Plain"; });

// Built with _FORTIFY_SOURCE, an FD_SET beyond the set ends the process.
TEST_P(Descriptors, ProcessWithMoreThanSelectCanNameIsToldSo) {
    constexpr rlim_t kMany = 4096;
    const DescriptorLimit limit(kMany);
    RecordingClient low;
    start(low, 0);

    std::vector<int> held;
    do {
        held.push_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
        ASSERT_GE(held.back(), 0);
    } while (held.back() < FD_SETSIZE + 200);

    for (size_t round = 0; round < 20; ++round) {
        RecordingClient high;
        const size_t before = openDescriptors();
        ASSERT_EQ(connectTo(high, m_server, tls()), 4);
        ASSERT_EQ(high.setUri("/", HTTP_GET), 4);
        ASSERT_EQ(high.startRequest(nullptr), 4);
        ASSERT_TRUE(m_server.waitClosedByPeer(1 + round));
        ASSERT_TRUE(waitFor([&] { return openDescriptors() == before; }));
    }
    m_server.send(0, okResponse(1));
    ASSERT_TRUE(low.waitEnd());
    EXPECT_EQ(low.callbacks(), okCallbacks());
    for (const int fd : held) close(fd);
}

TEST_P(Descriptors, NoneStaysOpenOnAnyPathToFailure) {
    const RefusingPort refusing;
    {
        RecordingClient first;  // what is opened once for the process is opened now
        start(first, 0);
        m_server.close(0);
        ASSERT_TRUE(first.waitClosed());
        ASSERT_TRUE(m_server.waitClosedByPeer(0));
    }
    // The server's end of a connection is open in this process too, until it has seen the FIN.
    const size_t before = openDescriptors();
    const auto allClosed = [&] { return openDescriptors() == before; };
    ASSERT_TRUE(waitFor(allClosed));
    size_t index = 1;
    const std::string endings[] = {rstStream(1, 0), goaway(0, 0), frame(0xEE, 0, 0, ""),
                                   okResponse(1) + goaway(0, 0)};
    for (int round = 0; round < 10; ++round) {
        RecordingClient refused;
        ASSERT_EQ(refused.connectToServer(schemaOf(tls()), "127.0.0.1", refusing.port()), 4);
        for (const std::string& ending : endings) {
            RecordingClient client;
            start(client, index);
            m_server.send(index, ending);
            ASSERT_TRUE(m_server.waitClosedByPeer(index++));
        }
        RecordingClient reset;
        start(reset, index);
        m_server.reset(index++);
        ASSERT_TRUE(reset.waitClosed());
        RecordingClient half;
        start(half, index);
        m_server.send(index, headers(1, hpackIndexed(8)) + "half a");
        m_server.close(index);
        ASSERT_TRUE(m_server.waitClosedByPeer(index++));
        ASSERT_TRUE(waitFor(allClosed)) << "round " << round;
    }
}

TEST(DescriptorsOfTls, FailedHandshakeLeavesNoneOpen) {
    const RunningLibrary library;
    ServerOptions options;
    options.greeting = "no TLS here\n";
    options.closeAfterGreeting = true;
    ScriptedServer server(options);
    const auto attempt = [&] {
        RecordingClient client;
        ASSERT_EQ(connectTo(client, server, true), 4);
    };
    attempt();  // what is opened once for the process is opened now
    ASSERT_TRUE(server.waitClosedByPeer(0));
    const size_t before = openDescriptors();
    for (size_t round = 1; round <= 20; ++round) {
        attempt();
        ASSERT_TRUE(server.waitClosedByPeer(round));
    }
    EXPECT_TRUE(waitFor([&] { return openDescriptors() == before; }));
}

// One error among the many must never be read as another connection's: OpenSSL keeps its errors by
// thread, and all connections share one.
TEST(ErrorsOfTls, OfHalfTheConnectionsLeaveTheOtherHalfAlone) {
    constexpr size_t kCount = 32;
    const RunningLibrary library;
    ScriptedServer server(serverOptions(true));
    std::vector<std::unique_ptr<RecordingClient>> clients;
    for (size_t i = 0; i < kCount; ++i) {
        clients.push_back(std::make_unique<RecordingClient>());
        ASSERT_EQ(connectTo(*clients[i], server, true), 0);
        clients[i]->setUri("/", HTTP_GET);
        ASSERT_EQ(clients[i]->startRequest(nullptr), 0);
        ASSERT_TRUE(server.waitFramesOf(i, kHeaders));
        server.send(i, headers(1, hpackIndexed(8)));
    }
    for (size_t i = 0; i < kCount; i += 2) {
        server.send(i + 1, data(1, "a"));
        if (i % 4 == 0) {
            server.sendRaw(i, "garbage that is no record");
        } else {
            server.closeWithoutCloseNotify(i);
        }
        server.send(i + 1, data(1, "b"));
    }
    for (size_t i = 0; i < kCount; i += 2) {
        EXPECT_TRUE(clients[i]->waitClosed()) << i;
        server.send(i + 1, data(1, "c", kEndStream));
        EXPECT_TRUE(clients[i + 1]->waitEnd()) << i;
        EXPECT_EQ(clients[i + 1]->body(), "abc");
        EXPECT_EQ(clients[i]->callbacks(),
                  (std::vector<Callback>{Callback::headers(200, {{":status", "200"}}),
                                         Callback::closed()}));
    }
}

}  // namespace
}  // namespace h2test
