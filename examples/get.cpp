// Makes one GET and shows the status, the headers and the body.
//
// Usage: get IP PORT PATH
//
// The library writes lines of its own to standard output, so this program keeps to standard error.
// ("quiet" shows another way.)

#include <Http2Client/HttpClientInterface.h>
#include <Http2Client/error.h>
#include <Http2Client/httpClientApi.h>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <mutex>
#include <string>

namespace {

class Getter : public tiny::HttpClientInterface {
public:
    // Once cancelRequest has returned no callback runs or will run, and the rest can go.
    ~Getter() override { cancelRequest(); }

    // The callbacks come from the library's thread.

    void onHeaderReceived(int status, const HeaderDef* headers, size_t count) override {
        bool hasBody = status != 204 && status != 304;
        std::cerr << "status " << status << "\n";
        for (size_t i = 0; i < count; ++i) {
            const HeaderDef& header = headers[i];
            std::cerr << header.m_headerName << ": " << header.m_headerValue << "\n";
            if (std::strcmp(header.m_headerName, "content-length") == 0 &&
                std::strcmp(header.m_headerValue, "0") == 0) {
                hasBody = false;
            }
        }
        // Without a body there may be no further callback.
        if (!hasBody) finish("complete");
    }

    void onContentReceived(const char* data, size_t len, bool more) override {
        std::cerr.write(data, static_cast<std::streamsize>(len));
        if (!more) finish("complete");
    }

    void onFailed(HTTP_ERROR) override { finish("failed"); }
    void onSocketClosed() override { finish("connection lost"); }

    // Waits for the end and tells how it was.
    std::string wait(std::chrono::seconds limit) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait_for(lock, limit, [this] { return !m_end.empty(); });
        return m_end.empty() ? "timed out" : m_end;
    }

private:
    // The first end counts: an empty body may be told of twice.
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
    std::signal(SIGPIPE, SIG_IGN);  // a lost connection is to be reported, not to end the process
    initHttp2Client(10);
    const int code = run(argv);
    destroyHttp2Client();
    return code;
}
