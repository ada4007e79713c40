#ifndef HTTP2CLIENT_TESTS_STANDARD_WIRE_WIRE_SUPPORT_H
#define HTTP2CLIENT_TESTS_STANDARD_WIRE_WIRE_SUPPORT_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Http2Client/HttpClientInterface.h"
#include "Http2Client/httpClientApi.h"
#include "Http2ClientStandard/Http2ClientOptions.h"
#include "tests/standard/wire/http2_server.h"
#include "tests/support/bytes.h"
#include "tests/support/recording_client.h"
#include "tests/support/request_body.h"
#include "tests/support/temp.h"
#include "tests/support/tls_context.h"
#include "tests/support/wait.h"

namespace h2test {

// Error codes (RFC 9113, 7).
constexpr uint32_t kNoErrorCode = 0;
constexpr uint32_t kProtocolErrorCode = 1;
constexpr uint32_t kRefusedStreamCode = 7;
constexpr uint32_t kCancelCode = 8;

// A test with the library's thread. SIGPIPE keeps what it does by default: the library never raises
// it. (The scripted server ignores it, but for its own sake.)
class LibraryTest : public testing::Test {
protected:
    void SetUp() override { initHttp2Client(5); }
    void TearDown() override { destroyHttp2Client(); }
};

// The same, plain and over TLS.
class BothTest : public testing::TestWithParam<bool> {
protected:
    void SetUp() override {
        m_caFile = m_directory.write("ca.pem", sharedCertificate().certificate);
        setHttp2TextOption(nullptr, HTTP2_CA_FILE, m_caFile.c_str());
        initHttp2Client(5);
    }
    void TearDown() override {
        destroyHttp2Client();
        setHttp2TextOption(nullptr, HTTP2_CA_FILE, "");
    }
    bool tls() const { return GetParam(); }
    HTTP_SCHEMA schema() const { return tls() ? HTTPS_2 : HTTP_2; }
    Http2Options options(Http2Server::Reply reply = {}) const {
        Http2Options options;
        options.server.tls = tls();
        options.reply = std::move(reply);
        return options;
    }
    int connect(tiny::HttpClientInterface& client, const Http2Server& server) const {
        return client.connectToServer(schema(), ScriptedServer::ip(), server.port());
    }

private:
    TempDir m_directory;
    std::string m_caFile;
};

inline std::string protocolName(const testing::TestParamInfo<bool>& info) {
    return info.param ? "Tls" : "Plain";
}

inline int connectTo(tiny::HttpClientInterface& client, const Http2Server& server) {
    return client.connectToServer(HTTP_2, ScriptedServer::ip(), server.port());
}

inline std::string statusBlock(int status) {
    return hpackLiteral(":status", std::to_string(status));
}
inline std::string answerHead(uint32_t stream, int status = 200, std::string_view fields = {},
                              uint8_t flags = kEndHeaders) {
    return headers(stream, statusBlock(status) + std::string(fields), flags);
}
// Status 200 and the body in one DATA frame.
inline std::string answer(uint32_t stream, std::string_view body = "ok") {
    return answerHead(stream) + data(stream, body, kEndStream);
}
inline Http2Server::Reply answerAll(const std::string& body = "ok") {
    return [body](const Request& request) { return answer(request.stream, body); };
}
inline std::vector<Callback> answered(std::string_view body = "ok") {
    return {Callback::headers(200, {{":status", "200"}}), Callback::content(body, false)};
}

// A client that is connected and has a GET of "/" set.
inline void prepareGet(tiny::HttpClientInterface& client, const Http2Server& server) {
    ASSERT_EQ(connectTo(client, server), 0) << getHttp2Text(&client, HTTP2_ERROR);
    ASSERT_EQ(client.setUri("/", HTTP_GET), 0);
}

// The frames of one type that were sent for one stream.
inline std::vector<WireFrame> framesOf(Http2Server& server, size_t index, uint8_t type,
                                       uint32_t stream) {
    std::vector<WireFrame> frames = server.wire().frames(index, type);
    std::erase_if(frames, [&](const WireFrame& frame) { return frame.streamId != stream; });
    return frames;
}

}  // namespace h2test

#endif  // HTTP2CLIENT_TESTS_STANDARD_WIRE_WIRE_SUPPORT_H
