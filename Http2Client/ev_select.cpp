#include "ev_select.h"

namespace tiny {

namespace {

bool fitsFdSet(int fd) { return fd >= 0 && fd < FD_SETSIZE; }

}  // namespace

ev_select::ev_select() : m_maxfd(0) {
    FD_ZERO(&readfds);
    FD_ZERO(&writefds);
    FD_ZERO(&_readfds);
    FD_ZERO(&_writefds);
}

bool ev_select::addEvent(int fd, int mask) {
    if (!fitsFdSet(fd)) return true;
    if ((mask & kRead) != 0) FD_SET(fd, &readfds);
    if ((mask & kWrite) != 0) FD_SET(fd, &writefds);
    if (m_maxfd <= fd) m_maxfd = fd;
    m_sockfdSet.insert(fd);
    return true;
}

bool ev_select::removeEvent(int fd, int mask) {
    if (!fitsFdSet(fd)) return true;
    if ((mask & kRead) != 0) FD_CLR(fd, &readfds);
    if ((mask & kWrite) != 0) FD_CLR(fd, &writefds);
    m_sockfdSet.erase(fd);
    if (!m_sockfdSet.empty()) m_maxfd = *m_sockfdSet.rbegin();
    return true;
}

std::list<ev::ActiveSocket> ev_select::poll(timeval* timeout) {
    std::list<ActiveSocket> active;
    _readfds = readfds;
    _writefds = writefds;
    const int result = select(m_maxfd + 1, &_readfds, &_writefds, nullptr, timeout);
    if (result == 0) return active;
    if (result == -1) {
        for (const int fd : m_sockfdSet) active.push_back({fd, kError});
        return active;
    }
    for (int fd = 0; fd <= m_maxfd; ++fd) {
        const int mask =
            (FD_ISSET(fd, &_readfds) ? kRead : 0) | (FD_ISSET(fd, &_writefds) ? kWrite : 0);
        if (mask != 0) active.push_back({fd, mask});
    }
    return active;
}

std::string ev_select::poolApiName() { return "select"; }

}  // namespace tiny
