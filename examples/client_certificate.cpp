// Makes one GET over TLS and shows the server a certificate of the client's. Standard edition only.
//
// Usage: client_certificate HOST PORT PATH CA_FILE CERTIFICATE KEY

#include <Http2Client/HttpClientInterface.h>
#include <Http2Client/error.h>
#include <Http2Client/httpClientApi.h>
#include <Http2Client/Http2ClientOptions.h>

#include <cstdlib>
#include <iostream>
#include <map>
#include <string>

namespace {

// blockedRequest hands the answer over; the callbacks come as well, and are not needed here.
class Client : public tiny::HttpClientInterface {
public:
    ~Client() override { cancelRequest(); }
    void onHeaderReceived(int, const HeaderDef*, size_t) override {}
    void onContentReceived(const char*, size_t, bool) override {}
    void onFailed(HTTP_ERROR) override {}
    void onSocketClosed() override {}
};

int run(char** arguments) {
    Client client;
    // Before the client connects. The server's certificate must be one that CA_FILE vouches for.
    setHttp2TextOption(&client, HTTP2_CA_FILE, arguments[4]);
    setHttp2TextOption(&client, HTTP2_CERTIFICATE_FILE, arguments[5]);
    setHttp2TextOption(&client, HTTP2_KEY_FILE, arguments[6]);
    const auto port = static_cast<uint16_t>(std::atoi(arguments[2]));
    if (client.connectToServer(HTTPS_2, arguments[1], port) != 0) {
        std::cerr << "cannot connect: " << getHttp2Text(&client, HTTP2_ERROR) << "\n";
        return 1;
    }
    std::cerr << "connected to " << getHttp2Text(&client, HTTP2_PEER) << " by "
              << getHttp2Text(&client, HTTP2_TLS_VERSION) << "\n";
    client.setUri(arguments[3], HTTP_GET);

    int status = 0;
    std::map<std::string, std::string> headers;
    std::string body;
    const char* error = "";
    if (client.blockedRequest(status, headers, body, error, 30000) != 0) {
        std::cerr << "failed: " << error << "\n";
        return 1;
    }
    std::cerr << "status " << status << "\n";
    std::cout << body;
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 7) {
        std::cerr << "usage: client_certificate HOST PORT PATH CA_FILE CERTIFICATE KEY\n";
        return 2;
    }
    initHttp2Client(10);
    const int code = run(argv);
    destroyHttp2Client();
    return code;
}
