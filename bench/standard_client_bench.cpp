// What the standard edition's whole client does against a server on loopback.
//
//   standard_client_bench requests plain|tls PORT PATH CONNECTIONS STREAMS REQUESTS
//       so many GETs; each client starts its next one when its last has ended, in the callback
//   standard_client_bench download plain|tls PORT PATH
//       one GET
//   standard_client_bench upload plain|tls PORT PATH BYTES block|reader
//       one POST with a body of that size
//   standard_client_bench blocked plain|tls PORT PATH REQUESTS
//       so many blockedRequest() calls, one after the other
//   standard_client_bench threads plain|tls PORT PATH THREADS REQUESTS
//       so many GETs of each thread, one after the other, over one connection
//   standard_client_bench idle plain|tls PORT PATH CONNECTIONS SECONDS
//       one GET on each connection, and then nothing
//
// Prints figures to standard error, "name value" a line. Exits 1 when a request does not succeed.
// The server's certificate is not verified.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <semaphore>
#include <string>
#include <thread>
#include <vector>

#include "Http2Client/HttpClientInterface.h"
#include "Http2Client/httpClientApi.h"
#include "Http2ClientStandard/Http2ClientOptions.h"
#include "figures.h"

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr auto kLongest = std::chrono::seconds(60);
constexpr uint32_t kBlockedTimeout = 60000;  // milliseconds

double secondsSince(Clock::time_point start) { return Seconds(Clock::now() - start).count(); }

struct Target {
    HTTP_SCHEMA schema;
    uint16_t port;
    const char* path;
};

// The requests that are still to be started, and the clients that still run.
struct Work {
    std::atomic<int64_t> left{0};
    std::counting_semaphore<> ended{0};  // a client has nothing left to do

    void waitFor(size_t clients) {
        for (size_t i = 0; i < clients; ++i) {
            if (!ended.try_acquire_for(kLongest)) die("no answer");
        }
    }
};

class Client : public tiny::HttpClientInterface {
public:
    Client(const Target& target, Work& work) : m_work(work) {
        if (connectToServer(target.schema, "127.0.0.1", target.port) != 0) {
            die(getHttp2Text(this, HTTP2_ERROR));
        }
        setUri(target.path, HTTP_GET);
    }
    ~Client() override { cancelRequest(); }

    // Takes requests from the work until there are none left.
    void next() {
        if (m_work.left.fetch_sub(1, std::memory_order_relaxed) <= 0) {
            m_work.ended.release();
            return;
        }
        m_start = Clock::now();
        if (startRequest(nullptr) != 0) die(getHttp2Text(this, HTTP2_ERROR));
    }
    size_t received() const { return m_received; }
    std::vector<double>& latencies() { return m_latencies; }

    void onSocketClosed() override { die("connection lost"); }
    void onFailed(HTTP_ERROR /*err*/) override { die(getHttp2Text(this, HTTP2_ERROR)); }
    void onHeaderReceived(int status, const HeaderDef* /*headers*/, size_t /*count*/) override {
        if (status != 200) die("status is not 200");
    }
    void onContentReceived(const char* /*data*/, size_t len, bool more) override {
        m_received += len;
        if (more) return;
        m_latencies.push_back(secondsSince(m_start));
        next();
    }

private:
    Work& m_work;
    Clock::time_point m_start;
    size_t m_received = 0;
    std::vector<double> m_latencies;
};

using Clients = std::vector<std::unique_ptr<Client>>;

Clients makeClients(const Target& target, Work& work, size_t count) {
    Clients clients;
    for (size_t i = 0; i < count; ++i) clients.push_back(std::make_unique<Client>(target, work));
    return clients;
}

// Lets the clients make `requests` requests; returns the seconds that it took.
double run(Clients& clients, Work& work, size_t requests) {
    work.left = static_cast<int64_t>(requests);
    const Clock::time_point start = Clock::now();
    for (const auto& client : clients) client->next();
    work.waitFor(clients.size());
    return secondsSince(start);
}

void requests(const Target& target, size_t connections, size_t streams, size_t total) {
    setHttp2Option(nullptr, HTTP2_CONNECTIONS_PER_SERVER, static_cast<int64_t>(connections));
    Work work;
    Clients clients = makeClients(target, work, connections * streams);
    run(clients, work, clients.size());
    for (const auto& client : clients) client->latencies().clear();
    const Usage before;
    const double wall = run(clients, work, total);
    const Usage after;
    std::vector<double> latencies;
    for (const auto& client : clients) {
        latencies.insert(latencies.end(), client->latencies().begin(), client->latencies().end());
    }
    std::sort(latencies.begin(), latencies.end());
    report("requests_per_second", static_cast<double>(total) / wall);
    report("cpu_per_request", (after.cpu - before.cpu) / static_cast<double>(total));
    report("p50", percentile(latencies, 0.50));
    report("p99", percentile(latencies, 0.99));
}

void download(const Target& target) {
    Work work;
    Clients clients = makeClients(target, work, 1);
    const double wall = run(clients, work, 1);
    report("bytes_per_second", static_cast<double>(clients[0]->received()) / wall);
}

// The opaque is the number of bytes that are left.
int readBody(char* buffer, size_t length, void* opaque) {
    auto& left = *static_cast<size_t*>(opaque);
    const size_t count = std::min(length, left);
    std::fill_n(buffer, count, 'x');
    left -= count;
    return static_cast<int>(count);
}

void upload(const Target& target, size_t size, bool block) {
    Work work;
    Clients clients = makeClients(target, work, 1);
    clients[0]->setUri(target.path, HTTP_POST);
    size_t left = size;
    if (block) {
        clients[0]->setContent(std::string(size, 'x').data(), size);
    } else {
        clients[0]->setContent(readBody, &left);
    }
    const double wall = run(clients, work, 1);
    report("bytes_per_second", static_cast<double>(size) / wall);
}

void blocked(const Target& target, size_t requests) {
    Work work;
    Client client(target, work);
    std::vector<double> latencies;
    double cpu = 0;
    for (size_t i = 0; i <= requests; ++i) {
        if (i == 1) {  // the first opens the connection's windows
            latencies.clear();
            cpu = Usage().cpu;
        }
        int status = 0;
        std::map<std::string, std::string> headers;
        std::string content;
        const char* error = nullptr;
        const Clock::time_point start = Clock::now();
        if (client.blockedRequest(status, headers, content, error, kBlockedTimeout) != 0) {
            die(error);
        }
        latencies.push_back(secondsSince(start));
    }
    std::sort(latencies.begin(), latencies.end());
    report("cpu_per_request", (Usage().cpu - cpu) / static_cast<double>(requests));
    report("p50", percentile(latencies, 0.50));
    report("p99", percentile(latencies, 0.99));
}

void threads(const Target& target, size_t count, size_t requestsOfEach) {
    std::vector<std::unique_ptr<Work>> works;
    Clients clients;
    for (size_t i = 0; i < count; ++i) {
        works.push_back(std::make_unique<Work>());
        clients.push_back(std::make_unique<Client>(target, *works.back()));
    }
    const Usage before;
    const Clock::time_point start = Clock::now();
    std::vector<std::thread> running;
    for (size_t i = 0; i < count; ++i) {
        running.emplace_back([&, i] {
            for (size_t done = 0; done < requestsOfEach; ++done) {
                works[i]->left = 1;
                clients[i]->next();
                works[i]->waitFor(1);
            }
        });
    }
    for (std::thread& thread : running) thread.join();
    const auto total = static_cast<double>(count * requestsOfEach);
    report("requests_per_second", total / secondsSince(start));
    report("cpu_per_request", (Usage().cpu - before.cpu) / total);
}

void idle(const Target& target, size_t connections, double seconds) {
    setHttp2Option(nullptr, HTTP2_OWN_CONNECTION, 1);
    Work work;
    Clients first = makeClients(target, work, 1);  // what only the first one makes
    run(first, work, 1);
    const Usage empty;
    Clients clients = makeClients(target, work, connections);
    run(clients, work, connections);
    std::this_thread::sleep_for(Seconds(seconds));  // connections give memory back after a while
    const Usage before;
    std::this_thread::sleep_for(Seconds(seconds));
    const Usage after;
    report("cpu_per_second", (after.cpu - before.cpu) / seconds);
    report("switches_per_second", (after.switches - before.switches) / seconds);
    const auto added = static_cast<double>(connections);
    report("heap_per_connection", (before.heap - empty.heap) / added);
    report("memory_per_connection", (before.memory - empty.memory) / added);
}

bool runMode(const std::string& mode, const Target& target, char** arguments, int count) {
    const auto number = [&](int at) { return static_cast<size_t>(std::stoull(arguments[at])); };
    if (mode == "requests" && count == 3) {
        requests(target, number(0), number(1), number(2));
    } else if (mode == "download" && count == 0) {
        download(target);
    } else if (mode == "upload" && count == 2) {
        upload(target, number(0), std::string(arguments[1]) == "block");
    } else if (mode == "blocked" && count == 1) {
        blocked(target, number(0));
    } else if (mode == "threads" && count == 2) {
        threads(target, number(0), number(1));
    } else if (mode == "idle" && count == 2) {
        idle(target, number(0), std::stod(arguments[1]));
    } else {
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 5) {
        const Target target{std::string(argv[2]) == "tls" ? HTTPS_2 : HTTP_2,
                            static_cast<uint16_t>(std::stoul(argv[3])), argv[4]};
        setHttp2Option(nullptr, HTTP2_VERIFY, 0);
        initHttp2Client(0);
        if (runMode(argv[1], target, argv + 5, argc - 5)) {
            destroyHttp2Client();
            return 0;
        }
    }
    std::fprintf(stderr, "usage: see the head of bench/standard_client_bench.cpp\n");
    return 2;
}
