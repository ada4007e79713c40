// Many clients at once, from several threads.
#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "wire_support.h"

namespace h2test {
namespace {

constexpr size_t kThreads = 8;

// Runs `work` with the numbers from 0 on, each on a thread of its own, and waits for all.
template <typename Work>
void onThreads(size_t count, Work work) {
    std::vector<std::thread> threads;
    for (size_t i = 0; i < count; ++i) threads.emplace_back([&work, i] { work(i); });
    for (std::thread& thread : threads) thread.join();
}

std::string pathFor(size_t thread, size_t client, size_t round) {
    return "/" + std::to_string(thread) + "/" + std::to_string(client) + "/" +
           std::to_string(round);
}

class ManyClients : public OverEachTransport {
protected:
    ServerOptions answering(Responder responder) {
        ServerOptions options = serverOptions(m_tls);
        options.responder = std::move(responder);
        return options;
    }
};
H2TEST_OVER_EACH_TRANSPORT(ManyClients);

TEST_P(ManyClients, EachGetsItsOwnAnswers) {
    constexpr size_t kClients = 8;  // a thread; 64 in all
    constexpr size_t kRounds = 5;
    ScriptedServer server(answering(echoPath));
    std::atomic<size_t> answers{0};
    onThreads(kThreads, [&](size_t thread) {
        std::vector<std::unique_ptr<RecordingClient>> clients;
        for (size_t i = 0; i < kClients; ++i) {
            clients.push_back(std::make_unique<RecordingClient>());
            ASSERT_EQ(connectTo(*clients.back(), server, m_tls), 0);
        }
        for (size_t round = 0; round < kRounds; ++round) {
            for (size_t i = 0; i < kClients; ++i) {
                clients[i]->clear();
                ASSERT_EQ(clients[i]->setUri(pathFor(thread, i, round).c_str(), HTTP_GET), 0);
                ASSERT_EQ(clients[i]->startRequest(nullptr), 0);
            }
            for (size_t i = 0; i < kClients; ++i) {
                ASSERT_TRUE(clients[i]->waitEnd());
                ASSERT_EQ(clients[i]->callbacks(), okCallbacks(pathFor(thread, i, round)));
                ++answers;
            }
        }
    });
    EXPECT_EQ(answers, kThreads * kClients * kRounds);
    // One connection for each client, its requests on streams 1, 3, 5 and so on.
    ASSERT_EQ(server.connections(), kThreads * kClients);
    for (size_t index = 0; index < server.connections(); ++index) {
        uint32_t streamId = 1;
        for (const WireFrame& frame : server.frames(index, kHeaders)) {
            ASSERT_EQ(frame.streamId, streamId);
            streamId += 2;
        }
        ASSERT_EQ(streamId, 1 + 2 * kRounds);
    }
}

TEST_P(ManyClients, EachGetsItsOwnEnd) {
    constexpr size_t kClients = 8;
    // What becomes of a request is up to its path.
    ScriptedServer server(answering([](size_t, const WireFrame& frame) {
        const std::string path = pathOf(frame);
        if (path == "/ok") return okResponse(frame.streamId);
        if (path == "/reset") return rstStream(frame.streamId, 2);
        if (path == "/goaway") return goaway(0, 0);
        if (path == "/unknown") return h2test::frame(0x20, 0, 0, "");
        return std::string();
    }));
    const std::vector<std::pair<std::string, std::vector<Callback>>> ends = {
        {"/ok", okCallbacks()},
        {"/reset", {Callback::failed(ERR_FETAL)}},
        {"/goaway", {Callback::closed()}},
        {"/unknown", {Callback::failed(ERR_FETAL)}},
    };
    onThreads(kThreads, [&](size_t thread) {
        std::vector<std::unique_ptr<RecordingClient>> clients;
        for (size_t i = 0; i < kClients; ++i) {
            clients.push_back(std::make_unique<RecordingClient>());
            ASSERT_EQ(connectTo(*clients.back(), server, m_tls), 0);
            const auto& end = ends[(thread + i) % ends.size()];
            ASSERT_EQ(clients.back()->setUri(end.first.c_str(), HTTP_GET), 0);
            ASSERT_EQ(clients.back()->startRequest(nullptr), 0);
        }
        for (size_t i = 0; i < kClients; ++i) {
            const auto& end = ends[(thread + i) % ends.size()];
            ASSERT_TRUE(clients[i]->waitCallbacks(end.second.size()));
            EXPECT_EQ(clients[i]->callbacks(), end.second) << end.first;
        }
    });
}

TEST_P(ManyClients, BlockedOnesWaitSideBySide) {
    ScriptedServer server(answering(echoPath));
    std::atomic<size_t> complete{0};
    onThreads(kThreads, [&](size_t thread) {
        RecordingClient client;
        ASSERT_EQ(connectTo(client, server, m_tls), 0);
        for (size_t round = 0; round < 5; ++round) {
            const std::string path = pathFor(thread, 0, round);
            ASSERT_EQ(client.setUri(path.c_str(), HTTP_GET), 0);
            int status = 0;
            std::map<std::string, std::string> headerMap;
            std::string content;
            const char* errMsg = nullptr;
            ASSERT_EQ(client.blockedRequest(status, headerMap, content, errMsg, 4'000'000), 0);
            EXPECT_EQ(status, 200);
            EXPECT_EQ(content, path);
            ++complete;
        }
    });
    EXPECT_EQ(complete, kThreads * 5);
}

TEST_P(ManyClients, ComeAndGoWhileOthersRun) {
    ScriptedServer server(answering(echoPath));
    std::atomic<size_t> answers{0};
    onThreads(kThreads, [&](size_t thread) {
        for (size_t round = 0; round < 10; ++round) {
            RecordingClient client;
            ASSERT_EQ(connectTo(client, server, m_tls), 0);
            const std::string path = pathFor(thread, 0, round);
            ASSERT_EQ(client.setUri(path.c_str(), HTTP_GET), 0);
            ASSERT_EQ(client.startRequest(nullptr), 0);
            if ((thread + round) % 3 == 0) continue;  // destroyed at some point of its exchange
            ASSERT_TRUE(client.waitEnd());
            ASSERT_EQ(client.callbacks(), okCallbacks(path));
            ++answers;
        }
    });
    EXPECT_EQ(answers, 53u);  // 80, less every third
}

TEST_P(ManyClients, UploadSideBySide) {
    // The answer is what came: streams may be mixed in time, never in content.
    std::map<size_t, std::string> bodies;  // by connection; used by the server's thread alone
    ScriptedServer server(answering([&bodies](size_t index, const WireFrame& frame) {
        if (frame.type != kData) return std::string();
        bodies[index] += frame.payload;
        return frame.hasFlags(kEndStream) ? okResponse(frame.streamId, bodies[index])
                                          : std::string();
    }));
    onThreads(kThreads, [&](size_t thread) {
        BodySource body(distinctBytes(100'000 + thread * 4) + std::to_string(thread));
        RecordingClient client;
        ASSERT_EQ(connectTo(client, server, m_tls), 0);
        ASSERT_EQ(client.setUri("/", HTTP_POST), 0);
        ASSERT_EQ(client.setContent(&BodySource::read, &body), 0);
        ASSERT_EQ(client.startRequest(nullptr), 0);
        ASSERT_TRUE(client.waitEnd());
        EXPECT_TRUE(client.callbacks().back() == Callback::content(body.bytes, false));
    });
}

}  // namespace
}  // namespace h2test
