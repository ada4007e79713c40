// Makes one GET from each of many clients at once, each on a connection of its own.
//
// Usage: many_clients IP PORT PATH COUNT

#include <Http2Client/HttpClientInterface.h>
#include <Http2Client/error.h>
#include <Http2Client/httpClientApi.h>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "has_body.h"

namespace {

// Lets one thread wait until all requests have ended. Callbacks take its lock, so no thread may
// hold that lock while it calls the library: each function here releases it before it returns.
class Countdown {
public:
    void add() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        ++m_running;
    }
    void finish() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        --m_running;
        m_changed.notify_all();
    }
    bool wait(std::chrono::seconds limit) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, limit, [this] { return m_running == 0; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    size_t m_running = 0;
};

// The callbacks write the results. They are read when the request has ended or has been cancelled.
class Client : public tiny::HttpClientInterface {
public:
    explicit Client(Countdown* running) : m_running(running) {}
    ~Client() override { cancelRequest(); }

    bool start(const char* ip, uint16_t port, const char* path) {
        if (connectToServer(HTTP_2, ip, port) != 0) return false;
        setUri(path, HTTP_GET);
        addHeader("host", ip, false);
        m_running->add();  // before the first callback can come
        if (startRequest(nullptr) == 0) return true;
        m_running->finish();
        return false;
    }

    void onHeaderReceived(int status, const HeaderDef* headers, size_t count) override {
        m_status = status;
        if (!hasBody(status, headers, count)) finish(true);
    }
    void onContentReceived(const char*, size_t len, bool more) override {
        m_bytes += len;
        if (!more) finish(true);
    }
    void onFailed(HTTP_ERROR) override { finish(false); }
    void onSocketClosed() override { finish(false); }

    bool complete() const { return m_complete; }
    int status() const { return m_status; }
    size_t bytes() const { return m_bytes; }

private:
    // The first call counts: an empty body may be reported twice.
    void finish(bool complete) {
        if (m_ended) return;
        m_ended = true;
        m_complete = complete;
        m_running->finish();
    }

    Countdown* m_running;  // outlives this object
    bool m_ended = false;
    int m_status = 0;
    size_t m_bytes = 0;
    bool m_complete = false;
};

int run(char** arguments) {
    const auto port = static_cast<uint16_t>(std::atoi(arguments[2]));
    const int count = std::atoi(arguments[4]);
    Countdown running;
    std::vector<std::unique_ptr<Client>> clients;
    for (int i = 0; i < count; ++i) {
        clients.emplace_back(new Client(&running));
        if (!clients.back()->start(arguments[1], port, arguments[3])) {
            std::cerr << "client " << i << " cannot start\n";
        }
    }
    if (!running.wait(std::chrono::seconds(60))) std::cerr << "not all have ended in time\n";

    int incomplete = 0;
    for (int i = 0; i < count; ++i) {
        Client& client = *clients[static_cast<size_t>(i)];
        client.cancelRequest();  // no callback writes any more
        if (!client.complete()) ++incomplete;
        std::cerr << "client " << i << ": status " << client.status() << ", " << client.bytes()
                  << " bytes" << (client.complete() ? "" : ", incomplete") << "\n";
    }
    std::cerr << count - incomplete << " of " << count << " complete\n";
    return incomplete == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        std::cerr << "usage: many_clients IP PORT PATH COUNT\n";
        return 2;
    }
    std::signal(SIGPIPE, SIG_IGN);  // a lost connection must not end the process
    initHttp2Client(10);
    const int code = run(argv);
    destroyHttp2Client();
    return code;
}
