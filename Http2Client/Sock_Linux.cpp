#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Sock.h"
#include "log.h"

namespace tiny {

namespace {

constexpr int kKeepAliveProbes = 5;
constexpr int kKeepAliveIdleSeconds = 30;
constexpr int kKeepAliveIntervalSeconds = 60;

void setOption(int sock, int level, int name, int value) {
    setsockopt(sock, level, name, &value, sizeof(value));
}

}  // namespace

Sock::InnerInit Sock::m_obj;

Sock::InnerInit::InnerInit() {}   // NOLINT(modernize-use-equals-default): a place for set-up
Sock::InnerInit::~InnerInit() {}  // NOLINT(modernize-use-equals-default): and for clean-up

int Sock::createSocket() {
    HTTP2CLIENT_LOG_INFO("creat new socket");
    const int sock = socket(AF_INET, SOCK_STREAM, 0);
    // One byte is less than the option's size, so the system refuses it and its default stays.
    const char noDelay = 0;
    setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof(noDelay));
    setOption(sock, SOL_SOCKET, SO_KEEPALIVE, 1);
    setOption(sock, IPPROTO_TCP, TCP_KEEPCNT, kKeepAliveProbes);
    setOption(sock, IPPROTO_TCP, TCP_KEEPIDLE, kKeepAliveIdleSeconds);
    setOption(sock, IPPROTO_TCP, TCP_KEEPINTVL, kKeepAliveIntervalSeconds);
    return sock;
}

int Sock::connectTo(int sock, const std::string& ip, uint32_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    inet_aton(ip.c_str(), &address.sin_addr);
    HTTP2CLIENT_LOG_INFO("connect new socket: ip :" << ip);
    address.sin_port = htons(static_cast<uint16_t>(port));
    return connect(sock, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
}

void Sock::setNonblocked(int sock, bool on) {
    const int flags = fcntl(sock, F_GETFL);
    if (flags == -1) return;
    fcntl(sock, F_SETFL, on ? flags | O_NONBLOCK : flags & ~O_NONBLOCK);
}

void Sock::closeSocket(int sock) { close(sock); }

}  // namespace tiny
