// Makes a GET with a text of any length in it, and prints to standard error how it ends.
//
// Usage: long_text PORT path|name|value LENGTH
#include <chrono>
#include <csignal>
#include <cstdint>
#include <future>
#include <iostream>
#include <string>

#include "Http2Client/HttpClientInterface.h"
#include "Http2Client/httpClientApi.h"

namespace {

class Client : public tiny::HttpClientInterface {
public:
    ~Client() override { cancelRequest(); }
    void onHeaderReceived(int status, const HeaderDef* /*headers*/, size_t /*count*/) override {
        m_status = status;
    }
    void onContentReceived(const char* /*data*/, size_t /*len*/, bool more) override {
        if (!more) m_end.set_value("status " + std::to_string(m_status));
    }
    void onFailed(HTTP_ERROR /*err*/) override { m_end.set_value("reset"); }
    void onSocketClosed() override { m_end.set_value("connection lost"); }

    std::string wait() {
        std::future<std::string> end = m_end.get_future();
        const auto ready = end.wait_for(std::chrono::seconds(30));
        return ready == std::future_status::ready ? end.get() : "timed out";
    }

private:
    int m_status = 0;
    std::promise<std::string> m_end;
};

std::string request(uint16_t port, const std::string& what, size_t length) {
    Client client;
    if (client.connectToServer(HTTP_2, "127.0.0.1", port) != 0) return "not connected";
    const std::string text(length, 'q');
    std::string path = "/page";
    if (what == "path") path += "?" + text.substr(path.size() + 1);
    client.setUri(path.c_str(), HTTP_GET);
    client.addHeader("host", "127.0.0.1", false);
    if (what == "name") client.addHeader(text.c_str(), "v", false);
    if (what == "value") client.addHeader("n", text.c_str(), false);
    return client.startRequest(nullptr) == 0 ? client.wait() : "not started";
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) return 2;
    std::signal(SIGPIPE, SIG_IGN);
    initHttp2Client(10);
    const auto port = static_cast<uint16_t>(std::stoul(argv[1]));
    const std::string end = request(port, argv[2], std::stoul(argv[3]));
    destroyHttp2Client();
    std::cerr << end << "\n";
    return 0;
}
