// blockedRequest: each of its results, and how it counts time.
#include <atomic>
#include <ctime>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "wire_support.h"

namespace h2test {
namespace {

constexpr char kComplete[] = "all content received";
constexpr char kNothing[] = "request failed, not any contents received";
constexpr char kPartial[] = "request timeout, partial content received";
constexpr char kTooLarge[] = "request failed, the content is over limit(1MB)";

constexpr uint32_t kForever = 4'000'000;  // ms of processor time: more than any test uses up
constexpr uint32_t kShort = 300;          // ms of processor time, to be burnt by a CpuBurner
constexpr uint32_t kSilence = 200;        // ms that a test looks for something that must not happen

// Uses up processor time as long as it lives.
class CpuBurner {
public:
    CpuBurner() : m_thread([this] { run(); }) {}
    ~CpuBurner() {
        m_stop = true;
        m_thread.join();
    }
    CpuBurner(const CpuBurner&) = delete;
    CpuBurner& operator=(const CpuBurner&) = delete;

private:
    void run() {
        while (!m_stop) m_spins.fetch_add(1, std::memory_order_relaxed);
    }

    std::atomic<bool> m_stop{false};
    std::atomic<size_t> m_spins{0};
    std::thread m_thread;  // last: it uses the others
};

// A blockedRequest with all that it hands back.
struct Outcome {
    int result = -99;
    int status = -99;
    std::map<std::string, std::string> headerMap = {{"former", "value"}};
    std::string content = "former";
    const char* errMsg = "former";

    static Outcome of(tiny::HttpClientInterface& client, uint32_t timeout) {
        Outcome out;
        out.result =
            client.blockedRequest(out.status, out.headerMap, out.content, out.errMsg, timeout);
        return out;
    }
    // These were handed back; content and headers are as they were handed in.
    void expectUnchanged(int expectedResult, int expectedStatus, const char* expectedMsg) const {
        EXPECT_EQ(result, expectedResult);
        EXPECT_EQ(status, expectedStatus);
        EXPECT_STREQ(errMsg, expectedMsg);
        EXPECT_EQ(headerMap, (std::map<std::string, std::string>{{"former", "value"}}));
        EXPECT_EQ(content, "former");
    }
};

// A blockedRequest on a thread of its own.
class Blocked {
public:
    Blocked(tiny::HttpClientInterface& client, uint32_t timeout)
        : m_thread([this, &client, timeout] {
              m_outcome = Outcome::of(client, timeout);
              m_returned.set();
          }) {}
    ~Blocked() {
        if (m_thread.joinable()) m_thread.join();
    }
    Blocked(const Blocked&) = delete;
    Blocked& operator=(const Blocked&) = delete;

    bool returnsWithin(uint32_t milliseconds) {
        return m_returned.wait(std::chrono::milliseconds(milliseconds));
    }
    const Outcome& outcome() {
        if (m_thread.joinable()) m_thread.join();
        return m_outcome;
    }

private:
    Outcome m_outcome;
    Event m_returned;
    std::thread m_thread;  // last: it uses the others
};

class Blocking : public OverEachTransport {
protected:
    void waitRequest(size_t count = 1) { ASSERT_TRUE(m_server.waitFramesOf(0, kHeaders, count)); }

    // Connects, and makes a blockedRequest whose GET has reached the server.
    void start(uint32_t timeout) {
        connect();
        m_blocked.emplace(m_client, timeout);
        waitRequest();
    }
    // The request hands back what is expected of an answer, and the text of result 0.
    void expectComplete(int status, const std::string& content) {
        const Outcome& outcome = m_blocked->outcome();
        EXPECT_EQ(outcome.result, 0);
        EXPECT_EQ(outcome.status, status);
        EXPECT_TRUE(outcome.content == content);
        EXPECT_STREQ(outcome.errMsg, kComplete);
    }
    // The request, which is still waiting, ends once its processor time is used up. Content and
    // headers are as they were handed in.
    void expectTimeOut(int result, int status, const char* errMsg) {
        EXPECT_FALSE(m_blocked->returnsWithin(kSilence));
        CpuBurner burner;
        m_blocked->outcome().expectUnchanged(result, status, errMsg);
    }

    std::optional<Blocked> m_blocked;
};
H2TEST_OVER_EACH_TRANSPORT(Blocking);

// ---- 0: complete

TEST_P(Blocking, ReturnsTheWholeAnswer) {
    start(kForever);
    m_server.send(0, settings({}) +
                         headers(1, hpackLiteral(8, "201") + hpackLiteral("b", "2") +
                                        hpackLiteral("a", "1") + hpackLiteral("b", "3")) +
                         data(1, "first ") + data(1, std::string("sec\0nd", 6)));
    ASSERT_TRUE(m_client.waitContent(2));
    EXPECT_FALSE(m_blocked->returnsWithin(kSilence));
    m_server.send(0, data(1, "!", kEndStream));
    expectComplete(201, std::string("first sec\0nd!", 13));
    EXPECT_EQ(m_blocked->outcome().headerMap,
              (std::map<std::string, std::string>{{":status", "201"}, {"a", "1"}, {"b", "3"}}));
    // The callbacks were made as well.
    EXPECT_EQ(m_client.callbacks(),
              (Callbacks{Callback::headers(201, {{":status", "201"}, {"a", "1"}, {"b", "3"}}),
                         Callback::content("first ", true),
                         Callback::content(std::string_view("sec\0nd", 6), true),
                         Callback::content("!", false)}));
    expectSent(get(1) + rstStream(1, kCancel));
}

TEST_P(Blocking, ReturnsAnAnswerWithoutHeadersOrBody) {
    start(kForever);
    m_server.send(0, data(1, "", kEndStream));
    expectComplete(0, "");
    EXPECT_TRUE(m_blocked->outcome().headerMap.empty());
}

TEST_P(Blocking, FollowsItselfOnOneConnection) {
    ServerOptions options = serverOptions(m_tls);
    options.responder = echoPath;
    ScriptedServer server(options);
    RecordingClient client;
    ASSERT_EQ(connectTo(client, server, m_tls), 0);
    for (int i = 0; i < 10; ++i) {
        const std::string path = "/" + std::to_string(i);
        ASSERT_EQ(client.setUri(path.c_str(), HTTP_GET), 0);
        const Outcome outcome = Outcome::of(client, kForever);
        EXPECT_EQ(outcome.result, 0);
        EXPECT_EQ(outcome.status, 200);
        EXPECT_EQ(outcome.content, path);
        EXPECT_STREQ(outcome.errMsg, kComplete);
    }
    EXPECT_EQ(server.connections(), 1u);
    EXPECT_EQ(server.frames(0, kHeaders).back().streamId, 19u);
}

TEST_P(Blocking, SendsABody) {
    m_body.bytes = "the body";
    connect();
    ASSERT_EQ(m_client.setUri("/p", HTTP_POST), 0);
    ASSERT_EQ(m_client.setContent(&BodySource::read, &m_body), 0);
    m_blocked.emplace(m_client, kForever);
    expectSent(post() + data(1, "the body", kEndStream));
    m_server.send(0, okResponse(1, "thanks"));
    expectComplete(200, "thanks");
}

TEST_P(Blocking, KeepsAnAnswerThatEndsInTheChunkThatCrossesTheLimit) {
    // 1048575 bytes are below the limit, so one more chunk is taken, whatever its size.
    const std::string body = distinctBytes(1'048'575 + 100'000);
    std::string answer = headers(1, hpackIndexed(8));
    for (size_t at = 0; at < 1'048'575; at += 69'905) {  // 15 times
        answer += data(1, std::string_view(body).substr(at, 69'905));
    }
    answer += data(1, std::string_view(body).substr(1'048'575), kEndStream);
    start(kForever);
    m_server.send(0, answer);
    expectComplete(200, body);
}

// ---- 1: failed

TEST_P(Blocking, FailsWhenNothingArrivesInTime) {
    start(2 * kShort);
    expectTimeOut(1, 0, kNothing);
    expectSent(get(1) + rstStream(1, kCancel));
    EXPECT_EQ(m_client.callbacks(), Callbacks());
}

TEST_P(Blocking, FailsWithTheStatusWhenOnlyHeadersArriveInTime) {
    start(3 * kShort);
    m_server.send(0, headers(1, hpackIndexed(9), kWhole));
    ASSERT_TRUE(m_client.waitHeaders());
    expectTimeOut(1, 204, kNothing);
}

TEST_P(Blocking, FailsWhenTheConnectionIsClosedButOnlyAtTheTimeOut) {
    start(3 * kShort);
    m_server.close(0);
    ASSERT_TRUE(m_client.waitClosed());
    expectTimeOut(1, 0, kNothing);
    EXPECT_EQ(m_client.callbacks(), Callbacks{Callback::closed()});
}

TEST_P(Blocking, FailsWhenTheStreamIsResetButOnlyAtTheTimeOut) {
    start(3 * kShort);
    m_server.send(0, headers(1, hpackIndexed(14)) + rstStream(1, 2));
    ASSERT_TRUE(m_client.waitFailed());
    expectTimeOut(1, 500, kNothing);
}

TEST_P(Blocking, FailsWhenTheBodyIsTooLargeButOnlyAtTheTimeOut) {
    std::string answer = headers(1, hpackIndexed(8));
    for (int i = 0; i < 64; ++i) answer += data(1, std::string(16384, 'x'));  // 1 MiB: full
    answer += data(1, "y");
    start(5 * kShort);
    m_server.send(0, answer);
    ASSERT_TRUE(m_client.waitContent(65));
    expectTimeOut(1, 200, kTooLarge);
    // The callbacks have had all of it.
    EXPECT_EQ(m_client.count(Callback::Kind::kContent), 65u);
}

// ---- 2: could not start

TEST_P(Blocking, CannotStartWithoutAConnection) {
    Outcome::of(m_client, kForever).expectUnchanged(2, -99, "former");
}

TEST_P(Blocking, CannotStartWhileARequestRuns) {
    startGet();
    Outcome::of(m_client, kForever).expectUnchanged(2, -99, "former");
    // The running one is not disturbed.
    expectAnswered();
    EXPECT_EQ(m_server.frames(0, kHeaders).size(), 1u);
}

TEST_P(Blocking, CannotStartWhenTheConnectionIsGone) {
    startGet();
    m_server.close(0);
    ASSERT_TRUE(m_client.waitClosed());
    Outcome::of(m_client, kForever).expectUnchanged(2, -99, "former");
    EXPECT_EQ(m_client.parseHttpClientStatus(nullptr), 0);  // not taken for running
}

// ---- 3: timed out in the middle

TEST_P(Blocking, TimesOutWithAPartOfTheBody) {
    start(3 * kShort);
    m_server.send(0, headers(1, hpackIndexed(8)) + data(1, "part"));
    ASSERT_TRUE(m_client.waitContent());
    expectTimeOut(3, 200, kPartial);
    expectSent(get(1) + rstStream(1, kCancel));

    // What comes late is nobody's; the next request has an answer of its own.
    m_server.send(0, data(1, "late", kEndStream));
    m_blocked.emplace(m_client, kForever);
    waitRequest(2);
    m_server.send(0, okResponse(3));
    expectComplete(200, "ok");
}

TEST_P(Blocking, TimesOutWhenTheConnectionIsClosedInTheBody) {
    start(3 * kShort);
    m_server.send(0, headers(1, hpackIndexed(8)) + data(1, "part"));
    m_server.close(0);
    ASSERT_TRUE(m_client.waitClosed());
    expectTimeOut(3, 200, kPartial);
}

// ---- time

TEST_P(Blocking, CountsProcessorTimeOfTheWholeProcess) {
    connect();
    const clock_t begin = clock();
    // An idle process does not get there, however late it is on the wall.
    m_blocked.emplace(m_client, 500);
    EXPECT_FALSE(m_blocked->returnsWithin(750));
    expectTimeOut(1, 0, kNothing);
    EXPECT_GE(clock() - begin, 500 * 1000);
}

TEST_P(Blocking, CountsTheTimeOutIn32Bits) {
    connect();
    const CpuBurner burner;
    // 4294968 * 1000 is 704 more than 2^32: less than a millisecond.
    Blocked blocked(m_client, 4'294'968);
    const bool returned = blocked.returnsWithin(30'000);
    EXPECT_TRUE(returned);
    if (!returned) m_server.send(0, data(1, "", kEndStream));  // or it would wait for an hour
    EXPECT_EQ(blocked.outcome().result, 1);
}

TEST_P(Blocking, LooksOnceWithoutATimeOut) {
    connect();
    const auto begin = std::chrono::steady_clock::now();
    Outcome::of(m_client, 0).expectUnchanged(1, 0, kNothing);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(10));
}

// What has arrived at that one look depends on the machine's load, so each result is checked for
// itself, and the test goes on until the wanted one has come.

TEST_P(Blocking, FindsACompleteAnswerWithoutATimeOut) {
    ServerOptions options = serverOptions(m_tls);
    // The PING brings the acknowledgement that TCP waits for before it sends the next request.
    options.responder = [](size_t index, const WireFrame& frame) {
        return frame.type == kRstStream ? ping(0) : echoPath(index, frame);
    };
    ScriptedServer server(options);
    RecordingClient client;
    ASSERT_EQ(connectTo(client, server, m_tls), 0);
    ASSERT_EQ(client.setUri("/quick", HTTP_GET), 0);
    size_t tries = 0;
    EXPECT_TRUE(waitFor([&] {
        const Outcome outcome = Outcome::of(client, 0);
        EXPECT_TRUE(server.waitFramesOf(0, kRstStream, ++tries));
        if (outcome.result != 0) {
            outcome.expectUnchanged(1, outcome.status, kNothing);
            return false;
        }
        EXPECT_EQ(outcome.status, 200);
        EXPECT_EQ(outcome.content, "/quick");
        EXPECT_STREQ(outcome.errMsg, kComplete);
        return true;
    }));
}

TEST_P(Blocking, FindsAPartOfAnAnswerWithoutATimeOut) {
    ServerOptions options = serverOptions(m_tls);
    options.responder = [](size_t, const WireFrame& frame) {
        if (frame.type == kRstStream) return ping(0);
        return frame.type == kHeaders ? data(frame.streamId, "part") : std::string();
    };
    ScriptedServer server(options);
    RecordingClient client;
    ASSERT_EQ(connectTo(client, server, m_tls), 0);
    size_t tries = 0;
    EXPECT_TRUE(waitFor([&] {
        const Outcome outcome = Outcome::of(client, 0);
        EXPECT_TRUE(server.waitFramesOf(0, kRstStream, ++tries));
        const bool partial = outcome.result == 3;
        outcome.expectUnchanged(partial ? 3 : 1, 0, partial ? kPartial : kNothing);
        return partial;
    }));
}

// ---- afterwards

TEST_P(Blocking, LeavesNothingRunning) {
    connect();
    EXPECT_EQ(Outcome::of(m_client, 0).result, 1);
    EXPECT_EQ(m_client.parseHttpClientStatus(nullptr), 0);
    ASSERT_EQ(m_client.startRequest(nullptr), 0);
    ASSERT_TRUE(m_server.waitReceived(0, [](const std::string& bytes) {
        return bytes.find(headers(3, {}, kWhole).substr(3)) != std::string::npos;
    }));
    expectAnswered(3);
}

TEST_P(Blocking, ItsTextStaysUntilTheNextCall) {
    connect();
    const Outcome first = Outcome::of(m_client, 0);
    RecordingClient other;
    EXPECT_EQ(Outcome::of(other, 0).result, 2);
    EXPECT_STREQ(first.errMsg, kNothing);
}

}  // namespace
}  // namespace h2test
