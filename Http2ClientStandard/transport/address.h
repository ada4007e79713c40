#ifndef HTTP2CLIENTSTANDARD_TRANSPORT_ADDRESS_H
#define HTTP2CLIENTSTANDARD_TRANSPORT_ADDRESS_H

#include <sys/socket.h>

#include <cstdint>
#include <string>
#include <vector>

namespace h2 {

// One address of a server: IPv4 or IPv6, with its port.
class Address {
public:
    // Copies `length` bytes of a socket address. Longer ones than any address has are cut.
    Address(const sockaddr* address, socklen_t length);

    int family() const { return m_storage.ss_family; }
    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&m_storage); }
    socklen_t length() const { return m_length; }
    // "192.0.2.1" or "2001:db8::1", without the port.
    std::string text() const;

private:
    sockaddr_storage m_storage{};
    socklen_t m_length;
};

// Whether `host` is an IPv4 or IPv6 address in text rather than a name.
bool isAddressText(const std::string& host);

struct Resolution {
    std::vector<Address> addresses;  // in the order in which they are to be tried; empty on failure
    std::string error;               // why there are none
};

// The addresses of a host name or of an address in text (RFC 6724 orders them). Waits for the
// system's name service: never to be called on a thread that serves connections, unless `host` is
// an address.
Resolution resolve(const std::string& host, uint16_t port);

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_TRANSPORT_ADDRESS_H
