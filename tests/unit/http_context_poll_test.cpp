// One step of the poll loop.

#include <chrono>

#include "tests/unit/http_context_fixture.h"

namespace h2test {
namespace {

// The queued changes

TEST_F(HttpContextTest, AppliesRemovalsBeforeAdditionsInAscendingOrder) {
    ScriptedPoller& poller = scriptedPoller();
    context().m_newHttp2Set = {9, 7, 8};
    context().m_removedHttp2Set = {12, 8, 5};
    context().httpCron();
    EXPECT_EQ(poller.m_calls,
              (Lines{"remove 5 3", "remove 8 3", "remove 12 3", "add 7 3", "add 8 3", "add 9 3"}));
    EXPECT_EQ(context().m_newHttp2Set, Set{});
    EXPECT_EQ(context().m_removedHttp2Set, Set{});
    context().httpCron();
    EXPECT_EQ(poller.m_calls.size(), 6u);
}

TEST_F(HttpContextTest, HoldsBothLocksWhileAdding) {
    Lines seen;
    scriptedPoller([&](const std::string& what) {
        seen.push_back(what + (isFree(context().m_removeLock) ? "" : " removeLock") +
                       (isFree(context().m_newLock) ? "" : " newLock") +
                       (isFree(context().m_httpIolock) ? "" : " httpIolock"));
    });
    context().m_newHttp2Set = {7};
    context().m_removedHttp2Set = {8};
    context().httpCron();
    EXPECT_EQ(seen, (Lines{"remove removeLock", "add removeLock newLock"}));
    EXPECT_TRUE(isFree(context().m_removeLock));
    EXPECT_TRUE(isFree(context().m_newLock));
}

TEST_F(HttpContextTest, AReusedDescriptorEndsRegistered) {
    selectPoller().addEvent(9, 3);
    context().m_removedHttp2Set = {9};
    context().m_newHttp2Set = {9};
    context().httpCron();
    EXPECT_EQ(selectPoller().m_sockfdSet, Set{9});
    EXPECT_TRUE(FD_ISSET(9, &selectPoller().readfds));
    EXPECT_TRUE(FD_ISSET(9, &selectPoller().writefds));
}

TEST_F(HttpContextTest, ClosesNothingByItself) {
    const Connection connection = scriptedConnection();
    context().m_removedHttp2Set = {connection.fd};
    context().httpCron();
    EXPECT_EQ(context().m_httpIoMap.count(connection.fd), 1u);
    EXPECT_TRUE(isOpen(connection.fd));
}

// The poll step

TEST_F(HttpContextTest, SplitsThePollTimeIntoSecondsAndMicroseconds) {
    ScriptedPoller& poller = scriptedPoller();
    for (const uint32_t time : {0u, 1u, 999u, 1000u, 1500u, 60001u, 0xffffffffu}) {
        context().pollHttpClient(time);
    }
    EXPECT_EQ(poller.m_calls,
              (Lines{"poll 0 s 0 us", "poll 0 s 1000 us", "poll 0 s 999000 us", "poll 1 s 0 us",
                     "poll 1 s 500000 us", "poll 60 s 1000 us", "poll 4294967 s 295000 us"}));
}

TEST_F(HttpContextTest, AppliesTheChangesBeforeItPolls) {
    ScriptedPoller& poller = scriptedPoller();
    context().m_newHttp2Set = {7};
    context().m_removedHttp2Set = {8};
    context().pollHttpClient(500);
    EXPECT_EQ(poller.m_calls, (Lines{"remove 8 3", "add 7 3", "poll 0 s 500000 us"}));
}

TEST_F(HttpContextTest, SleepsAMillisecondAfterEachStep) {
    ScriptedPoller& poller = scriptedPoller();
    const Connection connection = scriptedConnection();
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 10; ++i) context().pollHttpClient(0);
    poller.m_active = {{connection.fd, 3}};
    for (int i = 0; i < 10; ++i) context().pollHttpClient(0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(20));
}

TEST_F(HttpContextTest, WaitsThePollTimeAndAMillisecondWithNothingToServe) {
    const auto start = std::chrono::steady_clock::now();
    context().pollHttpClient(500);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(501));
}

TEST_F(HttpContextTest, CallsTheHandlersOfTheMask) {
    ScriptedPoller& poller = scriptedPoller();
    struct Case {
        int mask;
        size_t reads;
        size_t writes;
        bool dropped;
    };
    for (const Case& wanted :
         {Case{0, 0, 0, false}, Case{1, 1, 0, false}, Case{2, 0, 1, false}, Case{3, 1, 1, false},
          Case{4, 0, 0, true}, Case{5, 1, 0, true}, Case{6, 0, 1, true}, Case{7, 1, 1, true}}) {
        const Connection connection = scriptedConnection();
        size_t reads = 0;
        size_t writes = 0;
        connection.transport->m_hook = [&] {
            reads = connection.transport->m_reads.size();
            writes = connection.transport->m_writes.size();
            if (writes > 0) {
                EXPECT_EQ(reads, wanted.reads);  // reading comes first
            }
        };
        poller.m_active = {{connection.fd, wanted.mask}};
        context().pollHttpClient(0);
        EXPECT_EQ(reads, wanted.reads) << wanted.mask;
        EXPECT_EQ(writes, wanted.writes) << wanted.mask;
        EXPECT_EQ(context().m_httpIoMap.count(connection.fd), wanted.dropped ? 0u : 1u)
            << wanted.mask;
    }
}

TEST_F(HttpContextTest, ServesTheSocketsInTheOrderOfTheList) {
    ScriptedPoller& poller = scriptedPoller();
    Lines order;
    const Connection first = scriptedConnection();
    const Connection second = scriptedConnection();
    first.transport->m_hook = [&] { order.push_back("first"); };
    second.transport->m_hook = [&] { order.push_back("second"); };
    poller.m_active = {{second.fd, 3}, {first.fd, 2}, {second.fd, 1}};
    context().pollHttpClient(0);
    EXPECT_EQ(order, (Lines{"second", "second", "first", "second"}));
}

// Any later handler would queue the descriptor again.
TEST_F(HttpContextTest, CallsNoFurtherHandlerAfterADrop) {
    ScriptedPoller& poller = scriptedPoller();
    const auto forgetRemovals = [this](const Callback&) { context().m_removedHttp2Set.clear(); };
    const Connection reading = scriptedConnection();
    reading.transport->m_readEnd = 0;
    running(reading.fd, forgetRemovals);
    poller.m_active = {{reading.fd, 7}};
    context().pollHttpClient(0);
    EXPECT_EQ(context().m_httpIoMap.size(), 0u);
    EXPECT_EQ(context().m_removedHttp2Set, Set{});

    const Connection writing = scriptedConnection();
    writing.transport->m_writeResults = {0};
    running(writing.fd, forgetRemovals);
    poller.m_active = {{writing.fd, 7}};
    context().pollHttpClient(0);
    EXPECT_EQ(context().m_httpIoMap.size(), 0u);
    EXPECT_EQ(context().m_removedHttp2Set, Set{});
}

TEST_F(HttpContextTest, ADropDoesNotDisturbTheOthers) {
    ScriptedPoller& poller = scriptedPoller();
    const Connection ending = scriptedConnection();
    const Connection staying = scriptedConnection();
    ending.transport->m_readEnd = 0;
    poller.m_active = {{ending.fd, 3}, {staying.fd, 3}};
    context().pollHttpClient(0);
    EXPECT_EQ(context().m_httpIoMap.count(ending.fd), 0u);
    ASSERT_EQ(context().m_httpIoMap.count(staying.fd), 1u);
    EXPECT_EQ(staying.transport->m_writes, Lines{std::string(kPreface)});
}

TEST_F(HttpContextTest, AFailedSelectDropsEveryPolledConnection) {
    ScriptedServer server;
    const int first = connect(server);
    const int second = connect(server);
    const int unpolled = connect(server);
    RecordingClient& one = running(first);
    RecordingClient& two = running(second);
    context().httpCron();
    const int stale = dup(first);
    selectPoller().addEvent(stale, 3);
    close(stale);  // EBADF
    const LogCapture log;
    context().pollHttpClient(0);
    EXPECT_EQ(one.callbacks(), Callbacks{Callback::closed()});
    EXPECT_EQ(two.callbacks(), Callbacks{Callback::closed()});
    EXPECT_EQ(context().m_httpIoMap.size(), 1u);
    EXPECT_EQ(context().m_httpIoMap.count(unpolled), 1u);
    EXPECT_EQ(context().m_removedHttp2Set, (Set{first, second, stale}));
    context().httpCron();
    EXPECT_EQ(selectPoller().m_sockfdSet, Set{});
    EXPECT_TRUE(server.waitClosedByPeer(0));
    EXPECT_TRUE(server.waitClosedByPeer(1));
}

// Removals come first, so the closed descriptor must not stay queued: it would be registered once
// more, and the next select would fail for all.
TEST_F(HttpContextTest, ARequestStartedAndDroppedInOneStepHarmsNoOther) {
    ScriptedServer server;
    const int ending = connect(server);
    ASSERT_TRUE(server.waitConnections(1));
    const int other = connect(server);
    RecordingClient& first = running(ending);
    RecordingClient& second = running(other);
    context().httpCron();
    RecordingClient& late = running(ending);
    server.close(0);
    ASSERT_TRUE(waitReady(ending, POLLIN));
    EXPECT_FALSE(context().readEventHandler(ending));
    EXPECT_EQ(first.callbacks(), Callbacks{Callback::closed()});
    EXPECT_EQ(late.callbacks(), Callbacks{Callback::closed()});
    EXPECT_EQ(second.callbacks(), Callbacks{});
    ASSERT_FALSE(isOpen(ending));
    EXPECT_EQ(context().m_newHttp2Set, Set{});
    context().pollHttpClient(0);
    EXPECT_EQ(second.callbacks(), Callbacks{});
    EXPECT_EQ(context().m_httpIoMap.size(), 1U);
    EXPECT_EQ(selectPoller().m_sockfdSet, Set{other});
}

}  // namespace
}  // namespace h2test
