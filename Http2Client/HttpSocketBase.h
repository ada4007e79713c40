#ifndef HTTP2CLIENT_HTTPSOCKETBASE_H
#define HTTP2CLIENT_HTTPSOCKETBASE_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "error.h"

namespace tiny {

// The byte pipe of one server connection: owns the TCP socket and knows its peer.
//
// Used by one thread at a time: constructed and initialised by the thread that connects, then
// read, written and destroyed by the poll thread. The socket exists from construction on;
// connecting it is the owner's business.
class HttpSocketBase {
public:
    HttpSocketBase(HTTP_SCHEMA ver, const std::string& ip, uint16_t port);
    virtual ~HttpSocketBase();
    HttpSocketBase(const HttpSocketBase&) = delete;
    HttpSocketBase& operator=(const HttpSocketBase&) = delete;

    // Makes the transport ready for data. Called once, when the socket is connected and still
    // blocking. False: the connection is of no use.
    virtual bool initialization() = 0;

    // Move up to `len` bytes from the peer into `buf`, or from `buf` to the peer. Return the number
    // of bytes moved; 0 when the connection is over (orderly close or hard error); -1 when nothing
    // can be moved now. A write may raise SIGPIPE; whether the process ignores it is up to the
    // application.
    virtual int readData(char* buf, size_t len) = 0;
    virtual int writeData(const char* buf, size_t len) = 0;

    HTTP_SCHEMA httpVersion() const { return m_ver; }
    std::string remoteIp() const { return m_ip; }
    uint16_t remotePort() const { return m_port; }
    int sock() const { return m_socket; }

protected:
    std::string m_ip;  // as the caller gave it
    HTTP_SCHEMA m_ver;
    uint16_t m_port;  // host order
    int m_socket;     // -1 when there is none
};

}  // namespace tiny

#endif  // HTTP2CLIENT_HTTPSOCKETBASE_H
