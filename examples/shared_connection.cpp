// Makes one GET from each of many clients at once, all on one connection. Standard edition only: in
// the exact one each client has a connection of its own.
//
// Usage: shared_connection IP PORT PATH COUNT

#include <Http2Client/HttpClientInterface.h>
#include <Http2Client/error.h>
#include <Http2Client/httpClientApi.h>
#include <Http2Client/Http2ClientOptions.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <mutex>
#include <vector>

namespace {

// Lets one thread wait until all requests have ended.
class Countdown {
public:
    explicit Countdown(int running) : m_running(running) {}
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
    int m_running;
};

class Client : public tiny::HttpClientInterface {
public:
    explicit Client(Countdown* running) : m_running(running) {}
    ~Client() override { cancelRequest(); }

    // The first client opens a connection, the others join it.
    bool start(const char* ip, uint16_t port, const char* path) {
        if (connectToServer(HTTP_2, ip, port) != 0) return false;
        setUri(path, HTTP_GET);
        return startRequest(nullptr) == 0;
    }
    bool opened() { return getHttp2Number(this, HTTP2_SHARED) == 0; }
    bool complete() const { return m_complete; }

    void onHeaderReceived(int, const HeaderDef*, size_t) override {}
    void onContentReceived(const char*, size_t, bool more) override {
        if (more) return;
        m_complete = true;
        m_running->finish();
    }
    // Exactly one of these ends a request.
    void onFailed(HTTP_ERROR) override { m_running->finish(); }
    void onSocketClosed() override { m_running->finish(); }

private:
    Countdown* m_running;     // outlives this object
    bool m_complete = false;  // read when the request has ended or has been cancelled
};

int run(char** arguments) {
    const auto port = static_cast<uint16_t>(std::atoi(arguments[2]));
    const int count = std::atoi(arguments[4]);
    Countdown running(count);
    std::vector<std::unique_ptr<Client>> clients;
    for (int i = 0; i < count; ++i) {
        clients.emplace_back(new Client(&running));
        if (!clients.back()->start(arguments[1], port, arguments[3])) {
            std::cerr << "client " << i << ": " << getHttp2Text(clients.back().get(), HTTP2_ERROR)
                      << "\n";
            running.finish();
        }
    }
    if (!running.wait(std::chrono::seconds(60))) std::cerr << "not all have ended in time\n";

    int complete = 0;
    int connections = 0;
    for (const std::unique_ptr<Client>& client : clients) {
        client->cancelRequest();  // no callback writes any more
        if (client->complete()) ++complete;
        if (client->opened()) ++connections;
    }
    std::cout << complete << " of " << count << " complete, connections: " << connections << "\n";
    return complete == count ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        std::cerr << "usage: shared_connection IP PORT PATH COUNT\n";
        return 2;
    }
    initHttp2Client(10);
    const int code = run(argv);
    destroyHttp2Client();
    return code;
}
