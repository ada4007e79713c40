// Which locks are held when, and which calls wait for which.

#include <atomic>
#include <fstream>
#include <iterator>
#include <mutex>
#include <thread>

#include "tests/unit/http_context_fixture.h"

namespace h2test {
namespace {

// Locks

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

// A thread that can be asked whether it waits.
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

    // Waits until the thread has been found asleep many times in a row, or is done.
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

// Calls on a request while its connection ends

class RequestLock : public HttpContextTest {
protected:
    // Drops a connection on one thread and blocks that thread in onSocketClosed. `meanwhile` runs
    // on a second thread and must not return before the callback does.
    void expectToWait(const std::function<void(Connection&)>& drop,
                      const std::function<void(HttpClientInterfaceImpl*)>& meanwhile) {
        Connection connection = scriptedConnection();
        connection.transport->m_readEnd = 0;
        connection.transport->m_writeResults = {0};
        Event inside;
        Event release;
        std::atomic<bool> callbackOver{false};
        RecordingClient& request = running(connection.fd, [&](const Callback&) {
            inside.set();
            EXPECT_TRUE(release.wait());
            callbackOver = true;
        });
        bool overBefore = false;
        Worker polling([&] { drop(connection); });
        ASSERT_TRUE(inside.wait());
        EXPECT_TRUE(isFree(context().m_httpIolock));  // the wait is not for this lock
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
    void read(const Connection& connection) { context().readEventHandler(connection.fd); }
};

TEST_F(RequestLock, EveryCallWaitsForTheEndOfADrop) {
    const std::vector<std::function<void(HttpClientInterfaceImpl*)>> calls = {
        [&](auto* impl) { EXPECT_EQ(context().removeHttpClientImpl(impl), 0); },
        [&](auto* impl) { context().forgetHttpClientImpl(impl); },
        [&](auto* impl) { EXPECT_EQ(context().addHttpClientImpl(impl), 2); },
        [&](auto*) { EXPECT_TRUE(context().lockRequests().owns_lock()); }};
    for (const auto& call : calls) {
        expectToWait([&](Connection& connection) { read(connection); }, call);
    }
}

TEST_F(RequestLock, WaitsForEveryKindOfDrop) {
    const auto withdraw = [&](auto* impl) { context().removeHttpClientImpl(impl); };
    expectToWait([&](Connection& c) { context().writeEventHandler(c.fd); }, withdraw);
    expectToWait([&](Connection& c) { context().errorEventHandler(c.fd); }, withdraw);
}

TEST_F(RequestLock, DoesNotWaitWhenNothingEnds) {
    const Connection connection = scriptedConnection();
    RecordingClient& request = running(connection.fd);
    {
        const std::unique_lock<Lock> lock = context().lockRequests();
        EXPECT_FALSE(isFree(context().m_httpIolock));
    }
    EXPECT_TRUE(isFree(context().m_httpIolock));
    connection.transport->m_readEnd = 0;
    EXPECT_FALSE(context().readEventHandler(connection.fd));
    EXPECT_EQ(context().removeHttpClientImpl(request.ctx()), 0);  // the drop is over
    const std::unique_lock<Lock> lock = context().lockRequests();
    EXPECT_FALSE(isFree(context().m_httpIolock));
}

TEST_F(RequestLock, WorksFromInsideOnSocketClosed) {
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
        const std::unique_lock<Lock> lock = context().lockRequests();
        EXPECT_FALSE(isFree(context().m_httpIolock));
    });
    own = request.ctx();
    // Past the context, so that its lock has never been taken before this engine's. Inside the
    // callback it is taken after it, which is harmless for an engine that cannot be reached any
    // more; ThreadSanitizer cannot know that.
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

TEST_F(RequestLock, IsNotTakenAgainInsideAHandlersCallback) {
    const Connection connection = scriptedConnection();
    Lines seen;
    running(connection.fd, [&](const Callback&) {
        {
            const std::unique_lock<Lock> lock = context().lockRequests();
            seen.push_back(isFree(context().m_httpIolock) ? "free" : "held");
        }
        seen.push_back(isFree(context().m_httpIolock) ? "free" : "held");
    });
    connection.transport->m_input = {headers(1, hpackIndexed(8))};
    EXPECT_TRUE(context().readEventHandler(connection.fd));
    EXPECT_EQ(seen, (Lines{"held", "held"}));
    EXPECT_TRUE(isFree(context().m_httpIolock));

    // After the handler, lockRequests takes the lock again.
    const std::unique_lock<Lock> lock = context().lockRequests();
    EXPECT_FALSE(isFree(context().m_httpIolock));
}

TEST_F(RequestLock, BlocksTheHandlers) {
    const Connection connection = scriptedConnection();
    Worker* polling = nullptr;
    {
        const std::unique_lock<Lock> lock = context().lockRequests();
        polling = new Worker([&] { EXPECT_TRUE(context().writeEventHandler(connection.fd)); });
        EXPECT_TRUE(polling->waitAsleep());
        EXPECT_FALSE(polling->done());
        EXPECT_TRUE(connection.transport->m_writes.empty());
    }
    delete polling;
    EXPECT_EQ(connection.transport->m_writes.size(), 1u);
}

// A client of the process's context. It does not use its members after the callback: it may be
// destroyed by then.
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

TEST(RequestLockClient, CancellingAndDestroyingWaitForItsOnSocketClosed) {
    const NullCout quiet;
    for (const bool destroying : {false, true}) {
        ScriptedServer server;
        Event inside;
        Event release;
        std::atomic<bool> callbackOver{false};
        std::function<void()> closed = [&] {
            inside.set();
            EXPECT_TRUE(release.wait());
            callbackOver = true;
        };
        auto client = std::make_unique<BareClient>(&closed);
        ASSERT_EQ(client->connectToServer(HTTP_2, kIp, server.port()), 0);
        ASSERT_EQ(client->startRequest(nullptr), 0);
        const int fd = client->ctx()->getSocket();
        server.close(0);
        ASSERT_TRUE(waitReady(fd, POLLIN));
        Worker polling([&] { EXPECT_FALSE(HttpContext::instance()->readEventHandler(fd)); });
        ASSERT_TRUE(inside.wait());
        bool overBefore = false;
        {
            Worker application([&] {
                if (destroying) {
                    client.reset();
                } else {
                    EXPECT_EQ(client->cancelRequest(), 0);
                }
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
}

}  // namespace
}  // namespace h2test
