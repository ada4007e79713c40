#ifndef HTTP2CLIENT_HTTPIO_H
#define HTTP2CLIENT_HTTPIO_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "error.h"

namespace tiny {

class Http2;
class HttpSocketBase;

// One connection to one server: a transport, the engine that speaks over it, and the bytes the
// transport has not taken yet. Made by the thread that connects, then used by the poll thread.
// Destroying it destroys the engine, which reports to its requests, and then closes the socket.
class HttpIO {
public:
    // Connects, waiting as long as that takes, and returns the connection; an empty pointer when
    // the connect or the TLS handshake fails. Any `schema` but HTTP_2 means TLS. A null `ip`
    // counts as empty.
    static std::shared_ptr<HttpIO> createHttpIO(HTTP_SCHEMA schema, const char* ip, uint16_t port);

    ~HttpIO();
    HttpIO(const HttpIO&) = delete;
    HttpIO& operator=(const HttpIO&) = delete;

    // Unlike the descriptor, no two connections of the process have the same. Never 0.
    uint64_t serial() const { return m_serial; }
    int httpSocket() const;
    std::string httpIp() const;
    uint16_t httpPort() const;
    HTTP_SCHEMA httpVersion() const;
    Http2* httpParser() const { return m_http2; }

    // Bytes to be sent, oldest first; the caller edits them in place.
    std::string& buffer() { return m_cachedBuffer; }
    // Whether the cache holds more than 16 MiB.
    bool bufferOverLimit() const;

    // See HttpSocketBase::readData and writeData.
    int read(char* buf, size_t len);
    int write(const char* buf, size_t len);

private:
    HttpIO();

    HttpSocketBase* m_socket;  // owned; null only during construction
    Http2* m_http2;            // owned; null until the transport is initialised
    std::string m_cachedBuffer;
    const uint64_t m_serial;
};

}  // namespace tiny

#endif  // HTTP2CLIENT_HTTPIO_H
