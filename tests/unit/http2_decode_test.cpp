#include "tests/unit/engine_fixture.h"

namespace {

using namespace h2test;
using Streams = std::vector<uint32_t>;
using Calls = std::vector<Callback>;

class Http2Decode : public EngineTest {
protected:
    Streams queuedResets() const {
        Streams streams;
        for (const auto& [streamId, frame] : m_engine->m_rstFrameMap) {
            EXPECT_EQ(frame->getStreamId(), streamId);
            EXPECT_EQ(frame->getErrorCode(), 8U);
            streams.push_back(streamId);
        }
        return streams;
    }
    // The console without the reassembler's line of each frame header.
    std::string consoleOf(const std::string& bytes, int expected = 0) {
        m_out.clear();
        EXPECT_EQ(decode(bytes), expected);
        return m_out.str();
    }
};

TEST_F(Http2Decode, EmptyChunkChangesNothing) {
    request(HTTP_GET, "/");
    m_out.clear();
    EXPECT_EQ(m_engine->decodeFrame(nullptr, 0), 0);
    EXPECT_EQ(m_out.str(), "");
    EXPECT_EQ(registered(), Streams{1});
}

TEST_F(Http2Decode, HalfAFrameWaitsForItsRest) {
    RecordingClient* client = request(HTTP_GET, "/");
    const std::string bytes = data(1, "hello");
    EXPECT_EQ(decode(bytes.substr(0, 11)), 0);
    EXPECT_TRUE(client->callbacks().empty());
    EXPECT_EQ(decode(bytes.substr(11)), 0);
    EXPECT_EQ(client->callbacks(), Calls{Callback::content("hello", true)});
}

TEST_F(Http2Decode, ReportsHeadersInAscendingOrder) {
    RecordingClient* client = request(HTTP_GET, "/u");
    LogCapture log;
    const std::string block =
        hpackLiteral("z", "1") + hex("88") + hpackLiteral("a", "2") + hpackLiteral("z", "3");
    EXPECT_EQ(consoleOf(headers(1, block)),
              "HEADERS\nreceived a stream: id = 1 name = HEADERS    length = 16\n"
              "z    1\n:status    200\na    2\nz    3\n");
    EXPECT_EQ(client->callbacks(),
              Calls{Callback::headers(200, {{":status", "200"}, {"a", "2"}, {"z", "3"}})});
    EXPECT_EQ(log.messages(20000), std::vector<std::string>{"uri: /u status:200"});
    EXPECT_EQ(registered(), Streams{1});
}

// References share an entry's texts; literals of the same name bring texts of their own.
TEST_F(Http2Decode, KeepsTheLastValueOfANameHoweverItCame) {
    RecordingClient* client = request(HTTP_GET, "/u");
    const std::string block = hpackLiteral("a", "1", Literal::kIncremental) +  // becomes 62, 63, 64
                              hpackLiteral("a", "2", Literal::kIncremental) +
                              hpackLiteral(62, "3", Literal::kIncremental) +  // the name of "a: 2"
                              hpackIndexed(62) + hpackIndexed(64) + hpackLiteral(8, "301") +
                              hex("88") + hpackLiteral(":status", "404") + hpackLiteral(9, "500") +
                              hex("89") + hpackLiteral("a", "4") + hpackIndexed(63) +
                              hpackIndexed(64) + hpackIndexed(62);
    const std::string console = consoleOf(headers(1, block));
    EXPECT_EQ(console.substr(console.find("a    1")),
              "a    1\na    2\na    3\na    3\na    1\n"
              ":status    301\n:status    200\n:status    404\n:status    500\n:status    204\n"
              "a    4\na    2\na    1\na    3\n");
    EXPECT_EQ(client->callbacks(), Calls{Callback::headers(204, {{":status", "204"}, {"a", "3"}})});
    // After a reference to an older entry of the same name, in a separate call.
    decode(headers(1, hpackLiteral("a", "5", Literal::kIncremental) + hpackLiteral("a", "6") +
                          hpackLiteral(8, "101") + hpackIndexed(62)));
    EXPECT_EQ(client->callbacks().back(), Callback::headers(101, {{":status", "101"}, {"a", "5"}}));
}

TEST_F(Http2Decode, ConvertsTheStatusLikeAtoi) {
    const std::pair<const char*, int> cases[] = {{"204", 204},
                                                 {"", 0},
                                                 {"abc", 0},
                                                 {" 12x", 12},
                                                 {"-5", -5},
                                                 {"99999999999", 1215752191},
                                                 {"-99999999999", -1215752191},
                                                 {"99999999999999999999999", -1}};
    for (const auto& [text, status] : cases) {
        RecordingClient* client = request(HTTP_GET, "/");
        decode(headers(client->ctx()->streamId(), hpackLiteral(8, text)));
        EXPECT_EQ(client->callbacks(), Calls{Callback::headers(status, {{":status", text}})});
    }
}

TEST_F(Http2Decode, KeepsHeadersUntilEndHeaders) {
    RecordingClient* client = request(HTTP_GET, "/");
    EXPECT_EQ(decode(headers(1, hex("88") + hpackLiteral("a", "1"), 0)), 0);
    EXPECT_EQ(decode(continuation(1, hpackLiteral("b", "2"))), 0);
    EXPECT_TRUE(client->callbacks().empty());
    EXPECT_EQ(client->ctx()->receivedHttpStatus(), 200);
    EXPECT_EQ(decode(headers(1, hpackLiteral("c", "3"))), 0);
    EXPECT_EQ(client->callbacks(),
              Calls{Callback::headers(200, {{":status", "200"}, {"a", "1"}, {"c", "3"}})});
}

TEST_F(Http2Decode, ReportsTrailersWithAllHeaders) {
    RecordingClient* client = request(HTTP_GET, "/");
    decode(headers(1, hex("88")) + data(1, "x") +
           headers(1, hpackLiteral("t", "1"), kEndHeaders | kEndStream));
    EXPECT_EQ(client->callbacks(),
              (Calls{Callback::headers(200, {{":status", "200"}}), Callback::content("x", true),
                     Callback::headers(200, {{":status", "200"}, {"t", "1"}})}));
    EXPECT_EQ(registered(), Streams{1});  // END_STREAM on HEADERS ends nothing
    EXPECT_TRUE(isRequesting(client));
}

TEST_F(Http2Decode, ReportsWhatWasDecodedBeforeAHuffmanString) {
    RecordingClient* client = request(HTTP_GET, "/");
    decode(headers(1, hex("88") + hpackHuffmanString("\x1F") + hpackLiteral("a", "1")));
    ASSERT_EQ(client->callbacks().size(), 1U);
    EXPECT_EQ(client->callbacks()[0].status, 200);
}

TEST_F(Http2Decode, IgnoresHeadersOfOtherStreams) {
    RecordingClient* client = request(HTTP_GET, "/");
    EXPECT_EQ(decode(headers(3, hex("88")) + headers(0, hex("88")) + headers(2, hex("88"))), 0);
    EXPECT_TRUE(client->callbacks().empty());
    EXPECT_TRUE(queuedResets().empty());
}

TEST_F(Http2Decode, DeliversTheBodyAndEndsTheRequest) {
    bool requestingAtEnd = true;
    bool registeredAtEnd = false;
    RecordingClient* client = nullptr;
    client = request(HTTP_GET, "/", [&](const Callback& call) {
        if (call.more) return;
        requestingAtEnd = isRequesting(client);
        registeredAtEnd = m_engine->m_httpClientMap.count(1) == 1;
    });
    const std::string a(100, 'a');
    const std::string b(50, 'b');
    EXPECT_EQ(decode(data(1, a)), 0);
    EXPECT_EQ(client->ctx()->receivedHttpContentStatus(), tiny::RECV_STATUS_START);
    EXPECT_TRUE(isRequesting(client));
    EXPECT_EQ(decode(data(1, b, kEndStream)), 0);
    EXPECT_EQ(client->callbacks(),
              (Calls{Callback::content(a, true), Callback::content(b, false)}));
    EXPECT_EQ(client->ctx()->receivedHttpContentStatus(), tiny::RECV_STATUS_END);
    EXPECT_FALSE(requestingAtEnd);
    EXPECT_TRUE(registeredAtEnd);
    EXPECT_TRUE(registered().empty());
    EXPECT_EQ(queuedResets(), Streams{1});
    EXPECT_EQ(m_engine->m_flowControlMap, (std::map<uint32_t, uint32_t>{{1, 150}}));
}

TEST_F(Http2Decode, HandsOverTheDataAndCreditsTheFrame) {
    RecordingClient* client = request(HTTP_GET, "/");
    decode(dataPadded(1, "abc", 10));
    EXPECT_EQ(client->callbacks(), Calls{Callback::content("abc", true)});
    EXPECT_EQ(m_engine->m_flowControlMap.at(1), 14U);
    // Padding that does not fit: no data, but the padding counts as declared.
    decode(frame(kData, kPadded | kEndStream, 1, hex("09 61")));
    EXPECT_EQ(client->callbacks().back(), Callback::content("", false));
    EXPECT_EQ(m_engine->m_flowControlMap.at(1), 24U);
}

TEST_F(Http2Decode, CachesTheBodyWhenAsked) {
    RecordingClient* client = request(HTTP_GET, "/");
    client->ctx()->setReceivedHttpContentCacheEnabled(true);
    decode(data(1, "ab") + data(1, "cd", kEndStream));
    EXPECT_EQ(client->ctx()->receivedHttpContent(), "abcd");
}

TEST_F(Http2Decode, ResetsUnknownStreamsAndCreditsThem) {
    EXPECT_EQ(decode(data(7, "abc") + data(0, "x") + data(2, "")), 0);
    EXPECT_EQ(queuedResets(), (Streams{0, 2, 7}));
    EXPECT_EQ(m_engine->m_flowControlMap, (std::map<uint32_t, uint32_t>{{0, 1}, {2, 0}, {7, 3}}));
}

TEST_F(Http2Decode, CountsTheCallsCreditIntoAStringNobodySends) {
    EXPECT_EQ(decode(data(1, "")), 0);
    EXPECT_EQ(m_engine->m_flowCtrlMsg, "");  // a total of 0 writes nothing
    EXPECT_EQ(decode(data(3, "abc") + data(1, "") + data(3, "de")), 0);
    const std::string once =
        windowUpdate(0, 5) + windowUpdate(3, 3) + windowUpdate(1, 0) + windowUpdate(3, 2);
    EXPECT_EQ(m_engine->m_flowCtrlMsg, once);
    EXPECT_EQ(decode(data(5, "x")), 0);
    EXPECT_EQ(m_engine->m_flowCtrlMsg, once + windowUpdate(0, 1) + windowUpdate(5, 1));
}

TEST_F(Http2Decode, DataAndPingResetTheKeepAliveCounter) {
    m_engine->m_waitPong = true;
    m_engine->m_streamPingTicker = 5;
    decode(data(1, "x"));
    EXPECT_FALSE(m_engine->m_waitPong);
    EXPECT_EQ(m_engine->m_streamPingTicker, 0);
    m_engine->m_waitPong = true;
    m_engine->m_streamPingTicker = 5;
    EXPECT_EQ(consoleOf(ping(1)),
              "PING\nreceived a stream: id = 0 name = PING    length = 8\npong \n");
    EXPECT_FALSE(m_engine->m_waitPong);
    EXPECT_EQ(m_engine->m_streamPingTicker, 0);
}

TEST_F(Http2Decode, AnswersNeitherPingNorSettings) {
    sendOpening();
    m_engine->m_settingReceived = false;
    EXPECT_EQ(consoleOf(settings({{4, 5}}) + settingsAck() + ping(3) + ping(3, kAck)),
              "SETTINGS\nSETTINGS\nPING\nPING\n"
              "received a stream: id = 0 name = SETTINGS    length = 30\n5\n"
              "received a stream: id = 0 name = SETTINGS    length = 0\n1073741824\n"
              "received a stream: id = 0 name = PING    length = 8\npong \n"
              "received a stream: id = 0 name = PING    length = 8\npong \n");
    EXPECT_TRUE(m_engine->m_settingReceived);
    EXPECT_EQ(encode(), "");
}

TEST_F(Http2Decode, IgnoresTheOtherFrames) {
    RecordingClient* client = request(HTTP_GET, "/");
    sendOpening();
    encode();
    EXPECT_EQ(decode(frame(kPriority, 0, 1, hex("00 00 00 03 10")) + windowUpdate(1, 5) +
                     continuation(1, hex("88")) + frame(kPushPromise, 4, 1, hex("00 00 00 02 88"))),
              0);
    EXPECT_TRUE(client->callbacks().empty());
    EXPECT_EQ(encode(), "");
}

TEST_F(Http2Decode, ServersResetFailsTheRequestAndTheConnection) {
    bool requesting = true;
    RecordingClient* client = nullptr;
    client = request(HTTP_GET, "/r", [&](const Callback&) { requesting = isRequesting(client); });
    RecordingClient* other = request(HTTP_GET, "/o");
    LogCapture log;
    EXPECT_EQ(decode(data(1, "x") + rstStream(1, 2) + headers(3, hex("88"))), -2);
    EXPECT_EQ(client->callbacks(),
              (Calls{Callback::content("x", true), Callback::failed(ERR_FETAL)}));
    EXPECT_FALSE(requesting);
    EXPECT_TRUE(other->callbacks().empty());
    EXPECT_EQ(registered(), Streams{3});
    EXPECT_EQ(queuedResets(), Streams{1});
    EXPECT_TRUE(m_engine->m_frameCtx.hasFrame());  // the HEADERS frame
    EXPECT_EQ(m_engine->m_flowCtrlMsg, "");
    ASSERT_EQ(log.records().size(), 2U);
    EXPECT_EQ(log.records()[0].level, 40000);
    EXPECT_EQ(log.records()[0].message, "this frame have RST! 1");
    EXPECT_EQ(log.records()[1].level, 20000);
    EXPECT_EQ(log.records()[1].message, "uri: /r status: ERR_FETAL!");
}

TEST_F(Http2Decode, ServersResetOfAnUnknownStreamClosesToo) {
    RecordingClient* client = request(HTTP_GET, "/");
    EXPECT_EQ(decode(rstStream(9, 0)), -2);
    EXPECT_TRUE(client->callbacks().empty());
    EXPECT_EQ(queuedResets(), Streams{9});
    EXPECT_EQ(decode(frame(kRstStream, 0, 1, "abc")), -2);  // of a wrong length as well
    EXPECT_EQ(client->callbacks(), Calls{Callback::failed(ERR_FETAL)});
}

TEST_F(Http2Decode, GoawayOnStreamZeroFailsNothing) {
    RecordingClient* client = request(HTTP_GET, "/");
    LogCapture log;
    const std::string bytes = goaway(0, 11, "slow down");
    EXPECT_EQ(consoleOf(bytes, -2),
              "GOAWAY\nreceived a stream: id = 0 name = GOAWAY    length = 17\n"
              "goaway frame: errorcode = 11\n");
    EXPECT_TRUE(client->callbacks().empty());
    EXPECT_EQ(registered(), Streams{1});
    EXPECT_EQ(
        log.messages(20000),
        (std::vector<std::string>{"goaway frame: errorcode = 11 status: ERR_FETAL! streamId :0",
                                  "received stream: " + bytes}));
}

TEST_F(Http2Decode, GoawayOnAStreamFailsFromThereOn) {
    RecordingClient* one = request(HTTP_GET, "/1");
    RecordingClient* three = request(HTTP_GET, "/3");
    m_engine->addHttpClient(nullptr);
    bool requesting = true;
    RecordingClient* seven = nullptr;
    seven = request(HTTP_GET, "/7", [&](const Callback&) { requesting = isRequesting(seven); });
    EXPECT_EQ(decode(frame(kGoaway, 0, 3, hex("00 00 00 01 00 00 00 00"))), -2);
    EXPECT_TRUE(one->callbacks().empty());
    EXPECT_EQ(three->callbacks(), Calls{Callback::failed(ERR_FETAL)});
    EXPECT_EQ(seven->callbacks(), Calls{Callback::failed(ERR_FETAL)});
    EXPECT_FALSE(requesting);
    EXPECT_EQ(registered(), (Streams{1, 5}));
    EXPECT_EQ(queuedResets(), (Streams{3, 7}));
    EXPECT_EQ(decode(frame(kGoaway, 0, 9, hex("00 00 00 01 00 00 00 00"))), -2);
    EXPECT_TRUE(one->callbacks().empty());  // 9 is no registered stream
}

TEST_F(Http2Decode, GoawayWalksSafelyOverARequestRegisteredTwice) {
    RecordingClient* twice = request(HTTP_GET, "/");
    m_engine->addHttpClient(twice->ctx());  // 3 now
    RecordingClient* last = request(HTTP_GET, "/5");
    EXPECT_EQ(decode(frame(kGoaway, 0, 1, std::string(8, '\0'))), -2);
    EXPECT_EQ(twice->callbacks(), Calls{Callback::failed(ERR_FETAL)});
    EXPECT_EQ(last->callbacks(), Calls{Callback::failed(ERR_FETAL)});
    EXPECT_EQ(registered(), Streams{1});  // the entry under the identifier it no longer knows
    m_engine->forgetHttpClient(twice->ctx());
}

TEST_F(Http2Decode, UnframeableBytesFailEveryRequest) {
    std::vector<int> order;
    bool requesting = true;
    RecordingClient* first = nullptr;
    first = request(HTTP_GET, "/1", [&](const Callback&) {
        order.push_back(1);
        requesting = isRequesting(first);
        EXPECT_EQ(m_engine->m_httpClientMap.count(1), 0U);
        SingleLock free(&m_engine->m_httpClientLock);  // the callback is outside the lock
    });
    m_engine->addHttpClient(nullptr);
    RecordingClient* second = request(HTTP_GET, "/2", [&](const Callback&) { order.push_back(2); });
    LogCapture log;
    const std::string bad = frame(10, 0, 0, "");
    EXPECT_EQ(consoleOf(bad, -1), "fetal error\nfetal error\n");
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
    EXPECT_FALSE(requesting);
    EXPECT_EQ(first->callbacks(), Calls{Callback::failed(ERR_FETAL)});
    EXPECT_EQ(second->callbacks(), Calls{Callback::failed(ERR_FETAL)});
    EXPECT_TRUE(registered().empty());
    EXPECT_EQ(queuedResets(), Streams{0});
    EXPECT_EQ(log.messages(20000), (std::vector<std::string>{"uri: /1 status: ERR_FETAL!",
                                                             "uri: /2 status: ERR_FETAL!"}));
    EXPECT_EQ(decode("x"), -1);  // for good
}

TEST_F(Http2Decode, PassesOverNullEntries) {
    m_engine->addHttpClient(nullptr);
    EXPECT_EQ(decode(headers(1, hex("88")) + data(1, "x", kEndStream)), 0);
    EXPECT_TRUE(queuedResets().empty());
    EXPECT_EQ(registered(), Streams{1});
    EXPECT_EQ(decode(rstStream(1, 8)), -2);
    EXPECT_EQ(registered(), Streams{1});
    EXPECT_EQ(queuedResets(), Streams{1});
    EXPECT_EQ(decode(frame(kGoaway, 0, 1, std::string(8, '\0'))), -2);
    EXPECT_EQ(registered(), Streams{1});
}

TEST_F(Http2Decode, LeavesTheSendingTableAlone) {
    request(HTTP_GET, "/");
    decode(headers(1, hpackLiteral("n", "v", Literal::kIncremental)));
    EXPECT_TRUE(m_engine->m_hpackTable.dynamic_table_.empty());
    EXPECT_EQ(m_engine->m_hpackTable.dynamic_table_size_max_, 4096U);
}

}  // namespace
