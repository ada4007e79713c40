// Rules of RFC 9113 that only a whole client shows: when it reads, and how it leaves.
#include "CLogWrapper/CLogWrapper.h"
#include "tests/standard/wire/wire_support.h"

namespace h2test {
namespace {

class Reading : public BothTest {};
INSTANTIATE_TEST_SUITE_P(Rules, Reading, testing::Bool(), protocolName);

// RFC 9113, 5.2.2.
TEST_P(Reading, GoesOnWhileTheServerReadsNothing) {
    Http2Server server(options());
    RecordingClient reader, writer;
    ASSERT_EQ(connect(reader, server), 0);
    ASSERT_EQ(connect(writer, server), 0);
    ASSERT_TRUE(server.wire().waitFramesOf(0, kSettings, 2));  // the windows are known
    ASSERT_EQ(reader.setUri("/", HTTP_GET), 0);
    ASSERT_EQ(reader.startRequest(nullptr), 0);
    ASSERT_TRUE(server.waitRequests(1));
    server.wire().stopReading(0);
    const std::string body(16 << 20, 'b');  // more than sockets take
    ASSERT_EQ(writer.setUri("/", HTTP_POST), 0);
    ASSERT_EQ(writer.setContent(body.data(), body.size()), 0);
    ASSERT_EQ(writer.startRequest(nullptr), 0);
    server.wire().send(0, answerHead(1) + data(1, "first "));
    ASSERT_TRUE(reader.waitContent());
    server.wire().send(0, data(1, "last", kEndStream));
    ASSERT_TRUE(reader.waitEnd());
    EXPECT_TRUE(writer.callbacks().empty());
    server.wire().resumeReading(0);
    ASSERT_TRUE(server.waitRequests(2));
    EXPECT_TRUE(server.requests()[1].body == body);
    server.wire().send(0, answer(3));
    ASSERT_TRUE(writer.waitEnd());
    EXPECT_EQ(writer.callbacks(), answered());
}

class Leaving : public LibraryTest {};

// RFC 9113, 6.8.
TEST_F(Leaving, AServerThatGoesAwayGetsGoAwayToo) {
    Http2Server server([](const Request& request) {
        return goaway(request.stream, kNoErrorCode) + answer(request.stream);
    });
    RecordingClient client;
    prepareGet(client, server);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(client.waitEnd());
    ASSERT_TRUE(server.wire().waitClosedByPeer(0));
    EXPECT_EQ(server.wire().frames(0, kGoaway), parseFrames(goaway(0, kNoErrorCode)));
    EXPECT_FALSE(server.wire().resetByPeer(0));
}

// RFC 9113, 6.8: it may be worth protecting.
TEST_F(Leaving, LogsNoDebugDataOfTheServer) {
    const int level = CLogWrapper::GetLevel();
    CLogWrapper::SetLevel(0);
    testing::internal::CaptureStderr();
    {
        Http2Server server([](const Request& request) {
            return goaway(request.stream, kNoErrorCode, "a secret") + answer(request.stream);
        });
        RecordingClient client;
        prepareGet(client, server);
        ASSERT_EQ(client.startRequest(nullptr), 0);
        ASSERT_TRUE(client.waitEnd());
        ASSERT_TRUE(server.wire().waitClosedByPeer(0));
        EXPECT_THAT(getHttp2Text(&client, HTTP2_ERROR), testing::Not(testing::HasSubstr("secret")));
    }
    {
        Http2Server server(
            [](const Request&) { return goaway(0, kProtocolErrorCode, "a secret"); });
        RecordingClient client;
        prepareGet(client, server);
        ASSERT_EQ(client.startRequest(nullptr), 0);
        ASSERT_TRUE(client.waitFailed());
        // The application may know, as what it logs is its own affair.
        EXPECT_THAT(getHttp2Text(&client, HTTP2_ERROR), testing::HasSubstr("\"a secret\""));
    }
    CLogWrapper::SetLevel(level);
    const std::string text = testing::internal::GetCapturedStderr();
    EXPECT_THAT(text, testing::HasSubstr("says GOAWAY with NO_ERROR"));
    EXPECT_THAT(text, testing::HasSubstr("a request has failed: "));
    EXPECT_THAT(text, testing::Not(testing::HasSubstr("secret")));
}

}  // namespace
}  // namespace h2test
