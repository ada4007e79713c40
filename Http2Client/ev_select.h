#ifndef HTTP2CLIENT_EV_SELECT_H
#define HTTP2CLIENT_EV_SELECT_H

#include <sys/select.h>

#include <list>
#include <set>
#include <string>

#include "ev.h"

namespace tiny {

// The poller over select. Sockets are reported in ascending order. A select that fails, also by an
// interrupting signal, reports every registered socket as in error.
//
// Nothing is registered for a descriptor that an fd_set cannot hold (FD_SETSIZE, 1024, and above).
class ev_select : public ev {
public:
    ev_select();

    // A mask of 0 registers the descriptor without watching it.
    bool addEvent(int fd, int mask) override;
    // Ends the descriptor's registration whatever the mask.
    bool removeEvent(int fd, int mask) override;
    std::list<ActiveSocket> poll(timeval* timeout) override;
    std::string poolApiName() override;

private:
    fd_set readfds;   // registered for reading
    fd_set writefds;  // registered for writing
    fd_set _readfds;  // working copies, which select overwrites
    fd_set _writefds;
    int m_maxfd;                // highest registered descriptor; keeps its value when the last goes
    std::set<int> m_sockfdSet;  // all registered descriptors
};

}  // namespace tiny

#endif  // HTTP2CLIENT_EV_SELECT_H
