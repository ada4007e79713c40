#include "HttpSocketOri.h"

#include <sys/socket.h>
#include <sys/types.h>

#include <cerrno>

namespace tiny {

namespace {

// Maps the result of recv and send to the transports' convention.
int toResult(ssize_t moved) {
    if (moved >= 0) return static_cast<int>(moved);
    return errno == EAGAIN || errno == EINTR ? -1 : 0;
}

}  // namespace

HttpSocketOri::HttpSocketOri(HTTP_SCHEMA ver, const std::string& ip, uint16_t port)
    : HttpSocketBase(ver, ip, port) {}

bool HttpSocketOri::initialization() { return true; }

int HttpSocketOri::readData(char* buf, size_t len) { return toResult(recv(m_socket, buf, len, 0)); }

int HttpSocketOri::writeData(const char* buf, size_t len) {
    return toResult(send(m_socket, buf, len, 0));
}

}  // namespace tiny
