// One request from its first byte to its last callback, and what follows it on the connection.
#include <algorithm>
#include <atomic>
#include <climits>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>

#include "wire_support.h"

namespace h2test {
namespace {

class Request : public OverEachTransport {};
H2TEST_OVER_EACH_TRANSPORT(Request);

// ---- what the client sends

TEST_P(Request, SendsPrefaceSettingsHeadersAndAResetAtItsEnd) {
    connect();
    ASSERT_EQ(m_client.setUri("/x", HTTP_GET), 0);
    ASSERT_EQ(m_client.addHeader("host", "a", false), &m_client);
    ASSERT_EQ(m_client.startRequest(nullptr), 0);

    // The preface and SETTINGS are written out in opening().
    expectSent(hex("000009 01 05 00000001") +  // HEADERS: END_HEADERS, END_STREAM, stream 1
               hex("82") +                     // ":method" "GET", indexed
               hex(m_tls ? "87" : "86") +      // ":scheme", indexed
               hex("44 02 2f78") +             // ":path", incremental: "/x"
               hex("66 01 61"));               // "host", incremental: "a"
    EXPECT_EQ(m_client.startRequest(nullptr), 8);

    expectHeard(hex("000006 01 04 00000001 88 76 03 733131") +  // :status 200, server s11
                    hex("000003 00 00 00000001 616263") +       // "abc"
                    hex("000002 00 01 00000001 6465"),          // "de", END_STREAM
                {Callback::headers(200, {{":status", "200"}, {"server", "s11"}}),
                 Callback::content("abc", true), Callback::content("de", false)});
    expectSent(hex("000004 03 00 00000001 00000008"));  // RST_STREAM: CANCEL

    // The next request shows that nothing else was sent in between.
    startNext("/y");
    expectSent(hex("000009 01 05 00000003 82") + hex(m_tls ? "87" : "86") +
               hex("44 02 2f79 66 01 61"));
    expectAnswered(3);
    EXPECT_EQ(m_server.connections(), 1u);
}

TEST_P(Request, SendsNothingBeforeItStarts) {
    connect();
    // By the time another client's exchange is over, the poll thread has had its chances.
    RecordingClient other;
    startGet(other, 1);
    m_server.send(1, okResponse(1));
    ASSERT_TRUE(other.waitEnd());
    EXPECT_EQ(m_server.received(0), "");
}

TEST_P(Request, StartsWithNothingButAConnection) {
    ASSERT_EQ(connectTo(m_client, m_server, m_tls), 0);
    ASSERT_EQ(m_client.startRequest(nullptr), 0);
    // ":method" and ":path" without a text are literals with an empty value.
    expectSent(headers(1, hex(m_tls ? "4200 87 4400" : "4200 86 4400"), kWhole));
    expectAnswered();
}

TEST_P(Request, CodesEveryMethod) {
    const std::map<HTTP_METHOD, std::string> coded = {
        {HTTP_METHOD_UNDEFINED, hex("42 00")},
        {HTTP_GET, hex("82")},
        {HTTP_POST, hex("83")},
        {HTTP_DELETE, hex("42 06 44454c455445")},
    };
    connect();
    uint32_t streamId = 1;
    for (const auto& [method, bytes] : coded) {
        ASSERT_EQ(m_client.setUri("/m", method), 0);
        startNext();
        expectSent(headers(streamId, requestBlock(bytes, "/m", m_tls), kWhole));
        expectAnswered(streamId);
        expectSent(rstStream(streamId, kCancel));
        streamId += 2;
    }
}

TEST_P(Request, SendsHeadersInTheirOrderAndForm) {
    connect();
    ASSERT_EQ(m_client.addHeader("x-b", "1", false)
                  ->addHeader("x-secret", "2", true)
                  ->addHeader("cookie", "3", true)
                  ->addHeader("x-a", "4", false)
                  ->addHeader("x-empty", "", false)
                  ->addHeader("", "nameless", false)
                  ->addHeader("x-b", "5", false),
              &m_client);
    ASSERT_EQ(m_client.startRequest(nullptr), 0);
    const std::string rest = hpackLiteral("x-b", "1", Literal::kIncremental) +
                             hpackLiteral("x-secret", "2", Literal::kNeverIndexed) +
                             hex("1f 11 01 33") +  // "cookie" is entry 32: 15 and 17 more
                             hpackLiteral("x-a", "4", Literal::kIncremental) +
                             hpackLiteral("x-b", "5", Literal::kIncremental);
    expectSent(get(1, "/", rest));
    expectAnswered();

    // Nothing has entered the compression table: the same request is the same bytes.
    startNext();
    expectSent(rstStream(1, kCancel) + get(3, "/", rest));
}

TEST_P(Request, TakesNullArgumentsAsEmpty) {
    connect();
    ASSERT_EQ(m_client.setUri(nullptr, HTTP_GET), 0);
    EXPECT_EQ(m_client.addHeader(nullptr, "value", false), &m_client);
    EXPECT_EQ(m_client.addHeader("name", nullptr, false), &m_client);
    EXPECT_EQ(m_client.addHeader(nullptr, nullptr, true), &m_client);
    EXPECT_EQ(m_client.setContent(static_cast<const char*>(nullptr), 5), 0);
    EXPECT_EQ(m_client.setContent(static_cast<int (*)(char*, size_t, void*)>(nullptr), nullptr), 0);
    ASSERT_EQ(m_client.startRequest(nullptr), 0);
    expectSent(headers(1, hex(m_tls ? "82 87 4400" : "82 86 4400"), kWhole));
    expectAnswered();
}

TEST_P(Request, SplitsLongHeadersOverTwoHeadersFrames) {
    // 1 + 2 * (3 + 8138) is 16283, the most that one frame takes.
    const std::string fitting(8138, 'v');
    connect();
    m_client.addHeader("x-a", fitting.c_str(), false)->addHeader("x-b", fitting.c_str(), false);
    ASSERT_EQ(m_client.startRequest(nullptr), 0);
    ASSERT_TRUE(m_server.waitFramesOf(0, kHeaders, 1));
    EXPECT_TRUE(m_server.frames(0, kHeaders).at(0).hasFlags(kWhole));
    expectAnswered();

    m_client.addHeader("x-c", "late", false);
    startNext();
    ASSERT_TRUE(m_server.waitFramesOf(0, kHeaders, 3));
    const std::vector<WireFrame> frames = m_server.frames(0, kHeaders);
    EXPECT_EQ(frames[1].streamId, 3u);
    EXPECT_EQ(frames[1].flags, kEndStream);
    EXPECT_EQ(frames[1].payload, frames[0].payload);
    EXPECT_EQ(
        frames[2],
        parseFrames(headers(3, hpackLiteral("x-c", "late", Literal::kIncremental), kWhole)).at(0));
    expectAnswered(3);
}

TEST_P(Request, SendsAPieceOfTheBodyAtATimeFromItsReader) {
    connect();
    ASSERT_EQ(m_client.setUri("/p", HTTP_POST), 0);
    ASSERT_EQ(m_client.setContent(&BodySource::read, &m_body), 0);
    std::string expected = opening();
    uint32_t streamId = 1;
    for (const size_t size : {100, 16384, 2 * 16384 + 100, 1'000'000}) {
        m_body = BodySource(distinctBytes(size));
        startNext();
        expected += post(streamId);
        const size_t last = size / 16384 * 16384;  // the last frame is empty after whole pieces
        for (size_t at = 0; at < last; at += 16384) {
            expected += data(streamId, m_body.bytes.substr(at, 16384));
        }
        expected += data(streamId, m_body.bytes.substr(last), kEndStream);
        ASSERT_TRUE(m_server.waitReceived(0, expected.size()));
        EXPECT_TRUE(m_server.received(0) == expected) << size;
        EXPECT_EQ(m_body.asked, std::vector<size_t>(size / 16384 + 1, 16384)) << size;
        expectAnswered(streamId);
        expected += rstStream(streamId, kCancel);
        streamId += 2;
    }
    ASSERT_TRUE(m_server.waitReceived(0, expected.size()));
    EXPECT_TRUE(m_server.received(0) == expected);
}

TEST_P(Request, EndsTheBodyWhenItsReaderHasNothing) {
    const auto read = [](char*, size_t, void* opaque) { return *static_cast<int*>(opaque); };
    connect();
    uint32_t streamId = 1;
    for (int count : {0, -1, INT_MIN}) {
        ASSERT_EQ(m_client.setUri("/p", HTTP_POST), 0);
        ASSERT_EQ(m_client.setContent(read, &count), 0);
        startNext();
        expectSent(post(streamId) + data(streamId, "", kEndStream));
        expectAnswered(streamId);
        expectSent(rstStream(streamId, kCancel));
        streamId += 2;
    }
}

TEST_P(Request, TakesAReaderThatClaimsTooMuchAsHavingFilledItsBuffer) {
    struct Source {
        int calls = 0;
        static int read(char* buf, size_t len, void* opaque) {
            auto* self = static_cast<Source*>(opaque);
            std::fill_n(buf, len, 'x');
            return self->calls++ == 0 ? INT_MAX : 0;
        }
    } source;
    startPost(&Source::read, &source);
    ASSERT_TRUE(waitBody());
    EXPECT_EQ(m_server.frames(0, kData),
              parseFrames(data(1, std::string(16384, 'x')) + data(1, "", kEndStream)));
    EXPECT_EQ(m_client.cancelRequest(), 0);
    EXPECT_EQ(source.calls, 2);
}

TEST_P(Request, SendsABlockBodyOfTwoPiecesAsItsSecondHalfTwice) {
    const std::string body = distinctBytes(32768);
    startBlockPost(body);
    ASSERT_TRUE(waitBody());
    const std::string_view half = std::string_view(body).substr(16384);
    EXPECT_TRUE(m_server.received(0) ==
                opening() + post() + data(1, half) + data(1, half, kEndStream));
}

TEST_P(Request, SendsABlockBodyOfOnePieceAsZeros) {
    const std::string body = distinctBytes(16384);
    startBlockPost(body);
    ASSERT_TRUE(waitBody());
    EXPECT_EQ(m_server.frames(0, kData),
              parseFrames(data(1, std::string(16384, '\0'), kEndStream)));
}

TEST_P(Request, NeverSendsTheRestOfABlockBody) {
    const std::string body = distinctBytes(40000);
    startBlockPost(body);
    ASSERT_TRUE(m_server.waitFramesOf(0, kData, 20));
    EXPECT_EQ(m_client.cancelRequest(), 0);
    ASSERT_TRUE(m_server.waitFramesOf(0, kRstStream));
    const std::vector<WireFrame> frames = m_server.frames(0, kData);
    const std::vector<WireFrame> chunk =
        parseFrames(data(1, std::string_view(body).substr(16384, 16384)));
    EXPECT_EQ(frames[0], chunk[0]);
    EXPECT_EQ(frames[1], chunk[0]);
    for (size_t i = 2; i < frames.size(); ++i) {
        ASSERT_EQ(frames[i], (WireFrame{0, kData, 0, 1, false, ""})) << i;
    }
}

TEST_P(Request, SendsAShortBlockBodyAsEmptyDataFramesWithoutEnd) {
    startBlockPost("0123456789");
    ASSERT_TRUE(m_server.waitFramesOf(0, kData, 5));
    // The answer ends it all the same.
    expectAnswered();
    ASSERT_TRUE(m_server.waitFramesOf(0, kRstStream));
    for (const WireFrame& frame : m_server.frames(0, kData)) {
        ASSERT_EQ(frame, (WireFrame{0, kData, 0, 1, false, ""}));
    }
}

TEST_P(Request, TreatsAnEmptyBlockBodyAsNone) {
    startBlockPost("");
    expectSent(post(1, kWhole));
    expectAnswered();
    expectSent(rstStream(1, kCancel));
}

TEST_P(Request, PrefersTheReaderToTheBlock) {
    m_body.bytes = "from the reader";
    connect();
    ASSERT_EQ(m_client.setUri("/p", HTTP_POST), 0);
    ASSERT_EQ(m_client.setContent(&BodySource::read, &m_body), 0);
    ASSERT_EQ(m_client.setContent("a block", 7), 0);
    ASSERT_EQ(m_client.startRequest(nullptr), 0);
    ASSERT_TRUE(waitBody());
    EXPECT_EQ(m_server.frames(0, kData), parseFrames(data(1, "from the reader", kEndStream)));
}

// ---- what the client makes of the answer

TEST_P(Request, ReportsAnAnswerCutAnywhereAsTheSame) {
    const auto answer = [](uint32_t streamId) {
        return settings({{3, 100}}) + headers(streamId, hpackIndexed(8) + hpackLiteral("x", "yz")) +
               data(streamId, "12345") + ping(1) + data(streamId, "67", kEndStream);
    };
    const Callbacks expected = {Callback::headers(200, {{":status", "200"}, {"x", "yz"}}),
                                Callback::content("12345", true), Callback::content("67", false)};
    connect();
    uint32_t streamId = 1;
    for (size_t cut = 1; cut < answer(1).size(); ++cut, streamId += 2) {
        startNext();
        ASSERT_TRUE(m_server.waitFramesOf(0, kHeaders, cut));
        m_server.sendCut(0, answer(streamId), {cut});
        ASSERT_TRUE(m_client.waitEnd()) << "cut at " << cut;
        ASSERT_EQ(m_client.callbacks(), expected) << "cut at " << cut;
    }
    startNext();
    ASSERT_TRUE(m_server.waitFramesOf(0, kHeaders, answer(1).size()));
    m_server.sendByteByByte(0, answer(streamId));
    expectHeard("", expected);
}

TEST_P(Request, ReportsHeadersInAscendingOrderAndTheLastOfARepeatedName) {
    startGet();
    expectHeard(headers(1, hpackLiteral("b", "1") + hpackIndexed(13) + hpackLiteral("a", "2") +
                               hpackLiteral("b", "3") + hpackLiteral("empty", "")) +
                    data(1, "", kEndStream),
                (Callbacks{Callback::headers(
                               404, {{":status", "404"}, {"a", "2"}, {"b", "3"}, {"empty", ""}}),
                           Callback::content("", false)}));
}

TEST_P(Request, ReadsTheStatusAsANumber) {
    const std::vector<std::pair<std::string, int>> cases = {
        {"204", 204},
        {"", 0},
        {"abc", 0},
        {" 7x", 7},
        {"-5", -5},
        {"200ok", 200},
        {"4294967297", 1},
        {"-99999999999999999999", 0},
        {"99999999999999999999", -1},
    };
    connect();
    uint32_t streamId = 1;
    for (const auto& [text, status] : cases) {
        startNext();
        ASSERT_TRUE(m_server.waitFramesOf(0, kHeaders, (streamId + 1) / 2));
        expectHeard(headers(streamId, hpackLiteral(8, text)) + data(streamId, "", kEndStream),
                    {Callback::headers(status, {{":status", text}}), Callback::content("", false)});
        streamId += 2;
    }
}

TEST_P(Request, ForgetsTheFormerAnswer) {
    startGet();
    m_server.send(0,
                  headers(1, hpackIndexed(8) + hpackLiteral("old", "1")) + data(1, "", kEndStream));
    ASSERT_TRUE(m_client.waitEnd());
    startNext();
    ASSERT_TRUE(m_server.waitFramesOf(0, kHeaders, 2));
    expectHeard(headers(3, hpackLiteral("new", "2")) + data(3, "", kEndStream),
                (Callbacks{Callback::headers(0, {{"new", "2"}}), Callback::content("", false)}));
}

TEST_P(Request, ReportsHeadersOnlyWhenTheyEndAndAgainWithTrailers) {
    startGet();
    expectHeard(
        headers(1, hpackIndexed(8), 0) + continuation(1, hpackLiteral("lost", "x"), kEndHeaders) +
            data(1, "a") + headers(1, hpackLiteral("b", "1")) + data(1, "c") +
            headers(1, hpackLiteral("trailer", "2"), kWhole) + data(1, "d", kEndStream),
        (Callbacks{Callback::content("a", true),
                   Callback::headers(200, {{":status", "200"}, {"b", "1"}}),
                   Callback::content("c", true),
                   Callback::headers(200, {{":status", "200"}, {"b", "1"}, {"trailer", "2"}}),
                   Callback::content("d", false)}));
}

TEST_P(Request, IsNotEndedByHeadersWithEndStream) {
    startGet();
    m_server.send(0, headers(1, hpackIndexed(9), kWhole));
    ASSERT_TRUE(m_client.waitHeaders());
    EXPECT_EQ(m_client.startRequest(nullptr), 8);
    EXPECT_EQ(m_client.parseHttpClientStatus(nullptr), 8);
    expectHeard(data(1, "", kEndStream), (Callbacks{Callback::headers(204, {{":status", "204"}}),
                                                    Callback::content("", false)}));
    expectSent(get(1) + rstStream(1, kCancel));
    EXPECT_EQ(m_client.startRequest(nullptr), 0);
}

TEST_P(Request, CanBeCancelledWhenTheAnswerHasNoDataEnd) {
    startGet();
    m_server.send(0, headers(1, hpackIndexed(8)) + data(1, "part"));
    ASSERT_TRUE(m_client.waitContent());
    EXPECT_EQ(m_client.startRequest(nullptr), 8);
    EXPECT_EQ(m_client.cancelRequest(), 0);
    startNext();
    expectSent(get(1) + rstStream(1, kCancel) + get(3));
    expectAnswered(3);
}

TEST_P(Request, KeepsTheHeadersBeforeOneThatDoesNotDecode) {
    startGet();
    expectHeard(headers(1, hpackIndexed(8) + hpackLiteral("a", "1") + hex("00 81 1f 01 62") +
                               hpackLiteral("c", "3")) +
                    data(1, "", kEndStream),
                (Callbacks{Callback::headers(200, {{":status", "200"}, {"a", "1"}}),
                           Callback::content("", false)}));
}

TEST_P(Request, DeliversEveryChunkOfALongAnswer) {
    const std::string body = distinctBytes(300'000);
    std::string answer = headers(1, hpackIndexed(8));
    Callbacks expected = {okHeaders()};
    size_t at = 0;
    for (const size_t size : {1, 8192, 16384, 70'000, 100'000, 0}) {
        answer += data(1, std::string_view(body).substr(at, size));
        expected.push_back(Callback::content(std::string_view(body).substr(at, size), true));
        at += size;
    }
    answer += data(1, std::string_view(body).substr(at), kEndStream);
    expected.push_back(Callback::content(std::string_view(body).substr(at), false));

    startGet();
    expectHeard(answer, expected);
}

TEST_P(Request, HandsOverTheDataWithoutItsPadding) {
    startGet();
    expectHeard(
        headers(1, hpackIndexed(8)) + dataPadded(1, "body", 200) + dataPadded(1, "", 0, kEndStream),
        (Callbacks{okHeaders(), Callback::content("body", true), Callback::content("", false)}));
}

TEST_P(Request, AnswersNoneOfTheServersControlFrames) {
    startGet();
    expectHeard(settings({{1, 0}, {3, 1}, {4, 10}, {5, 16384}}) + settingsAck() + ping(7) +
                    ping(8, kAck) + windowUpdate(0, 1000) + windowUpdate(1, 1) +
                    frame(kPriority, 0, 1, hex("00000000 10")) +
                    frame(kPushPromise, kEndHeaders, 1, hex("00000002 82868400")) +
                    continuation(1, hpackIndexed(8)) + okResponse(1),
                okCallbacks());
    startNext();
    expectSent(get(1) + rstStream(1, kCancel) + get(3));
    expectAnswered(3);
}

TEST_P(Request, ResetsAnUnknownStreamThatCarriesData) {
    startGet();
    expectHeard(
        headers(9, hpackIndexed(8)) + data(9, "strange") + data(2, "", kEndStream) + okResponse(1),
        okCallbacks());
    ASSERT_TRUE(m_server.waitFramesOf(0, kRstStream, 3));
    std::set<std::string> resets;
    for (const WireFrame& frame : m_server.frames(0, kRstStream)) {
        resets.insert(rstStream(frame.streamId, kCancel));
        EXPECT_EQ(frame, parseFrames(rstStream(frame.streamId, kCancel)).at(0));
    }
    EXPECT_EQ(resets, (std::set<std::string>{rstStream(1, kCancel), rstStream(2, kCancel),
                                             rstStream(9, kCancel)}));
    EXPECT_EQ(m_server.received(0).size(),
              (opening() + get(1)).size() + 3 * rstStream(1, 8).size());
}

TEST_P(Request, ReturnsCreditFromTheThresholdOn) {
    const std::string half(16384, 'x');
    startGet();
    m_server.send(0, headers(1, hpackIndexed(8)) + data(1, half) + data(1, half));
    expectSent(get(1) + windowUpdate(0, 32768) + windowUpdate(1, 32768));
    m_server.send(0, data(1, std::string(1000, 'y'), kEndStream));
    ASSERT_TRUE(m_client.waitEnd());
    expectSent(rstStream(1, kCancel));

    // The 1000 bytes of the ended stream are still pending and count for the connection.
    startNext();
    expectSent(get(3));
    m_server.send(0, headers(3, hpackIndexed(8)) + data(3, std::string(31767, 'z')));
    ASSERT_TRUE(m_client.waitContent());
    EXPECT_EQ(m_server.frames(0, kWindowUpdate).size(), 2u);
    // One byte more, and the connection is due. Neither stream is, so both stay pending, and the
    // connection's credit is returned again and again.
    m_server.send(0, data(3, "z", kEndStream));
    ASSERT_TRUE(m_client.waitEnd());
    expectSentFirst(rstStream(3, kCancel) + windowUpdate(0, 32768) + windowUpdate(0, 32768));
}

TEST_P(Request, ReturnsCreditForPaddingToo) {
    startGet();
    // 16384 octets each: the padding's length, the body, the padding.
    const std::string frame = dataPadded(1, std::string(16384 - 100 - 1, 'x'), 100);
    m_server.send(0, frame + frame);
    expectSent(get(1) + windowUpdate(0, 32768) + windowUpdate(1, 32768));
}

TEST_P(Request, ReturnsNoCreditBelowTheThreshold) {
    startGet();
    m_server.send(0, headers(1, hpackIndexed(8)) + data(1, std::string(32767, 'x'), kEndStream));
    ASSERT_TRUE(m_client.waitEnd());
    expectSent(get(1) + rstStream(1, kCancel));
    // One byte more, on another stream, makes it due.
    startNext();
    expectSent(get(3));
    m_server.send(0, data(3, "x"));
    expectSentFirst(windowUpdate(0, 32768));
}

// ---- one after another

TEST_P(Request, FollowsRequestOnOddStreamsOfOneConnection) {
    connect();
    for (uint32_t streamId = 1; streamId < 40; streamId += 2) {
        const std::string path = "/" + std::to_string(streamId);
        startNext(path.c_str());
        expectSent(get(streamId, path));
        expectHeard(okResponse(streamId, path), okCallbacks(path));
        expectSent(rstStream(streamId, kCancel));
    }
    EXPECT_EQ(m_server.connections(), 1u);
    EXPECT_EQ(m_client.threads().size(), 1u);
    EXPECT_EQ(m_client.threads().count(std::this_thread::get_id()), 0u);
}

TEST_P(Request, CanBeStartedAtOnceByTheThreadThatItsEndWakes) {
    ServerOptions options = serverOptions(m_tls);
    options.responder = echoPath;
    ScriptedServer server(options);
    RecordingClient client;
    ASSERT_EQ(connectTo(client, server, m_tls), 0);
    ASSERT_EQ(client.setUri("/again", HTTP_GET), 0);
    for (int i = 0; i < 50; ++i) {
        client.clear();
        ASSERT_EQ(client.startRequest(nullptr), 0) << i;
        ASSERT_TRUE(client.waitEnd()) << i;
        ASSERT_EQ(client.callbacks(), okCallbacks("/again")) << i;
    }
}

TEST_P(Request, StartsFromNothingAfterClearClient) {
    m_body.bytes = "gone";
    connect();
    ASSERT_EQ(m_client.setUri("/p", HTTP_POST), 0);
    m_client.addHeader("x", "y", false);
    ASSERT_EQ(m_client.setContent(&BodySource::read, &m_body), 0);
    m_client.clearClient();
    EXPECT_EQ(m_client.parseHttpClientStatus(nullptr), 0);
    startNext("/new");
    expectSent(get(1, "/new"));
    expectAnswered();
}

// ---- a server that does not keep up

// A body that never ends: the numbers from 0 on, 4096 in a piece. No byte of it is 0, so that no
// frame header can be taken for a part of it.
struct Numbers {
    std::atomic<uint32_t> next{0};

    static std::string number(uint32_t value) {
        return be32(0x80808080u | (value & 0x7F) | (value << 1 & 0x7F00) | (value << 2 & 0x7F0000) |
                    (value << 3 & 0x7F000000));
    }
    static std::string piece(uint32_t first) {
        std::string out;
        for (uint32_t i = 0; i < 4096; ++i) out += number(first + i);
        return out;
    }
    static int read(char* buf, size_t len, void* opaque) {
        const std::string bytes = piece(static_cast<Numbers*>(opaque)->next.fetch_add(4096));
        EXPECT_EQ(bytes.size(), len);
        std::copy(bytes.begin(), bytes.end(), buf);
        return static_cast<int>(len);
    }
};

// This process's end of a connection to `port`.
int descriptorTo(uint16_t port) {
    for (int fd = 0; fd < FD_SETSIZE; ++fd) {
        sockaddr_in peer{};
        socklen_t size = sizeof(peer);
        if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &size) == 0 &&
            peer.sin_family == AF_INET && ntohs(peer.sin_port) == port) {
            return fd;
        }
    }
    return -1;
}

TEST(SlowServer, IsSentWhatWasWrittenAgainInsteadOfTheRest) {
    RunningLibrary library;
    ServerOptions options;
    options.receiveBuffer = 4096;
    ScriptedServer server(options);
    Numbers numbers;
    RecordingClient client;
    ASSERT_EQ(connectTo(client, server), 0);
    // So small a send buffer is writable when there is no room in it for a whole piece.
    const int descriptor = descriptorTo(server.port());
    const int size = 16 * 1024;
    ASSERT_EQ(setsockopt(descriptor, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size)), 0);
    ASSERT_EQ(client.setUri("/", HTTP_POST), 0);
    ASSERT_EQ(client.setContent(&Numbers::read, &numbers), 0);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(server.waitFramesOf(0, kData));
    const std::string start =
        opening() + headers(1, requestBlock(hex("83"), "/", false), kEndHeaders);
    const std::string pieceStart = frameHeader(16384, kData, 0, 1);
    const size_t pieceSize = pieceStart.size() + 16384;
    // Where the stream ceases to be one whole piece after the other.
    size_t wrong = start.size();
    uint32_t pieces = 0;  // whole ones up to there
    const auto isWrong = [&](const std::string& bytes) {
        while (bytes.size() >= wrong + pieceSize) {
            const std::string right = pieceStart + Numbers::piece(pieces * 4096);
            if (bytes.compare(wrong, pieceSize, right) != 0) {
                wrong += static_cast<size_t>(
                    std::mismatch(right.begin(), right.end(), &bytes[wrong]).first - right.begin());
                return true;
            }
            wrong += pieceSize;
            ++pieces;
        }
        return false;
    };
    ASSERT_TRUE(server.waitReceived(0, isWrong));
    // There the piece with which that write began is sent again from its start.
    ASSERT_TRUE(server.waitReceived(0, wrong + 13));
    EXPECT_EQ(client.cancelRequest(), 0);
    const std::string bytes = server.received(0);
    EXPECT_EQ(toHex(bytes.substr(wrong, 9)), toHex(pieceStart));
    const std::string number = bytes.substr(wrong + 9, 4);
    uint32_t again = 0;
    while (again < pieces && number != Numbers::number(again * 4096)) ++again;
    EXPECT_EQ(toHex(number), toHex(Numbers::number(again * 4096)));
}

// ---- the console

TEST(RequestConsole, TellsOfEveryFrameAndHeader) {
    CoutCapture console;
    {
        LibraryThread library;
        ScriptedServer server;
        RecordingClient client;
        startGet(client, server);
        console.clear();  // "select" is printed once in a process
        // A SETTINGS frame has its length when it is encoded: one value came, the others are
        // defaults.
        server.send(0, settings({{4, 100}}) +
                           headers(1, hpackIndexed(8) + hpackLiteral("x", "yz")) + ping(1) +
                           data(1, "12345") + data(1, "", kEndStream));
        ASSERT_TRUE(client.waitEnd());
    }
    EXPECT_EQ(console.lines(),
              (std::vector<std::string>{
                  "SETTINGS", "HEADERS", "PING", "DATA", "DATA",
                  "received a stream: id = 0 name = SETTINGS    length = 30", "100",
                  "received a stream: id = 1 name = HEADERS    length = 7", ":status    200",
                  "x    yz", "received a stream: id = 0 name = PING    length = 8", "pong ",
                  "received a stream: id = 1 name = DATA    length = 5",
                  "received a stream: id = 1 name = DATA    length = 0"}));
}

}  // namespace
}  // namespace h2test
