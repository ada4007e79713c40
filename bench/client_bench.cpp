// What the whole client does against a server on loopback, through its public interface.
//
//   client_bench get PORT PATH CONNECTIONS REQUESTS PAUSE
//                                                      so many GETs, one after the other on each
//                                                      connection, or PAUSE ms after the other
//   client_bench download plain|tls PORT PATH BYTES    one GET with a body of that size
//   client_bench idle plain|tls PORT PATH CONNECTIONS REQUESTS SECONDS
//                                                      so many GETs on each connection, and then
//                                                      nothing
//
// Prints figures to standard error, "name value" a line: standard output has the library's own
// lines. Exits 1 when a request does not succeed.
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Http2Client/HttpClientInterface.h"
#include "Http2Client/httpClientApi.h"
#include "calls.h"
#include "figures.h"

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr unsigned int kPollTime = 100;  // milliseconds
constexpr auto kGatherTime = std::chrono::microseconds(500);

class Client;

// The clients whose requests have ended, for the thread that starts them.
class Finished {
public:
    void add(Client* client) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_clients.push_back(client);
        m_changed.notify_one();
    }
    // Waits for at least one. To gather is to let the poll step end that may bring more: woken for
    // each of them, this thread would fight for the library's lock with the poll thread.
    std::vector<Client*> take(bool gather) {
        if (gather) std::this_thread::sleep_for(kGatherTime);
        std::unique_lock<std::mutex> lock(m_mutex);
        const auto some = [this] { return !m_clients.empty(); };
        if (!m_changed.wait_for(lock, std::chrono::seconds(60), some)) die("no answer");
        return std::exchange(m_clients, {});
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<Client*> m_clients;
};

class Client : public tiny::HttpClientInterface {
public:
    Client(Finished& finished, HTTP_SCHEMA schema, const std::string& port, const char* path)
        : m_finished(finished) {
        const auto number = static_cast<uint16_t>(std::stoul(port));
        if (connectToServer(schema, "127.0.0.1", number) != 0) die("cannot connect");
        setUri(path, HTTP_GET);
        addHeader("host", "127.0.0.1", false);
    }
    ~Client() override { cancelRequest(); }

    void start() {
        m_received = 0;
        m_steps = pollSteps();
        m_start = Clock::now();
        if (startRequest(nullptr) != 0) die("cannot start a request");
    }
    double latency() const { return Seconds(m_end - m_start).count(); }
    // How many poll steps began between the start of the last request and its end.
    double steps() const { return static_cast<double>(m_steps); }
    size_t received() const { return m_received; }

    void onSocketClosed() override { die("connection lost"); }
    void onFailed(HTTP_ERROR /*err*/) override { die("request failed"); }
    void onHeaderReceived(int status, const HeaderDef* /*headers*/, size_t /*count*/) override {
        if (status != 200) die("status is not 200");
    }
    void onContentReceived(const char* /*data*/, size_t len, bool more) override {
        m_received += len;
        if (more) return;
        m_end = Clock::now();
        m_steps = pollSteps() - m_steps;
        m_finished.add(this);
    }

private:
    Finished& m_finished;
    // Written by the one thread before the request starts, by the other until it has ended.
    Clock::time_point m_start;
    Clock::time_point m_end;
    uint64_t m_steps = 0;
    size_t m_received = 0;
};

using Clients = std::vector<std::unique_ptr<Client>>;

Clients connectAll(Finished& finished, HTTP_SCHEMA schema, const std::string& port,
                   const char* path, size_t count) {
    Clients clients;
    for (size_t i = 0; i < count; ++i) {
        clients.push_back(std::make_unique<Client>(finished, schema, port, path));
    }
    return clients;
}

struct Times {
    std::vector<double> latencies;  // seconds, sorted
    std::vector<double> steps;      // sorted
};

// Starts `total` requests, each client's next one when its last has ended and `pause` has gone by.
Times runAll(Finished& finished, const Clients& clients, size_t total, Seconds pause = {}) {
    Times times;
    size_t started = 0;
    for (; started < std::min(total, clients.size()); ++started) clients[started]->start();
    while (times.latencies.size() < total) {
        for (Client* client : finished.take(clients.size() > 1)) {
            times.latencies.push_back(client->latency());
            times.steps.push_back(client->steps());
            if (started == total) continue;
            if (pause > Seconds(0)) std::this_thread::sleep_for(pause);
            client->start();
            ++started;
        }
    }
    std::sort(times.latencies.begin(), times.latencies.end());
    std::sort(times.steps.begin(), times.steps.end());
    return times;
}

void get(const std::string& port, const char* path, size_t connections, size_t requests,
         double pause) {
    Finished finished;
    const Clients clients = connectAll(finished, HTTP_2, port, path, connections);
    runAll(finished, clients, connections);  // the preface and SETTINGS go out once
    const uint64_t sendsBefore = sends();
    const Clock::time_point start = Clock::now();
    const Times times = runAll(finished, clients, requests, Seconds(pause / 1000));
    const double wall = Seconds(Clock::now() - start).count();
    const auto count = static_cast<double>(requests);
    report("requests_per_second", count / wall);
    report("sends_per_request", static_cast<double>(sends() - sendsBefore) / count);
    report("p50", percentile(times.latencies, 0.50));
    report("p99", percentile(times.latencies, 0.99));
    report("steps_p50", percentile(times.steps, 0.50));
    report("steps_p99", percentile(times.steps, 0.99));
}

void download(HTTP_SCHEMA schema, const std::string& port, const char* path, size_t size) {
    Finished finished;
    const Clients clients = connectAll(finished, schema, port, path, 1);
    const Times times = runAll(finished, clients, 1);
    if (clients[0]->received() != size) die("the body has another size");
    report("bytes_per_second", static_cast<double>(size) / times.latencies[0]);
}

void idle(HTTP_SCHEMA schema, const std::string& port, const char* path, size_t connections,
          size_t requests, double seconds) {
    Finished finished;
    Clients clients = connectAll(finished, schema, port, path, 1);  // what only the first one makes
    runAll(finished, clients, requests);
    const Usage empty;
    Clients others = connectAll(finished, schema, port, path, connections - 1);
    runAll(finished, others, requests * others.size());
    const Usage before;
    const auto steps = static_cast<double>(pollSteps());
    const auto sent = static_cast<double>(sends());
    const Clock::time_point start = Clock::now();
    std::this_thread::sleep_for(Seconds(seconds));
    const double wall = Seconds(Clock::now() - start).count();
    const Usage after;
    report("cpu_per_second", (after.cpu - before.cpu) / wall);
    report("switches_per_second", (after.switches - before.switches) / wall);
    report("steps_per_second", (static_cast<double>(pollSteps()) - steps) / wall);
    report("sends_per_second", (static_cast<double>(sends()) - sent) / wall);
    if (others.empty()) return;
    const auto added = static_cast<double>(others.size());
    report("heap_per_connection", (before.heap - empty.heap) / added);
    report("memory_per_connection", (before.memory - empty.memory) / added);
}

HTTP_SCHEMA schemaOf(const std::string& name) { return name == "tls" ? HTTPS_2 : HTTP_2; }

}  // namespace

int main(int argc, char** argv) {
    const std::string mode = argc >= 6 && argc <= 8 ? argv[1] : "";
    initHttp2Client(kPollTime);
    if (mode == "get" && argc == 7) {
        get(argv[2], argv[3], std::stoul(argv[4]), std::stoul(argv[5]), std::stod(argv[6]));
    } else if (mode == "download" && argc == 6) {
        download(schemaOf(argv[2]), argv[3], argv[4], std::stoul(argv[5]));
    } else if (mode == "idle" && argc == 8) {
        idle(schemaOf(argv[2]), argv[3], argv[4], std::stoul(argv[5]), std::stoul(argv[6]),
             std::stod(argv[7]));
    } else {
        std::fprintf(stderr, "usage: see the head of bench/client_bench.cpp\n");
        return 2;
    }
    destroyHttp2Client();
    return 0;
}
