// Makes many GETs one after the other on one connection: the callback that ends a request starts
// the next one. Standard edition only: the exact one allows no call in a callback.
//
// Usage: chain IP PORT PATH COUNT

#include <Http2Client/HttpClientInterface.h>
#include <Http2Client/error.h>
#include <Http2Client/httpClientApi.h>

#include <chrono>
#include <cstdlib>
#include <future>
#include <iostream>

namespace {

class Client : public tiny::HttpClientInterface {
public:
    explicit Client(int count) : m_left(count) {}
    ~Client() override { cancelRequest(); }

    // The library's thread calls these four.

    void onHeaderReceived(int status, const HeaderDef*, size_t) override {
        if (status != 200) std::cerr << "status " << status << "\n";
    }
    void onContentReceived(const char*, size_t len, bool more) override {
        m_bytes += len;
        if (more) return;
        --m_left;
        // The request is as it was set: only what changes needs to be set anew.
        if (m_left == 0 || startRequest(nullptr) != 0) finish();
    }
    void onFailed(HTTP_ERROR) override { finish(); }
    void onSocketClosed() override { finish(); }

    // Waits for the end of them all and returns how many are missing.
    int wait(std::chrono::seconds limit) {
        m_ended.get_future().wait_for(limit);
        cancelRequest();  // no callback runs any more
        return m_left;
    }
    size_t bytes() const { return m_bytes; }

private:
    void finish() { m_ended.set_value(); }

    std::promise<void> m_ended;
    int m_left;  // these two are used by callbacks, and read when none runs any more
    size_t m_bytes = 0;
};

int run(char** arguments) {
    const auto port = static_cast<uint16_t>(std::atoi(arguments[2]));
    const int count = std::atoi(arguments[4]);
    Client client(count);
    if (client.connectToServer(HTTP_2, arguments[1], port) != 0) {
        std::cerr << "cannot connect\n";
        return 1;
    }
    client.setUri(arguments[3], HTTP_GET);
    const auto begun = std::chrono::steady_clock::now();
    if (client.startRequest(nullptr) != 0) {
        std::cerr << "cannot start the request\n";
        return 1;
    }
    const int missing = client.wait(std::chrono::seconds(60));
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - begun);
    std::cout << count - missing << " of " << count << " requests, " << client.bytes()
              << " bytes, in " << took.count() << " ms\n";
    return missing == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        std::cerr << "usage: chain IP PORT PATH COUNT\n";
        return 2;
    }
    initHttp2Client(10);
    const int code = run(argv);
    destroyHttp2Client();
    return code;
}
