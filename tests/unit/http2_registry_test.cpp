#include "tests/unit/engine_fixture.h"

namespace {

using namespace h2test;
using Streams = std::vector<uint32_t>;

class Http2Registry : public EngineTest {};

TEST_F(Http2Registry, StartsWithItsDefaults) {
    EXPECT_FALSE(m_engine->m_prefaceSent);
    EXPECT_FALSE(m_engine->m_settingSent);
    EXPECT_TRUE(m_engine->m_settingReceived);
    EXPECT_EQ(m_engine->m_streamIndex, 1U);
    EXPECT_EQ(m_engine->m_bufferLen, 16384U);
    EXPECT_EQ(std::string(m_engine->m_buffer, 16384), std::string(16384, '\0'));
    EXPECT_EQ(m_engine->m_initWndSize, 65536U);
    EXPECT_EQ(m_engine->m_flowCtrlSize, 32768U);
    EXPECT_FALSE(m_engine->m_isManual);
    EXPECT_EQ(m_engine->m_flowCtrlMsg, "");
    EXPECT_TRUE(m_engine->m_flowControlMap.empty());
    EXPECT_EQ(m_engine->m_streamPingTicker, 0);
    EXPECT_FALSE(m_engine->m_waitPong);
    EXPECT_TRUE(m_engine->m_rstFrameMap.empty());
    EXPECT_TRUE(m_engine->m_httpClientMap.empty());
}

TEST_F(Http2Registry, FillsTheTextTablesOnce) {
    const std::map<int, std::string> methods = {{1, "GET"}, {2, "POST"}, {3, "DELETE"}};
    const std::map<int, std::string> versions = {{1, "http"}, {2, "https"}};
    EXPECT_EQ(tiny::m_methodMap, methods);
    EXPECT_EQ(tiny::m_versionMap, versions);
    tiny::m_methodMap[1] = "CHANGED";
    tiny::m_versionMap[7] = "added";
    const tiny::Http2 second;
    EXPECT_EQ(tiny::m_methodMap[1], "CHANGED");
    EXPECT_EQ(tiny::m_versionMap[7], "added");
    tiny::m_methodMap.clear();
    tiny::m_versionMap.clear();
    const tiny::Http2 third;
    EXPECT_EQ(tiny::m_methodMap, methods);
    EXPECT_EQ(tiny::m_versionMap, versions);
}

TEST_F(Http2Registry, HandsOutOddStreamsAndNeverTakesThemBack) {
    RecordingClient* a = request(HTTP_GET, "/");
    RecordingClient* b = request(HTTP_GET, "/");
    m_engine->removeHttpClient(a->ctx());
    RecordingClient* c = request(HTTP_GET, "/");
    EXPECT_EQ(a->ctx()->streamId(), 1U);
    EXPECT_EQ(b->ctx()->streamId(), 3U);
    EXPECT_EQ(c->ctx()->streamId(), 5U);
    EXPECT_EQ(registered(), (Streams{3, 5}));
}

TEST_F(Http2Registry, StreamIdentifiersWrap) {
    m_engine->m_streamIndex = 0xFFFFFFFF;
    EXPECT_EQ(m_engine->generateStreamId(), 0xFFFFFFFFU);
    EXPECT_EQ(m_engine->generateStreamId(), 1U);
    EXPECT_EQ(m_engine->generateStreamId(), 3U);
}

TEST_F(Http2Registry, RemovalQueuesAReset) {
    RecordingClient* client = request(HTTP_GET, "/");
    m_engine->removeHttpClient(client->ctx());
    EXPECT_TRUE(registered().empty());
    ASSERT_EQ(m_engine->m_rstFrameMap.size(), 1U);
    EXPECT_EQ(m_engine->m_rstFrameMap.at(1)->getErrorCode(), 8U);
    EXPECT_EQ(m_engine->m_rstFrameMap.at(1)->getStreamId(), 1U);
    m_engine->removeHttpClient(client->ctx());
    EXPECT_EQ(m_engine->m_rstFrameMap.size(), 1U);
    EXPECT_TRUE(client->callbacks().empty());
}

TEST_F(Http2Registry, RemovalOfAStrangerQueuesItsStreamOnly) {
    RecordingClient* mine = request(HTTP_GET, "/");
    RecordingClient* stranger = newClient();
    m_engine->removeHttpClient(stranger->ctx());
    EXPECT_EQ(m_engine->m_rstFrameMap.count(0), 1U);
    stranger->ctx()->setStreamId(1);  // another's stream: the registry is left alone
    m_engine->removeHttpClient(stranger->ctx());
    EXPECT_EQ(m_engine->m_rstFrameMap.count(1), 1U);
    EXPECT_EQ(registered(), Streams{1});
    EXPECT_EQ(m_engine->m_httpClientMap.at(1), mine->ctx());
}

TEST_F(Http2Registry, RemovalOfNullChangesNothing) {
    request(HTTP_GET, "/");
    m_engine->removeHttpClient(nullptr);
    EXPECT_TRUE(m_engine->m_rstFrameMap.empty());
    EXPECT_EQ(registered(), Streams{1});
}

TEST_F(Http2Registry, ForgetsEveryRegistrationSilently) {
    RecordingClient* client = request(HTTP_GET, "/");
    m_engine->addHttpClient(client->ctx());
    request(HTTP_GET, "/other");
    m_engine->addHttpClient(client->ctx());
    EXPECT_EQ(registered(), (Streams{1, 3, 5, 7}));
    m_engine->forgetHttpClient(client->ctx());
    EXPECT_EQ(registered(), Streams{5});
    EXPECT_TRUE(m_engine->m_rstFrameMap.empty());
}

TEST_F(Http2Registry, HooksDoNothing) {
    request(HTTP_GET, "/");
    m_engine->makeRstStream(1, 8);
    m_engine->testWriteDataFrame("x", 1);
    EXPECT_TRUE(m_engine->m_rstFrameMap.empty());
    EXPECT_EQ(registered(), Streams{1});
}

TEST_F(Http2Registry, DestructionTellsEveryRequestInStreamOrder) {
    std::vector<int> order;
    bool requesting = true;
    RecordingClient* first = nullptr;
    first = request(HTTP_GET, "/1", [&](const Callback&) {
        order.push_back(1);
        requesting = isRequesting(first);
    });
    m_engine->addHttpClient(nullptr);
    RecordingClient* second = request(HTTP_GET, "/2", [&](const Callback&) { order.push_back(2); });
    LogCapture log;
    m_engine.reset();
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
    EXPECT_FALSE(requesting);
    EXPECT_EQ(first->callbacks(), std::vector<Callback>{Callback::closed()});
    EXPECT_EQ(second->callbacks(), std::vector<Callback>{Callback::closed()});
    EXPECT_EQ(log.messages(20000),
              (std::vector<std::string>{"~~~~~Http2::Http2", "onSocketClosed: Uri:/1",
                                        "onSocketClosed: Uri:/2"}));
    EXPECT_EQ(log.records()[0].file, "Http2.cpp");
    EXPECT_EQ(log.records()[0].function, "virtual tiny::Http2::~Http2()");
    EXPECT_GT(log.records()[0].line, 0);
}

TEST_F(Http2Registry, BuildsNoLogTextWhenTheLevelIsOff) {
    request(HTTP_GET, "/1");
    LogCapture log(20001);  // INFO is below
    m_engine.reset();
    EXPECT_TRUE(log.records().empty());
    EXPECT_EQ(log.levelQueries(), 2U);
}

}  // namespace
