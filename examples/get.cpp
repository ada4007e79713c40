// Makes one GET and shows the status, the headers and the body.
//
// Usage: get IP PORT PATH
//
// The library writes lines of its own to standard output, so this program writes to standard error.
// The example "quiet" shows another way.

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

#include "has_body.h"

namespace {

class Getter : public tiny::HttpClientInterface {
public:
    // Once cancelRequest has returned, no callback runs or will run.
    ~Getter() override { cancelRequest(); }

    // The library's thread calls these four.

    void onHeaderReceived(int status, const HeaderDef* headers, size_t count) override {
        std::cerr << "status " << status << "\n";
        for (size_t i = 0; i < count; ++i) {
            std::cerr << headers[i].m_headerName << ": " << headers[i].m_headerValue << "\n";
        }
        if (!hasBody(status, headers, count)) finish("complete");
    }

    void onContentReceived(const char* data, size_t len, bool more) override {
        std::cerr.write(data, static_cast<std::streamsize>(len));
        if (!more) finish("complete");
    }

    void onFailed(HTTP_ERROR) override { finish("failed"); }
    void onSocketClosed() override { finish("connection lost"); }

    // Waits for the end of the request and returns how it ended.
    std::string wait(std::chrono::seconds limit) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait_for(lock, limit, [this] { return !m_end.empty(); });
        return m_end.empty() ? "timed out" : m_end;
    }

private:
    // The first call counts: an empty body may be reported twice.
    void finish(const std::string& end) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_end.empty()) m_end = end;
        m_changed.notify_all();
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::string m_end;  // empty while the request runs
};

int run(char** arguments) {
    Getter client;
    const auto port = static_cast<uint16_t>(std::atoi(arguments[2]));
    if (client.connectToServer(HTTP_2, arguments[1], port) != 0) {
        std::cerr << "cannot connect\n";
        return 1;
    }
    client.setUri(arguments[3], HTTP_GET);
    client.addHeader("host", arguments[1], false);
    if (client.startRequest(nullptr) != 0) {
        std::cerr << "cannot start the request\n";
        return 1;
    }
    const std::string end = client.wait(std::chrono::seconds(30));
    std::cerr << "\n" << end << "\n";
    return end == "complete" ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::cerr << "usage: get IP PORT PATH\n";
        return 2;
    }
    std::signal(SIGPIPE, SIG_IGN);  // a lost connection must not end the process
    initHttp2Client(10);
    const int code = run(argv);
    destroyHttp2Client();
    return code;
}
