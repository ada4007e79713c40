#ifndef HTTP2CLIENT_TESTS_TOOLS_TOOL_SUPPORT_H
#define HTTP2CLIENT_TESTS_TOOLS_TOOL_SUPPORT_H

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "process.h"
#include "tests/support/bytes.h"
#include "tests/support/scripted_server.h"
#include "tests/support/temp.h"
#include "tests/support/wait.h"

namespace h2test {

// Exit codes, as --help has them.
constexpr int kAnswered = 0;
constexpr int kUsage = 2;
constexpr int kCannotConnect = 3;
constexpr int kRequestFailed = 4;
constexpr int kConnectionLost = 5;
constexpr int kTimedOut = 6;
constexpr int kErrorStatus = 22;
constexpr int kInterrupted = 130;

// A field of a response's header block: ":status", and any other.
inline std::string statusField(int status) { return hpackLiteral(8, std::to_string(status)); }
inline std::string field(std::string_view name, std::string_view value) {
    return hpackLiteral(name, value);
}

// DATA frames of at most 16384 bytes each, the last with END_STREAM.
inline std::string bodyFrames(uint32_t streamId, std::string_view body) {
    constexpr size_t kMost = 16384;
    std::string out;
    while (body.size() > kMost) {
        out += data(streamId, body.substr(0, kMost));
        body.remove_prefix(kMost);
    }
    return out + data(streamId, body, kEndStream);
}

// A whole response.
inline std::string response(uint32_t streamId, int status, std::string_view body,
                            std::string_view fields = {}) {
    return headers(streamId, statusField(status) + std::string(fields)) +
           bodyFrames(streamId, body);
}

// What the server sends to a request that has come whole: `nth` counts from 1.
using Answer = std::function<std::string(uint32_t streamId, size_t nth)>;

// The options of a server that announces itself and answers each whole request.
inline ServerOptions answering(Answer answer, bool tls = false) {
    ServerOptions options;
    options.tls = tls;
    options.greeting = settings({});
    options.responder = [answer = std::move(answer), nth = size_t{0}](
                            size_t, const WireFrame& frame) mutable {
        const bool isRequest = frame.type == kHeaders || frame.type == kData;
        if (!isRequest || !frame.hasFlags(kEndStream)) return std::string();
        return answer(frame.streamId, ++nth);
    };
    return options;
}

// The same, with one response for all.
inline ServerOptions answeringWith(int status, const std::string& body,
                                   const std::string& fields = {}, bool tls = false) {
    return answering(
        [=](uint32_t streamId, size_t) { return response(streamId, status, body, fields); }, tls);
}

// A server that announces itself and says no more.
inline ServerOptions silent() {
    ServerOptions options;
    options.greeting = settings({});
    return options;
}

// The command line of a request for "/" with `options` before it.
inline std::vector<std::string> request(const ScriptedServer& server,
                                        std::vector<std::string> options = {},
                                        const std::string& path = "/") {
    options.insert(options.end(), {ScriptedServer::ip(), std::to_string(server.port()), path});
    return options;
}

// What the client has sent as the body of a stream; `whole` tells whether END_STREAM has come.
struct SentBody {
    std::string bytes;
    bool whole = false;
};
inline SentBody sentBody(ScriptedServer& server, uint32_t streamId) {
    SentBody out;
    for (const WireFrame& frame : server.frames(0)) {
        if (frame.type != kData || frame.streamId != streamId) continue;
        EXPECT_FALSE(out.whole) << "a DATA frame after END_STREAM";
        out.bytes += frame.payload;
        out.whole = frame.hasFlags(kEndStream);
    }
    return out;
}

// The streams that the client has withdrawn.
inline std::set<uint32_t> cancelledStreams(ScriptedServer& server, size_t connection) {
    std::set<uint32_t> streams;
    for (const WireFrame& frame : server.frames(connection, kRstStream)) {
        streams.insert(frame.streamId);
    }
    return streams;
}

// Bytes that repeat nowhere near the sizes that matter, zeros and line ends among them.
inline std::string binaryBytes(size_t size) {
    std::string out(size, '\0');
    uint32_t state = 1;
    for (char& c : out) {
        state = state * 1664525 + 1013904223;
        c = static_cast<char>(state >> 24);
    }
    return out;
}

// Waits until the tool, whose output nobody reads, takes no more from the server: it keeps a
// bounded amount, besides what it had in memory `before`, and then its main thread is stuck in a
// write.
[[nodiscard]] inline bool waitHeldBack(const Process& process, size_t before) {
    constexpr size_t kMostPending = size_t{16} * 1024 * 1024;
    size_t most = 0;
    size_t looks = 0;  // in a row at which it had not grown
    const auto hasStalled = [&] {
        const size_t now = process.residentBytes();  // the system may take some of it away
        looks = now <= most && most >= before + kMostPending ? looks + 1 : 0;
        most = std::max(most, now);
        return looks >= 300;
    };
    return waitFor(hasStalled, kProcessLimit);
}

inline std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

inline bool contains(const std::string& text, std::string_view part) {
    return text.find(part) != std::string::npos;
}

inline std::string contentOf(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline std::set<std::string> filesIn(const TempDir& dir) {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
        names.insert(entry.path().filename());
    }
    return names;
}

// Both ways of making a request: the same is expected of them.
class BothWays : public testing::TestWithParam<std::string> {
protected:
    static std::vector<std::string> with(std::vector<std::string> options = {}) {
        if (GetParam() != "Streaming") options.emplace_back("--blocking");
        return options;
    }
};
#define H2TEST_BOTH_WAYS(suite)                                                    \
    INSTANTIATE_TEST_SUITE_P(Way, suite, testing::Values("Streaming", "Blocking"), \
                             [](const auto& info) { return info.param; })

// Sends the same frames over and over on the server's first connection, from its first request on.
class Flood {
public:
    // Starts when a request has come on each of `connections` connections.
    Flood(ScriptedServer& server, std::string_view frames, size_t connections = 1)
        : m_thread([this, &server, connections, bytes = repeated(frames)] {
              for (size_t i = 0; i < connections; ++i)
                  if (!server.waitFramesOf(i, kHeaders)) return;
              while (!m_ending) {
                  server.send(0, bytes);
                  while (!server.waitSent(0, std::chrono::milliseconds(50)) && !m_ending) {
                  }
                  ++m_sent;
              }
          }) {}
    ~Flood() {
        m_ending = true;
        m_thread.join();
    }
    // Waits until it has sent some megabytes.
    [[nodiscard]] bool waitRunning() const {
        return waitFor([this] { return m_sent >= 3; });
    }
    Flood(const Flood&) = delete;
    Flood& operator=(const Flood&) = delete;

private:
    static std::string repeated(std::string_view frames) {
        std::string bytes;
        while (bytes.size() < 1000000) bytes += frames;
        return bytes;
    }

    std::atomic<bool> m_ending{false};
    std::atomic<int> m_sent{0};
    std::thread m_thread;
};

// What ends well: the exit code, the output, and nothing on standard error.
inline void expectAnswer(const Ended& ended, std::string_view output, int code = kAnswered) {
    EXPECT_EQ(ended.code, code);
    EXPECT_TRUE(ended.output == output)
        << "got " << ended.output.size() << " bytes: " << ended.output.substr(0, 200);
    EXPECT_EQ(ended.errors, "");
}

// What ends badly: the exit code, and one message that has `part` in it.
inline void expectComplaint(const Ended& ended, int code, std::string_view part) {
    EXPECT_EQ(ended.code, code) << ended.errors;
    EXPECT_TRUE(contains(ended.errors, part)) << ended.errors;
    EXPECT_TRUE(contains(ended.errors, "h2request: ")) << ended.errors;
}

}  // namespace h2test

#endif  // HTTP2CLIENT_TESTS_TOOLS_TOOL_SUPPORT_H
