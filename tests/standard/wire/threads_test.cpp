// Many threads and many clients at once; every request ends in one way.
#include <atomic>
#include <random>
#include <thread>

#include "tests/standard/wire/wire_support.h"

namespace {

using namespace h2test;

// Counts how its requests end.
class CountingClient : public tiny::HttpClientInterface {
public:
    ~CountingClient() override { cancelRequest(); }
    void onSocketClosed() override { ++ends; }
    void onFailed(HTTP_ERROR) override { ++ends; }
    void onHeaderReceived(int, const HeaderDef*, size_t) override { ++headers; }
    void onContentReceived(const char*, size_t, bool more) override {
        if (!more) ++ends;
    }
    std::atomic<int> headers{0};
    std::atomic<int> ends{0};
};

class Threads : public BothTest {
protected:
    void SetUp() override {
        setHttp2Option(nullptr, HTTP2_BACKGROUND_THREADS, 3);
        BothTest::SetUp();
    }
    // A server that answers, refuses, resets, goes away and closes.
    Http2Options unreliable() {
        return options([this](const Request& request) {
            switch (m_count++ % 16) {
                case 1: return rstStream(request.stream, kRefusedStreamCode);
                case 3: return rstStream(request.stream, 2);
                case 5: return std::string();
                case 7: return answerHead(request.stream) + data(request.stream, "part");
                case 11:
                    return answer(request.stream) +
                           (m_count % 3 == 0 ? goaway(request.stream, kNoErrorCode) : "");
                default: return answer(request.stream, "whole");
            }
        });
    }

private:
    std::atomic<unsigned> m_count{0};
};
INSTANTIATE_TEST_SUITE_P(Many, Threads, testing::Bool(), protocolName);

TEST_P(Threads, RequestsCancelsAndDestruction) {
    Http2Server server(unreliable());
    constexpr int kThreads = 8, kRounds = 150;
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    std::atomic<int> stalled{0};
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&, thread] {
            std::minstd_rand random(static_cast<unsigned>(thread) + 1);
            std::vector<std::unique_ptr<CountingClient>> clients(8);
            for (int round = 0; round < kRounds; ++round) {
                auto& client = clients[random() % clients.size()];
                if (!client) {
                    client = std::make_unique<CountingClient>();
                    setHttp2Option(client.get(), HTTP2_OWN_CONNECTION, random() % 4 == 0);
                    setHttp2Option(client.get(), HTTP2_CONNECTIONS_PER_SERVER, 3);
                    if (connect(*client, server) != 0) ++stalled;
                    client->setUri("/", random() % 2 == 0 ? HTTP_GET : HTTP_POST);
                    if (random() % 2 == 0) client->setContent("abcdef", 6);
                }
                switch (random() % 4) {
                    case 0: client.reset(); break;
                    case 1: client->cancelRequest(); break;
                    default: client->startRequest(nullptr); break;
                }
            }
            // What still runs ends by its answer or by a cancel.
            for (auto& client : clients) {
                if (client) client->cancelRequest();
            }
        });
    }
    std::thread starter([&] {
        for (int i = 0; i < 20; ++i) {
            destroyHttp2Client();
            initHttp2Client(5);
        }
    });
    for (std::thread& thread : threads) thread.join();
    starter.join();
    EXPECT_EQ(stalled, 0);
    RecordingClient last;
    ASSERT_EQ(setHttp2Option(&last, HTTP2_OWN_CONNECTION, 1), 0);
    ASSERT_EQ(connect(last, server), 0);
    ASSERT_EQ(last.setUri("/", HTTP_GET), 0);
    for (int i = 0; i < 20; ++i) {
        last.clear();
        ASSERT_EQ(last.startRequest(nullptr), 0);
        if (!last.waitCallbacks(1, std::chrono::milliseconds(200))) last.cancelRequest();
        last.cancelRequest();
    }
}

TEST_P(Threads, ManyThreadsOnOneConnection) {
    Http2Server server(options(answerAll()));
    constexpr int kThreads = 8, kRequests = 100;
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    std::atomic<int> good{0};
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&] {
            CountingClient client;
            if (connect(client, server) != 0) return;
            client.setUri("/", HTTP_GET);
            for (int i = 0; i < kRequests; ++i) {
                int status = 0;
                std::map<std::string, std::string> fields;
                std::string body;
                const char* error = "";
                good += client.blockedRequest(status, fields, body, error, 60000) == 0 ? 1 : 0;
            }
            EXPECT_EQ(client.ends, kRequests);
            EXPECT_EQ(client.headers, kRequests);
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(good, kThreads * kRequests);
    EXPECT_EQ(server.wire().connections(), 1u);
}

}  // namespace
