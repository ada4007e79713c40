// The class that applications use, from inside: what neither the wire nor a return code shows.
// tests/wire tests the rest.

#include "Http2Client/HttpClientInterface.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "Http2Client/Http2.h"
#include "Http2Client/HttpClientInterfaceImpl.h"
#include "Http2Client/HttpContext.h"
#include "Http2Client/HttpIO.h"
#include "tests/support/bytes.h"
#include "tests/support/capture.h"
#include "tests/support/guarded.h"
#include "tests/support/recording_client.h"
#include "tests/support/scripted_server.h"
#include "tests/support/virtual_slot.h"
#include "tests/support/wait.h"

namespace h2test {
namespace {

using tiny::Http2;
using tiny::HttpClientInterface;
using tiny::HttpClientInterfaceImpl;
using tiny::HttpContext;

constexpr int kNowhere = 1000;  // a descriptor without a connection
constexpr uint32_t kForever = 4'000'000;
constexpr char kBusy[] = "current requesting is not finished, please wait";

int noReader(char*, size_t, void*) { return 0; }

// A blockedRequest on its own thread.
class BlockedCall {
public:
    BlockedCall(HttpClientInterface& client, uint32_t timeout)
        : m_thread([this, &client, timeout] {
              result = client.blockedRequest(status, headerMap, content, errMsg, timeout);
          }) {}
    ~BlockedCall() { join(); }
    void join() {
        if (m_thread.joinable()) m_thread.join();
    }

    void expectUnchanged() const {
        EXPECT_EQ(headerMap, (std::map<std::string, std::string>{{"former", "value"}}));
        EXPECT_EQ(content, "former");
    }

    int result = -99;
    int status = -99;
    std::map<std::string, std::string> headerMap = {{"former", "value"}};
    std::string content = "former";
    const char* errMsg = "former";

private:
    std::thread m_thread;  // last: it uses the others
};

// The poll thread does not run: what a call leaves behind stays.
class ClientInterface : public testing::Test {
protected:
    ClientInterface() : m_context(HttpContext::instance()) {}
    // The process keeps one context, so each test removes its connections from it.
    ~ClientInterface() override {
        for (const int sock : m_sockets) {
            m_context->m_httpIoMap.erase(sock);
            m_context->m_newHttp2Set.erase(sock);
        }
    }

    void connect(HttpClientInterface& client) {
        ASSERT_EQ(client.connectToServer(HTTP_2, ScriptedServer::ip(), m_server.port()), 0);
        m_sockets.push_back(client.ctx()->getSocket());
    }
    Http2& engine(HttpClientInterface& client) {
        return *m_context->m_httpIoMap.at(client.ctx()->getSocket())->httpParser();
    }
    bool isRegistered(Http2& engine) {
        SingleLock hold(&engine.m_httpClientLock);
        return !engine.m_httpClientMap.empty();
    }
    // Hands the server's bytes to the engine, as the poll thread would.
    // The engine takes a buffer that it may write to.
    // cppcheck-suppress passedByValue
    int deliver(HttpClientInterface& client, std::string bytes) {
        SingleLock hold(&m_context->m_httpIolock);
        return engine(client).decodeFrame(bytes.data(), bytes.size());
    }

    NullCout m_quiet;  // the context prints "select" when it is made
    HttpContext* m_context;
    ScriptedServer m_server;
    std::vector<int> m_sockets;
};

// ---- the object

TEST_F(ClientInterface, HasItsVirtualOperationsInOrder) {
    EXPECT_TRUE(std::has_virtual_destructor_v<HttpClientInterface>);
    EXPECT_EQ(virtualSlot(&HttpClientInterface::onSocketClosed), 2u);
    EXPECT_EQ(virtualSlot(&HttpClientInterface::onFailed), 3u);
    EXPECT_EQ(virtualSlot(&HttpClientInterface::onHeaderReceived), 4u);
    EXPECT_EQ(virtualSlot(&HttpClientInterface::onContentReceived), 5u);
    EXPECT_TRUE(std::is_abstract_v<HttpClientInterface>);
    EXPECT_EQ(sizeof(HttpClientInterface), 2 * sizeof(void*));
    EXPECT_FALSE(std::is_copy_constructible_v<HttpClientInterface>);
}

TEST_F(ClientInterface, OwnsAnImplThatKnowsIt) {
    RecordingClient client;
    ASSERT_NE(client.m_impl, nullptr);
    EXPECT_EQ(client.ctx(), client.m_impl);
    EXPECT_EQ(client.m_impl->client(), &client);
}

TEST_F(ClientInterface, DoesNothingWithoutAnImpl) {
    RecordingClient client;
    delete client.m_impl;
    client.m_impl = nullptr;
    EXPECT_EQ(client.ctx(), nullptr);
    EXPECT_EQ(client.connectToServer(HTTP_2, ScriptedServer::ip(), m_server.port()), -1);
    client.clearClient();
    EXPECT_EQ(client.setUri("/", HTTP_GET), -1);
    EXPECT_EQ(client.addHeader("a", "b", false), nullptr);
    EXPECT_EQ(client.setContent("a", 1), -1);
    EXPECT_EQ(client.setContent(&noReader, nullptr), -1);
    EXPECT_EQ(client.startRequest(nullptr), -1);
    EXPECT_EQ(client.cancelRequest(), 2);
    BlockedCall call(client, kForever);
    call.join();
    EXPECT_EQ(call.result, 2);
    EXPECT_EQ(call.status, -99);
    call.expectUnchanged();
    EXPECT_STREQ(call.errMsg, "former");
    EXPECT_EQ(m_server.connections(), 0u);
}

TEST_F(ClientInterface, IsConnectedByItsSocketAlone) {
    RecordingClient client;
    HttpClientInterfaceImpl& impl = *client.ctx();
    impl.m_httpClientStatus = tiny::CLI_STATUS_INITIALIZED;
    EXPECT_EQ(client.setUri("/", HTTP_POST), 4);
    EXPECT_EQ(client.startRequest(nullptr), 4);
    EXPECT_EQ(impl.m_uri, "");
    impl.m_httpClientStatus = tiny::CLI_STATE_NONE;
    impl.setSocket(kNowhere);
    EXPECT_EQ(client.setUri("/", HTTP_POST), 0);
    EXPECT_EQ(impl.clientStatus(), tiny::CLI_STATUS_URI);
    EXPECT_EQ(impl.httpMethod(), HTTP_POST);
}

// ---- the status

TEST_F(ClientInterface, ParsesItsStatus) {
    RecordingClient client;
    HttpClientInterfaceImpl& impl = *client.ctx();
    struct Case {
        int status;
        int result;
        const char* text;
    };
    const Case cases[] = {
        {tiny::CLI_STATE_NONE, 4, "please call connectToServer"},
        {tiny::CLI_STATUS_ACQUIRED, 4, "please call connectToServer"},
        {tiny::CLI_STATUS_CONNECTED, 0, ""},
        {tiny::CLI_STATUS_URI, 0, ""},
        {tiny::CLI_STATUS_HEADER, 0, ""},
        {tiny::CLI_STATUS_CONTENT, 0, ""},
        {tiny::CLI_STATUS_INITIALIZED, 0, ""},
        {tiny::CLI_STATUS_INITIALIZED | tiny::CLI_STATUS_ACQUIRED, 0, ""},
        {tiny::CLI_STATUS_REQUESTING, 8, kBusy},
        {tiny::CLI_STATUS_REQUESTING | tiny::CLI_STATUS_INITIALIZED, 8, kBusy},
    };
    for (const Case& wanted : cases) {
        SCOPED_TRACE(wanted.status);
        impl.setErrorMessage("former");
        impl.m_httpClientStatus = wanted.status;
        EXPECT_EQ(client.parseHttpClientStatus("ignored"), wanted.result);
        EXPECT_EQ(impl.errorMessage(), wanted.text);
        EXPECT_EQ(impl.m_httpClientStatus, wanted.status);
        impl.setErrorMessage("former");
        EXPECT_EQ(client.parseHttpClientStatus(nullptr), wanted.result);
        EXPECT_EQ(impl.errorMessage(), wanted.text);
    }
}

// ---- connecting

TEST_F(ClientInterface, ConnectingStoresSocketAndSchema) {
    RecordingClient client;
    HttpClientInterfaceImpl& impl = *client.ctx();
    impl.m_httpClientStatus = tiny::CLI_STATUS_ACQUIRED;
    connect(client);
    EXPECT_EQ(impl.clientStatus(), tiny::CLI_STATUS_ACQUIRED | tiny::CLI_STATUS_CONNECTED);
    EXPECT_EQ(impl.httpVersion(), HTTP_2);
    const int first = impl.getSocket();
    EXPECT_EQ(m_context->m_httpIoMap.count(first), 1u);

    // Again: another one, and the first stays in the map.
    connect(client);
    EXPECT_NE(impl.getSocket(), first);
    EXPECT_EQ(m_context->m_httpIoMap.count(first), 1u);
    EXPECT_EQ(m_context->m_httpIoMap.count(impl.getSocket()), 1u);
    EXPECT_TRUE(m_server.waitConnections(2));
}

// ---- settings

TEST_F(ClientInterface, CopiesABlockBodyByteForByte) {
    RecordingClient client;
    connect(client);
    HttpClientInterfaceImpl& impl = *client.ctx();
    const std::string body("a\0b\0", 4);
    {
        const GuardedBytes source(body);  // no byte behind it may be read
        EXPECT_EQ(client.setContent(source.data(), source.size()), 0);
    }
    EXPECT_EQ(impl.m_content, body);
    EXPECT_EQ(impl.clientStatus(), tiny::CLI_STATUS_CONNECTED | tiny::CLI_STATUS_CONTENT);
    const GuardedBytes nothing("");
    EXPECT_EQ(client.setContent(nothing.data(), 0), 0);
    EXPECT_EQ(impl.m_content, "");
    EXPECT_EQ(impl.clientStatus(), tiny::CLI_STATUS_CONNECTED | tiny::CLI_STATUS_CONTENT);
}

// ---- starting

TEST_F(ClientInterface, IsMarkedAsRunningBeforeItsRequestIsRegistered) {
    for (const bool blocked : {false, true}) {
        RecordingClient client;
        connect(client);
        Http2& served = engine(client);
        std::thread caller;
        {
            // The call registers the request and then waits for this lock.
            SingleLock hold(&m_context->m_newLock);
            caller = std::thread([&] {
                if (blocked) {
                    BlockedCall(client, 0).join();
                } else {
                    EXPECT_EQ(client.startRequest(nullptr), 0);
                }
            });
            EXPECT_TRUE(waitFor([&] { return isRegistered(served); }));
            EXPECT_EQ(client.ctx()->clientStatus(),
                      tiny::CLI_STATUS_CONNECTED | tiny::CLI_STATUS_REQUESTING);
        }
        caller.join();
    }
}

// ---- withdrawing

// Does not cancel in its destructor, although an application should. The base class withdraws the
// request.
class CarelessClient : public HttpClientInterface {
public:
    void onSocketClosed() override {}
    void onFailed(HTTP_ERROR) override {}
    void onHeaderReceived(int, const HeaderDef*, size_t) override {}
    void onContentReceived(const char*, size_t, bool) override {}
};

TEST_F(ClientInterface, DestructionAndCancellingWithdrawTheRequestFromEveryConnection) {
    for (const bool reconnected : {false, true}) {
        for (const bool destroyed : {false, true}) {
            auto client = std::make_unique<CarelessClient>();
            connect(*client);
            ASSERT_EQ(client->startRequest(nullptr), 0);
            Http2& former = engine(*client);
            if (reconnected) connect(*client);
            Http2& latter = engine(*client);
            if (destroyed) {
                client.reset();
            } else {
                EXPECT_EQ(client->cancelRequest(), 0);
            }
            EXPECT_FALSE(isRegistered(former));
            EXPECT_FALSE(isRegistered(latter));
            EXPECT_EQ(former.m_rstFrameMap.size(), reconnected ? 0u : 1u);
            EXPECT_EQ(latter.m_rstFrameMap.count(1), 1u);
        }
    }
}

// ---- blocked requests

TEST_F(ClientInterface, BlockedRequestReturnsAtOnceWhenTheBodyHasFailed) {
    RecordingClient client;
    connect(client);
    HttpClientInterfaceImpl& impl = *client.ctx();
    BlockedCall call(client, kForever);
    ASSERT_TRUE(waitFor([&] { return isRegistered(engine(client)); }));
    EXPECT_EQ(deliver(client, headers(1, hpackIndexed(14)) + data(1, "abc")), 0);
    // Nothing in the library sets this status yet.
    impl.m_recvContentStatus = tiny::RECV_STATUS_FAILED;
    call.join();
    EXPECT_EQ(call.result, 1);
    EXPECT_EQ(call.status, 500);
    call.expectUnchanged();
    EXPECT_STREQ(call.errMsg, "request failed, not any contents received");
    EXPECT_EQ(call.errMsg, impl.errorText());
}

}  // namespace
}  // namespace h2test
