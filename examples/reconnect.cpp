// Makes a number of GETs one after another, and connects again when the connection is lost.
//
// Usage: reconnect IP PORT PATH COUNT
//
// A request whose connection is lost is made again. That is right for a GET; whether a POST may be
// made twice, only the application knows.

#include <Http2Client/HttpClientInterface.h>
#include <Http2Client/error.h>
#include <Http2Client/httpClientApi.h>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>

#include "has_body.h"

namespace {

class Client : public tiny::HttpClientInterface {
public:
    enum End { RUNNING, COMPLETE, LOST };

    ~Client() override { cancelRequest(); }

    // Opens a connection and describes the request.
    bool connect(const char* ip, uint16_t port, const char* path) {
        if (connectToServer(HTTP_2, ip, port) != 0) return false;
        clearClient();
        setUri(path, HTTP_GET);
        addHeader("host", ip, false);
        return true;
    }

    // Makes the request. LOST means: connect again.
    End get(std::chrono::seconds limit) {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_end = RUNNING;
            m_withoutBody = false;
            m_bytes = 0;
        }
        if (startRequest(nullptr) != 0) return LOST;  // the connection was lost before
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait_for(lock, limit, [this] { return m_end != RUNNING; });
        const End end = m_end;
        const bool cancel = m_end == RUNNING || m_withoutBody;  // a callback may still come
        lock.unlock();  // callbacks take it, and cancelRequest waits for a running callback
        if (cancel) cancelRequest();
        return end == RUNNING ? LOST : end;
    }

    int status() const { return m_status; }
    size_t bytes() const { return m_bytes; }

    void onHeaderReceived(int status, const HeaderDef* headers, size_t count) override {
        m_status = status;
        if (!hasBody(status, headers, count)) finish(COMPLETE, true);
    }
    void onContentReceived(const char*, size_t len, bool more) override {
        m_bytes += len;
        if (!more) finish(COMPLETE);
    }
    // After either of these two the connection is gone. The waiting thread connects again; a
    // callback must not.
    void onFailed(HTTP_ERROR) override { finish(LOST); }
    void onSocketClosed() override { finish(LOST); }

private:
    void finish(End end, bool withoutBody = false) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_end = end;
        if (withoutBody) m_withoutBody = true;
        m_changed.notify_all();
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    End m_end = RUNNING;
    bool m_withoutBody = false;
    int m_status = 0;  // these two are written while a request runs and read when none runs
    size_t m_bytes = 0;
};

// Tries five times, with a longer pause after each failure to connect.
bool getWithRetries(Client& client, bool& connected, char** arguments) {
    const auto port = static_cast<uint16_t>(std::atoi(arguments[2]));
    std::chrono::milliseconds pause(100);
    for (int attempt = 0; attempt < 5; ++attempt) {
        if (!connected) connected = client.connect(arguments[1], port, arguments[3]);
        if (!connected) {
            std::cerr << "cannot connect\n";
            std::this_thread::sleep_for(pause);
            pause *= 2;
            continue;
        }
        if (client.get(std::chrono::seconds(30)) == Client::COMPLETE) return true;
        std::cerr << "connection lost\n";
        connected = false;
    }
    return false;
}

int run(char** arguments) {
    const int count = std::atoi(arguments[4]);
    Client client;
    bool connected = false;
    for (int i = 1; i <= count; ++i) {
        if (!getWithRetries(client, connected, arguments)) {
            std::cerr << "request " << i << ": given up\n";
            return 1;
        }
        std::cerr << "request " << i << ": status " << client.status() << ", " << client.bytes()
                  << " bytes\n";
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        std::cerr << "usage: reconnect IP PORT PATH COUNT\n";
        return 2;
    }
    std::signal(SIGPIPE, SIG_IGN);  // a lost connection must not end the process
    initHttp2Client(10);
    const int code = run(argv);
    destroyHttp2Client();
    return code;
}
