// The class that applications use, seen from inside: what each call leaves in the request's state
// and in the engine. What goes over the wire is tests/wire's.

#include "Http2Client/HttpClientInterface.h"

#include <atomic>
#include <cstdint>
#include <cstring>
#include <functional>
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
constexpr char kNothing[] = "request failed, not any contents received";

int noReader(char*, size_t, void*) { return 0; }

// The poll thread does not run: what a call leaves behind stays.
class ClientInterface : public testing::Test {
protected:
    ClientInterface() : m_context(HttpContext::instance()) {}
    // The process keeps one context, so a test takes its connections out of it again.
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
    // Waits until the client's request is in its engine's registry, from another thread.
    bool waitRegistered(HttpClientInterface& client) {
        return waitFor([&] {
            SingleLock hold(&m_context->m_httpIolock);
            return !engine(client).m_httpClientMap.empty();
        });
    }
    // The server's bytes, as the poll thread would bring them.
    // The engine takes bytes that it could write to.
    // cppcheck-suppress passedByValue
    int deliver(HttpClientInterface& client, std::string bytes) {
        SingleLock hold(&m_context->m_httpIolock);
        return engine(client).decodeFrame(bytes.data(), bytes.size());
    }
    // Fills what resetToRequest resets.
    static void dirty(HttpClientInterfaceImpl& impl) {
        impl.m_handshake = true;
        impl.m_headerOffset = 3;
        impl.m_contentOffset = 4;
        impl.m_noMoreContent = true;
        impl.m_saveContent = true;
        impl.m_receivedStatus = 200;
        impl.m_receivedHeaderMap = {{"a", "b"}};
        impl.m_recvContentStatus = tiny::RECV_STATUS_END;
        impl.m_recvContentStr = "old";
    }
    static void expectReset(const HttpClientInterfaceImpl& impl) {
        EXPECT_FALSE(impl.m_handshake);
        EXPECT_EQ(impl.m_headerOffset, 0u);
        EXPECT_EQ(impl.m_contentOffset, 0u);
        EXPECT_FALSE(impl.m_noMoreContent);
        EXPECT_FALSE(impl.m_saveContent);
        EXPECT_EQ(impl.m_receivedStatus, 0);
        EXPECT_TRUE(impl.m_receivedHeaderMap.empty());
        EXPECT_EQ(impl.m_recvContentStatus, tiny::RECV_STATUS_UNDEFINED);
        EXPECT_EQ(impl.m_recvContentStr, "");
    }

    NullCout m_quiet;  // the context says "select" when it is made
    HttpContext* m_context;
    ScriptedServer m_server;
    std::vector<int> m_sockets;
};

// ---- the object

TEST_F(ClientInterface, HasItsVirtualOperationsInOrder) {
    // A pointer to a virtual member is 1 more than the offset of its slot (Itanium C++ ABI, 2.3).
    const auto slot = [](auto member) {
        uint64_t offset = 0;
        std::memcpy(&offset, &member, sizeof(offset));
        return (offset - 1) / sizeof(void*);
    };
    // The destructor has slots 0 and 1.
    EXPECT_TRUE(std::has_virtual_destructor_v<HttpClientInterface>);
    EXPECT_EQ(slot(&HttpClientInterface::onSocketClosed), 2u);
    EXPECT_EQ(slot(&HttpClientInterface::onFailed), 3u);
    EXPECT_EQ(slot(&HttpClientInterface::onHeaderReceived), 4u);
    EXPECT_EQ(slot(&HttpClientInterface::onContentReceived), 5u);
    EXPECT_TRUE(std::is_abstract_v<HttpClientInterface>);
    EXPECT_EQ(sizeof(HttpClientInterface), 2 * sizeof(void*));
    EXPECT_FALSE(std::is_copy_constructible_v<HttpClientInterface>);
}

TEST_F(ClientInterface, OwnsAFreshImplThatKnowsIt) {
    RecordingClient client;
    ASSERT_NE(client.m_impl, nullptr);
    EXPECT_EQ(client.ctx(), client.m_impl);
    EXPECT_EQ(client.m_impl->client(), &client);
    EXPECT_EQ(client.m_impl->clientStatus(), tiny::CLI_STATE_NONE);
    EXPECT_EQ(client.m_impl->getSocket(), -1);
    EXPECT_EQ(client.m_impl->streamId(), 0u);
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
    int status = 7;
    std::map<std::string, std::string> headerMap = {{"a", "b"}};
    std::string content = "c";
    const char* const text = "former";
    const char* errMsg = text;
    EXPECT_EQ(client.blockedRequest(status, headerMap, content, errMsg, kForever), 2);
    EXPECT_EQ(status, 7);
    EXPECT_EQ(headerMap.size(), 1u);
    EXPECT_EQ(content, "c");
    EXPECT_EQ(errMsg, text);
    EXPECT_EQ(m_server.connections(), 0u);
}

TEST_F(ClientInterface, TakesNothingBeforeItIsConnected) {
    RecordingClient client;
    HttpClientInterfaceImpl& impl = *client.ctx();
    EXPECT_EQ(client.setUri("/", HTTP_POST), 4);
    EXPECT_EQ(client.addHeader("a", "b", false), nullptr);
    EXPECT_EQ(client.setContent("a", 1), 4);
    EXPECT_EQ(client.setContent(&noReader, this), 4);
    EXPECT_EQ(client.startRequest(nullptr), 4);
    EXPECT_EQ(client.cancelRequest(), 4);
    EXPECT_EQ(impl.clientStatus(), tiny::CLI_STATE_NONE);
    EXPECT_EQ(impl.m_uri, "");
    EXPECT_EQ(impl.m_method, HTTP_METHOD_UNDEFINED);
    EXPECT_TRUE(impl.m_headerLst.empty());
    EXPECT_EQ(impl.m_content, "");
    EXPECT_EQ(impl.contentReader(), nullptr);
    // Being connected is a matter of the socket alone.
    impl.m_httpClientStatus = tiny::CLI_STATUS_INITIALIZED;
    EXPECT_EQ(client.setUri("/", HTTP_POST), 4);
    EXPECT_EQ(client.startRequest(nullptr), 4);
    impl.m_httpClientStatus = tiny::CLI_STATE_NONE;
    impl.setSocket(kNowhere);
    EXPECT_EQ(client.setUri("/", HTTP_POST), 0);
    EXPECT_EQ(impl.clientStatus(), tiny::CLI_STATUS_URI);
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

TEST_F(ClientInterface, FailedConnectChangesNothing) {
    const RefusingPort port;
    RecordingClient client;
    HttpClientInterfaceImpl& impl = *client.ctx();
    EXPECT_EQ(client.connectToServer(HTTPS_2, "127.0.0.1", port.port()), 4);
    EXPECT_EQ(impl.clientStatus(), tiny::CLI_STATE_NONE);
    EXPECT_EQ(impl.getSocket(), -1);
    EXPECT_EQ(impl.httpVersion(), HTTP_VERSION_UNDEFINED);

    connect(client);
    const int sock = impl.getSocket();
    EXPECT_EQ(client.connectToServer(HTTPS_2, "127.0.0.1", port.port()), 4);
    EXPECT_EQ(impl.clientStatus(), tiny::CLI_STATUS_CONNECTED);
    EXPECT_EQ(impl.getSocket(), sock);
    EXPECT_EQ(impl.httpVersion(), HTTP_2);
}

// ---- settings

TEST_F(ClientInterface, StoresUriAndMethod) {
    RecordingClient client;
    connect(client);
    HttpClientInterfaceImpl& impl = *client.ctx();
    impl.m_handshake = true;
    EXPECT_EQ(client.setUri("/path?query", HTTP_DELETE), 0);
    EXPECT_EQ(impl.uri(), "/path?query");
    EXPECT_EQ(impl.httpMethod(), HTTP_DELETE);
    EXPECT_FALSE(impl.httpHandshake());
    EXPECT_EQ(impl.clientStatus(), tiny::CLI_STATUS_CONNECTED | tiny::CLI_STATUS_URI);
    EXPECT_EQ(client.setUri(nullptr, HTTP_GET), 0);
    EXPECT_EQ(impl.uri(), "");
    EXPECT_EQ(impl.httpMethod(), HTTP_GET);
}

TEST_F(ClientInterface, StoresHeadersInTheirOrder) {
    RecordingClient client;
    connect(client);
    HttpClientInterfaceImpl& impl = *client.ctx();
    EXPECT_EQ(client.addHeader("a", "1", false), &client);
    EXPECT_EQ(impl.clientStatus(), tiny::CLI_STATUS_CONNECTED | tiny::CLI_STATUS_HEADER);
    EXPECT_EQ(client.addHeader("b", "2", true)->addHeader("a", "3", false), &client);
    EXPECT_EQ(client.addHeader(nullptr, "4", true), &client);
    EXPECT_EQ(client.addHeader("d", nullptr, false), &client);
    std::vector<std::string> stored;
    for (const auto& header : impl.m_headerLst) {
        stored.push_back(header->name() + "=" + header->value() +
                         (header->isValueChangable() ? " changable" : ""));
    }
    EXPECT_EQ(stored,
              (std::vector<std::string>{"a=1", "b=2 changable", "a=3", "=4 changable", "d="}));
}

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
    EXPECT_EQ(client.setContent("rest is left", 4), 0);
    EXPECT_EQ(impl.m_content, "rest");
    const GuardedBytes nothing("");
    EXPECT_EQ(client.setContent(nothing.data(), 0), 0);
    EXPECT_EQ(impl.m_content, "");
    EXPECT_EQ(client.setContent("again", 5), 0);
    EXPECT_EQ(client.setContent(static_cast<const char*>(nullptr), 5), 0);
    EXPECT_EQ(impl.m_content, "");
    EXPECT_EQ(impl.clientStatus(), tiny::CLI_STATUS_CONNECTED | tiny::CLI_STATUS_CONTENT);
}

TEST_F(ClientInterface, StoresAReaderBesideTheBlock) {
    RecordingClient client;
    connect(client);
    HttpClientInterfaceImpl& impl = *client.ctx();
    EXPECT_EQ(client.setContent(&noReader, this), 0);
    EXPECT_EQ(impl.contentReader(), &noReader);
    EXPECT_EQ(impl.contentOpaque(), this);
    EXPECT_EQ(impl.clientStatus(), tiny::CLI_STATUS_CONNECTED | tiny::CLI_STATUS_CONTENT);
    EXPECT_EQ(client.setContent("block", 5), 0);
    EXPECT_EQ(impl.contentReader(), &noReader);
    EXPECT_EQ(impl.m_content, "block");
}

TEST_F(ClientInterface, ClearingKeepsTheConnectionOnly) {
    RecordingClient client;
    connect(client);
    HttpClientInterfaceImpl& impl = *client.ctx();
    const int sock = impl.getSocket();
    client.setUri("/", HTTP_GET);
    client.addHeader("a", "b", false);
    client.setContent("c", 1);
    client.setContent(&noReader, this);
    impl.setErrorMessage("text");
    dirty(impl);
    client.clearClient();
    expectReset(impl);
    EXPECT_EQ(impl.uri(), "");
    EXPECT_TRUE(impl.m_headerLst.empty());
    EXPECT_EQ(impl.m_content, "");
    EXPECT_EQ(impl.contentReader(), nullptr);
    EXPECT_EQ(impl.contentOpaque(), nullptr);
    EXPECT_EQ(impl.errorMessage(), "");
    EXPECT_EQ(impl.clientStatus(), tiny::CLI_STATUS_CONNECTED);
    EXPECT_EQ(impl.getSocket(), sock);
}

// ---- starting

TEST_F(ClientInterface, StartingResetsAndRegistersTheRequest) {
    RecordingClient client;
    connect(client);
    HttpClientInterfaceImpl& impl = *client.ctx();
    dirty(impl);
    impl.setErrorMessage("former");
    EXPECT_EQ(client.startRequest("ignored"), 0);
    expectReset(impl);
    EXPECT_EQ(impl.clientStatus(), tiny::CLI_STATUS_CONNECTED | tiny::CLI_STATUS_REQUESTING);
    EXPECT_EQ(impl.errorMessage(), "");
    EXPECT_EQ(impl.streamId(), 1u);
    EXPECT_EQ(engine(client).m_httpClientMap,
              (std::map<uint32_t, HttpClientInterfaceImpl*>{{1, &impl}}));
    EXPECT_EQ(m_context->m_newHttp2Set.count(impl.getSocket()), 1u);

    EXPECT_EQ(client.startRequest(nullptr), 8);
    EXPECT_EQ(impl.errorMessage(), kBusy);
    EXPECT_EQ(impl.streamId(), 1u);
    EXPECT_EQ(engine(client).m_httpClientMap.size(), 1u);
}

TEST_F(ClientInterface, StartingWithoutTheConnectionLeavesItReady) {
    RecordingClient client;
    HttpClientInterfaceImpl& impl = *client.ctx();
    impl.setSocket(kNowhere);
    EXPECT_EQ(client.startRequest(nullptr), 4);  // nothing set: refused before it is looked for
    EXPECT_EQ(impl.errorMessage(), "please call connectToServer");
    impl.addClientStatus(tiny::CLI_STATUS_CONNECTED);
    dirty(impl);
    EXPECT_EQ(client.startRequest(nullptr), 2);
    expectReset(impl);
    EXPECT_EQ(impl.clientStatus(), tiny::CLI_STATUS_CONNECTED);
    EXPECT_EQ(impl.errorMessage(), "");
    EXPECT_EQ(impl.streamId(), 0u);
    EXPECT_EQ(m_context->m_newHttp2Set.count(kNowhere), 0u);
}

TEST_F(ClientInterface, IsMarkedAsRunningBeforeItsRequestIsRegistered) {
    const auto start = [](HttpClientInterface& client) {
        EXPECT_EQ(client.startRequest(nullptr), 0);
    };
    const auto block = [](HttpClientInterface& client) {
        int status = 0;
        std::map<std::string, std::string> headerMap;
        std::string content;
        const char* errMsg = nullptr;
        EXPECT_EQ(client.blockedRequest(status, headerMap, content, errMsg, 0), 1);
    };
    for (const auto& call : {std::function<void(HttpClientInterface&)>(start),
                             std::function<void(HttpClientInterface&)>(block)}) {
        RecordingClient client;
        connect(client);
        Http2& served = engine(client);
        std::thread caller;
        {
            // The call registers the request and then wants this lock, with its work half done.
            SingleLock hold(&m_context->m_newLock);
            caller = std::thread([&] { call(client); });
            EXPECT_TRUE(waitFor([&] {
                SingleLock registry(&served.m_httpClientLock);
                return !served.m_httpClientMap.empty();
            }));
            EXPECT_EQ(client.ctx()->clientStatus(),
                      tiny::CLI_STATUS_CONNECTED | tiny::CLI_STATUS_REQUESTING);
        }
        caller.join();
    }
}

TEST_F(ClientInterface, AnswerEndsTheRequestBeforeItsCallback) {
    HttpClientInterfaceImpl* impl = nullptr;
    std::vector<int> statuses;
    RecordingClient client([&](const Callback&) { statuses.push_back(impl->clientStatus()); });
    impl = client.ctx();
    connect(client);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    EXPECT_EQ(deliver(client, headers(1, hpackIndexed(8)) + data(1, "a") + data(1, "", kEndStream)),
              0);
    const int running = tiny::CLI_STATUS_CONNECTED | tiny::CLI_STATUS_REQUESTING;
    EXPECT_EQ(statuses, (std::vector<int>{running, running, tiny::CLI_STATUS_CONNECTED}));
    EXPECT_EQ(client.parseHttpClientStatus(nullptr), 0);
    EXPECT_FALSE(impl->receivedHttpContentCacheEnabled());
    EXPECT_EQ(impl->receivedHttpContent(), "");
}

TEST_F(ClientInterface, FailuresEndTheRequestBeforeTheirCallbacks) {
    HttpClientInterfaceImpl* impl = nullptr;
    std::vector<int> statuses;
    RecordingClient client([&](const Callback&) { statuses.push_back(impl->clientStatus()); });
    impl = client.ctx();
    const std::vector<std::string> answers = {rstStream(1, 2), frame(kGoaway, 0, 1, be64(0)),
                                              frame(10, 0, 0, "")};
    for (const std::string& answer : answers) {
        connect(client);
        ASSERT_EQ(client.startRequest(nullptr), 0);
        EXPECT_LT(deliver(client, answer), 0);
    }
    connect(client);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    m_context->m_httpIoMap.erase(impl->getSocket());  // the connection goes
    EXPECT_EQ(statuses, std::vector<int>(4, tiny::CLI_STATUS_CONNECTED));
    EXPECT_EQ(client.callbacks(),
              (std::vector<Callback>{Callback::failed(ERR_FETAL), Callback::failed(ERR_FETAL),
                                     Callback::failed(ERR_FETAL), Callback::closed()}));
}

// ---- cancelling

TEST_F(ClientInterface, CancellingWithdrawsAndResets) {
    RecordingClient client;
    connect(client);
    HttpClientInterfaceImpl& impl = *client.ctx();
    ASSERT_EQ(client.startRequest(nullptr), 0);
    dirty(impl);
    EXPECT_EQ(client.cancelRequest(), 0);
    expectReset(impl);
    EXPECT_EQ(impl.clientStatus(), tiny::CLI_STATUS_CONNECTED);
    EXPECT_TRUE(engine(client).m_httpClientMap.empty());
    ASSERT_EQ(engine(client).m_rstFrameMap.size(), 1u);
    EXPECT_EQ(engine(client).m_rstFrameMap.begin()->first, 1u);
    // Without a request it is the same.
    EXPECT_EQ(client.cancelRequest(), 0);
    EXPECT_EQ(engine(client).m_rstFrameMap.size(), 1u);
    EXPECT_EQ(client.callbacks(), std::vector<Callback>());
}

TEST_F(ClientInterface, CancellingWithoutTheConnectionResets) {
    RecordingClient client;
    HttpClientInterfaceImpl& impl = *client.ctx();
    impl.setSocket(kNowhere);
    impl.addClientStatus(tiny::CLI_STATUS_REQUESTING);
    dirty(impl);
    EXPECT_EQ(client.cancelRequest(), 0);
    expectReset(impl);
    EXPECT_EQ(impl.clientStatus(), tiny::CLI_STATE_NONE);
}

// ---- destruction

// Does not cancel in its destructor, as it should: the base class sees to the request.
class CarelessClient : public HttpClientInterface {
public:
    void onSocketClosed() override {}
    void onFailed(HTTP_ERROR) override {}
    void onHeaderReceived(int, const HeaderDef*, size_t) override {}
    void onContentReceived(const char*, size_t, bool) override {}
};

TEST_F(ClientInterface, DestructionWithdrawsTheRequest) {
    auto client = std::make_unique<CarelessClient>();
    connect(*client);
    ASSERT_EQ(client->startRequest(nullptr), 0);
    Http2& served = engine(*client);
    client.reset();
    EXPECT_TRUE(served.m_httpClientMap.empty());
    ASSERT_EQ(served.m_rstFrameMap.size(), 1u);
    EXPECT_EQ(served.m_rstFrameMap.begin()->first, 1u);
}

TEST_F(ClientInterface, DestructionWithdrawsTheRequestFromAFormerConnection) {
    auto client = std::make_unique<CarelessClient>();
    connect(*client);
    ASSERT_EQ(client->startRequest(nullptr), 0);
    Http2& former = engine(*client);
    connect(*client);
    Http2& latter = engine(*client);
    client.reset();
    EXPECT_TRUE(former.m_httpClientMap.empty());
    EXPECT_TRUE(former.m_rstFrameMap.empty());
    EXPECT_TRUE(latter.m_httpClientMap.empty());
    EXPECT_EQ(latter.m_rstFrameMap.count(1), 1u);
}

TEST_F(ClientInterface, CancellingWithdrawsTheRequestFromAFormerConnection) {
    CarelessClient client;
    connect(client);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    Http2& former = engine(client);
    connect(client);
    EXPECT_EQ(client.cancelRequest(), 0);
    EXPECT_TRUE(former.m_httpClientMap.empty());
    EXPECT_TRUE(former.m_rstFrameMap.empty());
    EXPECT_EQ(engine(client).m_rstFrameMap.count(1), 1u);
}

// ---- blocked requests

// One on a thread of its own.
class BlockedCall {
public:
    BlockedCall(HttpClientInterface& client, uint32_t timeout)
        : m_thread([this, &client, timeout] {
              result = client.blockedRequest(status, headerMap, content, errMsg, timeout);
              returned = true;
          }) {}
    ~BlockedCall() { join(); }
    void join() {
        if (m_thread.joinable()) m_thread.join();
    }

    int result = -99;
    int status = -99;
    std::map<std::string, std::string> headerMap = {{"former", "value"}};
    std::string content = "former";
    const char* errMsg = "former";
    std::atomic<bool> returned{false};

private:
    std::thread m_thread;  // last: it uses the others
};

TEST_F(ClientInterface, BlockedRequestCachesTheBodyWhileItRuns) {
    RecordingClient client;
    connect(client);
    HttpClientInterfaceImpl& impl = *client.ctx();
    BlockedCall call(client, kForever);
    ASSERT_TRUE(waitRegistered(client));
    EXPECT_EQ(deliver(client, headers(1, hpackIndexed(8)) + data(1, "abc")), 0);
    {
        SingleLock hold(&m_context->m_httpIolock);
        EXPECT_TRUE(impl.receivedHttpContentCacheEnabled());
        EXPECT_EQ(impl.receivedHttpContent(), "abc");
        EXPECT_EQ(impl.clientStatus(), tiny::CLI_STATUS_CONNECTED | tiny::CLI_STATUS_REQUESTING);
    }
    EXPECT_EQ(deliver(client, data(1, "de", kEndStream)), 0);
    call.join();
    EXPECT_EQ(call.result, 0);
    EXPECT_EQ(call.status, 200);
    EXPECT_EQ(call.headerMap, (std::map<std::string, std::string>{{":status", "200"}}));
    EXPECT_EQ(call.content, "abcde");
    EXPECT_STREQ(call.errMsg, "all content received");
    EXPECT_EQ(impl.errorMessage(), "all content received");
    expectReset(impl);
    EXPECT_EQ(impl.clientStatus(), tiny::CLI_STATUS_CONNECTED);
    EXPECT_TRUE(engine(client).m_httpClientMap.empty());
    EXPECT_EQ(engine(client).m_rstFrameMap.count(1), 1u);
}

TEST_F(ClientInterface, BlockedRequestReturnsAtOnceWhenTheBodyHasFailed) {
    RecordingClient client;
    connect(client);
    HttpClientInterfaceImpl& impl = *client.ctx();
    BlockedCall call(client, kForever);
    ASSERT_TRUE(waitRegistered(client));
    EXPECT_EQ(deliver(client, headers(1, hpackIndexed(14)) + data(1, "abc")), 0);
    // Nothing in the library says so yet.
    impl.m_recvContentStatus = tiny::RECV_STATUS_FAILED;
    call.join();
    EXPECT_EQ(call.result, 1);
    EXPECT_EQ(call.status, 500);
    EXPECT_EQ(call.headerMap, (std::map<std::string, std::string>{{"former", "value"}}));
    EXPECT_EQ(call.content, "former");
    EXPECT_STREQ(call.errMsg, kNothing);
    expectReset(impl);
}

TEST_F(ClientInterface, BlockedRequestReportsAnOverflowAtItsTimeOut) {
    RecordingClient client;
    connect(client);
    HttpClientInterfaceImpl& impl = *client.ctx();
    BlockedCall call(client, 500);
    ASSERT_TRUE(waitRegistered(client));
    EXPECT_EQ(deliver(client, data(1, std::string(1'048'576, 'x'))), 0);
    EXPECT_EQ(impl.receivedHttpContentStatus(), tiny::RECV_STATUS_START);
    EXPECT_EQ(deliver(client, data(1, "y")), 0);
    EXPECT_EQ(impl.receivedHttpContentStatus(), tiny::RECV_STATUS_CONTENT_OVERFLOW);
    while (!call.returned) {
    }  // uses up the time
    call.join();
    EXPECT_EQ(call.result, 1);
    EXPECT_STREQ(call.errMsg, "request failed, the content is over limit(1MB)");
    EXPECT_EQ(call.content, "former");
    expectReset(impl);
}

TEST_F(ClientInterface, BlockedRequestPointsAtTheErrorText) {
    RecordingClient client;
    connect(client);
    HttpClientInterfaceImpl& impl = *client.ctx();
    BlockedCall call(client, 0);
    call.join();
    EXPECT_EQ(call.result, 1);
    EXPECT_EQ(call.status, 0);
    EXPECT_STREQ(call.errMsg, kNothing);
    EXPECT_EQ(call.errMsg, impl.errorText());
    EXPECT_EQ(impl.errorMessage(), kNothing);
}

TEST_F(ClientInterface, BlockedRequestThatCannotStartLeavesItsArguments) {
    RecordingClient client;
    HttpClientInterfaceImpl& impl = *client.ctx();
    const char* const text = "former";
    int status = 7;
    std::map<std::string, std::string> headerMap = {{"a", "b"}};
    std::string content = "c";
    const char* errMsg = text;
    const auto expectRefused = [&](const char* message) {
        EXPECT_EQ(client.blockedRequest(status, headerMap, content, errMsg, kForever), 2);
        EXPECT_EQ(status, 7);
        EXPECT_EQ(headerMap, (std::map<std::string, std::string>{{"a", "b"}}));
        EXPECT_EQ(content, "c");
        EXPECT_EQ(errMsg, text);
        EXPECT_EQ(impl.errorMessage(), message);
    };
    impl.setErrorMessage("untouched");
    expectRefused("untouched");  // not connected
    impl.setSocket(kNowhere);
    expectRefused("please call connectToServer");  // nothing set
    impl.addClientStatus(tiny::CLI_STATUS_CONNECTED);
    impl.addClientStatus(tiny::CLI_STATUS_REQUESTING);
    dirty(impl);
    expectRefused(kBusy);
    EXPECT_EQ(impl.receivedHttpContent(), "old");  // the running request is not disturbed
    EXPECT_EQ(impl.clientStatus(), tiny::CLI_STATUS_CONNECTED | tiny::CLI_STATUS_REQUESTING);
    impl.removeClientStatus(tiny::CLI_STATUS_REQUESTING);
    expectRefused("");  // the connection is gone
    EXPECT_EQ(impl.clientStatus(), tiny::CLI_STATUS_CONNECTED);
    EXPECT_EQ(impl.receivedHttpContent(), "");
}

}  // namespace
}  // namespace h2test
