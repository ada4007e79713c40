// The library in its process: standard output, the log, signals, descriptors.
#include <csignal>

#include <pthread.h>

#include "tests/standard/wire/wire_support.h"
#include "tests/support/descriptors.h"
#include "tests/support/log_capture.h"

namespace {

using namespace h2test;
using testing::Contains;
using testing::HasSubstr;

class Process : public BothTest {
protected:
    // A request of `path` in each way in which one can end, and more that goes wrong.
    void doMuch() {
        Http2Server server(options([](const Request& request) {
            const std::string path = request.field(":path");
            if (path == "/reset") return rstStream(request.stream, 2);
            if (path == "/malformed") return data(request.stream, "x");
            if (path == "/goaway") return answer(request.stream) + goaway(request.stream, 0);
            if (path == "/violation") return windowUpdate(0, 0);
            if (path == "/silence") return std::string();
            return answer(request.stream);
        }));
        RecordingClient client([](const Callback&) { destroyHttp2Client(); });
        for (const char* path :
             {"/", "/reset", "/malformed", "/goaway", "/violation", "/silence"}) {
            client.clear();
            setHttp2Option(&client, HTTP2_REQUEST_TIMEOUT,
                           path == std::string("/silence") ? 20 : 0);
            ASSERT_EQ(connect(client, server), 0);
            ASSERT_EQ(client.setUri(path, HTTP_POST), 0);
            ASSERT_EQ(client.setContent("abc", 3), 0);
            ASSERT_EQ(client.startRequest(nullptr), 0);
            ASSERT_TRUE(waitFor([&] { return client.parseHttpClientStatus(nullptr) == 0; }));
            client.cancelRequest();  // waits for the callback
        }
        const RefusingPort port;
        EXPECT_EQ(client.connectToServer(schema(), "127.0.0.1", port.port()), 4);
        EXPECT_EQ(client.addHeader("Upper", "x", false), nullptr);
        m_port = server.port();
    }
    uint16_t m_port = 0;
};
INSTANTIATE_TEST_SUITE_P(All, Process, testing::Bool(), protocolName);

TEST_P(Process, HasNothingOnItsStandardOutput) {
    const LogCapture log(0);
    testing::internal::CaptureStdout();
    doMuch();
    destroyHttp2Client();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST_P(Process, LogsLinesThatAPersonCanUse) {
    const LogCapture log;
    doMuch();
    destroyHttp2Client();
    const std::string version = tls() ? " by TLSv1.3" : "";
    const std::vector<std::string> info = log.messages(20000), errors = log.messages(40000);
    EXPECT_THAT(info, Contains("connected to 127.0.0.1 port " + std::to_string(m_port) +
                               " (127.0.0.1)" + version));
    EXPECT_THAT(info, Contains(HasSubstr("127.0.0.1 says GOAWAY with NO_ERROR, last stream ")));
    EXPECT_THAT(info, Contains(testing::StartsWith("a request has failed: ")).Times(4));
    EXPECT_THAT(info, Contains("a request has failed: a time-out of the request has passed"));
    EXPECT_THAT(errors, Contains(testing::StartsWith("ends the connection to 127.0.0.1: ")));
    EXPECT_THAT(errors, Contains("destroyHttp2Client does nothing inside a callback"));
}

TEST_P(Process, LogsNothingAboveItsLevel) {
    const LogCapture log(50000);
    doMuch();
    destroyHttp2Client();
    EXPECT_EQ(log.records().size(), 0u);
}

// The library's writes to a connection that the peer has closed and reset raise no signal, on
// whatever thread they happen.
TEST_P(Process, KeepsSigpipeAtItsDefault) {
    // The server's thread inherits this; it is the server that may raise the signal.
    sigset_t pipe, former;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, &former);
    Http2Server server(options(answerAll()));
    pthread_sigmask(SIG_SETMASK, &former, nullptr);
    ASSERT_NE(signal(SIGPIPE, SIG_DFL), SIG_ERR);

    bool pending = false;
    RecordingClient client([&](const Callback&) {
        sigset_t waiting;
        sigpending(&waiting);
        pending |= sigismember(&waiting, SIGPIPE) == 1;
    });
    ASSERT_EQ(connect(client, server), 0);
    ASSERT_EQ(client.setUri("/", HTTP_GET), 0);
    for (size_t i = 0; i < 5; ++i) {
        client.clear();
        ASSERT_EQ(client.startRequest(nullptr), 0);
        ASSERT_TRUE(client.waitEnd());
        destroyHttp2Client();  // so that nobody sees the end but who writes
        server.wire().shutdownWrite(i);
        server.wire().reset(i);
        ASSERT_TRUE(server.wire().waitSent(i));
        client.clear();
        ASSERT_EQ(client.startRequest(nullptr), 0);  // on this thread
        initHttp2Client(5);
        ASSERT_TRUE(client.waitEnd());
    }
    EXPECT_FALSE(pending);
}

class Descriptors : public LibraryTest {};

TEST_F(Descriptors, WithoutOneRequestsFailAndLaterOnesSucceed) {
    const LogCapture log;
    Http2Server server([](const Request& request) {
        return request.field(":path") == "/lost" ? std::string() : answer(request.stream);
    });
    RecordingClient repeated, waiting;
    prepareGet(repeated, server);
    prepareGet(waiting, server);
    for (size_t i = 0; i < 2; ++i) {
        repeated.clear();
        ASSERT_EQ(repeated.startRequest(nullptr), 0);
        ASSERT_TRUE(repeated.waitEnd());
        if (i == 1) break;
        // A sanitizer needs descriptors when it first meets a class: here it meets the log's and
        // the one that connects in the background.
        server.wire().close(0);
        ASSERT_TRUE(server.wire().waitClosedByPeer(0));
    }
    repeated.clear();
    ASSERT_EQ(repeated.setUri("/lost", HTTP_GET), 0);
    ASSERT_EQ(repeated.startRequest(nullptr), 0);
    ASSERT_TRUE(server.waitRequests(3));
    {
        // Those that are open stay: the standard ones and the loop's. (poll takes no more, either.)
        const DescriptorLimit none(5);
        server.wire().close(1);
        // It may have been processed.
        ASSERT_TRUE(repeated.waitClosed());
        EXPECT_EQ(repeated.callbacks(), std::vector<Callback>{Callback::closed()});
        EXPECT_STREQ(getHttp2Text(&repeated, HTTP2_ERROR), "cannot connect: Too many open files");
        ASSERT_EQ(waiting.startRequest(nullptr), 0);
        ASSERT_TRUE(waiting.waitFailed());
        EXPECT_EQ(waiting.callbacks(), std::vector<Callback>{Callback::failed(ERR_SOCKET_CLOSED)});
        RecordingClient other;
        EXPECT_EQ(connectTo(other, server), 4);
        EXPECT_STREQ(getHttp2Text(&other, HTTP2_ERROR), "cannot connect: Too many open files");
    }
    waiting.clear();
    ASSERT_EQ(waiting.startRequest(nullptr), 0);
    ASSERT_TRUE(waiting.waitEnd());
    EXPECT_EQ(waiting.callbacks(), answered());
}

TEST_F(Descriptors, AreGivenBack) {
    Http2Server server(answerAll());
    const RefusingPort refusing;
    const auto round = [&] {
        RecordingClient client;
        setHttp2Option(&client, HTTP2_OWN_CONNECTION, 1);
        prepareGet(client, server);
        ASSERT_EQ(client.startRequest(nullptr), 0);
        ASSERT_TRUE(client.waitEnd());
        EXPECT_EQ(client.connectToServer(HTTP_2, "127.0.0.1", refusing.port()), 4);
    };
    round();
    ASSERT_TRUE(server.wire().waitClosedByPeer(0));
    ASSERT_TRUE(waitFor([&] { return server.wire().closedByPeer(0); }));
    const size_t before = openDescriptors();
    for (size_t i = 1; i <= 10; ++i) {
        round();
        ASSERT_TRUE(server.wire().waitClosedByPeer(i));
    }
    EXPECT_TRUE(waitFor([&] { return openDescriptors() <= before; }));
}

}  // namespace
