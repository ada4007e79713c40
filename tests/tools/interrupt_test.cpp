// What SIGINT does to h2request, in each state that it can be in.
#include <csignal>
#include <string>
#include <vector>

#include "tool_support.h"

namespace h2test {
namespace {

void expectInterrupted(Process& process, const std::string& message) {
    EXPECT_EQ(process.wait(), kInterrupted);
    EXPECT_EQ(process.errors(), "h2request: interrupted; " + message + "\n");
}

TEST(H2requestInterrupt, CancelsTheRequest) {
    ScriptedServer server(silent());
    Process process(H2REQUEST_PROGRAM, request(server, {"-i"}));
    ASSERT_TRUE(server.waitFramesOf(0, kHeaders));
    server.send(0, headers(1, statusField(200)) + data(1, "part"));
    ASSERT_TRUE(process.waitOutput("part"));
    process.signal(SIGINT);
    expectInterrupted(process, "the request was cancelled");
    EXPECT_EQ(process.output(), "status: 200\n\npart");
    EXPECT_TRUE(server.waitClosedByPeer(0));
    EXPECT_EQ(cancelledStreams(server, 0), std::set<uint32_t>{1});
}

// The blocking call cannot be cancelled, so the connection ends.
TEST(H2requestInterrupt, EndsTheBlockingCall) {
    ScriptedServer server(silent());
    Process process(H2REQUEST_PROGRAM, request(server, {"--blocking"}));
    ASSERT_TRUE(server.waitFramesOf(0, kHeaders));
    process.signal(SIGINT);
    expectInterrupted(process, "the request was cancelled");
    EXPECT_TRUE(server.waitClosedByPeer(0));
}

TEST(H2requestInterrupt, StopsARepeat) {
    ScriptedServer server(answering([](uint32_t streamId, size_t nth) {
        return nth < 3 ? response(streamId, 200, "answer") : std::string();
    }));
    Process process(H2REQUEST_PROGRAM, request(server, {"--repeat", "9"}));
    ASSERT_TRUE(server.waitFramesOf(0, kHeaders, 3));
    process.signal(SIGINT);
    expectInterrupted(process, "the request was cancelled");
    EXPECT_EQ(process.output(), "answeranswer");
    EXPECT_EQ(server.frames(0, kHeaders).size(), 3u);
}

TEST(H2requestInterrupt, EndsTheProcessWhileItConnects) {
    ScriptedServer server;  // accepts, and never answers the TLS handshake
    Process process(H2REQUEST_PROGRAM, request(server, {"--tls"}));
    ASSERT_TRUE(server.waitReceived(0, 1));
    process.signal(SIGINT);
    expectInterrupted(process, "no request was running");
}

TEST(H2requestInterrupt, EndsTheProcessWhileItReadsItsInput) {
    ScriptedServer server(silent());
    Process process(H2REQUEST_PROGRAM, request(server, {"-X", "POST", "--data-file", "-"}));
    ASSERT_TRUE(waitFor([&] { return process.handles(SIGINT); }, kProcessLimit));
    process.signal(SIGINT);
    expectInterrupted(process, "no request was running");
    EXPECT_EQ(server.connections(), 0u);
}

// One of them asks for an orderly end, which a main thread that is stuck in a write cannot make.
TEST(H2requestInterrupt, EndsTheProcessAtOnceAtTheSecondTime) {
    ScriptedServer server(silent());
    Streams streams;
    streams.unreadOutput = true;
    Process process(H2REQUEST_PROGRAM, request(server), streams);
    ASSERT_TRUE(server.waitFramesOf(0, kHeaders));
    const size_t before = process.residentBytes();
    server.send(0, headers(1, statusField(200)) + bodyFrames(1, std::string(60000000, 'x')));
    ASSERT_TRUE(waitHeldBack(process, before));
    // Two that come together count as one.
    EXPECT_TRUE(waitFor(
        [&] {
            process.signal(SIGINT);
            return process.waitErrors("was given up", std::chrono::milliseconds(1));
        },
        kProcessLimit));
    expectInterrupted(process, "the request was given up");
}

// As under nohup.
TEST(H2requestInterrupt, IsNoneWhereItWasIgnoredFromTheStart) {
    ScriptedServer server(silent());
    std::vector<std::string> arguments{"-c", "trap '' INT; exec \"$@\"", "bash", H2REQUEST_PROGRAM};
    for (const std::string& argument : request(server)) arguments.push_back(argument);
    Process process(BASH_PROGRAM, arguments);
    ASSERT_TRUE(server.waitFramesOf(0, kHeaders));
    process.signal(SIGINT);
    server.send(0, response(1, 200, "answer"));
    EXPECT_EQ(process.wait(), kAnswered);
    EXPECT_EQ(process.output(), "answer");
    EXPECT_EQ(process.errors(), "");
}

}  // namespace
}  // namespace h2test
