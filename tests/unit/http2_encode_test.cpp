#include <algorithm>
#include <map>
#include <random>

#include "tests/unit/engine_fixture.h"

namespace {

using namespace h2test;
using Streams = std::vector<uint32_t>;

const std::string kSettingsBytes =
    hex("00 00 1E 04 00 00 00 00 00 | 00 02 00 00 00 00 | 00 03 00 00 00 64 | 00 04 40 00 00 00 |"
        "00 05 00 80 00 00 | 00 06 00 00 FF FF");

class Http2Encode : public EngineTest {
protected:
    // A body reader over a string, and how often it was asked.
    struct Source {
        std::string body;
        size_t offset = 0;
        int calls = 0;
        int claim = -2;  // what to claim instead of the truth; -2 for the truth
        static int read(char* buf, size_t len, void* opaque) {
            auto* source = static_cast<Source*>(opaque);
            ++source->calls;
            EXPECT_EQ(len, 16384U);
            const size_t n = source->body.copy(buf, len, source->offset);
            source->offset += n;
            return source->claim == -2 ? static_cast<int>(n) : source->claim;
        }
    };

    RecordingClient* upload(Source& source) {
        RecordingClient* client = request(HTTP_POST, "/");
        client->ctx()->setContent(&Source::read, &source);
        sendOpening();
        EXPECT_EQ(encode(), headers(1, hex("83 86 44 01") + "/", kEndHeaders));
        return client;
    }

    void uploadBlock(const std::string& body) {
        RecordingClient* client = request(HTTP_POST, "/");
        client->ctx()->setContent(body);
        sendOpening();
        encode();
    }
};

TEST_F(Http2Encode, OpensWithPrefaceAndSettings) {
    EXPECT_EQ(encode(), kPreface);
    EXPECT_EQ(encode(), kSettingsBytes);
    EXPECT_EQ(encode(), "");
    EXPECT_EQ(encode(), "");
}

TEST_F(Http2Encode, WaitsWhenTheServersSettingsAreAwaited) {
    request(HTTP_GET, "/");
    sendOpening();
    m_engine->m_settingReceived = false;
    EXPECT_EQ(encode(), "");
    EXPECT_EQ(decode(settings({})), 0);
    EXPECT_NE(encode(), "");
}

TEST_F(Http2Encode, SendsAGetAsOneFrame) {
    RecordingClient* client = request(HTTP_GET, "/a");
    addHeader(client, "host", "h");
    addHeader(client, "x-a", "1", true);
    sendOpening();
    EXPECT_EQ(encode(), headers(1,
                                hex("82 | 86 | 44 02") + "/a" + hex("66 01") + "h" + hex("10 03") +
                                    "x-a" + hex("01") + "1",
                                kEndHeaders | kEndStream));
    EXPECT_TRUE(client->ctx()->httpHandshake());
    EXPECT_EQ(encode(), "");
}

TEST_F(Http2Encode, IndexesTheMethodsOfTheStaticTableOnly) {
    request(HTTP_DELETE, "/");
    sendOpening();
    EXPECT_EQ(encode(), headers(1, hex("42 06") + "DELETE" + hex("86 44 01") + "/", 5));
    RecordingClient* tls = request(HTTP_POST, "/");
    tls->ctx()->setHttpVersion(HTTPS_2);
    EXPECT_EQ(encode(), headers(3, hex("83 87 44 01") + "/", 5));
}

TEST_F(Http2Encode, GivesMissingTextsEmptyValues) {
    RecordingClient* client = request(static_cast<HTTP_METHOD>(9), "");
    client->ctx()->setHttpVersion(HTTP_VERSION_UNDEFINED);
    sendOpening();
    // An empty :method is a literal; an empty :scheme matches by its name alone.
    EXPECT_EQ(encode(), headers(1, hex("42 00 | 86 | 44 00"), 5));
}

TEST_F(Http2Encode, DropsHeadersWithoutNameOrValue) {
    RecordingClient* client = request(HTTP_GET, "/");
    addHeader(client, "x", "");
    addHeader(client, "", "v");
    addHeader(client, "y", "1");
    sendOpening();
    EXPECT_EQ(encode(), headers(1, hex("82 86 44 01") + "/" + hex("40 01 79 01 31"), 5));
}

TEST_F(Http2Encode, FillsTheBudgetExactly) {
    RecordingClient* client = request(HTTP_GET, "/");
    addHeader(client, "x", std::string(16283 - 1 - 1, 'v'));  // the URI's 1, the name's 1
    sendOpening();
    const auto frames = parseFrames(encode());
    ASSERT_EQ(frames.size(), 1U);
    EXPECT_EQ(frames[0].flags, kEndHeaders | kEndStream);
    EXPECT_EQ(encode(), "");
}

TEST_F(Http2Encode, SplitsHeadersPastTheBudgetOverHeadersFrames) {
    RecordingClient* client = request(HTTP_GET, "/");
    addHeader(client, "x", std::string(16283 - 1 - 1, 'v'));
    addHeader(client, "y", "1");
    sendOpening();
    const auto first = parseFrames(encode());
    ASSERT_EQ(first.size(), 1U);
    EXPECT_EQ(first[0].type, kHeaders);
    EXPECT_EQ(first[0].flags, kEndStream);  // no END_HEADERS
    EXPECT_EQ(encode(), headers(1, hex("40 01 79 01 31"), kEndHeaders | kEndStream));
    EXPECT_EQ(encode(), "");
}

TEST_F(Http2Encode, NeverSendsAHeaderAboveTheBudget) {
    RecordingClient* client = request(HTTP_POST, "/");
    addHeader(client, "x", std::string(16283, 'v'));
    addHeader(client, "y", "1");
    Source source{"abc"};
    client->ctx()->setContent(&Source::read, &source);
    sendOpening();
    EXPECT_EQ(encode(), headers(1, hex("83 86 44 01") + "/", 0));
    EXPECT_EQ(encode(), data(1, "abc", kEndStream));
    EXPECT_EQ(encode(), "");
}

TEST_F(Http2Encode, CountsDroppedHeadersIntoTheBudget) {
    RecordingClient* client = request(HTTP_GET, "/");
    addHeader(client, std::string(16282, 'n'), "");
    addHeader(client, "y", "1");
    sendOpening();
    EXPECT_EQ(encode(), headers(1, hex("82 86 44 01") + "/", kEndStream));
    EXPECT_EQ(encode(), headers(1, hex("40 01 79 01 31"), kEndHeaders | kEndStream));
}

TEST_F(Http2Encode, SendsAReadersBody) {
    Source source{"hello"};
    upload(source);
    EXPECT_EQ(encode(), data(1, "hello", kEndStream));
    EXPECT_EQ(encode(), "");
    EXPECT_EQ(source.calls, 1);
}

TEST_F(Http2Encode, EndsAFullChunkWithAnEmptyFrame) {
    Source source{std::string(16384, 'x')};
    upload(source);
    EXPECT_EQ(encode(), data(1, std::string(16384, 'x')));
    EXPECT_EQ(encode(), data(1, "", kEndStream));
    EXPECT_EQ(encode(), "");
    EXPECT_EQ(source.calls, 2);
}

TEST_F(Http2Encode, SendsALongBodyInChunks) {
    std::string body;
    for (int i = 0; i < 40000; ++i) body += static_cast<char>(i * 7 >> 3);
    Source source{body};
    upload(source);
    EXPECT_EQ(encode(), data(1, body.substr(0, 16384)));
    EXPECT_EQ(encode(), data(1, body.substr(16384, 16384)));
    EXPECT_EQ(encode(), data(1, body.substr(32768), kEndStream));
    EXPECT_EQ(encode(), "");
}

TEST_F(Http2Encode, BoundsAReadersClaim) {
    Source source{"abc"};
    source.claim = 1 << 30;
    upload(source);
    EXPECT_EQ(encode(), data(1, "abc" + std::string(16381, '\0')));
    source.claim = -1;
    EXPECT_EQ(encode(), data(1, "", kEndStream));
}

TEST_F(Http2Encode, SendsNoBodyForAnEmptyBlock) {
    RecordingClient* client = request(HTTP_POST, "/");
    client->ctx()->setContent("");
    sendOpening();
    EXPECT_EQ(encode(), headers(1, hex("83 86 44 01") + "/", kEndHeaders | kEndStream));
    EXPECT_EQ(encode(), "");
}

TEST_F(Http2Encode, NeverSendsAShortBlock) {
    uploadBlock(std::string(100, 'x'));
    for (int i = 0; i < 5; ++i) EXPECT_EQ(encode(), data(1, ""));
}

TEST_F(Http2Encode, RepeatsTheSecondChunkOfABlock) {
    std::string body(40000, '\0');
    for (size_t i = 0; i < body.size(); ++i) body[i] = static_cast<char>(i / 100);
    uploadBlock(body);
    const std::string chunk = body.substr(16384, 16384);
    EXPECT_EQ(encode(), data(1, chunk));
    EXPECT_EQ(encode(), data(1, chunk));
    for (int i = 0; i < 3; ++i) EXPECT_EQ(encode(), data(1, ""));
}

TEST_F(Http2Encode, EndsABlockOfWholeChunks) {
    std::string body(32768, '\0');
    for (size_t i = 0; i < body.size(); ++i) body[i] = static_cast<char>(i / 100);
    uploadBlock(body);
    EXPECT_EQ(encode(), data(1, body.substr(16384)));
    EXPECT_EQ(encode(), data(1, body.substr(16384), kEndStream));
    EXPECT_EQ(encode(), "");
}

TEST_F(Http2Encode, SendsZerosPastABlocksEnd) {
    uploadBlock(std::string(16384, 'x'));
    EXPECT_EQ(encode(), data(1, std::string(16384, '\0'), kEndStream));
    EXPECT_EQ(encode(), "");
}

TEST_F(Http2Encode, SendsTheRestOfABlockThenZeros) {
    uploadBlock(std::string(16384, 'x') + std::string(3616, 'y'));
    EXPECT_EQ(encode(), data(1, std::string(3616, 'y') + std::string(12768, '\0')));
    EXPECT_EQ(encode(), data(1, ""));
}

TEST_F(Http2Encode, PutsAllHeadersBeforeAnyBodyAndStreamsInOrder) {
    Source one{std::string(16384, '1')};
    Source two{"2"};
    RecordingClient* first = request(HTTP_POST, "/1");
    RecordingClient* second = request(HTTP_POST, "/2");
    first->ctx()->setContent(&Source::read, &one);
    second->ctx()->setContent(&Source::read, &two);
    sendOpening();
    EXPECT_EQ(encode(), headers(1, hex("83 86 44 02") + "/1"));
    EXPECT_EQ(encode(), headers(3, hex("83 86 44 02") + "/2"));
    EXPECT_EQ(encode(), data(1, one.body));
    EXPECT_EQ(encode(), data(1, "", kEndStream));
    EXPECT_EQ(encode(), data(3, "2", kEndStream));
}

TEST_F(Http2Encode, SendsQueuedResetsFirstAndTogether) {
    m_engine->m_streamIndex = 3;
    RecordingClient* third = request(HTTP_GET, "/3");
    RecordingClient* fifth = request(HTTP_GET, "/5");
    request(HTTP_GET, "/7");
    m_engine->removeHttpClient(fifth->ctx());
    m_engine->removeHttpClient(third->ctx());
    sendOpening();
    EXPECT_EQ(encode(), rstStream(3, 8) + rstStream(5, 8));
    EXPECT_TRUE(m_engine->m_rstFrameMap.empty());
    EXPECT_EQ(encode(), headers(7, hex("82 86 44 02") + "/7", 5));
}

TEST_F(Http2Encode, PassesOverNullEntries) {
    m_engine->addHttpClient(nullptr);
    request(HTTP_GET, "/");
    sendOpening();
    EXPECT_EQ(encode(), headers(3, hex("82 86 44 01") + "/", 5));
    EXPECT_EQ(encode(), "");
}

TEST_F(Http2Encode, CreditsStreamsAtTheThreshold) {
    sendOpening();
    decode(data(1, std::string(40000, 'x')) + data(3, std::string(1000, 'y')));
    m_engine->m_rstFrameMap.clear();
    EXPECT_EQ(encode(), windowUpdate(0, 41000) + windowUpdate(1, 40000));
    EXPECT_EQ(m_engine->m_flowControlMap, (std::map<uint32_t, uint32_t>{{3, 1000}}));
    EXPECT_EQ(encode(), "");
    decode(data(5, std::string(31768, 'z')));
    m_engine->m_rstFrameMap.clear();
    // Neither stream is due, but their sum is, on every call.
    EXPECT_EQ(encode(), windowUpdate(0, 32768));
    EXPECT_EQ(encode(), windowUpdate(0, 32768));
}

TEST_F(Http2Encode, GivesNoCreditBelowTheThreshold) {
    sendOpening();
    decode(data(1, std::string(32767, 'x')));
    m_engine->m_rstFrameMap.clear();
    EXPECT_EQ(encode(), "");
    decode(data(1, "x"));
    m_engine->m_rstFrameMap.clear();
    EXPECT_EQ(encode(), windowUpdate(0, 32768) + windowUpdate(1, 32768));
    EXPECT_EQ(encode(), "");
}

// The rules by the letter: walk all entries on every call.
std::string creditByWalking(std::map<uint32_t, uint32_t>& counts) {
    uint32_t total = 0;
    std::string updates;
    for (auto entry = counts.begin(); entry != counts.end();) {
        total += entry->second;
        if (entry->second < 32768) {
            ++entry;
            continue;
        }
        updates += windowUpdate(entry->first, entry->second & 0x7FFFFFFF);
        entry = counts.erase(entry);
    }
    if (static_cast<int32_t>(total) >= 32768) {
        updates = windowUpdate(0, total & 0x7FFFFFFF) + updates;
    }
    return updates;
}

TEST_F(Http2Encode, CreditEqualsWalkingAllEntries) {
    sendOpening();
    std::mt19937 random(1);
    std::map<uint32_t, uint32_t> counts;
    for (int round = 0; round < 400; ++round) {
        for (uint32_t i = random() % 4; i > 0; --i) {
            const uint32_t streamId = random() % 20 * 2 + 1;
            const uint32_t length = random() % 3 == 0 ? random() % 40000 : random() % 300;
            decode(data(streamId, std::string(length, 'x')));
            counts[streamId] += length;
        }
        m_engine->m_rstFrameMap.clear();
        ASSERT_EQ(encode(), creditByWalking(counts)) << round;
        ASSERT_EQ(m_engine->m_flowControlMap, counts);
    }
}

class Http2EncodeStreams : public Http2Encode, public testing::WithParamInterface<uint32_t> {};

INSTANTIATE_TEST_SUITE_P(Finished, Http2EncodeStreams, testing::Values(1, 10'000, 1'000'000),
                         testing::PrintToStringParamName());

// However many streams are behind it, the engine gives the credit that walking them all would give.
TEST_P(Http2EncodeStreams, CreditEqualsWalkingAllEntries) {
    sendOpening();
    std::mt19937 random(1);
    std::map<uint32_t, uint32_t> counts;
    const auto receive = [&](uint32_t index, uint32_t length) {
        const uint32_t streamId = 2 * index + 1;
        m_engine->m_receiveCredit.add(streamId, length);
        counts.try_emplace(counts.end(), streamId, 0)->second += length;
    };
    const uint32_t streams = GetParam();
    // One in a thousand is due. The sum stays below 2^31.
    for (uint32_t i = 0; i < streams; ++i) {
        receive(i, i % 1000 == 0 ? 32768 + random() % 1000 : random() % 2000);
    }
    for (int round = 0; round < 4; ++round) {
        SCOPED_TRACE(round);
        ASSERT_EQ(encode(), creditByWalking(counts));
        // Some of them go on: most stay below the threshold, also the last, which ends just there.
        for (int i = 0; i < 20; ++i) receive(random() % streams, random() % 12'000);
        const auto last = counts.find(2 * streams - 1);
        receive(streams - 1, last == counts.end() ? 32767 : 32767 - last->second % 32768);
    }
    EXPECT_EQ(m_engine->m_flowControlMap, counts);
}

TEST_F(Http2Encode, CountsAMapThatWasChangedByOtherMeans) {
    sendOpening();
    m_engine->m_flowControlMap = {{1, 40000}, {3, 1000}};
    EXPECT_EQ(encode(), windowUpdate(0, 41000) + windowUpdate(1, 40000));
    EXPECT_EQ(encode(), "");
    m_engine->m_flowControlMap[5] = 31768;
    EXPECT_EQ(encode(), windowUpdate(0, 32768));  // with the 1000 of stream 3
    m_engine->m_flowControlMap.clear();
    EXPECT_EQ(encode(), "");
    decode(data(7, std::string(16384, 'x')) + data(7, std::string(16384, 'x')));
    m_engine->m_rstFrameMap.clear();
    EXPECT_EQ(encode(), windowUpdate(0, 32768) + windowUpdate(7, 32768));
}

TEST_F(Http2Encode, CountersWrapAtThirtyTwoBits) {
    sendOpening();
    for (int i = 0; i < 256; ++i) {
        m_engine->m_receiveCredit.add(1, 0x800000);
        m_engine->m_receiveCredit.add(1, 0x800000);
    }
    m_engine->m_receiveCredit.add(3, 5);
    EXPECT_EQ(m_engine->m_flowControlMap.at(1), 0U);
    EXPECT_EQ(encode(), "");  // wrapped to nothing
    m_engine->m_receiveCredit.add(1, 0x90000000);
    // The sum is negative as a signed number, so only the stream is credited.
    EXPECT_EQ(encode(), windowUpdate(1, 0x10000000));
}

TEST_F(Http2Encode, KeepAliveBranchReplacesCredit) {
    LogCapture log;
    sendOpening();
    decode(data(1, std::string(40000, 'x')));
    m_engine->m_rstFrameMap.clear();
    m_engine->m_streamPingTicker = 60000;
    EXPECT_EQ(encode(), ping(0));
    EXPECT_TRUE(m_engine->m_waitPong);
    EXPECT_EQ(m_engine->m_streamPingTicker, 60001);
    EXPECT_EQ(log.messages(20000), std::vector<std::string>{"PING!"});
    EXPECT_EQ(encode(), "");
    EXPECT_EQ(m_engine->m_streamPingTicker, 60002);
    decode(ping(0));
    EXPECT_EQ(encode(), windowUpdate(0, 40000) + windowUpdate(1, 40000));
}

TEST_F(Http2Encode, TickerBelowItsMarkNeverMoves) {
    sendOpening();
    m_engine->m_streamPingTicker = 59999;
    EXPECT_EQ(encode(), "");
    EXPECT_EQ(m_engine->m_streamPingTicker, 59999);
    EXPECT_EQ(tiny::Http2::pingTicker, 60000);
    EXPECT_EQ(tiny::Http2::pongTicker, 120000);
}

TEST_F(Http2Encode, GivesTheConnectionUpWithoutPong) {
    bool requestingInCallback = true;
    RecordingClient* first = request(HTTP_GET, "/1");
    m_engine->addHttpClient(nullptr);
    RecordingClient* second = nullptr;
    second = request(HTTP_GET, "/2",
                     [&](const Callback&) { requestingInCallback = isRequesting(second); });
    sendOpening();
    encode();
    encode();
    LogCapture log;
    m_engine->m_waitPong = true;
    m_engine->m_streamPingTicker = 119998;
    EXPECT_EQ(encode(), "");
    int status = 0;
    EXPECT_EQ(m_engine->encodeFrame(status), "");
    EXPECT_EQ(status, -2);
    EXPECT_EQ(first->callbacks(), std::vector<Callback>{Callback::closed()});
    EXPECT_EQ(second->callbacks(), std::vector<Callback>{Callback::closed()});
    EXPECT_FALSE(requestingInCallback);
    EXPECT_EQ(registered(), Streams{3});  // the null entry
    EXPECT_EQ(log.messages(20000),
              (std::vector<std::string>{"m_streamPingTicker :120000 and m_waitPong = 1",
                                        "onSocketClosed: Uri:/1", "onSocketClosed: Uri:/2"}));
    EXPECT_EQ(log.records()[0].file, "Http2.cpp");
}

TEST_F(Http2Encode, BuildersLeaveTheFrameAloneWithoutWork) {
    RecordingClient* client = request(HTTP_GET, "/");
    tiny::HeadersFrame headersFrame;
    tiny::DataFrame dataFrame;
    EXPECT_FALSE(m_engine->createDataFrame(client->ctx(), dataFrame));
    EXPECT_EQ(dataFrame.getStreamId(), 0U);
    EXPECT_TRUE(m_engine->createHeaderFrame(client->ctx(), headersFrame));
    EXPECT_EQ(headersFrame.getStreamId(), 1U);
    tiny::HeadersFrame again;
    EXPECT_FALSE(m_engine->createHeaderFrame(client->ctx(), again));
    EXPECT_EQ(again.getStreamId(), 0U);
    EXPECT_EQ(again.getFlags(), 0);
}

}  // namespace
