#ifndef HTTP2CLIENTSTANDARD_TRANSPORT_SOCKET_H
#define HTTP2CLIENTSTANDARD_TRANSPORT_SOCKET_H

#include <string>
#include <utility>

#include "Http2ClientStandard/transport/address.h"

namespace h2 {

// Owns a descriptor. Movable, not copyable.
class Socket {
public:
    Socket() = default;
    explicit Socket(int descriptor) : m_descriptor(descriptor) {}
    ~Socket() { close(); }
    Socket(Socket&& other) noexcept : m_descriptor(std::exchange(other.m_descriptor, -1)) {}
    Socket& operator=(Socket&& other) noexcept {
        if (this != &other) {
            close();
            m_descriptor = std::exchange(other.m_descriptor, -1);
        }
        return *this;
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    int get() const { return m_descriptor; }
    explicit operator bool() const { return m_descriptor != -1; }
    void close();

private:
    int m_descriptor = -1;
};

// Begins a TCP connect without waiting. The socket is non-blocking, is not inherited by programs
// that the process starts, and sends small segments at once (TCP_NODELAY). An empty socket when the
// system refuses at once; `error` then says why.
Socket startConnect(const Address& address, std::string& error);

// The outcome of a connect once its socket is writable: empty for success, or why it failed.
std::string connectError(int descriptor);

// Text of an errno value.
std::string systemError(int number);

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_TRANSPORT_SOCKET_H
