#ifndef HTTP2CLIENTSTANDARD_TRANSPORT_TRANSPORT_H
#define HTTP2CLIENTSTANDARD_TRANSPORT_TRANSPORT_H

#include <sys/uio.h>

#include <cstddef>
#include <span>
#include <string>

#include "Http2ClientStandard/transport/socket.h"

namespace h2 {

enum class IoStatus {
    kDone,    // bytes were moved, or there is nothing to do
    kAgain,   // nothing can be moved until the socket is ready again
    kClosed,  // the peer has ended its direction in an orderly way: no byte was cut off
    kFailed   // the connection is broken; error() says how
};

struct IoResult {
    IoStatus status;
    size_t bytes = 0;
};

// A non-blocking byte pipe to one server, plain or TLS. Owns its socket. For one thread at a time.
//
// Writing to a connection that the peer has closed gives kFailed and never raises SIGPIPE. After a
// failed write there may still be bytes to read.
class Transport {
public:
    explicit Transport(Socket socket) : m_socket(std::move(socket)) {}
    virtual ~Transport() = default;
    Transport(const Transport&) = delete;
    Transport& operator=(const Transport&) = delete;

    int descriptor() const { return m_socket.get(); }

    // Makes ready for data: a TLS transport shakes hands. kAgain: call again when the socket is
    // readable, or writable if wantsWrite() says so. After kDone call read() without waiting: data
    // may have come with the handshake.
    virtual IoResult handshake() = 0;

    // Reads up to `size` bytes. kDone with fewer than `size` bytes: the socket holds no more now.
    virtual IoResult read(char* to, size_t size) = 0;

    // Takes up to all bytes of the segments, in their order. kDone with fewer bytes than there are:
    // the socket takes no more now. Bytes that were taken are sent by flush() at the latest.
    virtual IoResult write(std::span<const iovec> segments) = 0;

    // Sends what write() has taken and the socket has not.
    virtual IoResult flush() = 0;

    // Tells the peer that no more bytes follow, as far as the socket takes that at once. Nothing
    // may be written from then on.
    virtual void endWriting() = 0;

    // Whether the socket must become writable before this transport can go on.
    virtual bool wantsWrite() const = 0;

    // Gives back memory that only a busy connection needs.
    virtual void trim() {}

    // What broke the connection, in words for a person; empty while nothing has.
    const std::string& error() const { return m_error; }

protected:
    IoResult fail(std::string error) {
        m_error = std::move(error);
        return {IoStatus::kFailed};
    }

    Socket m_socket;

private:
    std::string m_error;
};

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_TRANSPORT_TRANSPORT_H
