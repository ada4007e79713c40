// An application as a stranger writes it: C++11, the installed headers, the library's name.

#include <error.h>  // the C library's, whatever else is called so
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <typeinfo>

#include <Http2Client/HttpClientInterface.h>
#include <Http2Client/httpClientApi.h>

namespace {

class Application : public tiny::HttpClientInterface {
public:
    ~Application() override { cancelRequest(); }

    void onSocketClosed() override {}
    void onFailed(HTTP_ERROR) override {}
    void onHeaderReceived(int, const HeaderDef* headers, size_t count) override {
        for (size_t i = 0; i < count; ++i) {
            printf("%s: %s\n", headers[i].m_headerName, headers[i].m_headerValue);
        }
    }
    void onContentReceived(const char*, size_t, bool) override {}
};

int g_failures = 0;

void expect(const char* what, int expected, int actual) {
    printf("%s: %d\n", what, actual);
    if (expected != actual) {
        printf("  expected %d\n", expected);
        ++g_failures;
    }
}

// A port of 127.0.0.1 that refuses connections: bound, so that nobody else has it, not listening.
uint16_t closedPort(int fd) {
    sockaddr_in address;
    memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        error(2, 0, "no port");
    }
    return ntohs(address.sin_port);
}

}  // namespace

int main() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    const uint16_t port = closedPort(fd);

    expect("initHttp2Client", 1, initHttp2Client(10));
    {
        Application application;
        tiny::HttpClientInterface* base = &application;
        expect("typeid", 1, typeid(*base) == typeid(Application));
        expect("dynamic_cast", 1, dynamic_cast<Application*>(base) == &application);
        expect("startRequest before connecting", ERR_SOCKET_CLOSED, base->startRequest(nullptr));
        expect("connectToServer, plain", 4, base->connectToServer(HTTP_2, "127.0.0.1", port));
        expect("connectToServer, TLS", 4, base->connectToServer(HTTPS_2, "127.0.0.1", port));
        expect("setUri", 4, base->setUri("/", HTTP_GET));
        expect("addHeader", 1, base->addHeader("host", "localhost", false) == nullptr);
        expect("cancelRequest", 4, base->cancelRequest());
    }
    expect("destroyHttp2Client", 1, destroyHttp2Client());
    close(fd);
    return g_failures == 0 ? 0 : 1;
}
