// Downloads to a file, with a bar, and gives up when the server falls silent. Standard edition
// only.
//
// Usage: download IP PORT PATH FILE

#include <Http2Client/HttpClientInterface.h>
#include <Http2Client/error.h>
#include <Http2Client/httpClientApi.h>
#include <Http2Client/Http2ClientOptions.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <future>
#include <iostream>
#include <string>

namespace {

class Download : public tiny::HttpClientInterface {
public:
    explicit Download(const char* file) : m_file(file, std::ios::binary) {}
    ~Download() override { cancelRequest(); }

    // The library's thread calls these four. Whatever they take their time for delays the other
    // requests of the process: a file is written fast enough, a slow disk would want its own
    // thread.

    void onHeaderReceived(int status, const HeaderDef* headers, size_t count) override {
        m_ok = status == 200;
        for (size_t i = 0; i < count; ++i) {
            if (std::strcmp(headers[i].m_headerName, "content-length") == 0) {
                m_size = std::strtoull(headers[i].m_headerValue, nullptr, 10);
            }
        }
    }
    void onContentReceived(const char* data, size_t len, bool more) override {
        m_file.write(data, static_cast<std::streamsize>(len));
        m_received += len;
        if (!more) m_end.set_value(m_ok && m_file.flush());
    }
    void onFailed(HTTP_ERROR) override { m_end.set_value(false); }
    void onSocketClosed() override { m_end.set_value(false); }

    bool opened() const { return m_file.is_open(); }
    // Draws the bar until the end. Returns whether the file is whole.
    bool show() {
        std::future<bool> end = m_end.get_future();
        while (end.wait_for(std::chrono::milliseconds(100)) != std::future_status::ready) draw();
        draw();
        std::cerr << "\n";
        return end.get();
    }

private:
    void draw() const {
        const unsigned long long received = m_received;
        const unsigned long long size = m_size;
        if (size == 0) {
            std::cerr << "\r" << received << " bytes";
            return;
        }
        const size_t filled = static_cast<size_t>(received * 40 / size);
        const std::string bar = std::string(filled, '#') + std::string(40 - filled, '.');
        std::cerr << "\r[" << bar << "] " << received * 100 / size << "% of " << size << " bytes";
    }

    std::ofstream m_file;
    std::promise<bool> m_end;
    bool m_ok = false;
    std::atomic<unsigned long long> m_size{0};  // 0: the server does not say
    std::atomic<unsigned long long> m_received{0};
};

int run(char** arguments) {
    Download download(arguments[4]);
    if (!download.opened()) {
        std::cerr << "cannot write " << arguments[4] << "\n";
        return 1;
    }
    setHttp2Option(&download, HTTP2_SILENCE_TIMEOUT, 20000);
    const auto port = static_cast<uint16_t>(std::atoi(arguments[2]));
    if (download.connectToServer(HTTP_2, arguments[1], port) != 0) {
        std::cerr << "cannot connect: " << getHttp2Text(&download, HTTP2_ERROR) << "\n";
        return 1;
    }
    download.setUri(arguments[3], HTTP_GET);
    if (download.startRequest(nullptr) != 0) {
        std::cerr << "cannot start the request\n";
        return 1;
    }
    if (!download.show()) {
        std::cerr << "failed: " << getHttp2Text(&download, HTTP2_ERROR) << "\n";
        return 1;
    }
    std::cerr << "complete in " << getHttp2Number(&download, HTTP2_TOTAL_TIME) / 1000 << " ms\n";
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        std::cerr << "usage: download IP PORT PATH FILE\n";
        return 2;
    }
    initHttp2Client(10);
    const int code = run(argv);
    destroyHttp2Client();
    return code;
}
