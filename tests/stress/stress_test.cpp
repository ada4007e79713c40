// Application threads that do everything at once, against servers that do anything, one of them
// over TLS.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "Http2Client/HttpClientInterface.h"
#include "Http2Client/httpClientApi.h"
#include "random_server.h"
#include "tests/support/capture.h"
#include "tests/support/scripted_server.h"
#include "tests/support/wait.h"

namespace h2test {
namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kThreads = 8;
constexpr size_t kClientsPerThread = 8;
constexpr std::chrono::seconds kDuration(STRESS_SECONDS);
constexpr std::chrono::seconds kNoProgress(60);

// What has happened, over all clients.
struct Totals {
    std::atomic<uint64_t> started{0};
    std::atomic<uint64_t> answered{0};
    std::atomic<uint64_t> answeredOverTls{0};  // of them
    std::atomic<uint64_t> failed{0};
    std::atomic<uint64_t> closed{0};
    std::atomic<uint64_t> withdrawn{0};
    std::atomic<uint64_t> blocked{0};
    std::atomic<uint64_t> wrong{0};  // callbacks that must not happen
    std::atomic<uint64_t> steps{0};
};

Totals totals;

struct Servers {
    explicit Servers(uint32_t seed) : plain(seed, false), tls(seed, true) {}
    RandomServer plain;
    RandomServer tls;
};

// Counts its callbacks. Each accepted request ends once: answered, failed, closed, or withdrawn.
class StressClient : public tiny::HttpClientInterface {
public:
    ~StressClient() override { withdraw(); }

    void onSocketClosed() override {
        m_connected = false;
        end(totals.closed);
    }
    void onFailed(HTTP_ERROR err) override {
        if (err != ERR_FETAL) ++totals.wrong;
        m_connected = false;
        end(totals.failed);
    }
    void onHeaderReceived(int status, const HeaderDef* headers, size_t count) override {
        if (!m_running || status != 200 || count != 2 || headers == nullptr) ++totals.wrong;
    }
    void onContentReceived(const char* data, size_t len, bool more) override {
        if (!m_running || (len != 0 && data == nullptr)) ++totals.wrong;
        if (more) return;
        if (m_tls) ++totals.answeredOverTls;
        end(totals.answered);
    }

    void connect(const Servers& servers, bool tls) {
        withdraw();
        m_tls = tls;
        m_connected = connectToServer(tls ? HTTPS_2 : HTTP_2, "127.0.0.1",
                                      (tls ? servers.tls : servers.plain).port()) == 0;
    }

    void start(bool post) {
        if (!m_connected || m_running) return;
        describe(post);
        m_running = true;
        const int result = startRequest(nullptr);
        if (result == 0) {
            ++totals.started;
            return;
        }
        m_running = false;
        if (result != 2) ++totals.wrong;
        m_connected = false;
    }

    void block(bool post) {
        if (!m_connected || m_running) return;
        describe(post);
        int status = 0;
        std::map<std::string, std::string> headers;
        std::string content;
        const char* message = nullptr;
        m_running = true;
        const uint64_t ends = m_ends;
        const int result = blockedRequest(status, headers, content, message, 30);
        m_running = false;
        ++totals.blocked;
        if (result < 0 || result > 3 || m_ends > ends + 1) ++totals.wrong;
        if (result == 0 && (status != 200 || content.substr(content.size() - 3) != "end") &&
            content.size() != 200'000) {
            ++totals.wrong;
        }
        if (result != 0) m_connected = false;
    }

    void withdraw() {
        cancelRequest();
        if (m_running.exchange(false)) ++totals.withdrawn;
    }

    bool connected() const { return m_connected; }
    bool running() const { return m_running; }

private:
    void describe(bool post) {
        clearClient();
        setUri("/stress", post ? HTTP_POST : HTTP_GET);
        addHeader("host", "stress", false);
        m_bodyLeft = 50'000;
        if (post) setContent(readBody, this);
    }

    static int readBody(char* buffer, size_t length, void* opaque) {
        auto* client = static_cast<StressClient*>(opaque);
        const size_t count = std::min(length, client->m_bodyLeft);
        std::fill_n(buffer, count, 'b');
        client->m_bodyLeft -= count;
        return static_cast<int>(count);
    }

    void end(std::atomic<uint64_t>& kind) {
        ++m_ends;
        ++kind;
        if (!m_running.exchange(false)) ++totals.wrong;
    }

    std::atomic<bool> m_tls{false};
    std::atomic<bool> m_connected{false};
    std::atomic<bool> m_running{false};
    std::atomic<uint64_t> m_ends{0};
    size_t m_bodyLeft = 0;
};

struct Worker {
    std::vector<std::unique_ptr<StressClient>> clients;
    std::atomic<const char*> doing{"starting"};
};

void work(Worker& worker, uint32_t seed, const Servers& servers, Clock::time_point end) {
    std::mt19937 random(seed);
    const auto connect = [&](StressClient& client) { client.connect(servers, random() % 4 == 0); };
    while (Clock::now() < end) {
        std::unique_ptr<StressClient>& client = worker.clients[random() % kClientsPerThread];
        switch (random() % 64) {
            case 0:
            case 1:
                worker.doing = "connecting";
                connect(*client);
                break;
            case 2:
                worker.doing = "cancelling";
                client->withdraw();
                break;
            case 3:
                worker.doing = "blocked";
                client->block(random() % 2 == 0);
                break;
            case 4:
                worker.doing = "destroying";
                client.reset();
                client = std::make_unique<StressClient>();
                worker.doing = "connecting";
                connect(*client);
                break;
            case 5:
                worker.doing = "pausing";
                std::this_thread::sleep_for(std::chrono::milliseconds(random() % 5));
                break;
            default:
                worker.doing = "starting a request";
                if (client->running()) {
                    std::this_thread::sleep_for(std::chrono::microseconds(200));
                    break;
                }
                if (!client->connected()) connect(*client);
                client->start(random() % 3 == 0);
                break;
        }
        ++totals.steps;
    }
    worker.doing = "done";
}

// Ends the process when there is no progress, and prints what each thread does.
void watch(const std::vector<Worker>& workers, const std::atomic<bool>& over) {
    uint64_t seen = 0;
    auto moved = Clock::now();
    while (!over) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        if (totals.steps != seen) {
            seen = totals.steps;
            moved = Clock::now();
        }
        if (Clock::now() - moved < kNoProgress) continue;
        std::fprintf(stderr, "no progress after %llu steps\n",
                     static_cast<unsigned long long>(seen));
        for (const Worker& worker : workers) std::fprintf(stderr, "  %s\n", worker.doing.load());
        std::abort();
    }
}

TEST(Stress, EveryRequestEndsOnceWhateverHappensMeanwhile) {
    const NullCout quiet;
    ignoreSigpipe();
    const uint32_t seed = std::random_device{}();
    std::fprintf(stderr, "seed %u, %d s\n", seed, STRESS_SECONDS);
    auto servers = std::make_unique<Servers>(seed);
    initHttp2Client(5);

    std::vector<Worker> workers(kThreads);
    for (Worker& worker : workers) {
        for (size_t i = 0; i < kClientsPerThread; ++i) {
            worker.clients.push_back(std::make_unique<StressClient>());
        }
    }
    std::atomic<bool> over{false};
    std::thread watchdog([&] { watch(workers, over); });
    const auto end = Clock::now() + kDuration;
    std::vector<std::thread> threads;
    for (uint32_t i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] { work(workers[i], seed + 1 + i, *servers, end); });
    }
    // Meanwhile the library stops and starts again.
    while (Clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        EXPECT_EQ(destroyHttp2Client(), 1);
        EXPECT_EQ(initHttp2Client(5), 1);
    }
    for (std::thread& thread : threads) thread.join();
    over = true;
    watchdog.join();

    servers.reset();  // every connection ends, and with it every request
    for (const Worker& worker : workers) {
        for (const auto& client : worker.clients) {
            EXPECT_TRUE(waitFor([&] { return !client->running(); }));
        }
    }
    for (Worker& worker : workers) worker.clients.clear();
    destroyHttp2Client();

    std::fprintf(stderr,
                 "%llu steps; %llu started, %llu blocked; %llu answered (%llu over TLS), "
                 "%llu failed, %llu closed, %llu withdrawn\n",
                 static_cast<unsigned long long>(totals.steps),
                 static_cast<unsigned long long>(totals.started),
                 static_cast<unsigned long long>(totals.blocked),
                 static_cast<unsigned long long>(totals.answered),
                 static_cast<unsigned long long>(totals.answeredOverTls),
                 static_cast<unsigned long long>(totals.failed),
                 static_cast<unsigned long long>(totals.closed),
                 static_cast<unsigned long long>(totals.withdrawn));
    EXPECT_EQ(totals.wrong, 0U);
    EXPECT_GT(totals.answeredOverTls, 0U);
    EXPECT_GT(totals.answered, totals.answeredOverTls);
    EXPECT_GT(totals.failed, 0U);
    EXPECT_GT(totals.closed, 0U);
    // A blocked request may end without a callback: it could not start, or its time was over.
    const uint64_t ends = totals.answered + totals.failed + totals.closed + totals.withdrawn;
    EXPECT_GE(ends, totals.started);
    EXPECT_LE(ends, totals.started + totals.blocked);
}

}  // namespace
}  // namespace h2test
