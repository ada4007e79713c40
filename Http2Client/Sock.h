#ifndef HTTP2CLIENT_SOCK_H
#define HTTP2CLIENT_SOCK_H

#include <cstdint>
#include <string>

namespace tiny {

// The socket calls that the library needs. Stateless; any thread may call them. Each platform has
// a source file of its own (Sock_Linux.cpp).
class Sock {
public:
    // Process-wide set-up and clean-up of sockets, for platforms that need them. Linux does not.
    class InnerInit {
    public:
        InnerInit();
        ~InnerInit();
    };

    // Returns a blocking TCP socket with keep-alive on: first probe after 30 s of idleness, five
    // probes 60 s apart. -1 when the system has none to give.
    static int createSocket();

    // Connects to the IPv4 address `ip` (text that is none means 0.0.0.0) and the low 16 bits of
    // `port`, waiting as long as the operating system does. Returns 0, or -1 on failure.
    static int connectTo(int sock, const std::string& ip, uint32_t port);

    // Errors are ignored.
    static void setNonblocked(int sock, bool on);
    static void closeSocket(int sock);

private:
    static InnerInit m_obj;
};

}  // namespace tiny

#endif  // HTTP2CLIENT_SOCK_H
