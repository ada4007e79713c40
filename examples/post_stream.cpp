// Posts a file of any size, read piece by piece as the connection takes it, and shows the answer.
//
// Usage: post_stream IP PORT PATH FILE

#include <Http2Client/HttpClientInterface.h>
#include <Http2Client/error.h>
#include <Http2Client/httpClientApi.h>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <string>

#include "has_body.h"

namespace {

// Writes the body's next piece: at most `len` bytes, and fewer only at the end. The library's
// thread calls this and serves no connection meanwhile: read from a file, never from a pipe or a
// terminal.
int readFile(char* buf, size_t len, void* opaque) {
    return static_cast<int>(std::fread(buf, 1, len, static_cast<std::FILE*>(opaque)));
}

class Poster : public tiny::HttpClientInterface {
public:
    ~Poster() override { cancelRequest(); }

    void onHeaderReceived(int status, const HeaderDef* headers, size_t count) override {
        std::cerr << "status " << status << "\n";
        if (!hasBody(status, headers, count)) finish("complete");
    }
    void onContentReceived(const char* data, size_t len, bool more) override {
        std::cerr.write(data, static_cast<std::streamsize>(len));
        if (!more) finish("complete");
    }
    void onFailed(HTTP_ERROR) override { finish("failed"); }
    void onSocketClosed() override { finish("connection lost"); }

    std::string wait(std::chrono::seconds limit) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait_for(lock, limit, [this] { return !m_end.empty(); });
        return m_end.empty() ? "timed out" : m_end;
    }

private:
    void finish(const std::string& end) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_end.empty()) m_end = end;  // an empty body may be reported twice
        m_changed.notify_all();
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::string m_end;  // empty while the request runs
};

// Returns how the request ended. The file must stay open until then.
std::string post(char** arguments, std::FILE* file) {
    Poster client;
    const auto port = static_cast<uint16_t>(std::atoi(arguments[2]));
    if (client.connectToServer(HTTP_2, arguments[1], port) != 0) return "cannot connect";
    client.setUri(arguments[3], HTTP_POST);
    client.addHeader("host", arguments[1], false);
    client.addHeader("content-type", "application/octet-stream", false);
    client.setContent(readFile, file);
    if (client.startRequest(nullptr) != 0) return "cannot start the request";
    return client.wait(std::chrono::seconds(60));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        std::cerr << "usage: post_stream IP PORT PATH FILE\n";
        return 2;
    }
    std::FILE* file = std::fopen(argv[4], "rb");
    if (file == nullptr) {
        std::perror(argv[4]);
        return 1;
    }
    std::signal(SIGPIPE, SIG_IGN);  // a lost connection must not end the process
    initHttp2Client(10);
    const std::string end = post(argv, file);
    destroyHttp2Client();
    std::fclose(file);
    std::cerr << "\n" << end << "\n";
    return end == "complete" ? 0 : 1;
}
