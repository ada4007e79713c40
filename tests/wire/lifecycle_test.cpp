// Starting and stopping the library, and clients that come and go while requests run.
#include <atomic>
#include <csignal>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/descriptors.h"
#include "tests/support/signals.h"
#include "tests/support/threads.h"
#include "wire_support.h"

namespace h2test {
namespace {

// An ended thread leaves the list a moment after it has been joined.
bool waitThreads(size_t count) {
    return waitFor([count] { return threadsOfThisProcess() == count; });
}

// The number of threads, when those of earlier tests have left the list.
size_t settledThreads() {
    size_t count = 0;
    int same = 0;
    waitFor([&] {
        const size_t now = threadsOfThisProcess();
        same = now == count ? same + 1 : 0;
        count = now;
        return same == 20;
    });
    return count;
}

// ---- the library's thread

TEST(Library, StartsAndStopsOneThread) {
    const NullCout quiet;
    EXPECT_EQ(destroyHttp2Client(), 1);  // none runs
    // Any runtime thread of a sanitizer is there once a first thread has been made.
    std::thread([] {}).join();
    const size_t before = settledThreads();
    ASSERT_GT(before, 0u);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(initHttp2Client(1), 1);
        EXPECT_TRUE(waitThreads(before + 1));
        EXPECT_EQ(initHttp2Client(600'000), 1);
        EXPECT_EQ(threadsOfThisProcess(), before + 1);
        EXPECT_EQ(destroyHttp2Client(), 1);
        EXPECT_TRUE(waitThreads(before));
        EXPECT_EQ(destroyHttp2Client(), 1);
        EXPECT_TRUE(waitThreads(before));
    }
}

TEST(Library, IgnoresTheSecondPollTime) {
    const NullCout quiet;
    const LibraryThread library(1);
    EXPECT_EQ(initHttp2Client(3'600'000), 1);  // would not look for new requests for an hour
    ScriptedServer server;
    RecordingClient client;
    startGet(client, server);
    server.send(0, okResponse(1));
    EXPECT_TRUE(client.waitEnd());
}

TEST(Library, StopWaitsForTheCallbackThatIsUnderWay) {
    const NullCout quiet;
    ASSERT_EQ(initHttp2Client(5), 1);
    ScriptedServer server;
    Event inside;
    Event release;
    RecordingClient client([&](const Callback&) {
        inside.set();
        EXPECT_TRUE(release.wait());
    });
    startGet(client, server);
    server.send(0, headers(1, hpackIndexed(8)));
    ASSERT_TRUE(inside.wait());
    std::atomic<bool> stopped{false};
    std::thread stopping([&] {
        destroyHttp2Client();
        stopped = true;
    });
    EXPECT_FALSE(waitFor([&] { return stopped.load(); }, std::chrono::milliseconds(100)));
    release.set();
    stopping.join();
    EXPECT_EQ(client.callbacks(), Callbacks{okCallbacks()[0]});
}

TEST(Library, KeepsConnectionsFromOneThreadToTheNext) {
    const NullCout quiet;
    ScriptedServer server;
    RecordingClient client;
    {
        const LibraryThread library;
        startGet(client, server);
        server.send(0, headers(1, hpackIndexed(8)) + data(1, "one "));
        ASSERT_TRUE(client.waitContent());
    }
    // Stopped: what the server sends now waits in the socket.
    server.send(0, data(1, "two", kEndStream));
    ASSERT_TRUE(server.waitSent(0));
    EXPECT_FALSE(client.waitEnd(std::chrono::milliseconds(100)));
    EXPECT_EQ(client.startRequest(nullptr), 8);
    {
        const LibraryThread library;
        ASSERT_TRUE(client.waitEnd());
        EXPECT_EQ(client.callbacks(), (Callbacks{okCallbacks()[0], Callback::content("one ", true),
                                                 Callback::content("two", false)}));
        expectReceived(server, 0, opening() + getRequest(1, "/") + rstStream(1, kCancel));
    }
    // A request started meanwhile goes out with the next thread.
    client.clear();
    ASSERT_EQ(client.startRequest(nullptr), 0);
    {
        const LibraryThread library;
        expectReceived(server, 0,
                       opening() + getRequest(1, "/") + rstStream(1, kCancel) + getRequest(3, "/"));
        server.send(0, okResponse(3));
        ASSERT_TRUE(client.waitEnd());
        EXPECT_EQ(client.callbacks(), okCallbacks());
    }
    EXPECT_EQ(server.connections(), 1u);
    EXPECT_FALSE(server.closedByPeer(0));
}

TEST(Library, ClientsComeAndGoWhileItIsStopped) {
    const NullCout quiet;
    ASSERT_EQ(initHttp2Client(5), 1);
    ASSERT_EQ(destroyHttp2Client(), 1);
    ScriptedServer server;
    RecordingClient kept;
    ASSERT_EQ(connectTo(kept, server), 0);
    ASSERT_EQ(kept.startRequest(nullptr), 0);
    {
        RecordingClient gone;
        ASSERT_EQ(connectTo(gone, server), 0);
        ASSERT_EQ(gone.startRequest(nullptr), 0);
    }
    const LibraryThread library;
    ASSERT_TRUE(server.waitFramesOf(0, kHeaders));
    server.send(0, okResponse(1));
    ASSERT_TRUE(kept.waitEnd());
    // The destroyed client's connection is served as well; its request is not sent.
    expectReceived(server, 1, opening() + rstStream(1, kCancel));
}

// ---- signals

// Whether the thread blocks the signal.
bool blocks(pid_t thread, int signal) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/status");
    std::string word;
    while (file >> word && word != "SigBlk:") {
    }
    uint64_t mask = 0;
    file >> std::hex >> mask;
    EXPECT_TRUE(file) << "no mask";
    return (mask >> (signal - 1) & 1) != 0;
}

TEST(Signals, OfTheProcessAreForTheApplicationsThreads) {
    sigset_t before;
    sigset_t after;
    pthread_sigmask(SIG_SETMASK, nullptr, &before);
    const RunningLibrary library;
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    for (int signal = 1; signal < SIGRTMAX; ++signal) {
        EXPECT_EQ(sigismember(&after, signal), sigismember(&before, signal)) << signal;
    }
    const SignalCounter counter(SIGUSR1);
    sigset_t user;
    sigemptyset(&user);
    sigaddset(&user, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &user, nullptr);  // for the server's threads, too
    ScriptedServer server;
    std::atomic<pid_t> thread{0};
    RecordingClient client([&](const Callback&) { thread = gettid(); });
    startGet(client, server);
    server.send(0, headers(1, hpackIndexed(8)));
    ASSERT_TRUE(client.waitHeaders());
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGALRM, SIGCHLD, SIGUSR1, SIGUSR2,
                             SIGWINCH, SIGTSTP, SIGRTMIN}) {
        EXPECT_TRUE(blocks(thread, signal)) << signal;
    }
    for (const int signal : {SIGPIPE, SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS}) {
        EXPECT_FALSE(blocks(thread, signal)) << signal;
    }
    // No thread takes this one now. The library's would lose its connection by it.
    kill(getpid(), SIGUSR1);
    server.send(0, data(1, "ok", kEndStream));
    EXPECT_TRUE(client.waitEnd());
    EXPECT_EQ(client.callbacks(), okCallbacks());
    EXPECT_EQ(SignalCounter::count(), 0);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    EXPECT_EQ(SignalCounter::count(), 1);
}

// ---- a descriptor that the system has given to another connection

class ReusedDescriptor : public WireTest {
protected:
    // Runs a request of `former` to its end, lets the server close the connection, and starts a
    // request of this test's client on a connection with the same descriptor.
    void hand(RecordingClient& former) {
        const int fd = nextDescriptor();
        startGet(former);
        m_server.send(0, okResponse(1));
        ASSERT_TRUE(m_server.waitFramesOf(0, kRstStream));
        m_server.close(0);
        ASSERT_TRUE(waitFor([&] { return !isOpen(fd); }));
        const OccupiedDescriptors below(fd);
        startGet(m_client, 1);
        ASSERT_TRUE(isOpen(fd));
    }
    // The client's request and the next one go on as if there had been no other client.
    void expectUnharmed() {
        RecordingClient barrier;  // every connection is written to meanwhile
        startGet(barrier, 2);
        m_server.send(1, okResponse(1));
        ASSERT_TRUE(m_client.waitEnd());
        EXPECT_EQ(m_client.callbacks(), okCallbacks());
        startNext();
        expectReceived(m_server, 1, opening() + get(1) + rstStream(1, kCancel) + get(3));
    }
};

TEST_F(ReusedDescriptor, CancellingWithdrawsNothingOfAnother) {
    RecordingClient former;
    hand(former);
    EXPECT_EQ(former.cancelRequest(), 0);
    expectUnharmed();
}

TEST_F(ReusedDescriptor, DestructionWithdrawsNothingOfAnother) {
    auto former = std::make_unique<RecordingClient>();
    hand(*former);
    former.reset();
    expectUnharmed();
}

TEST_F(ReusedDescriptor, StartingFindsTheConnectionGone) {
    RecordingClient former;
    hand(former);
    former.clear();
    EXPECT_EQ(former.startRequest(nullptr), 2);
    int status = 0;
    std::map<std::string, std::string> headerMap;
    std::string content;
    const char* text = nullptr;
    EXPECT_EQ(former.blockedRequest(status, headerMap, content, text, 0), 2);
    expectUnharmed();
    EXPECT_EQ(former.callbacks(), Callbacks());
    ASSERT_EQ(connectTo(former, m_server), 0);
    EXPECT_EQ(former.startRequest(nullptr), 0);
}

// ---- clients without a connection

class Client : public WireTest {};

TEST_F(Client, RefusesSettingsBeforeItIsConnected) {
    EXPECT_EQ(m_client.setUri("/", HTTP_GET), 4);
    EXPECT_EQ(m_client.addHeader("a", "b", false), nullptr);
    EXPECT_EQ(m_client.setContent("a", 1), 4);
    EXPECT_EQ(m_client.setContent(&BodySource::read, nullptr), 4);
    EXPECT_EQ(m_client.startRequest(nullptr), 4);
    EXPECT_EQ(m_client.cancelRequest(), 4);
    EXPECT_EQ(m_client.parseHttpClientStatus(nullptr), 4);
    m_client.clearClient();

    // Nothing of it was kept.
    ASSERT_EQ(connectTo(m_client, m_server), 0);
    EXPECT_EQ(m_client.parseHttpClientStatus(nullptr), 0);
    startNext();
    expectSent(headers(1, hex("4200 86 4400"), kWhole));
}

// ---- cancelling

class Cancel : public WireTest {};

TEST_F(Cancel, ResetsTheStreamAndSilencesIt) {
    startGet();
    EXPECT_EQ(m_client.cancelRequest(), 0);
    expectSent(get(1) + rstStream(1, kCancel));

    m_server.send(0, okResponse(1));  // too late: the DATA frame is answered with another reset
    expectSent(rstStream(1, kCancel));
    EXPECT_EQ(m_client.callbacks(), Callbacks());

    startNext();
    expectSent(get(3));
    expectAnswered(3);
}

TEST_F(Cancel, WithoutARequestResetsTheLastStreamAgain) {
    startGet();
    expectAnswered();
    expectSent(get(1) + rstStream(1, kCancel));
    EXPECT_EQ(m_client.cancelRequest(), 0);
    expectSent(rstStream(1, kCancel));
}

TEST_F(Cancel, BeforeTheFirstRequestResetsStreamZero) {
    connect();
    EXPECT_EQ(m_client.cancelRequest(), 0);
    EXPECT_EQ(m_client.cancelRequest(), 0);
    ASSERT_EQ(m_client.startRequest(nullptr), 0);
    expectSent(rstStream(0, kCancel) + get(1));
}

TEST_F(Cancel, LeavesTheReaderAlone) {
    struct Endless {
        size_t calls = 0;
        static int read(char* buf, size_t len, void* opaque) {
            ++static_cast<Endless*>(opaque)->calls;
            std::fill_n(buf, len, 'x');
            return static_cast<int>(len);
        }
    };
    for (size_t index = 0; index < 4; ++index) {
        auto body = std::make_unique<Endless>();
        startPost(&Endless::read, body.get());
        ASSERT_TRUE(m_server.waitFramesOf(index, kData, 3));
        EXPECT_EQ(m_client.cancelRequest(), 0);
        const size_t calls = body->calls;
        ASSERT_TRUE(m_server.waitFramesOf(index, kRstStream));
        EXPECT_EQ(body->calls, calls);
        EXPECT_EQ(m_server.frames(index, kData).size(), calls);
        body.reset();
    }
}

TEST_F(Cancel, RacesWithTheAnswerWithoutHarm) {
    ServerOptions options;
    options.responder = echoPath;
    ScriptedServer server(options);
    for (int i = 0; i < 100; ++i) {
        RecordingClient client;
        ASSERT_EQ(connectTo(client, server), 0);
        ASSERT_EQ(client.setUri("/", HTTP_GET), 0);
        ASSERT_EQ(client.startRequest(nullptr), 0);
        if (i % 2 == 0) {
            ASSERT_TRUE(client.waitHeaders());
        }
        EXPECT_EQ(client.cancelRequest(), 0);
        const Callbacks seen = client.callbacks();
        ASSERT_EQ(client.startRequest(nullptr), 0);
        ASSERT_TRUE(client.waitCallbacks(seen.size() + 2));
        Callbacks all = client.callbacks();
        all.erase(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(seen.size()));
        ASSERT_EQ(all, okCallbacks("/"));
    }
}

// ---- destruction

class Destroy : public WireTest {};

TEST_F(Destroy, EndsTheRunningRequest) {
    auto client = std::make_unique<RecordingClient>();
    startGet(*client);
    client.reset();
    expectSent(get(1) + rstStream(1, kCancel));
    // The connection outlives its client, and hears of answers that come too late.
    m_server.send(0, okResponse(1));
    expectSent(rstStream(1, kCancel));
    m_server.send(0, goaway(1, 0));
    EXPECT_TRUE(m_server.waitClosedByPeer(0));
}

// Counts its callbacks elsewhere, and cancels in its destructor, as an application should.
class CountingClient : public tiny::HttpClientInterface {
public:
    CountingClient(Counter& callbacks, std::atomic<bool>& alive)
        : m_callbacks(callbacks), m_alive(alive) {
        m_alive = true;
    }
    ~CountingClient() override {
        cancelRequest();
        m_alive = false;
    }
    void onSocketClosed() override { note(); }
    void onFailed(HTTP_ERROR) override { note(); }
    void onHeaderReceived(int, const HeaderDef*, size_t) override { note(); }
    void onContentReceived(const char*, size_t, bool) override { note(); }

private:
    void note() {
        EXPECT_TRUE(m_alive);
        m_callbacks.add();
    }
    Counter& m_callbacks;
    std::atomic<bool>& m_alive;
};

TEST_F(Destroy, MakesNoCallbackAfterwards) {
    ServerOptions options;
    options.keepReceived = false;
    // A flood that never ends by itself.
    options.responder = [](size_t, const WireFrame& frame) {
        std::string out;
        if (frame.type != kHeaders) return out;
        out = headers(frame.streamId, hpackIndexed(8));
        for (int i = 0; i < 500; ++i) out += data(frame.streamId, "drop");
        return out;
    };
    ScriptedServer server(options);
    for (int i = 0; i < 50; ++i) {
        Counter callbacks;
        std::atomic<bool> alive{false};
        auto client = std::make_unique<CountingClient>(callbacks, alive);
        ASSERT_EQ(connectTo(*client, server), 0);
        ASSERT_EQ(client->startRequest(nullptr), 0);
        ASSERT_TRUE(callbacks.waitAtLeast(static_cast<size_t>(1 + i * 5)));
        client.reset();
        const size_t seen = callbacks.count();
        EXPECT_FALSE(alive);
        // Another exchange on the same thread: the flood's rest has had its chance.
        RecordingClient other;
        ASSERT_EQ(connectTo(other, server), 0);
        ASSERT_EQ(other.startRequest(nullptr), 0);
        ASSERT_TRUE(other.waitContent(3));
        EXPECT_EQ(callbacks.count(), seen);
    }
}

TEST_F(Destroy, RacesWithTheConnectionsEndWithoutHarm) {
    ServerOptions options;
    options.responder = [](size_t index, const WireFrame& frame) {
        if (frame.type != kHeaders) return std::string();
        switch (index % 3) {
            case 0: return goaway(0, 0);
            case 1: return rstStream(1, 2);
            default: return h2test::frame(77, 0, 0, "");
        }
    };
    ScriptedServer server(options);
    for (size_t i = 0; i < 90; ++i) {
        Counter callbacks;
        std::atomic<bool> alive{false};
        auto client = std::make_unique<CountingClient>(callbacks, alive);
        h2test::startGet(*client, server, i);
        if (i % 2 == 0) {
            ASSERT_TRUE(callbacks.waitAtLeast(1));
        }
        client.reset();
        EXPECT_LE(callbacks.count(), 1u);
    }
}

// ---- two connections of one client

class Reconnect : public WireTest {};

TEST_F(Reconnect, OpensASecondConnectionAndUsesIt) {
    startGet();
    expectAnswered();
    m_client.clear();
    ASSERT_EQ(connectTo(m_client, m_server), 0);
    ASSERT_EQ(m_client.startRequest(nullptr), 0);
    expectReceived(m_server, 1, opening() + get(1));
    m_server.send(1, okResponse(1, "new"));
    ASSERT_TRUE(m_client.waitEnd());
    EXPECT_EQ(m_client.callbacks(), okCallbacks("new"));
    // The first is open and served, but no longer this client's.
    EXPECT_FALSE(m_server.closedByPeer(0));
    m_server.close(0);
    EXPECT_TRUE(m_server.waitClosedByPeer(0));
    EXPECT_EQ(m_client.callbacks(), okCallbacks("new"));
}

TEST_F(Reconnect, TheRequestOnTheFirstConnectionGoesOn) {
    startGet();
    ASSERT_EQ(connectTo(m_client, m_server), 0);
    EXPECT_EQ(m_client.startRequest(nullptr), 8);
    m_server.send(0, okResponse(1, "from the first"));
    ASSERT_TRUE(m_client.waitEnd());
    EXPECT_EQ(m_client.callbacks(), okCallbacks("from the first"));
    startNext();
    expectReceived(m_server, 1, opening() + get(1));
}

TEST_F(Reconnect, DestroyedClientIsForgottenByBothConnections) {
    Counter callbacks;
    std::atomic<bool> alive{false};
    auto client = std::make_unique<CountingClient>(callbacks, alive);
    startGet(*client);
    ASSERT_EQ(connectTo(*client, m_server), 0);
    client.reset();
    // The stream has no client any more, so its data is answered with a reset.
    m_server.send(0, headers(1, hpackIndexed(8)) + data(1, "for nobody"));
    ASSERT_TRUE(m_server.waitFramesOf(0, kRstStream));
    EXPECT_EQ(m_server.frames(0, kRstStream)[0], parseFrames(rstStream(1, kCancel))[0]);
    m_server.send(0, goaway(0, 0));
    EXPECT_TRUE(m_server.waitClosedByPeer(0));
    EXPECT_EQ(callbacks.count(), 0u);
}

TEST_F(Reconnect, DestroyedClientHearsNothingOfEitherConnectionsFailure) {
    for (size_t i = 0; i < 40; i += 2) {
        Counter callbacks;
        std::atomic<bool> alive{false};
        auto client = std::make_unique<CountingClient>(callbacks, alive);
        startGet(*client, i);
        ASSERT_EQ(connectTo(*client, m_server), 0);
        m_server.send(i, i % 4 == 0 ? frame(10, 0, 0, "") : goaway(0, 0));
        client.reset();
        EXPECT_LE(callbacks.count(), 1u);
        EXPECT_TRUE(m_server.waitClosedByPeer(i));
        EXPECT_LE(callbacks.count(), 1u);
    }
}

// ---- settings without a request

class SettingsWithoutARequest : public WireTest {};

// Runs every call that changes a request. False: one of them has not returned.
bool settingsReturn(tiny::HttpClientInterface& client, const std::function<void()>& unblock) {
    Event done;
    std::thread setting([&] {
        EXPECT_EQ(client.setUri("/", HTTP_GET), 0);
        EXPECT_EQ(client.addHeader("a", "b", false), &client);
        EXPECT_EQ(client.setContent("c", 1), 0);
        EXPECT_EQ(client.setContent(&BodySource::read, nullptr), 0);
        client.clearClient();
        done.set();
    });
    const bool returned = done.wait(std::chrono::seconds(10));
    unblock();
    setting.join();
    return returned;
}

TEST_F(SettingsWithoutARequest, WaitForNoHandshake) {
    ScriptedServer silent;  // takes the ClientHello and never answers
    startGet();
    expectAnswered();
    ASSERT_TRUE(m_server.waitFramesOf(0, kRstStream));
    RecordingClient other;
    std::thread connecting([&] { EXPECT_EQ(connectTo(other, silent, true), 4); });
    ASSERT_TRUE(silent.waitReceived(0, 1));
    EXPECT_TRUE(settingsReturn(m_client, [&] { silent.close(0); }));
    connecting.join();
}

TEST_F(SettingsWithoutARequest, WaitForNoCallbackNotEvenTheirOwnLast) {
    size_t index = 0;
    for (const std::string& end : {okResponse(1), rstStream(1, 2), std::string("closed")}) {
        RecordingClient idle;
        connect(idle);
        Event inside;
        Event release;
        RecordingClient client([&](const Callback& callback) {
            if (callback.kind == Callback::Kind::kHeaders) return;
            inside.set();
            EXPECT_TRUE(release.wait());
        });
        startGet(client, index + 1);
        if (end == "closed") {
            m_server.close(index + 1);
        } else {
            m_server.send(index + 1, end);
        }
        ASSERT_TRUE(inside.wait());
        EXPECT_TRUE(settingsReturn(idle, [] {})) << end;
        EXPECT_TRUE(settingsReturn(client, [&] { release.set(); })) << end;
        index += 2;
    }
}

// ---- settings while a request runs

class SettingsWhileRunning : public WireTest {};

TEST_F(SettingsWhileRunning, WorkInsideCallbacksAndWaitForNothing) {
    ScriptedServer silent;
    RecordingClient other;
    startGet(other);
    RecordingClient client([&](const Callback&) {
        EXPECT_EQ(client.addHeader("a", "b", false), &client);
        EXPECT_EQ(other.setContent("", 0), 0);
    });
    startGet(client, 1);
    m_server.send(1, headers(1, hpackIndexed(8)));
    ASSERT_TRUE(client.waitHeaders());
    // Outside a handler's lock, too, which another client's handshake holds by now.
    RecordingClient third;
    Event inside;
    Event release;
    Event finished;
    RecordingClient ending([&](const Callback&) {
        inside.set();
        EXPECT_TRUE(release.wait());
        EXPECT_EQ(other.addHeader("c", "d", false), &other);
        finished.set();
    });
    startGet(ending, 2);
    m_server.close(2);
    ASSERT_TRUE(inside.wait());
    std::thread connecting([&] { EXPECT_EQ(connectTo(third, silent, true), 4); });
    ASSERT_TRUE(silent.waitReceived(0, 1));
    release.set();
    EXPECT_TRUE(finished.wait(std::chrono::seconds(10)));
    silent.close(0);
    connecting.join();
}

TEST_F(SettingsWhileRunning, NewUriSendsTheHeadersAnew) {
    startGet();
    EXPECT_EQ(m_client.setUri("/new", HTTP_POST), 0);
    expectSent(get(1) + headers(1, requestBlock(hex("83"), "/new", false), kWhole));
    expectAnswered();
    expectSent(rstStream(1, kCancel));
}

TEST_F(SettingsWhileRunning, NewHeaderIsForTheNextRequest) {
    startGet();
    EXPECT_EQ(m_client.addHeader("x", "y", false), &m_client);
    expectAnswered();
    ASSERT_EQ(m_client.startRequest(nullptr), 0);
    expectSent(get(1) + rstStream(1, kCancel) +
               get(3, "/", hpackLiteral("x", "y", Literal::kIncremental)));
}

TEST_F(SettingsWhileRunning, NewReaderSendsItsBody) {
    m_body.bytes = "late body";
    startGet();
    EXPECT_EQ(m_client.setContent(&BodySource::read, &m_body), 0);
    expectSent(get(1) + data(1, "late body", kEndStream));
    expectAnswered();
}

TEST_F(SettingsWhileRunning, AreKeptApartFromTheRequest) {
    ServerOptions options;
    options.responder = [](size_t, const WireFrame& frame) {
        return frame.type == kHeaders
                   ? headers(frame.streamId, hpackIndexed(8)) + data(frame.streamId, "more")
                   : std::string();
    };
    options.keepReceived = false;
    ScriptedServer server(options);
    RecordingClient client;
    ASSERT_EQ(connectTo(client, server), 0);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    BodySource body(std::string(100'000, 'x'));
    for (size_t i = 1; i <= 50; ++i) {
        const std::string text(i * 20, 'v');
        ASSERT_EQ(client.setUri(text.c_str(), HTTP_POST), 0);  // asks for one more answer
        ASSERT_EQ(client.addHeader("name", text.c_str(), i % 2 == 0), &client);
        ASSERT_EQ(client.setContent(text.data(), text.size()), 0);
        ASSERT_EQ(client.setContent(&BodySource::read, &body), 0);
        ASSERT_EQ(client.startRequest(nullptr), 8);
        ASSERT_TRUE(client.waitContent(i));
    }
    EXPECT_EQ(client.count(Callback::Kind::kFailed), 0u);
    EXPECT_EQ(client.count(Callback::Kind::kClosed), 0u);
    EXPECT_EQ(client.cancelRequest(), 0);
}

TEST_F(SettingsWhileRunning, ClearClientForgetsTheRequestButNotItsStream) {
    startGet();
    m_client.clearClient();
    EXPECT_EQ(m_client.parseHttpClientStatus(nullptr), 0);
    // Cleared, the request counts as not sent: its headers go out once more, with nothing in them.
    expectSent(get(1) + headers(1, hex("82 86 4400"), kWhole));
    expectAnswered();
    expectSent(rstStream(1, kCancel));
}

}  // namespace
}  // namespace h2test
