#ifndef HTTP2CLIENT_EV_SELECT_H
#define HTTP2CLIENT_EV_SELECT_H

#include <sys/select.h>

#include <cstddef>
#include <memory_resource>
#include <set>
#include <string>

#include "ev.h"

namespace tiny {

// The memory of a list's entries: a list takes what the last one has given back. No pool of the
// standard library's: libstdc++ 12's goes on without a block when there is no memory to note it in.
class ListMemory : public std::pmr::memory_resource {
public:
    ListMemory() = default;
    ~ListMemory() override;
    ListMemory(const ListMemory&) = delete;
    ListMemory& operator=(const ListMemory&) = delete;

private:
    // An entry has two links. Blocks of another size, which a list has no use for, are not kept.
    static constexpr size_t kBlockSize = 2 * sizeof(void*) + sizeof(ev::ActiveSocket);

    struct Block {
        Block* m_next;
    };

    void* do_allocate(size_t size, size_t alignment) override;
    void do_deallocate(void* block, size_t size, size_t alignment) override;
    bool do_is_equal(const std::pmr::memory_resource& other) const noexcept override;

    Block* m_free = nullptr;  // blocks of kBlockSize bytes
};

// The poller over select. Sockets are reported in ascending order. A select that fails, also by an
// interrupting signal, reports every registered socket as in error.
//
// A descriptor that an fd_set cannot hold (FD_SETSIZE, 1024, and above) is passed over: nothing is
// registered for it.
class ev_select : public ev {
public:
    ev_select();

    // A mask of 0 registers the descriptor without watching it.
    bool addEvent(int fd, int mask) override;
    // Ends the descriptor's registration whatever the mask.
    bool removeEvent(int fd, int mask) override;
    ActiveSockets poll(timeval* timeout) override;
    std::string poolApiName() override;

private:
    fd_set readfds;   // registered for reading
    fd_set writefds;  // registered for writing
    fd_set _readfds;  // working copies, which select overwrites
    fd_set _writefds;
    int m_maxfd;                // highest registered descriptor; keeps its value when the last goes
    std::set<int> m_sockfdSet;  // all registered descriptors
    ListMemory m_listMemory;
};

}  // namespace tiny

#endif  // HTTP2CLIENT_EV_SELECT_H
