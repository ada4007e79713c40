#ifndef HTTP2CLIENT_EV_H
#define HTTP2CLIENT_EV_H

#include <sys/time.h>

#include <list>
#include <string>

namespace tiny {

// Watches sockets and reports which are ready. Poll thread only.
class ev {
public:
    // Bits of a mask.
    static constexpr int kRead = 1;
    static constexpr int kWrite = 2;
    static constexpr int kError = 4;  // in results only

    struct ActiveSocket {
        int m_socket;
        int m_mask;  // what the socket is ready for
    };

    virtual ~ev() = default;

    // Watch `fd`, or stop watching it, for the bits of `mask`. Return true.
    virtual bool addEvent(int fd, int mask) = 0;
    virtual bool removeEvent(int fd, int mask) = 0;
    // Waits up to `timeout` for a ready socket and returns those that are; empty when time is up.
    virtual std::list<ActiveSocket> poll(timeval* timeout) = 0;
    virtual std::string poolApiName() = 0;
};

}  // namespace tiny

#endif  // HTTP2CLIENT_EV_H
