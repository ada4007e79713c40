// An application as a stranger writes it: C++11, the installed headers, the library's name.

#include <error.h>  // the C library's, whatever else is called so
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <string>
#include <typeinfo>

#include <Http2Client/HttpClientInterface.h>
#include <Http2Client/httpClientApi.h>

#include "peer.h"

namespace {

class Application : public tiny::HttpClientInterface {
public:
    ~Application() override { cancelRequest(); }

    void onSocketClosed() override { m_end.set_value("closed"); }
    void onFailed(HTTP_ERROR) override { m_end.set_value("failed"); }
    void onHeaderReceived(int status, const HeaderDef*, size_t) override {
        m_answer = std::to_string(status) + " ";
    }
    void onContentReceived(const char* data, size_t len, bool more) override {
        m_answer.append(data, len);
        if (!more) m_end.set_value(m_answer);
    }

    std::string waitForEnd() {
        std::future<std::string> end = m_end.get_future();
        if (end.wait_for(std::chrono::seconds(30)) != std::future_status::ready) return "no answer";
        return end.get();
    }

private:
    std::string m_answer;  // background thread only, until m_end is set
    std::promise<std::string> m_end;
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

void refused() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    const uint16_t port = closedPort(fd);
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
    close(fd);
}

void answered() {
    Peer peer("hello");
    Application application;
    expect("connectToServer", 0, application.connectToServer(HTTP_2, "127.0.0.1", peer.port()));
    expect("setUri", 0, application.setUri("/", HTTP_GET));
    expect("addHeader", 1, application.addHeader("host", "localhost", false) == &application);
    expect("startRequest", 0, application.startRequest(nullptr));
    const std::string answer = application.waitForEnd();
    printf("answer: %s\n", answer.c_str());
    expect("the answer is the peer's", 1, answer == "200 hello");
    peer.hangUp();
}

}  // namespace

int main() {
    signal(SIGPIPE, SIG_IGN);  // as the exact edition needs it
    expect("initHttp2Client", 1, initHttp2Client(10));
    refused();
    answered();
    expect("destroyHttp2Client", 1, destroyHttp2Client());
    return g_failures == 0 ? 0 : 1;
}
