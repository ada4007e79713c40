// Names, their addresses, and IPv6.
#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "interposed.h"
#include "tests/standard/tls_peer.h"
#include "tests/standard/wire/wire_support.h"

namespace {

using namespace h2test;

class Addresses : public BothTest {
protected:
    int connectByName(RecordingClient& client, uint16_t port) const {
        setHttp2TextOption(&client, HTTP2_SERVER_NAME, "localhost");  // that the certificate has
        return client.connectToServer(schema(), "several.test", port);
    }
};
INSTANTIATE_TEST_SUITE_P(Process, Addresses, testing::Bool(), protocolName);

TEST_P(Addresses, AreTriedInTurn) {
    Http2Server server(options(answerAll()));  // at 127.0.0.1 only
    for (const std::vector<std::string>& known :
         {std::vector<std::string>{"127.0.0.2", "::1", "127.0.0.1"}, {"127.0.0.1", "127.0.0.2"}}) {
        Names::get().set("several.test", known);
        Names::get().takeLookUps();
        RecordingClient client;
        ASSERT_EQ(setHttp2Option(&client, HTTP2_OWN_CONNECTION, 1), 0);
        ASSERT_EQ(connectByName(client, server.port()), 0) << getHttp2Text(&client, HTTP2_ERROR);
        EXPECT_STREQ(getHttp2Text(&client, HTTP2_PEER), "127.0.0.1");
        EXPECT_EQ(Names::get().takeLookUps(),
                  std::vector<std::thread::id>{std::this_thread::get_id()});
        ASSERT_EQ(client.setUri("/", HTTP_GET), 0);
        ASSERT_EQ(client.startRequest(nullptr), 0);
        ASSERT_TRUE(client.waitEnd());
        EXPECT_EQ(server.requests().back().field(":authority"),
                  "several.test:" + std::to_string(server.port()));
        // A lost connection is replaced without another look-up.
        const size_t connections = server.wire().connections();
        server.wire().close(connections - 1);
        ASSERT_TRUE(server.wire().waitClosedByPeer(connections - 1));
        client.clear();
        ASSERT_EQ(client.startRequest(nullptr), 0);
        ASSERT_TRUE(client.waitEnd());
        EXPECT_EQ(server.wire().connections(), connections + 1);
        EXPECT_EQ(Names::get().takeLookUps().size(), 0u);
    }
}

TEST_P(Addresses, ThatAllRefuseAreAnError) {
    const RefusingPort port;
    Names::get().set("several.test", {"127.0.0.1", "127.0.0.2"});
    RecordingClient client;
    EXPECT_EQ(connectByName(client, port.port()), 4);
    EXPECT_STREQ(getHttp2Text(&client, HTTP2_ERROR), "cannot connect: Connection refused");
}

TEST_P(Addresses, ThatCannotBeFoundAreAnError) {
    Names::get().set("several.test", {});
    RecordingClient client;
    EXPECT_EQ(connectByName(client, 443), 4);
    EXPECT_STREQ(getHttp2Text(&client, HTTP2_ERROR),
                 "cannot find host several.test: Temporary failure in name resolution");
}

TEST_P(Addresses, AreNotLookedUpInACallback) {
    Http2Server server(options(answerAll()));
    Names::get().set("several.test", {"127.0.0.1"});
    Names::get().takeLookUps();
    RecordingClient other;
    int result = 0;
    RecordingClient client([&](const Callback&) { result = connectByName(other, server.port()); });
    ASSERT_EQ(connect(client, server), 0);
    ASSERT_EQ(client.setUri("/", HTTP_GET), 0);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(client.waitEnd());
    EXPECT_EQ(result, 4);
    EXPECT_STREQ(getHttp2Text(&other, HTTP2_ERROR),
                 "not connected to several.test yet, and a callback cannot wait for its address");
    EXPECT_EQ(Names::get().takeLookUps().size(), 0u);
    // A name that is connected to is joined.
    RecordingClient connected;
    ASSERT_EQ(connectByName(connected, server.port()), 0);
    client.clear();
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(client.waitEnd());
    EXPECT_EQ(result, 0);
    EXPECT_EQ(getHttp2Number(&other, HTTP2_SHARED), 1);
}

// Hands one connection to ::1 on to a port of 127.0.0.1, byte by byte both ways.
class Ipv6Front {
public:
    explicit Ipv6Front(uint16_t port) : m_thread([this, port] { run(port); }) {}
    ~Ipv6Front() {
        shutdown(m_listener.descriptor(), SHUT_RDWR);  // ends an accept that still waits
        m_thread.join();
    }
    Ipv6Front(const Ipv6Front&) = delete;
    Ipv6Front& operator=(const Ipv6Front&) = delete;
    uint16_t port() const { return m_listener.port(); }

private:
    void run(uint16_t port) const {
        const int front = m_listener.accept();
        if (front == -1) return;
        const int back = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(port);
        if (::connect(back, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
            while (forward(front, back)) {
            }
        }
        close(front);
        close(back);
    }
    static bool forward(int front, int back) {
        pollfd ready[] = {{front, POLLIN, 0}, {back, POLLIN, 0}};
        if (poll(ready, 2, -1) == -1) return false;
        const bool forth = ready[0].revents != 0;
        char bytes[16384];
        const ssize_t size = read(forth ? front : back, bytes, sizeof bytes);
        return size > 0 &&
               send(forth ? back : front, bytes, static_cast<size_t>(size), MSG_NOSIGNAL) == size;
    }

    Listener m_listener{"::1"};
    std::thread m_thread;  // last: uses the others
};

TEST_P(Addresses, MayBeIpv6) {
    Http2Server server(options(answerAll()));
    const Ipv6Front front(server.port());
    RecordingClient client;
    ASSERT_EQ(setHttp2Option(&client, HTTP2_OWN_CONNECTION, 1), 0);  // which ends with the client
    ASSERT_EQ(client.connectToServer(schema(), "::1", front.port()), 0)
        << getHttp2Text(&client, HTTP2_ERROR);
    EXPECT_STREQ(getHttp2Text(&client, HTTP2_PEER), "::1");
    ASSERT_EQ(client.setUri("/", HTTP_GET), 0);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(client.waitEnd());
    EXPECT_EQ(client.callbacks(), answered());
    EXPECT_EQ(server.requests()[0].field(":authority"), "[::1]:" + std::to_string(front.port()));
}

}  // namespace
