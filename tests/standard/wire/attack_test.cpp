// What a hostile server may do to the whole library, over TCP and TLS, while another connection
// goes on completing requests.
#include <functional>

#include "tests/standard/wire/wire_support.h"

namespace h2test {
namespace {

constexpr uint32_t kEnhanceYourCalm = 11;

std::string repeated(const std::string& bytes, size_t count) {
    std::string out;
    out.reserve(bytes.size() * count);
    for (size_t i = 0; i < count; ++i) out += bytes;
    return out;
}

class Attack : public BothTest {
protected:
    void SetUp() override {
        BothTest::SetUp();
        m_server = std::make_unique<Http2Server>(options(answerAll("by")));
        m_bystander = std::make_unique<RecordingClient>();  // with the options set above
        ASSERT_EQ(connect(*m_bystander, *m_server), 0);
        ASSERT_EQ(m_bystander->setUri("/", HTTP_GET), 0);
    }
    void TearDown() override {
        m_bystander.reset();
        m_server.reset();
        BothTest::TearDown();
    }
    // A request on another connection, and so on the same thread of the library.
    void expectBystander() {
        m_bystander->clear();
        ASSERT_EQ(m_bystander->startRequest(nullptr), 0);
        ASSERT_TRUE(m_bystander->waitEnd());
        EXPECT_EQ(m_bystander->callbacks(), answered("by"));
        EXPECT_EQ(m_server->wire().connections(), 1u);
    }
    // A request that the server has got and does not answer. POST, which is not sent again.
    void startVictim(RecordingClient& victim, Http2Server& server) {
        const size_t before = server.requests().size();
        ASSERT_EQ(connect(victim, server), 0) << getHttp2Text(&victim, HTTP2_ERROR);
        ASSERT_EQ(victim.setUri("/", HTTP_POST), 0);
        ASSERT_EQ(victim.startRequest(nullptr), 0);
        ASSERT_TRUE(server.waitRequests(before + 1));
    }

private:
    std::unique_ptr<Http2Server> m_server;
    std::unique_ptr<RecordingClient> m_bystander;
};
INSTANTIATE_TEST_SUITE_P(Wire, Attack, testing::Bool(), protocolName);

TEST_P(Attack, FloodsEndTheirConnectionWithinTheirBound) {
    for (const std::string& frame :
         {ping(1), settings({}), settingsAck(), windowUpdate(0, 1), frame(0x77, 0, 0, ""),
          frame(kPriority, 0, 99, "12345"), goaway(0x7fffffff, 0)}) {
        SCOPED_TRACE(toHex(frame));
        Http2Server server(options());
        RecordingClient victim;
        startVictim(victim, server);
        const size_t before = server.wire().received(0).size();
        const std::string flood = repeated(frame, 25'000);
        server.wire().send(0, flood);
        expectBystander();
        ASSERT_TRUE(victim.waitClosed());
        EXPECT_EQ(victim.callbacks(), std::vector<Callback>{Callback::closed()});
        EXPECT_THAT(getHttp2Text(&victim, HTTP2_ERROR), testing::HasSubstr("too many"));
        ASSERT_TRUE(server.wire().waitFramesOf(0, kGoaway));
        EXPECT_EQ(server.wire().frames(0, kGoaway), parseFrames(goaway(0, kEnhanceYourCalm)));
        EXPECT_LE(server.wire().received(0).size(), before + flood.size());
        expectBystander();
    }
}

TEST_P(Attack, FloodOfAServerThatReadsNothingEndsTheConnection) {
    Http2Server server(options());
    RecordingClient victim;
    startVictim(victim, server);
    server.wire().stopReading(0);
    server.wire().send(0, repeated(ping(1), 25'000));
    expectBystander();
    ASSERT_TRUE(victim.waitClosed());
    EXPECT_THAT(getHttp2Text(&victim, HTTP2_ERROR), testing::HasSubstr("too many"));
    expectBystander();
}

TEST_P(Attack, AnswerOfSingleBytesIsRead) {
    Http2Server server(options());
    RecordingClient client;
    startVictim(client, server);
    const std::string head = statusBlock(200) + hpackLiteral("name", "value");
    server.wire().sendByteByByte(
        0, headers(1, statusBlock(103)) + headers(1, head.substr(0, 5), 0) +
               continuation(1, head.substr(5)) + dataPadded(1, "answer", 3, kEndStream));
    expectBystander();
    ASSERT_TRUE(client.waitEnd());
    EXPECT_EQ(client.status(), 200);
    EXPECT_EQ(client.body(), "answer");
}

TEST_P(Attack, AnswerWithoutEndEndsByTheTimeOut) {
    Http2Server server(options());
    RecordingClient victim;
    ASSERT_EQ(setHttp2Option(&victim, HTTP2_REQUEST_TIMEOUT, 100), 0);
    startVictim(victim, server);
    server.wire().send(0, answerHead(1));
    // A byte each time that this is asked, which is each millisecond.
    ASSERT_TRUE(waitFor([&] {
        server.wire().send(0, data(1, "x"));
        return victim.count(Callback::Kind::kFailed) == 1;
    }));
    EXPECT_EQ(victim.callbacks().back(), Callback::failed(ERR_TIMEOUT));
    ASSERT_TRUE(server.wire().waitFramesOf(0, kRstStream));
    EXPECT_EQ(server.wire().frames(0, kRstStream), parseFrames(rstStream(1, kCancelCode)));
    expectBystander();
}

// The end of a connection, behind each byte of an answer, in each way that there is.
TEST_P(Attack, EndOfTheConnectionAtEachByteEndsTheRequest) {
    const std::string whole = answer(1, "four");
    const std::function<void(ScriptedServer&, size_t)> ways[] = {
        [](ScriptedServer& wire, size_t index) { wire.close(index); },
        [](ScriptedServer& wire, size_t index) { wire.closeWithoutCloseNotify(index); },
        [](ScriptedServer& wire, size_t index) { wire.shutdownWrite(index); },
        [](ScriptedServer& wire, size_t index) { wire.reset(index); },
    };
    Http2Server server(options());
    size_t index = 0;
    for (const auto& end : ways) {
        for (size_t size = 0; size < whole.size(); ++size, ++index) {
            SCOPED_TRACE(std::to_string(index) + ", " + std::to_string(size) + " bytes");
            RecordingClient victim;
            startVictim(victim, server);
            server.wire().send(index, whole.substr(0, size));
            end(server.wire(), index);
            ASSERT_TRUE(victim.waitClosed());
            EXPECT_EQ(victim.callbacks().back(), Callback::closed());
            EXPECT_EQ(victim.count(Callback::Kind::kClosed), 1u);
            EXPECT_EQ(victim.count(Callback::Kind::kFailed), 0u);
        }
        expectBystander();
    }
}

}  // namespace
}  // namespace h2test
