// Makes a POST, and makes it again only when that is safe. Standard edition only: there the end of
// a request says whether the server may have processed it.
//
// Usage: retry IP PORT PATH TEXT

#include <Http2Client/HttpClientInterface.h>
#include <Http2Client/error.h>
#include <Http2Client/httpClientApi.h>
#include <Http2Client/Http2ClientOptions.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <future>
#include <iostream>
#include <thread>

namespace {

enum End { COMPLETE, NOT_PROCESSED, UNKNOWN, FAILED };

class Client : public tiny::HttpClientInterface {
public:
    ~Client() override { cancelRequest(); }

    // Makes the request that is set, and waits for its end.
    End post(std::chrono::seconds limit) {
        m_end = std::promise<End>();
        std::future<End> end = m_end.get_future();
        if (startRequest(nullptr) != 0) return FAILED;
        if (end.wait_for(limit) == std::future_status::ready) return end.get();
        cancelRequest();
        return UNKNOWN;
    }

    void onHeaderReceived(int status, const HeaderDef*, size_t) override {
        std::cerr << "status " << status << "\n";
    }
    void onContentReceived(const char* data, size_t len, bool more) override {
        std::cout.write(data, static_cast<std::streamsize>(len));
        if (!more) m_end.set_value(COMPLETE);
    }
    // ERR_SOCKET_CLOSED: the server has certainly not processed the request. The library has sent
    // it again by itself before it says so.
    void onFailed(HTTP_ERROR error) override {
        m_end.set_value(error == ERR_SOCKET_CLOSED ? NOT_PROCESSED : FAILED);
    }
    // The request may have been processed: an order may have been placed.
    void onSocketClosed() override { m_end.set_value(UNKNOWN); }

private:
    std::promise<End> m_end;  // set by the one callback that ends the request
};

int run(char** arguments) {
    Client client;
    const auto port = static_cast<uint16_t>(std::atoi(arguments[2]));
    if (client.connectToServer(HTTP_2, arguments[1], port) != 0) {
        std::cerr << "cannot connect: " << getHttp2Text(&client, HTTP2_ERROR) << "\n";
        return 1;
    }
    client.setUri(arguments[3], HTTP_POST);
    client.setContent(arguments[4], std::strlen(arguments[4]));

    std::chrono::milliseconds pause(100);
    for (int attempt = 1; attempt <= 5; ++attempt) {
        const End end = client.post(std::chrono::seconds(30));
        if (end == COMPLETE) return 0;
        std::cerr << "attempt " << attempt << ": " << getHttp2Text(&client, HTTP2_ERROR) << "\n";
        if (end == UNKNOWN) std::cerr << "the request may have been processed: not sent again\n";
        if (end != NOT_PROCESSED) return 1;
        std::this_thread::sleep_for(pause);
        pause *= 2;
    }
    std::cerr << "given up\n";
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        std::cerr << "usage: retry IP PORT PATH TEXT\n";
        return 2;
    }
    initHttp2Client(10);
    const int code = run(argv);
    destroyHttp2Client();
    return code;
}
