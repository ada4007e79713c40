// The system's socket calls as the library makes them.

#include "Http2Client/Sock.h"

#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/support/descriptors.h"
#include "tests/support/log_capture.h"
#include "tests/support/log_lines.h"
#include "tests/support/scripted_server.h"

namespace h2test {
namespace {

using tiny::Sock;

using Lines = std::vector<std::string>;

// A socket of the library's that is closed at the end of the test.
class OwnedSocket {
public:
    OwnedSocket() : m_fd(Sock::createSocket()) {}
    ~OwnedSocket() { close(m_fd); }
    OwnedSocket(const OwnedSocket&) = delete;
    OwnedSocket& operator=(const OwnedSocket&) = delete;
    int fd() const { return m_fd; }
    int option(int level, int name) const {
        int value = -1;
        socklen_t size = sizeof(value);
        EXPECT_EQ(getsockopt(m_fd, level, name, &value, &size), 0);
        return value;
    }

private:
    int m_fd;
};

TEST(Sock, CreatesABlockingTcpSocketWithKeepAlive) {
    const OwnedSocket sock;
    ASSERT_GE(sock.fd(), 0);
    EXPECT_EQ(sock.option(SOL_SOCKET, SO_DOMAIN), AF_INET);
    EXPECT_EQ(sock.option(SOL_SOCKET, SO_TYPE), SOCK_STREAM);
    EXPECT_EQ(sock.option(SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_EQ(sock.option(IPPROTO_TCP, TCP_KEEPCNT), 5);
    EXPECT_EQ(sock.option(IPPROTO_TCP, TCP_KEEPIDLE), 30);
    EXPECT_EQ(sock.option(IPPROTO_TCP, TCP_KEEPINTVL), 60);
    EXPECT_EQ(fcntl(sock.fd(), F_GETFL) & O_NONBLOCK, 0);
}

TEST(Sock, LeavesNagleOn) {
    const OwnedSocket sock;
    EXPECT_EQ(sock.option(IPPROTO_TCP, TCP_NODELAY), 0);
}

TEST(Sock, SetsNoOtherOptions) {
    const OwnedSocket sock;
    const int plain = socket(AF_INET, SOCK_STREAM, 0);
    for (const int name : {SO_RCVBUF, SO_SNDBUF, SO_REUSEADDR, SO_REUSEPORT, SO_OOBINLINE}) {
        int value = -1;
        socklen_t size = sizeof(value);
        ASSERT_EQ(getsockopt(plain, SOL_SOCKET, name, &value, &size), 0);
        EXPECT_EQ(sock.option(SOL_SOCKET, name), value) << name;
    }
    EXPECT_EQ(fcntl(sock.fd(), F_GETFD), fcntl(plain, F_GETFD));
    EXPECT_EQ(fcntl(sock.fd(), F_GETFL), fcntl(plain, F_GETFL));
    close(plain);
}

TEST(Sock, LogsEachCreation) {
    const LogCapture log;
    const OwnedSocket sock;
    EXPECT_EQ(logLines(log), Lines{"20000 Sock_Linux.cpp: creat new socket"});
    EXPECT_EQ(functionThatLogged(log, "creat new socket"), "static int tiny::Sock::createSocket()");
}

TEST(Sock, AsksForTheLevelOnceAndStaysSilentAboveIt) {
    const LogCapture log(20001);
    const OwnedSocket sock;
    EXPECT_EQ(log.levelQueries(), 1u);
    EXPECT_EQ(logLines(log), Lines{});
}

TEST(Sock, CreationReturnsMinusOneWithoutADescriptorLeft) {
    const DescriptorLimit limit(static_cast<rlim_t>(nextDescriptor()));
    EXPECT_EQ(Sock::createSocket(), -1);
}

TEST(Sock, ConnectsToAListeningPort) {
    ScriptedServer server;
    const OwnedSocket sock;
    EXPECT_EQ(Sock::connectTo(sock.fd(), ScriptedServer::ip(), server.port()), 0);
    EXPECT_TRUE(server.waitConnections(1));
    EXPECT_EQ(fcntl(sock.fd(), F_GETFL) & O_NONBLOCK, 0);
}

TEST(Sock, ReturnsMinusOneWhereNothingListens) {
    const RefusingPort port;
    const OwnedSocket sock;
    EXPECT_EQ(Sock::connectTo(sock.fd(), "127.0.0.1", port.port()), -1);
    EXPECT_TRUE(isOpen(sock.fd()));  // closing it is the caller's business
}

TEST(Sock, ReturnsMinusOneForASocketThatIsNone) {
    ScriptedServer server;
    EXPECT_EQ(Sock::connectTo(-1, ScriptedServer::ip(), server.port()), -1);
}

TEST(Sock, ConnectsToTheLow16BitsOfThePort) {
    ScriptedServer server;
    const OwnedSocket first;
    const OwnedSocket second;
    EXPECT_EQ(Sock::connectTo(first.fd(), ScriptedServer::ip(), 0x10000u + server.port()), 0);
    EXPECT_EQ(Sock::connectTo(second.fd(), ScriptedServer::ip(), 0xffff0000u + server.port()), 0);
    EXPECT_TRUE(server.waitConnections(2));
}

// 0.0.0.0 as a destination is this host.
TEST(Sock, TakesTextThatIsNoAddressForAllZeros) {
    ScriptedServer server;
    for (const char* text : {"no address", "", "0.0.0.0", "300.1.1.1"}) {
        const OwnedSocket sock;
        EXPECT_EQ(Sock::connectTo(sock.fd(), text, server.port()), 0) << text;
        sockaddr_in peer{};
        socklen_t size = sizeof(peer);
        ASSERT_EQ(getpeername(sock.fd(), reinterpret_cast<sockaddr*>(&peer), &size), 0) << text;
        EXPECT_EQ(ntohl(peer.sin_addr.s_addr), INADDR_LOOPBACK) << text;
        EXPECT_EQ(ntohs(peer.sin_port), server.port()) << text;
    }
    EXPECT_TRUE(server.waitConnections(4));
}

TEST(Sock, LogsTheAddressOfEachConnect) {
    const RefusingPort port;
    const OwnedSocket sock;
    const LogCapture log;
    EXPECT_EQ(Sock::connectTo(sock.fd(), "127.0.0.1", port.port()), -1);
    EXPECT_EQ(Sock::connectTo(-1, "no address", port.port()), -1);
    EXPECT_EQ(logLines(log), (Lines{"20000 Sock_Linux.cpp: connect new socket: ip :127.0.0.1",
                                    "20000 Sock_Linux.cpp: connect new socket: ip :no address"}));
    EXPECT_NE(functionThatLogged(log, "connect new socket: ip :127.0.0.1")
                  .find("tiny::Sock::connectTo(int, const std::string&, uint32_t)"),
              std::string::npos)
        << functionThatLogged(log, "connect new socket: ip :127.0.0.1");
}

TEST(Sock, SwitchesBetweenNonBlockingAndBlocking) {
    const OwnedSocket sock;
    ASSERT_EQ(fcntl(sock.fd(), F_SETFL, fcntl(sock.fd(), F_GETFL) | O_APPEND), 0);
    const int before = fcntl(sock.fd(), F_GETFL);
    ASSERT_NE(before & O_APPEND, 0);
    Sock::setNonblocked(sock.fd(), true);
    EXPECT_EQ(fcntl(sock.fd(), F_GETFL), before | O_NONBLOCK);
    Sock::setNonblocked(sock.fd(), true);
    EXPECT_EQ(fcntl(sock.fd(), F_GETFL), before | O_NONBLOCK);
    Sock::setNonblocked(sock.fd(), false);
    EXPECT_EQ(fcntl(sock.fd(), F_GETFL), before);
    Sock::setNonblocked(sock.fd(), false);
    EXPECT_EQ(fcntl(sock.fd(), F_GETFL), before);
}

TEST(Sock, ClosesTheDescriptorSilently) {
    const int fd = Sock::createSocket();
    ASSERT_TRUE(isOpen(fd));
    const LogCapture log;
    Sock::closeSocket(fd);
    EXPECT_FALSE(isOpen(fd));
    EXPECT_EQ(logLines(log), Lines{});
}

TEST(Sock, IgnoresASocketThatIsNone) {
    const size_t before = openDescriptors();
    Sock::setNonblocked(-1, true);
    Sock::setNonblocked(-1, false);
    Sock::closeSocket(-1);
    EXPECT_EQ(openDescriptors(), before);
}

TEST(Sock, HasAPlaceForProcessWideSetUp) {
    static_assert(std::is_empty_v<Sock::InnerInit>);
    static_assert(std::is_same_v<decltype(Sock::m_obj), Sock::InnerInit>);
    EXPECT_NE(&Sock::m_obj, nullptr);
    const size_t before = openDescriptors();
    { const Sock::InnerInit another; }
    EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
}  // namespace h2test
