// blockedRequest: each of its results, and how it counts time.
#include <atomic>
#include <ctime>
#include <map>
#include <memory>
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

// Uses up processor time as long as it lives, from the moment when it is told to.
class CpuBurner {
public:
    CpuBurner() : m_thread([this] { run(); }) {}
    ~CpuBurner() {
        m_stop = true;
        m_begin.set();
        m_thread.join();
    }
    CpuBurner(const CpuBurner&) = delete;
    CpuBurner& operator=(const CpuBurner&) = delete;
    void begin() { m_begin.set(); }

private:
    void run() {
        while (!m_stop && !m_begin.wait(kWaitLimit)) {
        }
        while (!m_stop) m_spins.fetch_add(1, std::memory_order_relaxed);
    }

    std::atomic<bool> m_stop{false};
    std::atomic<size_t> m_spins{0};
    Event m_begin;
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
    // What was handed in is still there, but for status and text.
    void expectUnchanged() const {
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

// Each test runs over plain TCP and over TLS.
class Blocking : public testing::TestWithParam<bool> {
protected:
    static bool tls() { return GetParam(); }

    void connect(RecordingClient& client) {
        ASSERT_EQ(connectTo(client, m_server, tls()), 0);
        ASSERT_EQ(client.setUri("/", HTTP_GET), 0);
    }
    void waitRequest(size_t count = 1) { ASSERT_TRUE(m_server.waitFramesOf(0, kHeaders, count)); }

    RunningLibrary m_library;
    ScriptedServer m_server{serverOptions(tls())};
};

INSTANTIATE_TEST_SUITE_P(Transport, Blocking, testing::Bool(),
                         [](const auto& info) { return info.param ? "Tls" : "Plain"; });

// ---- 0: complete

TEST_P(Blocking, ReturnsTheWholeAnswer) {
    RecordingClient client;
    connect(client);
    Blocked blocked(client, kForever);
    waitRequest();
    m_server.send(0, settings({}) +
                         headers(1, hpackLiteral(8, "201") + hpackLiteral("b", "2") +
                                        hpackLiteral("a", "1") + hpackLiteral("b", "3")) +
                         data(1, "first ") + data(1, std::string("sec\0nd", 6)));
    ASSERT_TRUE(client.waitContent(2));
    EXPECT_FALSE(blocked.returnsWithin(kSilence));
    m_server.send(0, data(1, "!", kEndStream));
    const Outcome& outcome = blocked.outcome();
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.status, 201);
    EXPECT_EQ(outcome.headerMap,
              (std::map<std::string, std::string>{{":status", "201"}, {"a", "1"}, {"b", "3"}}));
    EXPECT_EQ(outcome.content, std::string("first sec\0nd!", 13));
    EXPECT_STREQ(outcome.errMsg, kComplete);
    // The callbacks were made as well.
    EXPECT_EQ(
        client.callbacks(),
        (std::vector<Callback>{Callback::headers(201, {{":status", "201"}, {"a", "1"}, {"b", "3"}}),
                               Callback::content("first ", true),
                               Callback::content(std::string_view("sec\0nd", 6), true),
                               Callback::content("!", false)}));
    ASSERT_TRUE(m_server.waitFramesOf(0, kRstStream));
    EXPECT_EQ(m_server.frames(0, kRstStream)[0], parseFrames(rstStream(1, kCancel))[0]);
}

TEST_P(Blocking, ReturnsAnAnswerWithoutHeadersOrBody) {
    RecordingClient client;
    connect(client);
    Blocked blocked(client, kForever);
    waitRequest();
    m_server.send(0, data(1, "", kEndStream));
    const Outcome& outcome = blocked.outcome();
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_TRUE(outcome.headerMap.empty());
    EXPECT_EQ(outcome.content, "");
    EXPECT_STREQ(outcome.errMsg, kComplete);
}

TEST_P(Blocking, FollowsItselfOnOneConnection) {
    ServerOptions options = serverOptions(tls());
    options.responder = echoPath;
    ScriptedServer server(options);
    RecordingClient client;
    ASSERT_EQ(connectTo(client, server, tls()), 0);
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
    BodySource body("the body");
    RecordingClient client;
    connect(client);
    ASSERT_EQ(client.setUri("/", HTTP_POST), 0);
    ASSERT_EQ(client.setContent(&BodySource::read, &body), 0);
    Blocked blocked(client, kForever);
    ASSERT_TRUE(m_server.waitFramesThat(0, [](const auto& f) { return bodyEnded(f); }));
    EXPECT_EQ(m_server.frames(0, kData), parseFrames(data(1, "the body", kEndStream)));
    m_server.send(0, okResponse(1, "thanks"));
    EXPECT_EQ(blocked.outcome().content, "thanks");
}

TEST_P(Blocking, KeepsAnAnswerThatEndsInTheChunkThatCrossesTheLimit) {
    // 1048575 bytes are below the limit, so one more chunk is taken, whatever its size.
    const std::string body = distinctBytes(1'048'575 + 100'000);
    std::string answer = headers(1, hpackIndexed(8));
    for (size_t at = 0; at < 1'048'575; at += 69'905) {  // 15 times
        answer += data(1, std::string_view(body).substr(at, 69'905));
    }
    answer += data(1, std::string_view(body).substr(1'048'575), kEndStream);
    RecordingClient client;
    connect(client);
    Blocked blocked(client, kForever);
    waitRequest();
    m_server.send(0, answer);
    const Outcome& outcome = blocked.outcome();
    EXPECT_EQ(outcome.result, 0);
    EXPECT_TRUE(outcome.content == body);
    EXPECT_STREQ(outcome.errMsg, kComplete);
}

// ---- 1: failed

TEST_P(Blocking, FailsWhenNothingArrivesInTime) {
    RecordingClient client;
    connect(client);
    Blocked blocked(client, kShort);
    waitRequest();
    CpuBurner burner;
    burner.begin();
    const Outcome& outcome = blocked.outcome();
    EXPECT_EQ(outcome.result, 1);
    EXPECT_EQ(outcome.status, 0);
    outcome.expectUnchanged();
    EXPECT_STREQ(outcome.errMsg, kNothing);
    expectReceived(m_server, 0, opening() + getRequest(1, "/", tls()) + rstStream(1, kCancel));
    EXPECT_EQ(client.callbacks(), std::vector<Callback>());
}

TEST_P(Blocking, FailsWithTheStatusWhenOnlyHeadersArriveInTime) {
    RecordingClient client;
    connect(client);
    CpuBurner burner;
    Blocked blocked(client, 3 * kShort);
    waitRequest();
    m_server.send(0, headers(1, hpackIndexed(9), kWhole));
    ASSERT_TRUE(client.waitHeaders());
    burner.begin();
    const Outcome& outcome = blocked.outcome();
    EXPECT_EQ(outcome.result, 1);
    EXPECT_EQ(outcome.status, 204);
    outcome.expectUnchanged();
    EXPECT_STREQ(outcome.errMsg, kNothing);
}

TEST_P(Blocking, FailsWhenTheConnectionIsClosedButOnlyAtTheTimeOut) {
    RecordingClient client;
    connect(client);
    CpuBurner burner;
    Blocked blocked(client, 3 * kShort);
    waitRequest();
    m_server.close(0);
    ASSERT_TRUE(client.waitClosed());
    EXPECT_FALSE(blocked.returnsWithin(kSilence));
    burner.begin();
    const Outcome& outcome = blocked.outcome();
    EXPECT_EQ(outcome.result, 1);
    EXPECT_EQ(outcome.status, 0);
    outcome.expectUnchanged();
    EXPECT_STREQ(outcome.errMsg, kNothing);
    EXPECT_EQ(client.callbacks(), std::vector<Callback>{Callback::closed()});
}

TEST_P(Blocking, FailsWhenTheStreamIsResetButOnlyAtTheTimeOut) {
    RecordingClient client;
    connect(client);
    CpuBurner burner;
    Blocked blocked(client, 3 * kShort);
    waitRequest();
    m_server.send(0, headers(1, hpackIndexed(14)) + rstStream(1, 2));
    ASSERT_TRUE(client.waitFailed());
    EXPECT_FALSE(blocked.returnsWithin(kSilence));
    burner.begin();
    const Outcome& outcome = blocked.outcome();
    EXPECT_EQ(outcome.result, 1);
    EXPECT_EQ(outcome.status, 500);
    outcome.expectUnchanged();
    EXPECT_STREQ(outcome.errMsg, kNothing);
}

TEST_P(Blocking, FailsWhenTheBodyIsTooLargeButOnlyAtTheTimeOut) {
    std::string answer = headers(1, hpackIndexed(8));
    for (int i = 0; i < 64; ++i) answer += data(1, std::string(16384, 'x'));  // 1 MiB: full
    answer += data(1, "y");
    RecordingClient client;
    connect(client);
    CpuBurner burner;
    Blocked blocked(client, 5 * kShort);
    waitRequest();
    m_server.send(0, answer);
    ASSERT_TRUE(client.waitContent(65));
    EXPECT_FALSE(blocked.returnsWithin(kSilence));
    burner.begin();
    const Outcome& outcome = blocked.outcome();
    EXPECT_EQ(outcome.result, 1);
    EXPECT_EQ(outcome.status, 200);
    outcome.expectUnchanged();
    EXPECT_STREQ(outcome.errMsg, kTooLarge);
    // The callbacks have had all of it.
    EXPECT_EQ(client.count(Callback::Kind::kContent), 65u);
}

// ---- 2: could not start

TEST_P(Blocking, CannotStartWithoutAConnection) {
    RecordingClient client;
    const Outcome outcome = Outcome::of(client, kForever);
    EXPECT_EQ(outcome.result, 2);
    EXPECT_EQ(outcome.status, -99);
    outcome.expectUnchanged();
    EXPECT_STREQ(outcome.errMsg, "former");
}

TEST_P(Blocking, CannotStartWhileARequestRuns) {
    RecordingClient client;
    connect(client);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    const Outcome outcome = Outcome::of(client, kForever);
    EXPECT_EQ(outcome.result, 2);
    EXPECT_EQ(outcome.status, -99);
    outcome.expectUnchanged();
    EXPECT_STREQ(outcome.errMsg, "former");
    // The running one is not disturbed.
    waitRequest();
    m_server.send(0, okResponse(1));
    ASSERT_TRUE(client.waitEnd());
    EXPECT_EQ(client.callbacks(), okCallbacks());
    EXPECT_EQ(m_server.frames(0, kHeaders).size(), 1u);
}

TEST_P(Blocking, CannotStartWhenTheConnectionIsGone) {
    RecordingClient client;
    connect(client);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    waitRequest();
    m_server.close(0);
    ASSERT_TRUE(client.waitClosed());
    const Outcome outcome = Outcome::of(client, kForever);
    EXPECT_EQ(outcome.result, 2);
    EXPECT_EQ(outcome.status, -99);
    outcome.expectUnchanged();
    EXPECT_STREQ(outcome.errMsg, "former");
    EXPECT_EQ(client.parseHttpClientStatus(nullptr), 0);  // not taken for running
}

// ---- 3: timed out in the middle

TEST_P(Blocking, TimesOutWithAPartOfTheBody) {
    RecordingClient client;
    connect(client);
    CpuBurner burner;
    Blocked blocked(client, 3 * kShort);
    waitRequest();
    m_server.send(0, headers(1, hpackIndexed(8)) + data(1, "part"));
    ASSERT_TRUE(client.waitContent());
    EXPECT_FALSE(blocked.returnsWithin(kSilence));
    burner.begin();
    const Outcome& outcome = blocked.outcome();
    EXPECT_EQ(outcome.result, 3);
    EXPECT_EQ(outcome.status, 200);
    outcome.expectUnchanged();
    EXPECT_STREQ(outcome.errMsg, kPartial);
    expectReceived(m_server, 0, opening() + getRequest(1, "/", tls()) + rstStream(1, kCancel));

    // What comes late is nobody's; the next request has an answer of its own.
    m_server.send(0, data(1, "late", kEndStream));
    Blocked next(client, kForever);
    waitRequest(2);
    m_server.send(0, okResponse(3));
    EXPECT_EQ(next.outcome().result, 0);
    EXPECT_EQ(next.outcome().content, "ok");
}

TEST_P(Blocking, TimesOutWhenTheConnectionIsClosedInTheBody) {
    RecordingClient client;
    connect(client);
    CpuBurner burner;
    Blocked blocked(client, 3 * kShort);
    waitRequest();
    m_server.send(0, headers(1, hpackIndexed(8)) + data(1, "part"));
    m_server.close(0);
    ASSERT_TRUE(client.waitClosed());
    burner.begin();
    EXPECT_EQ(blocked.outcome().result, 3);
}

// ---- time

TEST_P(Blocking, CountsProcessorTimeOfTheWholeProcess) {
    RecordingClient client;
    connect(client);
    const clock_t start = clock();
    // An idle process does not get there, however late it is on the wall.
    Blocked blocked(client, 500);
    EXPECT_FALSE(blocked.returnsWithin(750));
    CpuBurner burner;
    burner.begin();
    EXPECT_EQ(blocked.outcome().result, 1);
    EXPECT_GE(clock() - start, 500 * 1000);
}

TEST_P(Blocking, CountsTheTimeOutIn32Bits) {
    RecordingClient client;
    connect(client);
    CpuBurner burner;
    // 4294968 * 1000 is 704 more than 2^32: less than a millisecond.
    Blocked blocked(client, 4'294'968);
    burner.begin();
    const bool returned = blocked.returnsWithin(30'000);
    EXPECT_TRUE(returned);
    if (!returned) m_server.send(0, data(1, "", kEndStream));  // or it would wait for an hour
    EXPECT_EQ(blocked.outcome().result, 1);
}

TEST_P(Blocking, LooksOnceWithoutATimeOut) {
    RecordingClient client;
    connect(client);
    const auto start = std::chrono::steady_clock::now();
    const Outcome outcome = Outcome::of(client, 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(10));
    EXPECT_EQ(outcome.result, 1);
    EXPECT_EQ(outcome.status, 0);
    outcome.expectUnchanged();
    EXPECT_STREQ(outcome.errMsg, kNothing);
}

// What has arrived at that one look depends on the machine's load, so each result is checked for
// itself, and the test goes on until the wanted one has come.

TEST_P(Blocking, FindsACompleteAnswerWithoutATimeOut) {
    ServerOptions options = serverOptions(tls());
    // The PING brings the acknowledgement that TCP waits for before it sends the next request.
    options.responder = [](size_t index, const WireFrame& frame) {
        return frame.type == kRstStream ? ping(0) : echoPath(index, frame);
    };
    ScriptedServer server(options);
    RecordingClient client;
    ASSERT_EQ(connectTo(client, server, tls()), 0);
    ASSERT_EQ(client.setUri("/quick", HTTP_GET), 0);
    size_t tries = 0;
    EXPECT_TRUE(waitFor([&] {
        const Outcome outcome = Outcome::of(client, 0);
        EXPECT_TRUE(server.waitFramesOf(0, kRstStream, ++tries));
        if (outcome.result != 0) {
            EXPECT_EQ(outcome.result, 1);
            EXPECT_STREQ(outcome.errMsg, kNothing);
            outcome.expectUnchanged();
            return false;
        }
        EXPECT_EQ(outcome.status, 200);
        EXPECT_EQ(outcome.content, "/quick");
        EXPECT_STREQ(outcome.errMsg, kComplete);
        return true;
    }));
}

TEST_P(Blocking, FindsAPartOfAnAnswerWithoutATimeOut) {
    ServerOptions options = serverOptions(tls());
    options.responder = [](size_t, const WireFrame& frame) {
        if (frame.type == kRstStream) return ping(0);
        return frame.type == kHeaders ? data(frame.streamId, "part") : std::string();
    };
    ScriptedServer server(options);
    RecordingClient client;
    ASSERT_EQ(connectTo(client, server, tls()), 0);
    size_t tries = 0;
    EXPECT_TRUE(waitFor([&] {
        const Outcome outcome = Outcome::of(client, 0);
        EXPECT_TRUE(server.waitFramesOf(0, kRstStream, ++tries));
        outcome.expectUnchanged();
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(std::string(outcome.errMsg), outcome.result == 3 ? kPartial : kNothing);
        return outcome.result == 3;
    }));
}

// ---- afterwards

TEST_P(Blocking, LeavesNothingRunning) {
    RecordingClient client;
    connect(client);
    EXPECT_EQ(Outcome::of(client, 0).result, 1);
    EXPECT_EQ(client.parseHttpClientStatus(nullptr), 0);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(m_server.waitReceived(0, [](const std::string& bytes) {
        return bytes.find(headers(3, {}, kWhole).substr(3)) != std::string::npos;
    }));
    m_server.send(0, okResponse(3));
    ASSERT_TRUE(client.waitEnd());
    EXPECT_EQ(client.callbacks(), okCallbacks());
}

TEST_P(Blocking, ItsTextStaysUntilTheNextCall) {
    RecordingClient client;
    connect(client);
    const Outcome first = Outcome::of(client, 0);
    RecordingClient other;
    EXPECT_EQ(Outcome::of(other, 0).result, 2);
    EXPECT_STREQ(first.errMsg, kNothing);
}

}  // namespace
}  // namespace h2test
