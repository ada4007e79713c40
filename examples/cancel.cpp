// Cancels a download when enough of it has come, and makes another request on the same connection.
//
// Usage: cancel IP PORT PATH BYTES NEXT_PATH

#include <Http2Client/HttpClientInterface.h>
#include <Http2Client/error.h>
#include <Http2Client/httpClientApi.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <mutex>

#include "has_body.h"

namespace {

class Client : public tiny::HttpClientInterface {
public:
    enum End { RUNNING, COMPLETE, LOST };

    ~Client() override { cancelRequest(); }

    // Starts a request for which wait() returns when `enough` bytes of its body have come.
    bool start(const char* path, size_t enough) {
        // After an answer without a body the request counts as running: a callback may still come.
        if (m_withoutBody) cancelRequest();
        setUri(path, HTTP_GET);
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_enough = enough;
            m_bytes = 0;
            m_withoutBody = false;
            m_end = RUNNING;
        }
        return startRequest(nullptr) == 0;
    }

    // Waits until enough has come or the request has ended.
    End wait(std::chrono::seconds limit) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait_for(lock, limit, [this] { return m_end != RUNNING || m_bytes >= m_enough; });
        return m_end;
    }

    size_t bytes() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_bytes;
    }

    void onHeaderReceived(int status, const HeaderDef* headers, size_t count) override {
        if (hasBody(status, headers, count)) return;
        m_withoutBody = true;
        finish(COMPLETE);
    }
    // A callback must not call cancelRequest: it wakes the thread that does.
    void onContentReceived(const char*, size_t len, bool more) override {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_bytes += len;
            m_changed.notify_all();
        }
        if (!more) finish(COMPLETE);
    }
    void onFailed(HTTP_ERROR) override { finish(LOST); }
    void onSocketClosed() override { finish(LOST); }

private:
    void finish(End end) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_end = end;
        m_changed.notify_all();
    }

    std::mutex m_mutex;  // guards what follows
    std::condition_variable m_changed;
    size_t m_enough = 0;
    size_t m_bytes = 0;
    End m_end = RUNNING;
    std::atomic<bool> m_withoutBody{false};
};

int run(char** arguments) {
    Client client;
    const auto port = static_cast<uint16_t>(std::atoi(arguments[2]));
    if (client.connectToServer(HTTP_2, arguments[1], port) != 0) {
        std::cerr << "cannot connect\n";
        return 1;
    }
    client.addHeader("host", arguments[1], false);

    const size_t enough = std::strtoul(arguments[4], nullptr, 10);
    if (!client.start(arguments[3], enough)) return 1;
    const Client::End end = client.wait(std::chrono::seconds(30));
    if (end == Client::LOST) {
        std::cerr << "connection lost\n";
        return 1;
    }
    if (end == Client::RUNNING) {
        // The server is told to stop. Once this has returned, no callback follows.
        client.cancelRequest();
        std::cerr << "cancelled after " << client.bytes() << " bytes\n";
    } else {
        std::cerr << "complete with " << client.bytes() << " bytes\n";
    }

    if (!client.start(arguments[5], static_cast<size_t>(-1))) return 1;
    if (client.wait(std::chrono::seconds(30)) != Client::COMPLETE) {
        std::cerr << "the second request did not end\n";
        return 1;
    }
    std::cerr << "then " << client.bytes() << " bytes\n";
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 6) {
        std::cerr << "usage: cancel IP PORT PATH BYTES NEXT_PATH\n";
        return 2;
    }
    std::signal(SIGPIPE, SIG_IGN);  // a lost connection must not end the process
    initHttp2Client(10);
    const int code = run(argv);
    destroyHttp2Client();
    return code;
}
