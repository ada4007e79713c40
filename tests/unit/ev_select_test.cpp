// The poller: its registrations and its results.

#include "Http2Client/ev_select.h"

#include <chrono>
#include <climits>
#include <cstring>
#include <memory>
#include <new>
#include <set>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "tests/support/descriptors.h"
#include "tests/support/signals.h"
#include "tests/support/virtual_slot.h"

namespace h2test {
namespace {

using tiny::ev;
using tiny::ev_select;

using Set = std::set<int>;
using Active = std::vector<std::pair<int, int>>;  // descriptor and mask, in the order reported

// Two connected sockets; the test registers `own` and acts as the peer with `peer`.
struct Pair {
    int own = -1;
    int peer = -1;
    Pair() {
        int fds[2] = {-1, -1};
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) throw std::runtime_error("socketpair");
        own = fds[0];
        peer = fds[1];
    }
    ~Pair() {
        close(own);
        close(peer);
    }
    Pair(const Pair&) = delete;
    Pair& operator=(const Pair&) = delete;

    void makeReadable() const { ASSERT_EQ(send(peer, "x", 1, 0), 1); }
    // Fills the socket's buffers until no further byte fits.
    void makeUnwritable() const {
        const std::string block(65536, 'x');
        while (send(own, block.data(), block.size(), MSG_DONTWAIT) > 0) {
        }
        while (send(own, "x", 1, MSG_DONTWAIT) > 0) {
        }
    }
};

Active poll(ev_select& poller, timeval timeout) {
    Active out;
    for (const ev::ActiveSocket& active : poller.poll(&timeout)) {
        out.emplace_back(active.m_socket, active.m_mask);
    }
    return out;
}

// Waits long enough for what is not ready yet.
Active pollNow(ev_select& poller) { return poll(poller, {10, 0}); }
Active pollNoWait(ev_select& poller) { return poll(poller, {0, 0}); }

std::set<int> members(const fd_set& set) {
    std::set<int> out;
    for (int fd = 0; fd < FD_SETSIZE; ++fd) {
        if (FD_ISSET(fd, &set)) out.insert(fd);
    }
    return out;
}

TEST(EvSelect, StartsEmpty) {
    alignas(ev_select) unsigned char memory[sizeof(ev_select)];
    std::memset(memory, 0xff, sizeof(memory));
    auto* poller = new (memory) ev_select;
    EXPECT_EQ(poller->m_maxfd, 0);
    EXPECT_TRUE(poller->m_sockfdSet.empty());
    EXPECT_EQ(members(poller->readfds), Set{});
    EXPECT_EQ(members(poller->writefds), Set{});
    EXPECT_EQ(members(poller->_readfds), Set{});
    EXPECT_EQ(members(poller->_writefds), Set{});
    EXPECT_EQ(pollNoWait(*poller), Active{});
    poller->~ev_select();
}

TEST(EvSelect, HasTheNameAndTheBitsThatItsUsersExpect) {
    EXPECT_EQ(ev_select().poolApiName(), "select");
    EXPECT_EQ(int{ev::kRead}, 1);
    EXPECT_EQ(int{ev::kWrite}, 2);
    EXPECT_EQ(int{ev::kError}, 4);
}

TEST(EvSelect, KeepsTheOrderOfItsVirtualOperations) {
    static_assert(std::is_abstract_v<ev>);
    static_assert(std::has_virtual_destructor_v<ev>);
    EXPECT_EQ(virtualSlot(&ev::addEvent), 2u);
    EXPECT_EQ(virtualSlot(&ev::removeEvent), 3u);
    EXPECT_EQ(virtualSlot(&ev::poll), 4u);
    EXPECT_EQ(virtualSlot(&ev::poolApiName), 5u);
}

TEST(EvSelect, RegistersTheBitsOfTheMask) {
    ev_select poller;
    EXPECT_TRUE(poller.addEvent(0, 0));
    EXPECT_EQ(poller.m_maxfd, 0);
    EXPECT_TRUE(poller.addEvent(14, 4));
    EXPECT_TRUE(poller.addEvent(11, 1));
    EXPECT_TRUE(poller.addEvent(12, 2));
    EXPECT_TRUE(poller.addEvent(13, 1));
    EXPECT_TRUE(poller.addEvent(13, 2));  // added to the first bit
    EXPECT_EQ(members(poller.readfds), (Set{11, 13}));
    EXPECT_EQ(members(poller.writefds), (Set{12, 13}));
    EXPECT_EQ(poller.m_sockfdSet, (Set{0, 11, 12, 13, 14}));
    EXPECT_EQ(poller.m_maxfd, 14);  // lower descriptors leave it
}

TEST(EvSelect, RegistersWithoutWatchingForAMaskOfZero) {
    const Pair pair;
    pair.makeReadable();
    ev_select poller;
    EXPECT_TRUE(poller.addEvent(pair.own, 0));
    EXPECT_EQ(poller.m_sockfdSet, Set{pair.own});
    EXPECT_EQ(poller.m_maxfd, pair.own);
    EXPECT_EQ(members(poller.readfds), Set{});
    EXPECT_EQ(members(poller.writefds), Set{});
    EXPECT_EQ(pollNoWait(poller), Active{});
}

TEST(EvSelect, RemovalEndsTheRegistrationWhateverTheMask) {
    ev_select poller;
    for (const int fd : {11, 12, 13, 14}) poller.addEvent(fd, 3);
    EXPECT_TRUE(poller.removeEvent(11, 1));
    EXPECT_EQ(poller.m_maxfd, 14);
    EXPECT_TRUE(poller.removeEvent(14, 2));
    EXPECT_EQ(poller.m_maxfd, 13);  // the next one
    EXPECT_TRUE(poller.removeEvent(13, 0));
    EXPECT_EQ(poller.m_maxfd, 12);
    EXPECT_EQ(poller.m_sockfdSet, Set{12});
    EXPECT_EQ(members(poller.readfds), (Set{12, 13, 14}));
    EXPECT_EQ(members(poller.writefds), (Set{11, 12, 13}));
}

TEST(EvSelect, KeepsTheHighestDescriptorWhenTheLastOneGoes) {
    ev_select poller;
    poller.addEvent(20, 3);
    EXPECT_TRUE(poller.removeEvent(20, 3));
    EXPECT_EQ(poller.m_maxfd, 20);
    EXPECT_EQ(poller.m_sockfdSet, Set{});
    EXPECT_EQ(members(poller.readfds), Set{});
    EXPECT_EQ(members(poller.writefds), Set{});
    EXPECT_TRUE(poller.addEvent(10, 3));
    EXPECT_EQ(poller.m_maxfd, 20);
    EXPECT_EQ(poller.m_sockfdSet, Set{10});
    EXPECT_TRUE(
        poller.removeEvent(99, 3));  // never registered: only the highest is determined again
    EXPECT_EQ(poller.m_maxfd, 10);
    EXPECT_EQ(poller.m_sockfdSet, Set{10});
}

TEST(EvSelect, IgnoresDescriptorsThatAnFdSetCannotHold) {
    ev_select poller;
    poller.addEvent(10, 3);
    const Set one{10};
    for (const int fd : {FD_SETSIZE, FD_SETSIZE + 1, 65535, INT_MAX, -1, INT_MIN}) {
        EXPECT_TRUE(poller.addEvent(fd, 3)) << fd;
        EXPECT_EQ(poller.m_maxfd, 10) << fd;
        EXPECT_EQ(poller.m_sockfdSet, one) << fd;
        EXPECT_TRUE(poller.removeEvent(fd, 3)) << fd;
        EXPECT_EQ(poller.m_maxfd, 10) << fd;
        EXPECT_EQ(poller.m_sockfdSet, one) << fd;
        EXPECT_EQ(members(poller.readfds), one) << fd;
        EXPECT_EQ(members(poller.writefds), one) << fd;
        EXPECT_EQ(members(poller._readfds), Set{}) << fd;
        EXPECT_EQ(members(poller._writefds), Set{}) << fd;
    }
}

TEST(EvSelect, WatchesTheHighestDescriptorThatAnFdSetHolds) {
    const Pair pair;
    const int highest = FD_SETSIZE - 1;
    ASSERT_FALSE(isOpen(highest));
    const DescriptorLimit limit(FD_SETSIZE);
    ASSERT_EQ(dup2(pair.own, highest), highest);
    ev_select poller;
    poller.addEvent(highest, 3);
    EXPECT_EQ(poller.m_maxfd, highest);
    EXPECT_EQ(pollNow(poller), (Active{{highest, 2}}));
    close(highest);
}

TEST(EvSelect, WaitsForTheWholeTimeoutWithNothingRegistered) {
    ev_select poller;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(poll(poller, {0, 100000}), Active{});
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
}

TEST(EvSelect, HandsTheTimeoutToSelectUnchanged) {
    const Pair pair;
    ev_select poller;
    poller.addEvent(pair.own, 1);
    timeval timeout{0, 20000};
    EXPECT_TRUE(poller.poll(&timeout).empty());
    EXPECT_EQ(timeout.tv_sec, 0);  // Linux counts it down
    EXPECT_EQ(timeout.tv_usec, 0);
    pair.makeReadable();
    EXPECT_EQ(poller.poll(nullptr).size(), 1u);  // null: no limit
}

TEST(EvSelect, ReportsWhatIsReadyAndWatchedInAscendingOrder) {
    const Pair both;
    const Pair readable;
    const Pair writable;
    const Pair idle;
    const Pair unwatched;
    both.makeReadable();
    readable.makeReadable();
    readable.makeUnwritable();
    writable.makeReadable();
    idle.makeUnwritable();
    unwatched.makeReadable();
    ev_select poller;
    poller.addEvent(idle.own, 3);
    poller.addEvent(writable.own, 2);
    poller.addEvent(readable.own, 3);
    poller.addEvent(both.own, 3);
    std::set<std::pair<int, int>> wanted{{both.own, 3}, {readable.own, 1}, {writable.own, 2}};
    EXPECT_EQ(pollNow(poller), Active(wanted.begin(), wanted.end()));
}

TEST(EvSelect, ReportsASocketWheneverItIsReady) {
    const Pair pair;
    ev_select poller;
    poller.addEvent(pair.own, 3);
    EXPECT_EQ(pollNow(poller), (Active{{pair.own, 2}}));  // idle: writable at once
    EXPECT_EQ(pollNow(poller), (Active{{pair.own, 2}}));
    pair.makeUnwritable();
    EXPECT_EQ(pollNoWait(poller), Active{});
    EXPECT_EQ(members(poller.readfds), Set{pair.own});
    EXPECT_EQ(members(poller.writefds), Set{pair.own});
    EXPECT_EQ(members(poller._readfds), Set{});
    ASSERT_EQ(shutdown(pair.peer, SHUT_WR), 0);
    EXPECT_EQ(pollNow(poller), (Active{{pair.own, 1}}));  // the end of the stream can be read
}

TEST(EvSelect, NoLongerReportsARemovedSocket) {
    const Pair pair;
    const Pair other;
    ev_select poller;
    poller.addEvent(pair.own, 3);
    poller.addEvent(other.own, 3);
    poller.removeEvent(pair.own, 3);
    EXPECT_EQ(pollNow(poller), (Active{{other.own, 2}}));
    poller.removeEvent(other.own, 3);
    EXPECT_EQ(pollNoWait(poller), Active{});
}

TEST(EvSelect, ReportsEverySocketInErrorWhenSelectFails) {
    const Pair first;
    const Pair second;
    const Pair third;
    first.makeReadable();
    ev_select poller;
    poller.addEvent(third.own, 3);
    poller.addEvent(first.own, 3);
    poller.addEvent(second.own, 0);
    Set registered{first.own, second.own, third.own};
    Active wanted;
    for (const int fd : registered) wanted.emplace_back(fd, 4);
    EXPECT_EQ(poll(poller, {0, -1}), wanted);  // EINVAL
    EXPECT_EQ(poller.m_sockfdSet, registered);
    EXPECT_EQ(pollNow(poller).size(), 2u);  // the next call works
    ev_select empty;
    EXPECT_EQ(poll(empty, {0, -1}), Active{});
}

TEST(EvSelect, OneClosedDescriptorBreaksAll) {
    const Pair healthy;
    auto closed = std::make_unique<Pair>();
    const int stale = closed->own;
    ev_select poller;
    poller.addEvent(healthy.own, 3);
    poller.addEvent(stale, 3);
    closed.reset();
    EXPECT_EQ(pollNow(poller), (Active{{healthy.own, 4}, {stale, 4}}));  // EBADF
}

TEST(EvSelect, TreatsAnInterruptionAsAFailure) {
    const Pair first;
    const Pair second;
    ev_select poller;
    poller.addEvent(first.own, 1);
    poller.addEvent(second.own, 1);
    const Interrupter interrupter;
    EXPECT_EQ(poll(poller, {60, 0}), (Active{{first.own, 4}, {second.own, 4}}));
}

}  // namespace
}  // namespace h2test
