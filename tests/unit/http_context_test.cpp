// The hub: its connections, its poll step, its handlers, and who may touch a request when.

#include "Http2Client/HttpContext.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <functional>
#include <iterator>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "Http2Client/Http2.h"
#include "Http2Client/HttpClientInterface.h"
#include "Http2Client/HttpClientInterfaceImpl.h"
#include "Http2Client/HttpIO.h"
#include "Http2Client/HttpSocketBase.h"
#include "Http2Client/Sock.h"
#include "Http2Client/ev.h"
#include "Http2Client/ev_select.h"
#include "tests/support/bytes.h"
#include "tests/support/capture.h"
#include "tests/support/descriptors.h"
#include "tests/support/log_capture.h"
#include "tests/support/log_lines.h"
#include "tests/support/recording_client.h"
#include "tests/support/scripted_server.h"
#include "tests/support/wait.h"

namespace h2test {
namespace {

using tiny::ev;
using tiny::ev_select;
using tiny::Http2;
using tiny::HttpClientInterfaceImpl;
using tiny::HttpContext;
using tiny::HttpIO;
using tiny::HttpSocketBase;

using Lines = std::vector<std::string>;
using Set = std::set<int>;
using Callbacks = std::vector<Callback>;

constexpr const char* kIp = "127.0.0.1";
constexpr size_t kCacheLimit = 16777216;

// The client's SETTINGS frame: 30 bytes of payload; their content is the engine's business.
constexpr size_t kSettingsSize = 9 + 30;

bool isFree(Lock& lock) {
    if (pthread_mutex_trylock(&lock.m_mutex) != 0) return false;
    lock.unlock();
    return true;
}

// A poller that reports what it is told, and notes what it is asked.
class ScriptedPoller : public ev {
public:
    explicit ScriptedPoller(std::function<void(const std::string&)> hook = {})
        : m_hook(std::move(hook)) {}

    bool addEvent(int fd, int mask) override { return note("add", fd, mask); }
    bool removeEvent(int fd, int mask) override { return note("remove", fd, mask); }
    std::list<ActiveSocket> poll(timeval* timeout) override {
        m_calls.push_back("poll " + std::to_string(timeout->tv_sec) + " s " +
                          std::to_string(timeout->tv_usec) + " us");
        return m_active;
    }
    std::string poolApiName() override { return "scripted"; }

    std::list<ActiveSocket> m_active;
    Lines m_calls;

private:
    bool note(const std::string& what, int fd, int mask) {
        m_calls.push_back(what + " " + std::to_string(fd) + " " + std::to_string(mask));
        if (m_hook) m_hook(what);
        return true;
    }

    const std::function<void(const std::string&)> m_hook;
};

// A transport whose results are given in advance. With none left, a read has nothing and a write
// takes all.
class ScriptedTransport : public HttpSocketBase {
public:
    ScriptedTransport() : HttpSocketBase(HTTP_2, "192.0.2.7", 80) {}

    bool initialization() override { return true; }
    int readData(char* buf, size_t len) override {
        m_reads.emplace_back(buf, len);
        if (m_hook) m_hook();
        if (m_input.empty()) return m_readEnd;
        const std::string bytes = m_input.front();
        m_input.pop_front();
        EXPECT_LE(bytes.size(), len);
        return static_cast<int>(bytes.copy(buf, len));
    }
    int writeData(const char* buf, size_t len) override {
        m_writes.emplace_back(buf, len);
        if (m_hook) m_hook();
        if (m_writeResults.empty()) return static_cast<int>(len);
        const int result = m_writeResults.front();
        m_writeResults.pop_front();
        return result;
    }

    std::deque<std::string> m_input;  // one entry a read
    int m_readEnd = -1;               // what reads return after that
    std::deque<int> m_writeResults;
    std::vector<std::pair<char*, size_t>> m_reads;
    std::vector<std::string> m_writes;
    std::function<void()> m_hook;  // called in each operation
};

// Each test has a context of its own, apart from the process's one, and is the poll thread.
class HttpContextTest : public ::testing::Test {
protected:
    // An entry of the map with its parts in the test's hands.
    struct Connection {
        int fd = -1;
        HttpIO* io = nullptr;
        Http2* engine = nullptr;
        ScriptedTransport* transport = nullptr;
    };

    HttpContextTest() : m_context(new HttpContext) {}
    ~HttpContextTest() override {
        char* const buffer = m_context->m_buffer;
        // What a test leaves running ends silently: its callbacks would find the test gone.
        for (const auto& [fd, io] : m_context->m_httpIoMap) io->m_http2->m_httpClientMap.clear();
        delete m_context;
        delete[] buffer;  // which the context leaves to the process's end
    }

    HttpContext& context() { return *m_context; }

    // Becomes the context's poller.
    ScriptedPoller& scriptedPoller(std::function<void(const std::string&)> hook = {}) {
        auto* poller = new ScriptedPoller(std::move(hook));
        delete m_context->m_pollPtr;
        m_context->m_pollPtr = poller;
        return *poller;
    }
    ev_select& selectPoller() { return *dynamic_cast<ev_select*>(m_context->m_pollPtr); }

    Connection scriptedConnection() {
        Connection out;
        std::shared_ptr<HttpIO> io(new HttpIO);
        out.transport = new ScriptedTransport;
        out.engine = new Http2;
        out.io = io.get();
        io->m_socket = out.transport;
        io->m_http2 = out.engine;
        out.fd = io->httpSocket();
        m_context->m_httpIoMap[out.fd] = io;
        return out;
    }

    int connect(const ScriptedServer& server, HTTP_SCHEMA schema = HTTP_2) {
        return m_context->getHttpSocket(schema, kIp, server.port());
    }
    HttpIO& io(int fd) { return *m_context->m_httpIoMap.at(fd); }

    // A client of connection `fd`, alive until the end of the test, with no request started.
    RecordingClient& client(int fd, std::function<void(const Callback&)> hook = {}) {
        m_clients.push_back(std::make_unique<RecordingClient>(std::move(hook)));
        HttpClientInterfaceImpl* impl = m_clients.back()->ctx();
        impl->setSocket(fd);
        impl->setUri("/uri");
        impl->setHttpMethod(HTTP_GET);
        impl->setHttpVersion(HTTP_2);
        return *m_clients.back();
    }
    // The same with its request started.
    RecordingClient& running(int fd, std::function<void(const Callback&)> hook = {}) {
        RecordingClient& out = client(fd, std::move(hook));
        EXPECT_EQ(m_context->addHttpClientImpl(out.ctx()), 0);
        return out;
    }

    // Runs poll steps until `pred` holds.
    template <typename Pred>
    bool pollUntil(Pred pred) {
        return waitFor([&] {
            m_context->pollHttpClient(10);
            return pred();
        });
    }

    const NullCout m_quiet;  // the engines write a line for each frame
    std::deque<std::unique_ptr<RecordingClient>> m_clients;
    HttpContext* m_context;
};

// Existence

TEST_F(HttpContextTest, StartsWithAPollerABufferAndNothingElse) {
    EXPECT_NE(dynamic_cast<ev_select*>(context().m_pollPtr), nullptr);
    EXPECT_EQ(context().m_bufferLen, 8192u);
    ASSERT_NE(context().m_buffer, nullptr);
    std::memset(context().m_buffer, 'x', context().m_bufferLen);
    EXPECT_TRUE(context().m_httpIoMap.empty());
    EXPECT_EQ(context().m_removedHttp2Set, Set{});
    EXPECT_EQ(context().m_newHttp2Set, Set{});
    EXPECT_TRUE(isFree(context().m_httpIolock));
    EXPECT_TRUE(isFree(context().m_removeLock));
    EXPECT_TRUE(isFree(context().m_newLock));
    static_assert(!std::is_copy_constructible_v<HttpContext>);
    static_assert(!std::is_copy_assignable_v<HttpContext>);
}

TEST_F(HttpContextTest, SaysItsPollersNameOnTheConsole) {
    const CoutCapture console;
    const LogCapture log;
    auto* another = new HttpContext;
    EXPECT_EQ(console.str(), "select\n");
    EXPECT_EQ(logLines(log), Lines{});
    char* const buffer = another->m_buffer;
    delete another;
    std::memset(buffer, 'x', 8192);  // its destructor leaves the buffer alone
    delete[] buffer;
    EXPECT_EQ(console.str(), "select\n");
}

// In a process of its own, which has no instance yet.
TEST(HttpContextInstance, IsMadeByTheFirstCallAndStays) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            const CoutCapture console;
            HttpContext* const first = HttpContext::instance();
            const bool made = first != nullptr && console.str() == "select\n";
            const bool same = HttpContext::instance() == first && console.str() == "select\n";
            std::_Exit(made && same ? 7 : 1);
        },
        ::testing::ExitedWithCode(7), "");
}

// Opening connections

TEST_F(HttpContextTest, OpensANewConnectionEachTime) {
    ScriptedServer server;
    const int first = connect(server);
    const int second = connect(server);
    ASSERT_GE(first, 0);
    ASSERT_GE(second, 0);
    EXPECT_NE(first, second);
    EXPECT_TRUE(server.waitConnections(2));
    ASSERT_EQ(context().m_httpIoMap.size(), 2u);
    EXPECT_EQ(io(first).httpSocket(), first);
    EXPECT_EQ(io(second).httpSocket(), second);
    EXPECT_EQ(context().m_httpIoMap.at(first).use_count(), 1);
}

TEST_F(HttpContextTest, LeavesANewConnectionBlockingAndUnpolled) {
    ScriptedServer server;
    const int fd = connect(server);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(context().m_newHttp2Set, Set{});
    context().httpCron();
    EXPECT_EQ(selectPoller().m_sockfdSet, Set{});
    EXPECT_TRUE(isFree(context().m_httpIolock));
}

TEST_F(HttpContextTest, ReturnsMinusOneForARefusedConnect) {
    const RefusingPort port;
    const size_t before = openDescriptors();
    EXPECT_EQ(context().getHttpSocket(HTTP_2, kIp, port.port()), -1);
    EXPECT_EQ(context().getHttpSocket(HTTPS_2, kIp, port.port()), -1);
    EXPECT_TRUE(context().m_httpIoMap.empty());
    EXPECT_EQ(context().m_removedHttp2Set, Set{});
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_TRUE(isFree(context().m_httpIolock));
}

TEST_F(HttpContextTest, ReturnsMinusOneForAFailedHandshake) {
    const size_t before = openDescriptors();
    {
        ServerOptions options;
        options.greeting = "HTTP/1.1 400 Bad Request\r\n\r\n";
        ScriptedServer server(options);
        EXPECT_EQ(connect(server, HTTPS_2), -1);
        EXPECT_TRUE(server.waitClosedByPeer(0));
    }
    EXPECT_TRUE(context().m_httpIoMap.empty());
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(HttpContextTest, ReturnsMinusOneWithoutADescriptorLeft) {
    // The sanitizer wants a descriptor when it sees an object of a class for the first time.
    ASSERT_EQ(context().getHttpSocket(HTTP_2, kIp, RefusingPort().port()), -1);
    ScriptedServer server;
    HttpContext& hub = context();
    int sock = 0;
    {
        const DescriptorLimit limit(static_cast<rlim_t>(nextDescriptor()));
        sock = hub.getHttpSocket(HTTP_2, kIp, server.port());
    }
    EXPECT_EQ(sock, -1);
    EXPECT_TRUE(hub.m_httpIoMap.empty());
}

TEST_F(HttpContextTest, RefusesADescriptorThatSelectCannotHold) {
    ScriptedServer server;
    const DescriptorLimit limit(rlim_t{2} * FD_SETSIZE);
    const OccupiedDescriptors below(FD_SETSIZE - 1);
    const int last = connect(server);
    EXPECT_EQ(last, FD_SETSIZE - 1);
    ASSERT_TRUE(server.waitConnections(1));

    const LogCapture log;
    EXPECT_EQ(connect(server), -1);
    EXPECT_EQ(log.messages().back(), "~~~~~HttpIO::HttpIO");  // made, and ended
    EXPECT_EQ(context().m_httpIoMap.size(), 1u);
    EXPECT_EQ(context().m_newHttp2Set, Set{});
    EXPECT_EQ(context().m_removedHttp2Set, Set{});
    ASSERT_TRUE(server.waitConnections(2));
    EXPECT_TRUE(server.waitClosedByPeer(1));
    EXPECT_FALSE(server.closedByPeer(0));

    // And the last one that it can hold works.
    running(last);
    EXPECT_TRUE(pollUntil([&] { return server.received(0).size() > kPreface.size(); }));
}

TEST_F(HttpContextTest, ARefusedDescriptorIsNotLeaked) {
    const DescriptorLimit limit(rlim_t{2} * FD_SETSIZE);
    const size_t before = openDescriptors();
    {
        ScriptedServer server;
        const OccupiedDescriptors below(FD_SETSIZE);
        for (int i = 0; i < 3; ++i) EXPECT_EQ(connect(server), -1);
        ASSERT_TRUE(server.waitConnections(3));
        for (size_t i = 0; i < 3; ++i) EXPECT_TRUE(server.waitClosedByPeer(i));
    }
    EXPECT_EQ(openDescriptors(), before);
}

// Starting and withdrawing requests

TEST_F(HttpContextTest, RegistersARequest) {
    ScriptedServer server;
    const int fd = connect(server);
    RecordingClient& first = client(fd);
    RecordingClient& second = client(fd);
    EXPECT_EQ(context().addHttpClientImpl(first.ctx()), 0);
    EXPECT_EQ(first.ctx()->streamId(), 1u);
    EXPECT_EQ(context().m_newHttp2Set, Set{fd});
    EXPECT_NE(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(context().addHttpClientImpl(second.ctx()), 0);
    EXPECT_EQ(second.ctx()->streamId(), 3u);
    EXPECT_EQ(context().m_newHttp2Set, Set{fd});
    EXPECT_EQ(io(fd).httpParser()->m_httpClientMap,
              (std::map<uint32_t, HttpClientInterfaceImpl*>{{1, first.ctx()}, {3, second.ctx()}}));
    EXPECT_EQ(selectPoller().m_sockfdSet, Set{});  // not before the next step
    context().httpCron();
    EXPECT_EQ(selectPoller().m_sockfdSet, Set{fd});
    EXPECT_TRUE(FD_ISSET(fd, &selectPoller().readfds));
    EXPECT_TRUE(FD_ISSET(fd, &selectPoller().writefds));
    EXPECT_TRUE(isFree(context().m_httpIolock));
    EXPECT_TRUE(isFree(context().m_newLock));
}

TEST_F(HttpContextTest, MakesTheSocketNonBlockingWithEachRequest) {
    ScriptedServer server;
    const int fd = connect(server);
    running(fd);
    tiny::Sock::setNonblocked(fd, false);
    running(fd);
    EXPECT_NE(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(HttpContextTest, ReturnsTwoForARequestWithoutAConnection) {
    const Connection other = scriptedConnection();
    const int unused = nextDescriptor();
    for (const int fd : {-1, unused, 1000000}) {
        RecordingClient& lost = client(fd);
        lost.ctx()->setStreamId(77);
        EXPECT_EQ(context().addHttpClientImpl(lost.ctx()), 2) << fd;
        EXPECT_EQ(lost.ctx()->streamId(), 77u) << fd;
        EXPECT_EQ(lost.callbacks(), Callbacks{}) << fd;
    }
    EXPECT_EQ(context().m_newHttp2Set, Set{});
    EXPECT_EQ(context().m_removedHttp2Set, Set{});
    EXPECT_TRUE(other.engine->m_httpClientMap.empty());
    EXPECT_EQ(context().m_httpIoMap.size(), 1u);
}

TEST_F(HttpContextTest, WithdrawsARequest) {
    const Connection connection = scriptedConnection();
    RecordingClient& first = running(connection.fd);
    RecordingClient& second = running(connection.fd);
    EXPECT_EQ(context().removeHttpClientImpl(first.ctx()), 0);
    EXPECT_EQ(connection.engine->m_httpClientMap.count(1), 0u);
    EXPECT_EQ(connection.engine->m_httpClientMap.count(3), 1u);
    EXPECT_EQ(connection.engine->m_rstFrameMap.count(1), 1u);
    EXPECT_EQ(connection.engine->m_rstFrameMap.size(), 1u);
    EXPECT_EQ(context().m_httpIoMap.size(), 1u);
    EXPECT_EQ(context().m_removedHttp2Set, Set{});
    EXPECT_TRUE(context().errorEventHandler(connection.fd));
    EXPECT_EQ(first.callbacks(), Callbacks{});
    EXPECT_EQ(second.callbacks(), Callbacks{Callback::closed()});
}

TEST_F(HttpContextTest, WithdrawingReturnsZeroWithoutAConnection) {
    const Connection other = scriptedConnection();
    for (const int fd : {-1, nextDescriptor()}) {
        RecordingClient& lost = client(fd);
        EXPECT_EQ(context().removeHttpClientImpl(lost.ctx()), 0) << fd;
    }
    EXPECT_TRUE(other.engine->m_rstFrameMap.empty());
    EXPECT_EQ(context().m_removedHttp2Set, Set{});
    EXPECT_TRUE(isFree(context().m_httpIolock));
}

TEST_F(HttpContextTest, ForgetsARequestOnEveryConnection) {
    const Connection first = scriptedConnection();
    const Connection second = scriptedConnection();
    RecordingClient& moved = running(first.fd);
    RecordingClient& staying = running(first.fd);
    moved.ctx()->setSocket(second.fd);
    EXPECT_EQ(context().addHttpClientImpl(moved.ctx()), 0);
    ASSERT_EQ(first.engine->m_httpClientMap.size(), 2u);
    ASSERT_EQ(second.engine->m_httpClientMap.size(), 1u);
    context().forgetHttpClientImpl(moved.ctx());
    EXPECT_TRUE(second.engine->m_httpClientMap.empty());
    EXPECT_EQ(first.engine->m_httpClientMap,
              (std::map<uint32_t, HttpClientInterfaceImpl*>{{3, staying.ctx()}}));
    EXPECT_EQ(second.engine->m_rstFrameMap.size(), 1u);
    EXPECT_TRUE(first.engine->m_rstFrameMap.empty());
    EXPECT_TRUE(isFree(context().m_httpIolock));
}

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

// Every later handler would queue the descriptor once more.
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

// The read handler

TEST_F(HttpContextTest, ReadsUntilThereIsNothingMore) {
    const Connection connection = scriptedConnection();
    RecordingClient& running_ = running(connection.fd);
    const std::string bytes =
        settings({}) + headers(1, hpackIndexed(8)) + data(1, "body", kEndStream);
    connection.transport->m_input = {bytes.substr(0, 10), bytes.substr(10, 3), bytes.substr(13)};
    const LogCapture log;
    EXPECT_TRUE(context().readEventHandler(connection.fd));
    const std::vector<std::pair<char*, size_t>> reads(4,
                                                      {context().m_buffer, context().m_bufferLen});
    EXPECT_EQ(connection.transport->m_reads, reads);
    EXPECT_EQ(running_.callbacks(), (Callbacks{Callback::headers(200, {{":status", "200"}}),
                                               Callback::content("body", false)}));
    EXPECT_EQ(context().m_removedHttp2Set, Set{});
    for (const std::string& text : log.messages()) {
        EXPECT_EQ(text.find("IO error"), std::string::npos) << text;
    }
    EXPECT_TRUE(isFree(context().m_httpIolock));
}

TEST_F(HttpContextTest, ReadsAtMost8192BytesAtATime) {
    ScriptedServer server;
    const int fd = connect(server);
    RecordingClient& request = running(fd);
    const std::string body(16384, 'b');
    server.send(
        0, settings({}) + headers(1, hpackIndexed(8)) + data(1, body) + data(1, "end", kEndStream));
    ASSERT_TRUE(pollUntil([&] { return request.count(Callback::Kind::kContent) >= 2; }));
    EXPECT_EQ(request.body(), body + "end");
}

TEST_F(HttpContextTest, AFilledBufferIsNotTheEnd) {
    const Connection connection = scriptedConnection();
    RecordingClient& request = running(connection.fd);
    const std::string bytes =
        headers(1, hpackIndexed(8)) + data(1, std::string(16000, 'b')) + data(1, "end", kEndStream);
    connection.transport->m_input = {bytes.substr(0, 8192), bytes.substr(8192)};
    EXPECT_TRUE(context().readEventHandler(connection.fd));
    EXPECT_EQ(connection.transport->m_reads.size(), 3u);
    EXPECT_EQ(request.body(), std::string(16000, 'b') + "end");
}

TEST_F(HttpContextTest, QueuesAnUnknownDescriptorForRemoval) {
    const LogCapture log;
    EXPECT_TRUE(context().readEventHandler(41));
    EXPECT_EQ(context().m_removedHttp2Set, Set{41});
    EXPECT_TRUE(context().writeEventHandler(42));
    EXPECT_EQ(context().m_removedHttp2Set, (Set{41, 42}));
    EXPECT_TRUE(context().errorEventHandler(43));
    EXPECT_EQ(context().m_removedHttp2Set, (Set{41, 42, 43}));
    EXPECT_EQ(logLines(log), Lines{});
    EXPECT_TRUE(isFree(context().m_httpIolock));
    EXPECT_TRUE(isFree(context().m_removeLock));
}

// What the end of a connection logs, from the handler's line on.
Lines dropLines(const std::string& handlerLine, const std::string& ip, bool withRequest) {
    Lines out{"20000 HttpContext.cpp: " + handlerLine, "20000 HttpIO.cpp: ~~~~~HttpIO::HttpIO",
              "20000 Http2.cpp: ~~~~~Http2::Http2"};
    if (withRequest) out.push_back("20000 Http2.cpp: onSocketClosed: Uri:/uri");
    out.push_back("20000 HttpSocketBase.cpp: HttpSocket Closed, ip:" + ip);
    out.push_back("20000 HttpIO.cpp: ~~~~~HttpIO::HttpIO");
    return out;
}

TEST_F(HttpContextTest, DropsAConnectionThatThePeerHasClosed) {
    ScriptedServer server;
    const int fd = connect(server);
    RecordingClient& first = running(fd);
    RecordingClient& second = running(fd);
    server.close(0);
    ASSERT_TRUE(waitReady(fd, POLLIN));
    const LogCapture log;
    EXPECT_FALSE(context().readEventHandler(fd));
    Lines wanted = dropLines("IO error, err = 0, m_httpIoMap.size()1,err ip:127.0.0.1", kIp, true);
    wanted.insert(wanted.begin() + 4, "20000 Http2.cpp: onSocketClosed: Uri:/uri");
    EXPECT_EQ(logLines(log), wanted);
    EXPECT_NE(functionThatLogged(log, log.messages().front())
                  .find("tiny::HttpContext::readEventHandler(int)"),
              std::string::npos);
    EXPECT_EQ(first.callbacks(), Callbacks{Callback::closed()});
    EXPECT_EQ(second.callbacks(), Callbacks{Callback::closed()});
    EXPECT_TRUE(context().m_httpIoMap.empty());
    EXPECT_EQ(context().m_removedHttp2Set, Set{fd});
    EXPECT_TRUE(isFree(context().m_httpIolock));
    EXPECT_TRUE(server.waitClosedByPeer(0));

    // Another event for the same descriptor, reported before the drop.
    context().m_removedHttp2Set.clear();
    EXPECT_TRUE(context().readEventHandler(fd));
    EXPECT_EQ(context().m_removedHttp2Set, Set{fd});
}

TEST_F(HttpContextTest, DropLogsTheNumberOfConnectionsBeforeIt) {
    const Connection first = scriptedConnection();
    scriptedConnection();
    scriptedConnection();
    first.transport->m_readEnd = 0;
    const LogCapture log;
    EXPECT_FALSE(context().readEventHandler(first.fd));
    EXPECT_EQ(logLines(log), dropLines("IO error, err = 0, m_httpIoMap.size()3,err ip:192.0.2.7",
                                       "192.0.2.7", false));
    EXPECT_EQ(context().m_httpIoMap.size(), 2u);
}

TEST_F(HttpContextTest, ReadsNothingMoreAfterBytesThatCannotBeFramed) {
    const Connection connection = scriptedConnection();
    RecordingClient& request = running(connection.fd);
    connection.transport->m_input = {frame(0x2a, 0, 0, ""), settings({})};
    const LogCapture log;
    EXPECT_FALSE(context().readEventHandler(connection.fd));
    EXPECT_EQ(request.callbacks(), Callbacks{Callback::failed(ERR_FETAL)});
    const Lines messages = log.messages();
    EXPECT_EQ(std::count(messages.begin(), messages.end(),
                         "IO error, err = -1, m_httpIoMap.size()1,err ip:192.0.2.7"),
              1);
    EXPECT_TRUE(context().m_httpIoMap.empty());
    EXPECT_EQ(context().m_removedHttp2Set, Set{connection.fd});
}

TEST_F(HttpContextTest, DropsAConnectionThatTheEngineWantsClosed) {
    for (const std::string& bytes : {rstStream(1, 8), goaway(0, 0)}) {
        const Connection connection = scriptedConnection();
        running(connection.fd);
        int reads = 0;
        connection.transport->m_hook = [&] { ++reads; };
        connection.transport->m_input = {bytes, settings({})};
        const LogCapture log;
        EXPECT_FALSE(context().readEventHandler(connection.fd));
        EXPECT_EQ(reads, 1);
        const Lines messages = log.messages();
        EXPECT_EQ(std::count(messages.begin(), messages.end(),
                             "IO error, err = -2, m_httpIoMap.size()1,err ip:192.0.2.7"),
                  1);
        EXPECT_TRUE(context().m_httpIoMap.empty());
        EXPECT_EQ(context().m_removedHttp2Set, Set{connection.fd});
        context().m_removedHttp2Set.clear();
    }
}

TEST_F(HttpContextTest, HandlesWhatCameBeforeTheClose) {
    const Connection connection = scriptedConnection();
    RecordingClient& request = running(connection.fd);
    connection.transport->m_input = {headers(1, hpackIndexed(8)) + data(1, "part")};
    connection.transport->m_readEnd = 0;
    EXPECT_FALSE(context().readEventHandler(connection.fd));
    EXPECT_EQ(request.callbacks(),
              (Callbacks{Callback::headers(200, {{":status", "200"}}),
                         Callback::content("part", true), Callback::closed()}));
}

TEST_F(HttpContextTest, LogsNothingAboveItsLevel) {
    const Connection first = scriptedConnection();
    const Connection second = scriptedConnection();
    const Connection third = scriptedConnection();
    first.transport->m_readEnd = 0;
    second.transport->m_writeResults = {0};
    const LogCapture log(20001);
    EXPECT_FALSE(context().readEventHandler(first.fd));
    EXPECT_FALSE(context().writeEventHandler(second.fd));
    EXPECT_TRUE(context().errorEventHandler(third.fd));
    EXPECT_EQ(logLines(log), Lines{});
    EXPECT_EQ(log.levelQueries(), 3u * 5u);  // the handler's line and four at each end
}

TEST_F(HttpContextTest, AConnectionLivesAsLongAsItsLastReference) {
    const Connection connection = scriptedConnection();
    RecordingClient& request = running(connection.fd);
    connection.transport->m_readEnd = 0;
    std::shared_ptr<HttpIO> kept = context().m_httpIoMap.at(connection.fd);
    EXPECT_FALSE(context().readEventHandler(connection.fd));
    EXPECT_TRUE(context().m_httpIoMap.empty());
    EXPECT_EQ(kept.use_count(), 1);
    EXPECT_EQ(request.callbacks(), Callbacks{});
    EXPECT_TRUE(isOpen(connection.fd));
    kept.reset();
    EXPECT_EQ(request.callbacks(), Callbacks{Callback::closed()});
}

// The write handler

TEST_F(HttpContextTest, SendsOneKindOfOutputACall) {
    const Connection connection = scriptedConnection();
    ASSERT_TRUE(context().writeEventHandler(connection.fd));
    EXPECT_EQ(connection.transport->m_writes, Lines{std::string(kPreface)});
    ASSERT_TRUE(context().writeEventHandler(connection.fd));
    ASSERT_EQ(connection.transport->m_writes.size(), 2u);
    EXPECT_EQ(connection.transport->m_writes[1].size(), kSettingsSize);
    running(connection.fd);
    ASSERT_TRUE(context().writeEventHandler(connection.fd));
    ASSERT_EQ(connection.transport->m_writes.size(), 3u);
    EXPECT_EQ(parseFrames(connection.transport->m_writes[2]).at(0).type, kHeaders);
    EXPECT_EQ(connection.io->buffer(), "");
    EXPECT_EQ(context().m_removedHttp2Set, Set{});
    EXPECT_TRUE(isFree(context().m_httpIolock));
}

TEST_F(HttpContextTest, WritesNothingWithAnEmptyCache) {
    const Connection connection = scriptedConnection();
    for (int i = 0; i < 5; ++i) EXPECT_TRUE(context().writeEventHandler(connection.fd));
    EXPECT_EQ(connection.transport->m_writes.size(), 2u);  // preface and SETTINGS
}

TEST_F(HttpContextTest, WritesOldBytesBeforeNewOnes) {
    const Connection connection = scriptedConnection();
    connection.io->buffer() = "old";
    EXPECT_TRUE(context().writeEventHandler(connection.fd));
    EXPECT_EQ(connection.transport->m_writes, Lines{"old" + std::string(kPreface)});
    EXPECT_EQ(connection.io->buffer(), "");
}

std::string numbered(size_t size) {
    std::string out(size, '\0');
    for (size_t i = 0; i < size; ++i) out[i] = static_cast<char>(i % 251);
    return out;
}

TEST_F(HttpContextTest, KeepsTheWrittenBytesAfterAPartialWrite) {
    const Connection connection = scriptedConnection();
    connection.engine->m_prefaceSent = true;
    connection.engine->m_settingSent = true;
    const std::string cache = numbered(300);
    connection.io->buffer() = cache;
    connection.transport->m_writeResults = {100, -1, 99, 99};
    EXPECT_TRUE(context().writeEventHandler(connection.fd));
    EXPECT_EQ(connection.io->buffer(), cache.substr(0, 100));
    EXPECT_TRUE(context().writeEventHandler(connection.fd));
    EXPECT_EQ(connection.io->buffer(), cache.substr(0, 100));
    EXPECT_TRUE(context().writeEventHandler(connection.fd));
    EXPECT_EQ(connection.io->buffer(), cache.substr(0, 99));
    EXPECT_TRUE(context().writeEventHandler(connection.fd));  // all of them now
    EXPECT_EQ(connection.io->buffer(), "");
    EXPECT_EQ(connection.transport->m_writes,
              (Lines{cache, cache.substr(0, 100), cache.substr(0, 100), cache.substr(0, 99)}));
    EXPECT_EQ(context().m_httpIoMap.count(connection.fd), 1u);
    EXPECT_EQ(context().m_removedHttp2Set, Set{});
}

TEST_F(HttpContextTest, RepeatsItsBytesToAPeerThatReadsSlowly) {
    ServerOptions options;
    options.receiveBuffer = 4096;
    ScriptedServer server(options);
    const int fd = connect(server);
    running(fd);  // which makes the socket non-blocking
    server.stopReading(0);
    const int size = 4096;
    ASSERT_EQ(setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size)), 0);
    Http2* engine = io(fd).httpParser();
    engine->m_prefaceSent = true;
    engine->m_settingSent = true;
    ASSERT_EQ(context().removeHttpClientImpl(m_clients.back()->ctx()), 0);
    engine->m_rstFrameMap.clear();  // the engine has nothing to say now
    const std::string cache = numbered(size_t{8} * 1024 * 1024);
    io(fd).buffer() = cache;
    EXPECT_TRUE(context().writeEventHandler(fd));
    const size_t written = io(fd).buffer().size();
    ASSERT_GT(written, 0u);
    ASSERT_LT(written, cache.size());
    EXPECT_EQ(io(fd).buffer(), cache.substr(0, written));
    io(fd).buffer().resize(10);  // so that the second write cannot be a partial one
    server.resumeReading(0);
    ASSERT_TRUE(waitFor([&] {
        EXPECT_TRUE(context().writeEventHandler(fd));
        return io(fd).buffer().empty();
    }));
    ASSERT_TRUE(server.waitReceived(0, written + 10));
    EXPECT_EQ(server.received(0), cache.substr(0, written) + cache.substr(0, 10));
}

TEST_F(HttpContextTest, LeavesTheCacheAloneWhileNothingCanBeWritten) {
    const Connection connection = scriptedConnection();
    connection.io->buffer() = "cache";
    connection.transport->m_writeResults = {-1, -1};
    const LogCapture log;
    const CoutCapture console;
    EXPECT_TRUE(context().writeEventHandler(connection.fd));
    EXPECT_EQ(connection.io->buffer(), "cache" + std::string(kPreface));
    EXPECT_TRUE(context().writeEventHandler(connection.fd));  // new frames are still produced
    EXPECT_EQ(connection.io->buffer().size(), 5 + kPreface.size() + kSettingsSize);
    EXPECT_EQ(logLines(log), Lines{});
    EXPECT_EQ(console.str(), "");
    EXPECT_EQ(context().m_removedHttp2Set, Set{});
}

TEST_F(HttpContextTest, ProducesNothingNewAbove16MiBOfCache) {
    const Connection connection = scriptedConnection();
    connection.transport->m_writeResults = {-1, -1, static_cast<int>(kCacheLimit + 1), -1};
    connection.io->buffer().assign(kCacheLimit + 1, 'x');
    EXPECT_TRUE(context().writeEventHandler(connection.fd));
    EXPECT_FALSE(connection.engine->m_prefaceSent);
    EXPECT_EQ(connection.io->buffer().size(), kCacheLimit + 1);
    EXPECT_EQ(connection.transport->m_writes.size(), 1u);  // what there is is written all the same
    connection.io->buffer().assign(kCacheLimit, 'x');
    EXPECT_TRUE(context().writeEventHandler(connection.fd));
    EXPECT_TRUE(connection.engine->m_prefaceSent);  // exactly the limit is not above it
    EXPECT_EQ(connection.io->buffer().size(), kCacheLimit + kPreface.size());
}

TEST_F(HttpContextTest, DropsAConnectionWhoseWriteFails) {
    const Connection connection = scriptedConnection();
    RecordingClient& request = running(connection.fd);
    connection.transport->m_writeResults = {0};
    const LogCapture log;
    const CoutCapture console;
    EXPECT_FALSE(context().writeEventHandler(connection.fd));
    EXPECT_EQ(console.str(), "write failed\n");
    EXPECT_EQ(logLines(log), dropLines("IO error, err ", "192.0.2.7", true));
    EXPECT_EQ(request.callbacks(), Callbacks{Callback::closed()});
    EXPECT_TRUE(context().m_httpIoMap.empty());
    EXPECT_EQ(context().m_removedHttp2Set, Set{connection.fd});
    EXPECT_TRUE(isFree(context().m_httpIolock));
    EXPECT_FALSE(isOpen(connection.fd));
}

TEST_F(HttpContextTest, DropsAConnectionThatThePeerHasReset) {
    ScriptedServer server;
    const int fd = connect(server);
    RecordingClient& request = running(fd);
    server.reset(0);
    ASSERT_TRUE(waitReady(fd, 0));
    const CoutCapture console;
    EXPECT_FALSE(context().writeEventHandler(fd));
    EXPECT_EQ(console.str(), "write failed\n");
    EXPECT_EQ(request.callbacks(), Callbacks{Callback::closed()});
    EXPECT_TRUE(context().m_httpIoMap.empty());
}

TEST_F(HttpContextTest, DropsAConnectionThatTheEngineGivesUp) {
    const Connection connection = scriptedConnection();
    const Connection other = scriptedConnection();
    RecordingClient& request = running(connection.fd);
    request.ctx()->sethttpHandshake(true);  // its HEADERS frame has gone out
    request.ctx()->setContentFinished(true);
    connection.engine->m_prefaceSent = true;
    connection.engine->m_settingSent = true;
    connection.engine->m_streamPingTicker = 119999;
    connection.engine->m_waitPong = true;
    connection.io->buffer() = "never sent";
    size_t writes = 0;
    connection.transport->m_hook = [&] { ++writes; };
    const LogCapture log;
    const CoutCapture console;
    EXPECT_FALSE(context().writeEventHandler(connection.fd));
    const Lines lines = logLines(log);
    const auto found =
        std::find(lines.begin(), lines.end(), "20000 HttpContext.cpp: http link Error Need Close!");
    ASSERT_NE(found, lines.end());
    EXPECT_EQ(Lines(found + 1, lines.end()),
              dropLines("IO error, err = -2, m_httpIoMap.size()2", "192.0.2.7", false));
    EXPECT_NE(functionThatLogged(log, "http link Error Need Close!")
                  .find("tiny::HttpContext::writeEventHandler(int)"),
              std::string::npos);
    EXPECT_EQ(writes, 0u);
    EXPECT_EQ(console.str(), "");
    EXPECT_EQ(request.callbacks(), Callbacks{Callback::closed()});
    EXPECT_EQ(context().m_httpIoMap.size(), 1u);
    EXPECT_EQ(context().m_httpIoMap.count(other.fd), 1u);
    EXPECT_EQ(context().m_removedHttp2Set, Set{connection.fd});
}

// The error handler

TEST_F(HttpContextTest, DropsAConnectionInErrorAndReturnsTrue) {
    const Connection connection = scriptedConnection();
    RecordingClient& request = running(connection.fd);
    size_t operations = 0;
    connection.transport->m_hook = [&] { ++operations; };
    const LogCapture log;
    const CoutCapture console;
    EXPECT_TRUE(context().errorEventHandler(connection.fd));
    EXPECT_EQ(logLines(log), dropLines("IO error, err ", "192.0.2.7", true));
    EXPECT_NE(
        functionThatLogged(log, "IO error, err ").find("tiny::HttpContext::errorEventHandler(int)"),
        std::string::npos);
    EXPECT_EQ(console.str(), "");
    EXPECT_EQ(operations, 0u);
    EXPECT_EQ(request.callbacks(), Callbacks{Callback::closed()});
    EXPECT_TRUE(context().m_httpIoMap.empty());
    EXPECT_EQ(context().m_removedHttp2Set, Set{connection.fd});
    EXPECT_FALSE(isOpen(connection.fd));
}

// Locks

TEST_F(HttpContextTest, HoldsTheConnectionLockWhileItMovesBytes) {
    const Connection connection = scriptedConnection();
    Lines seen;
    connection.transport->m_hook = [&] {
        seen.push_back(isFree(context().m_httpIolock) ? "free" : "held");
    };
    EXPECT_TRUE(context().readEventHandler(connection.fd));
    EXPECT_TRUE(context().writeEventHandler(connection.fd));
    EXPECT_EQ(seen, (Lines{"held", "held"}));
}

TEST_F(HttpContextTest, HoldsTheConnectionLockDuringCallbacksButNotAtTheEnd) {
    const Connection connection = scriptedConnection();
    Lines seen;
    running(connection.fd, [&](const Callback& callback) {
        const char* name = callback.kind == Callback::Kind::kHeaders   ? "headers "
                           : callback.kind == Callback::Kind::kContent ? "content "
                                                                       : "closed ";
        seen.push_back(std::string(name) + (isFree(context().m_httpIolock) ? "free" : "held"));
        EXPECT_TRUE(isFree(context().m_removeLock));
        EXPECT_TRUE(isFree(context().m_newLock));
    });
    connection.transport->m_input = {headers(1, hpackIndexed(8)) + data(1, "x")};
    connection.transport->m_readEnd = 0;
    EXPECT_FALSE(context().readEventHandler(connection.fd));
    EXPECT_EQ(seen, (Lines{"headers held", "content held", "closed free"}));
}

TEST_F(HttpContextTest, EveryDropCallsBackWithoutTheConnectionLock) {
    for (int way = 0; way < 3; ++way) {
        const Connection connection = scriptedConnection();
        connection.transport->m_readEnd = 0;
        connection.transport->m_writeResults = {0};
        bool wasFree = false;
        RecordingClient& request = running(
            connection.fd, [&](const Callback&) { wasFree = isFree(context().m_httpIolock); });
        if (way == 0) context().readEventHandler(connection.fd);
        if (way == 1) context().writeEventHandler(connection.fd);
        if (way == 2) context().errorEventHandler(connection.fd);
        EXPECT_EQ(request.count(Callback::Kind::kClosed), 1u) << way;
        EXPECT_TRUE(wasFree) << way;
    }
}

// A thread that tells whether it waits.
class Worker {
public:
    explicit Worker(std::function<void()> work)
        : m_thread([this, work = std::move(work)] {
              m_id = gettid();
              work();
              m_done = true;
          }) {}
    ~Worker() {
        if (m_thread.joinable()) m_thread.join();
    }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    bool done() const { return m_done; }
    void join() { m_thread.join(); }

    // Waits until the system has seen the thread asleep many times in a row, or it is done.
    [[nodiscard]] bool waitAsleep() const {
        int inARow = 0;
        return waitFor([&] {
            inARow = isAsleep() ? inARow + 1 : 0;
            return m_done || inARow >= 20;
        });
    }

private:
    bool isAsleep() const {
        if (m_id == 0) return false;
        std::ifstream file("/proc/self/task/" + std::to_string(m_id) + "/stat");
        const std::string text{std::istreambuf_iterator<char>(file), {}};
        const size_t at = text.rfind(") ");
        return at != std::string::npos && text[at + 2] == 'S';
    }

    std::atomic<pid_t> m_id{0};
    std::atomic<bool> m_done{false};
    std::thread m_thread;
};

TEST_F(HttpContextTest, HoldsTheConnectionLockThroughTheHandshake) {
    ScriptedServer silent;  // takes the ClientHello and never answers
    const Connection other = scriptedConnection();
    std::atomic<int> sock{0};
    bool served = false;
    Worker connecting([&] { sock = connect(silent, HTTPS_2); });
    ASSERT_TRUE(silent.waitReceived(0, 1));
    EXPECT_FALSE(isFree(context().m_httpIolock));
    Worker polling([&] { served = context().readEventHandler(other.fd); });
    EXPECT_TRUE(polling.waitAsleep());
    EXPECT_FALSE(polling.done());
    EXPECT_FALSE(connecting.done());
    silent.close(0);
    connecting.join();
    polling.join();
    EXPECT_EQ(sock, -1);
    EXPECT_TRUE(served);
    EXPECT_TRUE(isFree(context().m_httpIolock));
}

// Who may touch a request while its connection ends

class RequestGuardTest : public HttpContextTest {
protected:
    // Drops a connection on a thread of its own and keeps it in its onSocketClosed. `meanwhile`
    // runs on a second thread, and must not end before the callback does.
    void expectToWait(const std::function<void(HttpClientInterfaceImpl*)>& meanwhile) {
        const Connection connection = scriptedConnection();
        connection.transport->m_readEnd = 0;
        Event inside;
        Event release;
        std::atomic<bool> callbackOver{false};
        RecordingClient& request = running(connection.fd, [&](const Callback&) {
            inside.set();
            EXPECT_TRUE(release.wait());
            callbackOver = true;
        });
        bool overBefore = false;
        Worker polling([&] { EXPECT_FALSE(context().readEventHandler(connection.fd)); });
        ASSERT_TRUE(inside.wait());
        EXPECT_TRUE(isFree(context().m_httpIolock));  // what is waited for is not this lock
        {
            Worker application([&] {
                meanwhile(request.ctx());
                overBefore = callbackOver;
            });
            EXPECT_TRUE(application.waitAsleep());
            EXPECT_FALSE(application.done());
            release.set();
        }
        polling.join();
        EXPECT_TRUE(overBefore);
        EXPECT_EQ(request.callbacks(), Callbacks{Callback::closed()});
        EXPECT_TRUE(isFree(context().m_httpIolock));
    }
};

TEST_F(RequestGuardTest, WithdrawingWaitsForTheEndOfADrop) {
    expectToWait(
        [&](HttpClientInterfaceImpl* impl) { EXPECT_EQ(context().removeHttpClientImpl(impl), 0); });
}

TEST_F(RequestGuardTest, ForgettingWaitsForTheEndOfADrop) {
    expectToWait([&](HttpClientInterfaceImpl* impl) { context().forgetHttpClientImpl(impl); });
}

TEST_F(RequestGuardTest, StartingWaitsForTheEndOfADrop) {
    expectToWait(
        [&](HttpClientInterfaceImpl* impl) { EXPECT_EQ(context().addHttpClientImpl(impl), 2); });
}

TEST_F(RequestGuardTest, TakingTheGuardWaitsForTheEndOfADrop) {
    expectToWait([&](HttpClientInterfaceImpl*) {
        const HttpContext::RequestGuard guard(&context());
        EXPECT_FALSE(isFree(context().m_httpIolock));
    });
}

TEST_F(RequestGuardTest, WaitsForEveryKindOfDrop) {
    for (int way = 0; way < 2; ++way) {
        const Connection connection = scriptedConnection();
        connection.transport->m_writeResults = {0};
        Event inside;
        Event release;
        std::atomic<bool> callbackOver{false};
        RecordingClient& request = running(connection.fd, [&](const Callback&) {
            inside.set();
            EXPECT_TRUE(release.wait());
            callbackOver = true;
        });
        Worker polling([&] {
            if (way == 0) context().writeEventHandler(connection.fd);
            if (way == 1) context().errorEventHandler(connection.fd);
        });
        ASSERT_TRUE(inside.wait());
        bool overBefore = false;
        {
            Worker application([&] {
                context().removeHttpClientImpl(request.ctx());
                overBefore = callbackOver;
            });
            EXPECT_TRUE(application.waitAsleep());
            EXPECT_FALSE(application.done()) << way;
            release.set();
        }
        EXPECT_TRUE(overBefore) << way;
    }
}

TEST_F(RequestGuardTest, DoesNotWaitWhenNothingEnds) {
    const Connection connection = scriptedConnection();
    RecordingClient& request = running(connection.fd);
    {
        const HttpContext::RequestGuard guard(&context());
        EXPECT_FALSE(isFree(context().m_httpIolock));
    }
    EXPECT_TRUE(isFree(context().m_httpIolock));
    connection.transport->m_readEnd = 0;
    EXPECT_FALSE(context().readEventHandler(connection.fd));
    EXPECT_EQ(context().removeHttpClientImpl(request.ctx()), 0);  // the drop is over
    const HttpContext::RequestGuard guard(&context());
    EXPECT_FALSE(isFree(context().m_httpIolock));
}

TEST_F(RequestGuardTest, WorksFromInsideOnSocketClosed) {
    ScriptedServer server;
    const Connection connection = scriptedConnection();
    const Connection other = scriptedConnection();
    connection.transport->m_readEnd = 0;
    RecordingClient& neighbour = running(other.fd);
    HttpClientInterfaceImpl* own = nullptr;
    int reconnected = -1;
    RecordingClient& request = client(connection.fd, [&](const Callback&) {
        EXPECT_EQ(context().removeHttpClientImpl(own), 0);
        EXPECT_EQ(context().removeHttpClientImpl(neighbour.ctx()), 0);
        EXPECT_EQ(context().addHttpClientImpl(own), 2);
        context().forgetHttpClientImpl(neighbour.ctx());
        reconnected = connect(server);
        own->setSocket(reconnected);
        EXPECT_EQ(context().addHttpClientImpl(own), 0);
        const HttpContext::RequestGuard guard(&context());
        EXPECT_FALSE(isFree(context().m_httpIolock));
    });
    own = request.ctx();
    // Past the context, so that its lock has never been taken before this engine's. Inside the
    // callback it is taken after it, which is harmless for an engine that nobody can reach any
    // more; a checker of lock orders cannot know that.
    connection.engine->addHttpClient(own);
    context().httpCron();
    EXPECT_FALSE(context().readEventHandler(connection.fd));
    EXPECT_EQ(request.callbacks(), Callbacks{Callback::closed()});
    EXPECT_TRUE(other.engine->m_httpClientMap.empty());
    EXPECT_EQ(other.engine->m_rstFrameMap.size(), 1u);
    ASSERT_GE(reconnected, 0);
    EXPECT_NE(reconnected, connection.fd);
    EXPECT_EQ(io(reconnected).httpParser()->m_httpClientMap.size(), 1u);
    EXPECT_EQ(context().m_newHttp2Set.count(reconnected), 1u);
    EXPECT_TRUE(isFree(context().m_httpIolock));
    EXPECT_TRUE(pollUntil([&] { return server.frames(0).size() >= 2; }));  // SETTINGS, HEADERS
    EXPECT_EQ(context().removeHttpClientImpl(own), 0);
}

TEST_F(RequestGuardTest, HasNothingToTakeInsideACallbackOfAHandler) {
    const Connection connection = scriptedConnection();
    Lines seen;
    running(connection.fd, [&](const Callback&) {
        {
            const HttpContext::RequestGuard guard(&context());
            seen.push_back(isFree(context().m_httpIolock) ? "free" : "held");
        }
        seen.push_back(isFree(context().m_httpIolock) ? "free" : "held");
    });
    connection.transport->m_input = {headers(1, hpackIndexed(8))};
    EXPECT_TRUE(context().readEventHandler(connection.fd));
    EXPECT_EQ(seen, (Lines{"held", "held"}));
    EXPECT_TRUE(isFree(context().m_httpIolock));

    // Behind the handler the guard is the application's again.
    const HttpContext::RequestGuard guard(&context());
    EXPECT_FALSE(isFree(context().m_httpIolock));
}

TEST_F(RequestGuardTest, KeepsTheHandlersOut) {
    const Connection connection = scriptedConnection();
    Worker* polling = nullptr;
    {
        const HttpContext::RequestGuard guard(&context());
        polling = new Worker([&] { EXPECT_TRUE(context().writeEventHandler(connection.fd)); });
        EXPECT_TRUE(polling->waitAsleep());
        EXPECT_FALSE(polling->done());
        EXPECT_TRUE(connection.transport->m_writes.empty());
    }
    delete polling;
    EXPECT_EQ(connection.transport->m_writes.size(), 1u);
}

// A client of the process's context that has nothing of its own to lose when it is destroyed while
// its onSocketClosed runs.
class BareClient : public tiny::HttpClientInterface {
public:
    explicit BareClient(std::function<void()>* closed) : m_closed(closed) {}
    void onSocketClosed() override {
        std::function<void()>* const closed = m_closed;
        (*closed)();
    }
    void onFailed(HTTP_ERROR) override {}
    void onHeaderReceived(int, const HeaderDef*, size_t) override {}
    void onContentReceived(const char*, size_t, bool) override {}

private:
    std::function<void()>* m_closed;
};

TEST(RequestGuardClient, DestroyingAClientWaitsForItsOnSocketClosed) {
    const NullCout quiet;
    ScriptedServer server;
    Event inside;
    Event release;
    std::atomic<bool> callbackOver{false};
    std::function<void()> closed = [&] {
        inside.set();
        EXPECT_TRUE(release.wait());
        callbackOver = true;
    };
    auto* client = new BareClient(&closed);
    ASSERT_EQ(client->connectToServer(HTTP_2, kIp, server.port()), 0);
    ASSERT_EQ(client->setUri("/", HTTP_GET), 0);
    ASSERT_EQ(client->startRequest(nullptr), 0);
    const int fd = client->ctx()->getSocket();
    server.close(0);
    ASSERT_TRUE(waitReady(fd, POLLIN));
    Worker polling([&] { EXPECT_FALSE(HttpContext::instance()->readEventHandler(fd)); });
    ASSERT_TRUE(inside.wait());
    bool overBefore = false;
    {
        Worker application([&] {
            delete client;
            overBefore = callbackOver;
        });
        EXPECT_TRUE(application.waitAsleep());
        EXPECT_FALSE(application.done());
        release.set();
    }
    polling.join();
    EXPECT_TRUE(overBefore);
    HttpContext::instance()->httpCron();
}

TEST(RequestGuardClient, CancellingWaitsForOnSocketClosedAndEndsAllCallbacks) {
    const NullCout quiet;
    ScriptedServer server;
    Event inside;
    Event release;
    RecordingClient client([&](const Callback&) {
        inside.set();
        EXPECT_TRUE(release.wait());
    });
    ASSERT_EQ(client.connectToServer(HTTP_2, kIp, server.port()), 0);
    ASSERT_EQ(client.setUri("/", HTTP_GET), 0);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    const int fd = client.ctx()->getSocket();
    server.close(0);
    ASSERT_TRUE(waitReady(fd, POLLIN));
    Worker polling([&] { EXPECT_FALSE(HttpContext::instance()->readEventHandler(fd)); });
    ASSERT_TRUE(inside.wait());
    Callbacks seen;
    {
        Worker application([&] {
            EXPECT_EQ(client.cancelRequest(), 0);
            seen = client.callbacks();
        });
        EXPECT_TRUE(application.waitAsleep());
        EXPECT_FALSE(application.done());
        release.set();
    }
    EXPECT_EQ(seen, Callbacks{Callback::closed()});  // it was over when the call returned
    polling.join();
    HttpContext::instance()->httpCron();
}

// Everything together

TEST_F(HttpContextTest, ServesARequestFromBeginningToEnd) {
    for (const HTTP_SCHEMA schema : {HTTP_2, HTTPS_2}) {
        ServerOptions options;
        options.tls = schema == HTTPS_2;
        ScriptedServer server(options);
        const int fd = connect(server, schema);
        ASSERT_GE(fd, 0);
        RecordingClient& request = running(fd);
        ASSERT_TRUE(pollUntil([&] { return server.frames(0).size() >= 2; }));
        EXPECT_EQ(server.frames(0)[0].type, kSettings);
        EXPECT_EQ(server.frames(0)[1].type, kHeaders);
        EXPECT_EQ(selectPoller().m_sockfdSet, Set{fd});
        server.send(0, settings({}) + headers(1, hpackIndexed(8)) + data(1, "body", kEndStream));
        ASSERT_TRUE(pollUntil([&] { return server.frames(0).size() >= 3; }));
        EXPECT_EQ(server.frames(0)[2].type, kRstStream);
        EXPECT_EQ(request.callbacks(), (Callbacks{Callback::headers(200, {{":status", "200"}}),
                                                  Callback::content("body", false)}));
        server.close(0);
        ASSERT_TRUE(pollUntil([&] { return context().m_httpIoMap.empty(); }));
        EXPECT_EQ(request.callbacks().size(), 2u);  // nothing was running any more
        context().httpCron();
        EXPECT_EQ(selectPoller().m_sockfdSet, Set{});
        EXPECT_TRUE(server.waitClosedByPeer(0));
    }
}

TEST_F(HttpContextTest, AConnectionWithoutARequestIsNeverPolled) {
    ScriptedServer server;
    const int fd = connect(server);
    server.close(0);
    ASSERT_TRUE(waitReady(fd, POLLIN));
    for (int i = 0; i < 5; ++i) context().pollHttpClient(1);
    EXPECT_EQ(context().m_httpIoMap.count(fd), 1u);
    running(fd);  // it is found out as soon as there is one
    EXPECT_TRUE(pollUntil([&] { return context().m_httpIoMap.empty(); }));
    EXPECT_EQ(m_clients.back()->callbacks(), Callbacks{Callback::closed()});
}

TEST_F(HttpContextTest, OneTlsConnectionsErrorDoesNotEndAnother) {
    ServerOptions options;
    options.tls = true;
    ScriptedServer server(options);
    const int broken = connect(server, HTTPS_2);
    ASSERT_TRUE(server.waitConnections(1));
    const int healthy = connect(server, HTTPS_2);
    RecordingClient& first = running(broken);
    RecordingClient& second = running(healthy);
    ASSERT_TRUE(
        pollUntil([&] { return server.frames(0).size() >= 2 && server.frames(1).size() >= 2; }));
    server.sendRaw(0, "this is no TLS record");
    ASSERT_TRUE(waitReady(broken, POLLIN));
    EXPECT_FALSE(context().readEventHandler(broken));
    EXPECT_TRUE(context().readEventHandler(healthy));
    EXPECT_EQ(first.callbacks(), Callbacks{Callback::closed()});
    EXPECT_EQ(second.callbacks(), Callbacks{});
    server.send(1, headers(1, hpackIndexed(8)) + data(1, "body", kEndStream));
    ASSERT_TRUE(pollUntil([&] { return second.count(Callback::Kind::kContent) == 1; }));
    EXPECT_EQ(second.callbacks(), (Callbacks{Callback::headers(200, {{":status", "200"}}),
                                             Callback::content("body", false)}));
}

TEST_F(HttpContextTest, EveryWayToDropClosesTheDescriptor) {
    const size_t before = openDescriptors();
    {
        ServerOptions options;
        options.tls = true;
        ScriptedServer server(options);
        for (int way = 0; way < 3; ++way) {
            const int fd = connect(server, HTTPS_2);
            ASSERT_GE(fd, 0);
            running(fd);
            ASSERT_TRUE(server.waitConnections(static_cast<size_t>(way) + 1));
            if (way == 0) {
                server.close(0);
                ASSERT_TRUE(waitFor([&] { return !context().readEventHandler(fd); }));
            } else if (way == 1) {
                server.reset(1);
                ASSERT_TRUE(waitReady(fd, 0));
                EXPECT_FALSE(context().writeEventHandler(fd));
            } else {
                EXPECT_TRUE(context().errorEventHandler(fd));
            }
            if (way != 1) {
                EXPECT_TRUE(server.waitClosedByPeer(static_cast<size_t>(way)));
            }
            EXPECT_EQ(m_clients.back()->callbacks(), Callbacks{Callback::closed()});
        }
    }
    EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
}  // namespace h2test
