#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "Http2ClientStandard/loop/loop_threads.h"
#include "Http2ClientStandard/pool/connection.h"
#include "Http2ClientStandard/pool/dial.h"
#include "Http2ClientStandard/pool/pause.h"
#include "Http2ClientStandard/pool/pool.h"
#include "Http2ClientStandard/transport/plain_transport.h"
#include "tests/support/bytes.h"
#include "tests/support/scripted_server.h"
#include "tests/support/wait.h"

namespace {

using h2::Connection;
using h2::Ref;
using h2test::waitFor;

// A GET that keeps its end.
class TestExchange final : public h2::Exchange {
public:
    std::atomic<bool> isCancelled{false};
    std::atomic<bool> anywhere{true};
    std::atomic<int> completed{0};
    std::atomic<int> failed{0};
    std::function<void()> reaction;  // to the answer's headers
    std::string content;             // to be read once completed

    std::span<const h2::hpack::Field> fields() const override { return m_fields; }
    bool isHead() const override { return false; }
    bool isIdempotent() const override { return true; }
    h2::Body* body() override { return nullptr; }
    bool sendableAnywhere() const override { return anywhere; }
    bool rewind() override { return true; }
    bool cancelled() override { return isCancelled; }
    void onHeaders(uint32_t, const h2::hpack::FieldList&) override {
        if (reaction) reaction();
    }
    void onData(const char* data, size_t size, bool last) override {
        content.append(data, size);
        completed += last ? 1 : 0;
    }
    void onTrailers(const h2::hpack::FieldList&) override {}
    void onComplete() override { ++completed; }
    void onFailure(h2::Failure, const char*) override { ++failed; }

private:
    std::vector<h2::hpack::Field> m_fields{
        {":method", "GET"}, {":scheme", "http"}, {":authority", "a"}, {":path", "/"}};
};

class Events final : public h2::ConnectionEvents {
public:
    std::atomic<int> retired{0};
    std::vector<h2::Outcome> ends;

    void onRetired(Connection&) override { ++retired; }
    void onAttemptEnd(const Ref<h2::Exchange>&, const h2::AttemptEnd& end) override {
        ends.push_back(end.stream.outcome);
    }
};

// A connection whose other end the test has.
class ConnectionTest : public testing::Test {
protected:
    ConnectionTest() {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
        m_peer = h2::Socket(ends[0]);
        connection = h2::makeRef<Connection>(
            loop, std::make_unique<h2::PlainTransport>(h2::Socket(ends[1])), h2::ConnectionInfo(),
            h2::ConnectionOptions(), Ref<h2::RefCounted>(),
            static_cast<h2::ConnectionEvents&>(events));
        connection->attach();
    }
    // Ends the connection, too.
    ~ConnectionTest() override {
        m_peer.close();
        if (!m_thread.joinable()) run();
        EXPECT_TRUE(waitFor([&] { return events.retired == 1 && connection->unique(); }));
        loop.stop();
        m_thread.join();
    }
    void run() {
        m_thread = std::thread([this] { loop.run(); });
    }
    // The frames that have come, without the preface.
    std::vector<h2test::WireFrame> frames() {
        char buffer[4096];
        ssize_t size;
        while ((size = read(m_peer.get(), buffer, sizeof buffer)) > 0) {
            m_received.append(buffer, static_cast<size_t>(size));
        }
        if (m_received.empty()) return {};
        size_t rest = 0;
        return h2test::parseWholeFrames(h2test::withoutPreface(m_received), rest);
    }
    size_t headers() {
        size_t count = 0;
        for (const h2test::WireFrame& frame : frames()) count += frame.type == h2test::kHeaders;
        return count;
    }
    void send(const std::string& bytes) {
        EXPECT_EQ(write(m_peer.get(), bytes.data(), bytes.size()), ssize_t(bytes.size()));
    }
    void closePeer() { m_peer.close(); }

    h2::Loop loop;
    Events events;
    Ref<Connection> connection;

private:
    h2::Socket m_peer;
    std::string m_received;
    std::thread m_thread;
};

TEST_F(ConnectionTest, SendsFromTheCallingThreadWhenNothingIsUnderWay) {
    const auto first = h2::makeRef<TestExchange>();
    const auto second = h2::makeRef<TestExchange>();
    // The first looks into the inbox: attach() has put something there.
    run();
    ASSERT_TRUE(waitFor([&] { return !frames().empty(); }));
    // Threads but the loop's find it quiet once its turn is over.
    ASSERT_TRUE(connection->start(first));
    ASSERT_TRUE(waitFor([&] { return headers() == 1; }));
    ASSERT_TRUE(connection->start(second));
    ASSERT_TRUE(waitFor([&] { return headers() == 2; }));
    EXPECT_EQ(connection->load(), 2u);
    const std::string ok = h2test::hpackIndexed(8);
    send(h2test::settings({}));
    send(h2test::headers(1, ok, h2test::kEndHeaders | h2test::kEndStream));
    send(h2test::headers(3, ok, h2test::kEndHeaders | h2test::kEndStream));
    EXPECT_TRUE(waitFor([&] { return first->completed == 1 && second->completed == 1; }));
    EXPECT_TRUE(waitFor([&] { return connection->load() == 0; }));
}

TEST_F(ConnectionTest, CancelledRequestIsNotSent) {
    const auto exchange = h2::makeRef<TestExchange>();
    exchange->anywhere = false;  // waits for the loop
    ASSERT_TRUE(connection->start(exchange));
    EXPECT_EQ(exchange->connection().get(), connection.get());
    exchange->isCancelled = true;
    connection->cancel(*exchange);
    run();
    ASSERT_TRUE(waitFor([&] { return !frames().empty() && connection->load() == 0; }));
    EXPECT_EQ(headers(), 0u);
    EXPECT_FALSE(exchange->connection());
}

TEST_F(ConnectionTest, RetiredConnectionTakesNoRequests) {
    connection->retire();
    run();
    ASSERT_TRUE(waitFor([&] { return events.retired == 1; }));
    EXPECT_FALSE(connection->start(h2::makeRef<TestExchange>()));
    EXPECT_EQ(connection->load(), 0u);
    ASSERT_TRUE(waitFor([&] { return !frames().empty(); }));
    EXPECT_EQ(frames().back(), h2test::parseFrames(h2test::goaway(0, 0))[0]);
}

// As servers do that answer and close before they read our last WINDOW_UPDATE.
TEST_F(ConnectionTest, FailedSendLeavesBytesToRead) {
    const auto exchange = h2::makeRef<TestExchange>();
    ASSERT_TRUE(connection->start(exchange));
    run();
    ASSERT_TRUE(waitFor([&] { return headers() == 1; }));
    // The answer to the PING can no longer be sent when the loop comes to it.
    exchange->reaction = [&] {
        send(h2test::data(1, "the tail", h2test::kEndStream));
        closePeer();
    };
    send(h2test::settings({}) + h2test::ping(1) +
         h2test::headers(1, h2test::hpackIndexed(8), h2test::kEndHeaders));
    ASSERT_TRUE(waitFor([&] { return exchange->completed != 0 || !events.ends.empty(); }));
    EXPECT_EQ(exchange->content, "the tail");
    EXPECT_TRUE(events.ends.empty());
}

TEST_F(ConnectionTest, IdleConnectionGivesMemoryBackAndGoesOn) {
    run();
    const std::string answer =
        h2test::headers(1, h2test::hpackIndexed(8), h2test::kEndHeaders | h2test::kEndStream);
    const auto first = h2::makeRef<TestExchange>();
    ASSERT_TRUE(connection->start(first));
    ASSERT_TRUE(waitFor([&] { return headers() == 1; }));
    send(h2test::settings({}) + answer);
    ASSERT_TRUE(waitFor([&] { return first->completed == 1; }));
    ASSERT_TRUE(waitFor([&] {  // a second later
        const std::lock_guard<std::mutex> hold(connection->m_useLock);
        return connection->m_resting;
    }));
    const auto second = h2::makeRef<TestExchange>();
    ASSERT_TRUE(connection->start(second));
    ASSERT_TRUE(waitFor([&] { return headers() == 2; }));
    send(h2test::headers(3, h2test::hpackIndexed(8), h2test::kEndHeaders | h2test::kEndStream));
    EXPECT_TRUE(waitFor([&] { return second->completed == 1; }));
    const std::lock_guard<std::mutex> hold(connection->m_useLock);
    EXPECT_FALSE(connection->m_resting);
}

TEST_F(ConnectionTest, IdleTimeOutOfZeroIsNone) {
    h2::ConnectionOptions options;
    options.idleTimeout = 0;
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
    const h2::Socket peer(ends[0]);
    const auto kept = h2::makeRef<Connection>(
        loop, std::make_unique<h2::PlainTransport>(h2::Socket(ends[1])), h2::ConnectionInfo(),
        options, Ref<h2::RefCounted>(), static_cast<h2::ConnectionEvents&>(events));
    kept->m_idleSince = 1;
    kept->m_resting = true;
    EXPECT_EQ(kept->nextDeadline(), h2::kNever);
    EXPECT_EQ(connection->m_idleTimeout, 90'000u);
}

TEST(LoopThreads, RunsTasksWhileStarted) {
    h2::LoopThreads threads;
    h2::Loop* loop = threads.next();
    ASSERT_NE(loop, nullptr);
    std::atomic<int> ran{0};
    loop->post([&] { ran += h2::LoopThreads::isLoopThread() ? 1 : 100; });
    EXPECT_FALSE(threads.running());
    EXPECT_EQ(ran, 0);
    for (int i = 1; i <= 3; ++i) {
        ASSERT_TRUE(threads.start(2));
        EXPECT_TRUE(waitFor([&] { return ran == i; }));
        threads.stop();
        EXPECT_FALSE(threads.running());
        loop->post([&] { ++ran; });
    }
    EXPECT_FALSE(h2::LoopThreads::isLoopThread());
    EXPECT_NE(threads.next(), threads.next());
}

TEST(Pause, ComesToAnEnd) {
    h2::LoopThreads threads;
    h2test::Event over;
    const h2::Time begun = h2::steadyNow();
    h2::Pause::begin(*threads.next(), 20, [&] { over.set(); });
    ASSERT_TRUE(threads.start(1));
    EXPECT_TRUE(over.wait());
    EXPECT_GE(h2::steadyNow(), begun + 20);
    threads.stop();
}

TEST(Dial, SaysWhyItFails) {
    const h2test::RefusingPort refusing;
    h2::DialTarget target;
    target.host = "127.0.0.1";
    target.port = refusing.port();
    target.addresses = h2::resolve(target.host, target.port).addresses;
    const h2::Dialed waited = h2::dialAndWait(target);
    EXPECT_EQ(waited.transport, nullptr);
    EXPECT_EQ(waited.error, "cannot connect: Connection refused");

    h2::LoopThreads threads;
    h2test::Event over;
    std::string error;
    h2::BackgroundDial::begin(*threads.next(), target, [&](h2::Dialed dialed) {
        error = dialed.error;
        over.set();
    });
    ASSERT_TRUE(threads.start(1));
    ASSERT_TRUE(over.wait());
    threads.stop();
    EXPECT_EQ(error, waited.error);
}

// Stream identifiers come to an end after 2^30 requests.
TEST(Server, OpensAnotherConnectionWhenStreamIdentifiersAreUsedUp) {
    h2test::ServerOptions options;
    options.greeting = h2test::settings({});
    options.responder = [](size_t, const h2test::WireFrame& frame) {
        return frame.type == h2test::kHeaders
                   ? h2test::headers(frame.streamId, h2test::hpackIndexed(8),
                                     h2test::kEndHeaders | h2test::kEndStream)
                   : std::string();
    };
    h2test::ScriptedServer peer(std::move(options));
    h2::LoopThreads threads;
    h2::Pool pool(threads);
    std::string error;
    const Ref<h2::Server> server = pool.find({false, "127.0.0.1", peer.port(), {}}, false, error);
    const Ref<Connection> first = server->connect({}).connection;
    ASSERT_TRUE(first);
    first->m_session.m_nextStream = 0x7ffffffd;
    ASSERT_TRUE(threads.start(1));
    for (int i = 0; i < 4; ++i) {
        const auto exchange = h2::makeRef<TestExchange>();
        server->start(exchange);
        EXPECT_TRUE(waitFor([&] { return exchange->completed + exchange->failed != 0; }));
        EXPECT_EQ(exchange->completed, 1);
    }
    ASSERT_EQ(peer.connections(), 2u);
    const auto streams = [&](size_t index) {
        std::vector<uint32_t> ids;
        for (const auto& frame : peer.frames(index, h2test::kHeaders)) {
            ids.push_back(frame.streamId);
        }
        return ids;
    };
    EXPECT_EQ(streams(0), (std::vector<uint32_t>{0x7ffffffd, 0x7fffffff}));
    EXPECT_EQ(streams(1), (std::vector<uint32_t>{1, 3}));
    server->retireConnections();
    EXPECT_TRUE(peer.waitClosedByPeer(0));
    EXPECT_TRUE(peer.waitClosedByPeer(1));
    threads.stop();
}

TEST(Pool, SharesServersByTheirKeys) {
    h2::LoopThreads threads;
    h2::Pool pool(threads);
    std::string error;
    h2::ServerKey key{false, "a", 80, {}};
    const Ref<h2::Server> first = pool.find(key, false, error);
    ASSERT_TRUE(first);
    EXPECT_EQ(pool.find(key, false, error).get(), first.get());
    EXPECT_NE(pool.find(key, true, error).get(), first.get());
    key.port = 81;
    EXPECT_NE(pool.find(key, false, error).get(), first.get());
    key.tls = true;
    key.tlsOptions.caFile = "/no/such/file";
    EXPECT_FALSE(pool.find(key, false, error));
    EXPECT_NE(error.find("/no/such/file"), std::string::npos);
}

}  // namespace
