// Makes one GET in one call, which returns when the whole answer is there.
//
// Usage: blocking IP PORT PATH TIMEOUT
//
// TIMEOUT is in milliseconds of processor time that the whole process uses. A process that only
// waits uses about a hundredth of the elapsed time: 100 may be ten seconds. A failure, and an
// answer without a body, are reported only then.

#include <Http2Client/HttpClientInterface.h>
#include <Http2Client/error.h>
#include <Http2Client/httpClientApi.h>

#include <csignal>
#include <cstdlib>
#include <iostream>
#include <map>
#include <string>

#include "has_body.h"

namespace {

// The callbacks are called during a blocking call, too.
class BlockingClient : public tiny::HttpClientInterface {
public:
    ~BlockingClient() override { cancelRequest(); }

    // Whether the answer has no body. To be read after the call.
    bool answeredWithoutBody() const { return m_answeredWithoutBody; }

    void onHeaderReceived(int status, const HeaderDef* headers, size_t count) override {
        m_answeredWithoutBody = !hasBody(status, headers, count);
    }
    void onContentReceived(const char*, size_t, bool) override {}
    void onFailed(HTTP_ERROR) override {}
    void onSocketClosed() override {}

private:
    bool m_answeredWithoutBody = false;
};

int run(char** arguments) {
    BlockingClient client;
    const auto port = static_cast<uint16_t>(std::atoi(arguments[2]));
    if (client.connectToServer(HTTP_2, arguments[1], port) != 0) {
        std::cerr << "cannot connect\n";
        return 1;
    }
    client.setUri(arguments[3], HTTP_GET);
    client.addHeader("host", arguments[1], false);

    const auto timeout = static_cast<uint32_t>(std::atoi(arguments[4]));
    int status = 0;
    std::map<std::string, std::string> headers;
    std::string body;
    const char* message = "cannot start the request";  // not changed if it does not start
    const int result = client.blockedRequest(status, headers, body, message, timeout);
    if (result == 1 && client.answeredWithoutBody()) {
        std::cerr << "status " << status << ", no body\n";
        return 0;
    }
    if (result == 0) {
        std::cerr << "status " << status << "\n";
        for (const auto& header : headers) {
            std::cerr << header.first << ": " << header.second << "\n";
        }
        std::cerr << body << "\n";
    }
    std::cerr << message << "\n";
    return result == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        std::cerr << "usage: blocking IP PORT PATH TIMEOUT\n";
        return 2;
    }
    std::signal(SIGPIPE, SIG_IGN);  // a lost connection must not end the process
    initHttp2Client(10);
    const int code = run(argv);
    destroyHttp2Client();
    return code;
}
