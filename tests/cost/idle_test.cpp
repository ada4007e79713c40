#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Http2Client/HttpClientInterfaceImpl.h"
#include "Http2Client/HttpContext.h"
#include "bench/growth_cases.h"
#include "counting.h"

namespace {

using h2test::allocations;
using tiny::HttpClientInterface;
using tiny::HttpContext;

// Takes connections on loopback, which nobody needs to accept, and sends nothing.
class SilentServer {
public:
    SilentServer() : m_fd(socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        EXPECT_EQ(bind(m_fd, generic, size), 0);
        EXPECT_EQ(listen(m_fd, SOMAXCONN), 0);
        EXPECT_EQ(getsockname(m_fd, generic, &size), 0);
        m_port = ntohs(address.sin_port);
    }
    ~SilentServer() { close(m_fd); }
    SilentServer(const SilentServer&) = delete;
    SilentServer& operator=(const SilentServer&) = delete;

    uint16_t port() const { return m_port; }

private:
    int m_fd;
    uint16_t m_port = 0;
};

class Waiting : public HttpClientInterface {
public:
    explicit Waiting(uint16_t port) {
        ctx()->setSocket(HttpContext::instance()->getHttpSocket(HTTP_2, "127.0.0.1", port));
        ctx()->setHttpMethod(HTTP_GET);
        ctx()->setHttpVersion(HTTP_2);
        EXPECT_EQ(HttpContext::instance()->addHttpClientImpl(ctx()), 0);
    }
    ~Waiting() override { HttpContext::instance()->forgetHttpClientImpl(ctx()); }
    void onSocketClosed() override {}
    void onFailed(HTTP_ERROR /*err*/) override {}
    void onHeaderReceived(int /*status*/, const HeaderDef* /*headers*/, size_t /*count*/) override {
    }
    void onContentReceived(const char* /*data*/, size_t /*len*/, bool /*more*/) override {}
};

void pollSteps(int count) {
    for (int i = 0; i < count; ++i) HttpContext::instance()->pollHttpClient(1);
}

// 64 connections that have sent their opening and a request, can be written to, and wait.
TEST(CostOfIdleness, AStepKeepsNothingAndAConnectionHoldsLittle) {
    constexpr size_t kConnections = 64;
    constexpr size_t kBodyBuffer = 16384;
    growth::silenceConsole();
    const SilentServer server;
    HttpContext::instance();
    const size_t before = allocations.held;
    std::vector<std::unique_ptr<Waiting>> clients;
    for (size_t i = 0; i < kConnections; ++i) {
        clients.push_back(std::make_unique<Waiting>(server.port()));
    }
    pollSteps(20);
    const size_t each = (allocations.held - before) / kConnections;
    RecordProperty("bytes", std::to_string(each));
    EXPECT_GE(each, kBodyBuffer) << "not all is counted";
    EXPECT_LE(each, kBodyBuffer + size_t{40} * 1024);

    // A step allocates the poller's entry and two empty frames for each connection, and frees them.
    constexpr size_t kSteps = 100;
    constexpr size_t kCallsForAConnection = 8;
    const size_t held = allocations.held;
    const size_t calls = allocations.calls;
    pollSteps(kSteps);
    EXPECT_EQ(allocations.held, held);
    EXPECT_LE(allocations.calls - calls, kSteps * kConnections * kCallsForAConnection);
    EXPECT_GT(allocations.calls, calls) << "nothing is counted";
}

}  // namespace
