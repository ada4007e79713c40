// The context's connections, and the requests that start and end on them.

#include <cstdlib>
#include <cstring>
#include <type_traits>

#include <sys/select.h>

#include "Http2Client/Sock.h"
#include "tests/unit/http_context_fixture.h"

namespace h2test {
namespace {

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

TEST_F(HttpContextTest, PrintsItsPollersName) {
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

// Runs in its own process, which has no instance yet.
TEST(HttpContextInstance, IsCreatedByTheFirstCallAndStays) {
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

TEST(HttpContextInstance, IsNotCreatedByClearingAClient) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            const CoutCapture console;
            RecordingClient client;
            client.clearClient();
            std::_Exit(console.str().empty() ? 7 : 1);
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
    // The sanitizer needs a descriptor when it sees an object of a class for the first time.
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
    EXPECT_EQ(log.messages().back(), "~~~~~HttpIO::HttpIO");  // created and destroyed
    EXPECT_EQ(context().m_httpIoMap.size(), 1u);
    EXPECT_EQ(context().m_newHttp2Set, Set{});
    EXPECT_EQ(context().m_removedHttp2Set, Set{});
    ASSERT_TRUE(server.waitConnections(2));
    EXPECT_TRUE(server.waitClosedByPeer(1));
    EXPECT_FALSE(server.closedByPeer(0));

    // The highest descriptor that it can hold works.
    running(last);
    EXPECT_TRUE(pollUntil([&] { return server.received(0).size() > kPreface.size(); }));
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

// The system gives a closed connection's descriptor to the next one.
TEST_F(HttpContextTest, KnowsAConnectionByItsSerialNumberToo) {
    const Connection connection = scriptedConnection();
    RecordingClient& former = client(connection.fd);
    former.ctx()->setStreamId(1);
    former.ctx()->setConnection(connection.fd, connection.io->serial() + 1);
    EXPECT_EQ(context().addHttpClientImpl(former.ctx()), 2);
    context().forgetHttpClientImpl(former.ctx());
    EXPECT_TRUE(connection.engine->m_httpClientMap.empty());
    EXPECT_TRUE(connection.engine->m_rstFrameMap.empty());
    EXPECT_EQ(context().m_newHttp2Set, Set{});
    former.ctx()->setConnection(connection.fd, connection.io->serial());
    EXPECT_EQ(context().addHttpClientImpl(former.ctx()), 0);
    former.ctx()->setConnection(connection.fd, connection.io->serial() + 1);
    former.ctx()->setSocket(connection.fd);  // any connection that has it
    EXPECT_EQ(context().removeHttpClientImpl(former.ctx()), 0);
    EXPECT_EQ(connection.engine->m_rstFrameMap.count(1), 1u);
    EXPECT_NE(scriptedConnection().io->serial(), connection.io->serial());
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

// Everything together

TEST_F(HttpContextTest, AConnectionWithoutARequestIsNeverPolled) {
    ScriptedServer server;
    const int fd = connect(server);
    server.close(0);
    ASSERT_TRUE(waitReady(fd, POLLIN));
    for (int i = 0; i < 5; ++i) context().pollHttpClient(1);
    EXPECT_EQ(context().m_httpIoMap.count(fd), 1u);
    running(fd);  // the first request reveals the close
    EXPECT_TRUE(pollUntil([&] { return context().m_httpIoMap.empty(); }));
    EXPECT_EQ(m_clients.back()->callbacks(), Callbacks{Callback::closed()});
}

}  // namespace
}  // namespace h2test
