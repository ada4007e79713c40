// What SIGINT does to h2request, in each state that it can be in.
#include "tool_support.h"

namespace h2test {
namespace {

void expectInterrupted(Process& process, std::string_view output = {}) {
    const Ended ended = process.wait();
    EXPECT_EQ(ended.code, kInterrupted);
    EXPECT_EQ(ended.errors, "h2request: interrupted\n");
    EXPECT_EQ(ended.output, output);
}

class H2requestInterrupt : public BothWays {};
H2TEST_BOTH_WAYS(H2requestInterrupt);

TEST_P(H2requestInterrupt, EndsTheRequestWithItsConnection) {
    ScriptedServer server(silent());
    Process process(H2REQUEST_PROGRAM, request(server, with({"-i"})));
    ASSERT_TRUE(server.waitFramesOf(0, kHeaders));
    server.send(0, headers(1, statusField(200)) + data(1, "part"));
    const bool streaming = GetParam() == "Streaming";
    if (streaming) {
        ASSERT_TRUE(process.waitOutput("part"));
    }
    process.signal(SIGINT);
    expectInterrupted(process, streaming ? "status: 200\n\npart" : "");
    EXPECT_TRUE(server.waitClosedByPeer(0));
}

TEST_P(H2requestInterrupt, StopsARepeat) {
    ScriptedServer server(answering([](uint32_t streamId, size_t nth) {
        return nth < 3 ? response(streamId, 200, "answer") : std::string();
    }));
    Process process(H2REQUEST_PROGRAM, request(server, with({"--repeat", "9"})));
    ASSERT_TRUE(server.waitFramesOf(0, kHeaders, 3));
    process.signal(SIGINT);
    expectInterrupted(process, "answeranswer");
    EXPECT_EQ(server.frames(0, kHeaders).size(), 3u);
}

TEST_P(H2requestInterrupt, EndsTheProcessWhileItConnects) {
    for (const std::string option : {"--timing", "--parallel"}) {
        ScriptedServer server;  // accepts, and never answers the TLS handshake
        std::vector<std::string> options = {"--tls", "-k", "--repeat", "9", "--parallel", "2"};
        if (option == "--timing") options = with({"--tls", "-k"});
        Process process(H2REQUEST_PROGRAM, request(server, options));
        ASSERT_TRUE(server.waitReceived(0, 1));
        process.signal(SIGINT);
        expectInterrupted(process);
    }
}

TEST_P(H2requestInterrupt, EndsTheProcessWhileItReadsItsInput) {
    ScriptedServer server(silent());
    Process process(H2REQUEST_PROGRAM, request(server, with({"--data-file", "-"})));
    ASSERT_TRUE(waitFor([&] { return process.handles(SIGINT); }, kProcessLimit));
    process.signal(SIGINT);
    expectInterrupted(process);
    EXPECT_EQ(server.connections(), 0u);
}

// The library's thread is in a callback then, with its locks held.
TEST(H2requestInterrupt, EndsTheProcessWhileNobodyReadsItsOutput) {
    ScriptedServer server(silent());
    Streams streams;
    streams.unreadOutput = true;
    Process process(H2REQUEST_PROGRAM, request(server), streams);
    ASSERT_TRUE(server.waitFramesOf(0, kHeaders));
    const size_t before = process.residentBytes();
    server.send(0, headers(1, statusField(200)) + bodyFrames(1, std::string(60000000, 'x')));
    ASSERT_TRUE(waitHeldBack(process, before));
    process.signal(SIGINT);
    expectInterrupted(process);
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
    expectAnswer(process.wait(), "answer");
}

}  // namespace
}  // namespace h2test
