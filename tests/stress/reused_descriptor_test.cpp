// Clients whose connections end all the time, so that the system gives their descriptors to other
// clients' connections at once.
#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/wire/wire_support.h"

namespace h2test {
namespace {

constexpr size_t kThreads = 6;
constexpr size_t kClientsPerThread = 4;
constexpr std::chrono::seconds kDuration(STRESS_SECONDS / 2);

// Answers one request on each connection when its body is complete, and closes the connection.
// Counts violations: a client must not affect another one's connection. Runs on the server's
// thread.
class OneAnswerServer {
public:
    OneAnswerServer() : m_server(options()) {}

    uint16_t port() const { return m_server.port(); }

    std::atomic<size_t> m_answers{0};
    std::atomic<size_t> m_earlyResets{0};    // of a request that has no answer yet
    std::atomic<size_t> m_strangeStarts{0};  // by a client that did not open the connection

private:
    ServerOptions options() {
        ServerOptions out;
        out.keepReceived = false;
        out.responder = [this](size_t index, const WireFrame& frame) {
            take(index, frame);
            return std::string();
        };
        return out;
    }
    void take(size_t index, const WireFrame& frame) {
        if (frame.type == kHeaders) {
            const std::string path = pathOf(frame);
            if (m_paths.emplace(index, path).first->second != path) ++m_strangeStarts;
        }
        if (frame.type == kRstStream && m_answered.count(index) == 0) ++m_earlyResets;
        if (frame.type != kData || !frame.hasFlags(kEndStream)) return;
        if (!m_answered.insert(index).second) return;
        ++m_answers;
        m_server.send(index, okResponse(frame.streamId));
        m_server.close(index);
    }

    std::map<size_t, std::string> m_paths;  // of each connection's first request
    std::set<size_t> m_answered;
    ScriptedServer m_server;  // last: its thread uses the others
};

// Its requests have a body of several pieces, so that a reset can overtake their end.
class Uploader {
public:
    explicit Uploader(std::string path) : m_path(std::move(path)) {}

    // True: the whole answer came.
    bool exchange(uint16_t port) {
        m_body.at = 0;
        m_client.clear();
        return m_client.connectToServer(HTTP_2, ScriptedServer::ip(), port) == 0 &&
               m_client.setUri(m_path.c_str(), HTTP_POST) == 0 &&
               m_client.setContent(&BodySource::read, &m_body) == 0 &&
               m_client.startRequest(nullptr) == 0 && m_client.waitEnd();
    }
    // Starts a request where the server is about to close the connection, or has done so.
    bool startOnTheFormerConnection() {
        m_body.at = 0;
        m_client.clear();
        const int result = m_client.startRequest(nullptr);
        return result == 2 || (result == 0 && m_client.waitClosed());
    }
    void cancel() { m_client.cancelRequest(); }

private:
    const std::string m_path;
    BodySource m_body{std::string(50'000, 'b')};
    RecordingClient m_client;  // last: its request uses the body
};

void work(size_t thread, uint16_t port, std::chrono::steady_clock::time_point end,
          std::atomic<size_t>& exchanges) {
    std::mt19937 random(static_cast<uint32_t>(thread));
    size_t made = 0;
    const auto make = [&] {
        return std::make_unique<Uploader>("/" + std::to_string(thread) + "/" +
                                          std::to_string(++made));
    };
    std::vector<std::unique_ptr<Uploader>> clients(kClientsPerThread);
    while (std::chrono::steady_clock::now() < end) {
        std::unique_ptr<Uploader>& client = clients[random() % clients.size()];
        if (!client) client = make();
        ASSERT_TRUE(client->exchange(port)) << "no answer";
        ++exchanges;
        switch (random() % 4) {
            case 0: client.reset(); break;
            case 1: client->cancel(); break;
            case 2: ASSERT_TRUE(client->startOnTheFormerConnection()); break;
            default: break;
        }
        // The others' connections are gone by now; what they do must not reach anybody's.
        std::unique_ptr<Uploader>& other = clients[random() % clients.size()];
        if (!other) continue;
        if (random() % 2 == 0) {
            other->cancel();
        } else {
            other.reset();
        }
    }
}

TEST(ReusedDescriptors, BelongToTheirLatestConnectionOnly) {
    const RunningLibrary library;
    OneAnswerServer server;
    std::atomic<size_t> exchanges{0};
    const auto end = std::chrono::steady_clock::now() + kDuration;
    std::vector<std::thread> threads;
    for (size_t i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] { work(i, server.port(), end, exchanges); });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_GT(exchanges, kThreads);
    EXPECT_EQ(server.m_answers, exchanges);
    EXPECT_EQ(server.m_earlyResets, 0U);
    EXPECT_EQ(server.m_strangeStarts, 0U);
    RecordProperty("exchanges", std::to_string(exchanges));
}

}  // namespace
}  // namespace h2test
