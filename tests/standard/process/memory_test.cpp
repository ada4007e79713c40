// What a request costs, and running out of memory.
#include <csignal>

#include "interposed.h"
#include "tests/standard/wire/wire_support.h"

namespace {

using namespace h2test;

// Allocates nothing.
class QuietClient : public tiny::HttpClientInterface {
public:
    ~QuietClient() override { cancelRequest(); }
    void onSocketClosed() override { ++failures; }
    void onFailed(HTTP_ERROR) override { ++failures; }
    void onHeaderReceived(int, const HeaderDef*, size_t) override {}
    void onContentReceived(const char* data, size_t size, bool more) override {
        if (!liesInLastReceived(data, size)) ++copied;
        if (more) return;
        onLoop = allocationsOfThisThread();
        ended.add();
        if (++ends < startsUntil) startRequest(nullptr);
    }

    int startsUntil = 0;  // so many requests, each started by the end of the one before
    int ends = 0;
    Counter ended;
    Allocations onLoop;  // of the library's thread, at the last end
    std::atomic<int> failures{0};
    std::atomic<int> copied{0};  // pieces of content that were not where they were received
};

// Of a thousand requests, by chance: a frame arrives in two pieces for the first time, or the last
// request's memory is still in use when the next one starts.
constexpr size_t kOnce = 50;

class Memory : public BothTest {
protected:
    // Answers with some fields and content.
    Http2Options answering() const {
        return options([](const Request& request) {
            const std::string fields = hpackLiteral("server", "test") +
                                       hpackLiteral("date", "Sun, 22 Nov 2026 00:00:00 GMT") +
                                       hpackLiteral("set-cookie", std::string(100, 'c'));
            return answerHead(request.stream, 200, fields) +
                   data(request.stream, std::string(5000, 'x'), kEndStream);
        });
    }
    void prepare(QuietClient& client, const Http2Server& server) const {
        ASSERT_EQ(connect(client, server), 0);
        ASSERT_EQ(client.setUri("/a/path/of/some/length", HTTP_GET), 0);
        ASSERT_NE(client.addHeader("user-agent", "a test of some length", false), nullptr);
        ASSERT_NE(client.addHeader("authorization", std::string(100, 's').c_str(), true), nullptr);
    }
};
INSTANTIATE_TEST_SUITE_P(Process, Memory, testing::Bool(), protocolName);

TEST_P(Memory, IsNotTakenForRequestsStartedInCallbacks) {
    Http2Server server(answering());
    QuietClient client;
    prepare(client, server);
    Allocations before;
    for (const int until : {200, 400, 1400}) {
        before = client.onLoop;
        client.startsUntil = until;
        ASSERT_EQ(client.startRequest(nullptr), 0);
        ASSERT_TRUE(client.ended.waitAtLeast(static_cast<size_t>(until)));
    }
    EXPECT_LE(client.onLoop.calls - before.calls, kOnce);
    EXPECT_EQ(client.failures, 0);
}

TEST_P(Memory, IsNotTakenForRequestsStartedOnAThread) {
    Http2Server server(answering());
    QuietClient client;
    prepare(client, server);
    Allocations loopBefore;
    size_t calls = 0;
    for (size_t i = 0; i < 1200; ++i) {
        const size_t before = allocationsOfThisThread().calls;
        ASSERT_EQ(client.startRequest(nullptr), 0);
        if (i >= 200) calls += allocationsOfThisThread().calls - before;
        ASSERT_TRUE(client.ended.waitAtLeast(i + 1));
        if (i == 199) loopBefore = client.onLoop;
    }
    EXPECT_LE(calls, kOnce);
    EXPECT_LE(client.onLoop.calls - loopBefore.calls, kOnce);
    EXPECT_EQ(client.failures, 0);
}

TEST_P(Memory, BlockIsCopiedOnce) {
    Http2Server server(options(answerAll()));
    const std::string block = distinctBytes(8 << 20);
    QuietClient client;
    prepare(client, server);
    client.startsUntil = 0;
    ASSERT_TRUE(server.wire().waitFramesOf(0, kSettings, 2));  // the windows are known
    ASSERT_EQ(client.setUri("/", HTTP_POST), 0);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(client.ended.waitAtLeast(1));
    const size_t loopBefore = client.onLoop.bytes;
    const size_t before = allocationsOfThisThread().bytes;
    ASSERT_EQ(client.setContent(block.data(), block.size()), 0);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    // Some buffers, whatever the size; none on the way out.
    EXPECT_LT(allocationsOfThisThread().bytes - before, block.size() + (2 << 20));
    ASSERT_TRUE(client.ended.waitAtLeast(2));
    EXPECT_LT(client.onLoop.bytes - loopBefore, size_t{2} << 20);
    EXPECT_TRUE(server.requests().back().body == block);
}

// Each allocation of a client's life fails in turn, on the application's thread. The call throws,
// and then the client and the connection go on as if it had not been made.
TEST_P(Memory, RunningOutInACallLeavesTheClientUsable) {
    const std::string block(1000, 'b');
    constexpr long kEnough = 1'000'000;
    bool whole = false;
    for (long behind = 0; !whole; ++behind) {
        SCOPED_TRACE(behind);
        ASSERT_LT(behind, 1000);
        Http2Server server(answering());  // a new one, so that a connection is opened
        QuietClient client;
        bool started = false;
        failAllocationOfThisThreadBehind(behind);
        try {
            started = connect(client, server) == 0 && client.setUri("/", HTTP_POST) == 0 &&
                      client.addHeader("name", "a value of some length, really", true) != nullptr &&
                      client.setContent(block.data(), block.size()) == 0 &&
                      client.startRequest(nullptr) == 0;
        } catch (const std::bad_alloc&) {
        }
        whole = failAllocationOfThisThreadBehind(kEnough) >= 0;
        size_t ends = 0;
        if (started) {
            ASSERT_TRUE(client.ended.waitAtLeast(++ends));
        }
        ends = client.ended.count();
        client.clearClient();
        ASSERT_EQ(connect(client, server), 0) << getHttp2Text(&client, HTTP2_ERROR);
        ASSERT_EQ(client.setUri("/", HTTP_GET), 0);
        ASSERT_EQ(client.startRequest(nullptr), 0);
        ASSERT_TRUE(client.ended.waitAtLeast(ends + 1));
        EXPECT_EQ(client.failures, 0);
    }
}

class Content : public LibraryTest {};

TEST_F(Content, IsGivenWhereItWasReceived) {
    Http2Server server([](const Request& request) {
        std::string reply = answerHead(request.stream);
        for (int i = 0; i < 50; ++i) reply += data(request.stream, std::string(10000, 'x'));
        return reply + data(request.stream, "x", kEndStream);
    });
    QuietClient client;
    ASSERT_EQ(connectTo(client, server), 0);
    ASSERT_EQ(client.setUri("/", HTTP_GET), 0);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(client.ended.waitAtLeast(1));
    EXPECT_EQ(client.copied, 0);
}

// Its end starts a request whose answer needs memory, and there is none from then on.
class StarvingClient final : public QuietClient {
public:
    ~StarvingClient() override { cancelRequest(); }
    void onContentReceived(const char* data, size_t size, bool more) override {
        QuietClient::onContentReceived(data, size, more);
        setUri("/large", HTTP_GET);
        startRequest(nullptr);
        failAllocationsOfThisThread();
    }
};

using MemoryDeathTest = LibraryTest;

// Nothing of the library's is left in between two states: the process ends.
TEST_F(MemoryDeathTest, RunningOutOnTheBackgroundThreadEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            Http2Server server([](const Request& request) {
                const size_t size = request.field(":path") == "/" ? 1 : 100000;
                return answerHead(request.stream, 200, hpackLiteral("n", std::string(size, 'v'))) +
                       data(request.stream, "", kEndStream);
            });
            StarvingClient client;
            connectTo(client, server);
            client.setUri("/", HTTP_GET);
            client.startRequest(nullptr);
            if (client.ended.waitAtLeast(2)) std::exit(0);
        },
        testing::KilledBySignal(SIGABRT), "bad_alloc");
}

}  // namespace
