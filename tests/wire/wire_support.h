#ifndef HTTP2CLIENT_TESTS_WIRE_WIRE_SUPPORT_H
#define HTTP2CLIENT_TESTS_WIRE_WIRE_SUPPORT_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Http2Client/HttpClientInterface.h"
#include "Http2Client/httpClientApi.h"
#include "tests/support/bytes.h"
#include "tests/support/capture.h"
#include "tests/support/recording_client.h"
#include "tests/support/request_body.h"
#include "tests/support/scripted_server.h"
#include "tests/support/wait.h"

namespace h2test {

// The library's thread, as long as this object lives.
class LibraryThread {
public:
    explicit LibraryThread(unsigned int pollTime = 5) {
        ignoreSigpipe();
        initHttp2Client(pollTime);
    }
    ~LibraryThread() { destroyHttp2Client(); }
    LibraryThread(const LibraryThread&) = delete;
    LibraryThread& operator=(const LibraryThread&) = delete;
};

// The same, with the library's console lines thrown away.
class RunningLibrary {
private:
    NullCout m_quiet;  // first in, last out: the thread writes to std::cout
    LibraryThread m_thread;
};

inline ServerOptions serverOptions(bool tls) {
    ServerOptions options;
    options.tls = tls;
    return options;
}

inline HTTP_SCHEMA schemaOf(bool tls) { return tls ? HTTPS_2 : HTTP_2; }

inline int connectTo(tiny::HttpClientInterface& client, const ScriptedServer& server,
                     bool tls = false) {
    return client.connectToServer(schemaOf(tls), ScriptedServer::ip(), server.port());
}

// Connects; returns when connection `index` has brought a GET of "/" to the server.
inline void startGet(tiny::HttpClientInterface& client, ScriptedServer& server, size_t index = 0,
                     bool tls = false) {
    ASSERT_EQ(connectTo(client, server, tls), 0);
    ASSERT_EQ(client.setUri("/", HTTP_GET), 0);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(server.waitFramesOf(index, kHeaders));
}

// What every connection starts with.
inline std::string opening() {
    return std::string(kPreface) + hex("00001e 04 00 00000000"  // SETTINGS of 30 bytes, stream 0
                                       "0002 00000000"          // ENABLE_PUSH
                                       "0003 00000064"          // MAX_CONCURRENT_STREAMS
                                       "0004 40000000"          // INITIAL_WINDOW_SIZE
                                       "0005 00800000"          // MAX_FRAME_SIZE
                                       "0006 0000ffff");        // MAX_HEADER_LIST_SIZE
}

constexpr uint8_t kWhole = kEndHeaders | kEndStream;  // flags of a HEADERS frame without a body
constexpr uint32_t kCancel = 8;                       // the one error code that the client sends

// The header block of a request: `method` is the coded ":method" field, `rest` what follows
// ":path".
inline std::string requestBlock(std::string_view method, std::string_view path, bool tls,
                                std::string_view rest = {}) {
    std::string out(method);
    out += hex(tls ? "87" : "86");  // ":scheme", from the static table
    out += '\x44';                  // ":path", a literal with incremental indexing
    out += hpackString(path);
    out += rest;
    return out;
}

// The HEADERS frame of a GET.
inline std::string getRequest(uint32_t streamId, std::string_view path, bool tls = false,
                              std::string_view rest = {}) {
    return headers(streamId, requestBlock(hex("82"), path, tls, rest), kWhole);
}

// A response in one go: status 200 and the body in one DATA frame.
inline std::string okResponse(uint32_t streamId, std::string_view body = "ok") {
    return headers(streamId, hpackIndexed(8)) + data(streamId, body, kEndStream);
}

using Callbacks = std::vector<Callback>;

// The callbacks that okResponse leads to: the headers alone, and all.
inline Callback okHeaders() { return Callback::headers(200, {{":status", "200"}}); }
inline Callbacks okCallbacks(std::string_view body = "ok") {
    return {okHeaders(), Callback::content(body, false)};
}

// Checks that connection `index` has sent exactly `expected` so far.
inline void expectReceived(ScriptedServer& server, size_t index, const std::string& expected) {
    EXPECT_TRUE(server.waitReceived(index, expected.size()));
    EXPECT_EQ(toHex(server.received(index)), toHex(expected));
}

// The path of a request's first HEADERS frame, as requestBlock lays it out with an indexed method.
inline std::string pathOf(const WireFrame& frame) {
    if (frame.type != kHeaders || frame.payload.size() < 4 || frame.payload[2] != '\x44') return {};
    return frame.payload.substr(4, static_cast<uint8_t>(frame.payload[3]));
}

// Answers every request at once; the body is the request's path.
inline std::string echoPath(size_t /*index*/, const WireFrame& frame) {
    const std::string path = pathOf(frame);
    return path.empty() ? std::string() : okResponse(frame.streamId, path);
}

// Whether a stream's body has ended among `frames`.
inline bool bodyEnded(const std::vector<WireFrame>& frames, uint32_t streamId = 1) {
    return std::any_of(frames.begin(), frames.end(), [&](const WireFrame& frame) {
        return frame.type == kData && frame.streamId == streamId && frame.hasFlags(kEndStream);
    });
}

// A server, and a client of it.
class WireTest : public testing::Test {
protected:
    explicit WireTest(bool tls = false) : m_tls(tls), m_server(serverOptions(tls)) {}

    std::string get(uint32_t streamId, std::string_view path = "/", std::string_view rest = {}) {
        return getRequest(streamId, path, m_tls, rest);
    }
    std::string post(uint32_t streamId = 1, uint8_t flags = kEndHeaders) {
        return headers(streamId, requestBlock(hex("83"), "/p", m_tls), flags);
    }

    // The client's next request is a GET of "/".
    void connect(tiny::HttpClientInterface& client) {
        ASSERT_EQ(connectTo(client, m_server, m_tls), 0);
        ASSERT_EQ(client.setUri("/", HTTP_GET), 0);
    }
    void connect() { connect(m_client); }
    void startGet(tiny::HttpClientInterface& client, size_t index = 0) {
        h2test::startGet(client, m_server, index, m_tls);
    }
    void startGet() { startGet(m_client); }
    // Starts the same request again, on the connection that is there; or a GET of another path.
    void startNext(const char* path = nullptr) {
        m_client.clear();
        if (path != nullptr) {
            ASSERT_EQ(m_client.setUri(path, HTTP_GET), 0);
        }
        ASSERT_EQ(m_client.startRequest(nullptr), 0);
    }
    // Connects and starts a POST of "/p": with a body of a reader's, and of a block.
    void startPost(int (*reader)(char*, size_t, void*), void* opaque) {
        connect();
        ASSERT_EQ(m_client.setUri("/p", HTTP_POST), 0);
        ASSERT_EQ(m_client.setContent(reader, opaque), 0);
        ASSERT_EQ(m_client.startRequest(nullptr), 0);
    }
    void startPost(std::string body) {
        m_body.bytes = std::move(body);
        startPost(&BodySource::read, &m_body);
    }
    void startBlockPost(std::string_view block) {
        connect();
        ASSERT_EQ(m_client.setUri("/p", HTTP_POST), 0);
        ASSERT_EQ(m_client.setContent(block.data(), block.size()), 0);
        ASSERT_EQ(m_client.startRequest(nullptr), 0);
    }
    [[nodiscard]] bool waitBody(uint32_t streamId = 1) {
        return m_server.waitFramesThat(
            0, [&](const auto& frames) { return bodyEnded(frames, streamId); });
    }

    // Checks that the client has sent this, too, on the first connection, and no more.
    void expectSent(const std::string& bytes) {
        m_sent += bytes;
        expectReceived(m_server, 0, m_sent);
    }
    // The same, where more may follow at any time.
    void expectSentFirst(const std::string& bytes) {
        m_sent += bytes;
        EXPECT_TRUE(m_server.waitReceived(0, m_sent.size()));
        EXPECT_EQ(toHex(m_server.received(0).substr(0, m_sent.size())), toHex(m_sent));
    }
    // Sends an answer; these are the client's callbacks, up to its end.
    void expectHeard(const std::string& answer, const Callbacks& heard) {
        m_server.send(0, answer);
        ASSERT_TRUE(m_client.waitEnd());
        EXPECT_EQ(m_client.callbacks(), heard);
    }
    void expectAnswered(uint32_t streamId = 1) { expectHeard(okResponse(streamId), okCallbacks()); }

    const bool m_tls;
    const RunningLibrary m_library;
    ScriptedServer m_server;
    BodySource m_body;  // outlives the client, which may be reading it
    RecordingClient m_client;

private:
    std::string m_sent = opening();
};

// Each test runs over plain TCP and over TLS.
class OverEachTransport : public WireTest, public testing::WithParamInterface<bool> {
protected:
    OverEachTransport() : WireTest(GetParam()) {}
};
#define H2TEST_OVER_EACH_TRANSPORT(suite)                       \
    INSTANTIATE_TEST_SUITE_P(Transport, suite, testing::Bool(), \
                             [](const auto& info) { return info.param ? "Tls" : "Plain"; })

}  // namespace h2test

#endif  // HTTP2CLIENT_TESTS_WIRE_WIRE_SUPPORT_H
