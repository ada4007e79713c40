// Frames for streams that they have no business with, or in an order that makes no sense.
#include "hostile_support.h"

namespace h2test {
namespace {

constexpr uint32_t kLastStream = 0x7FFFFFFF;

class HostileStream : public HostileTest, public testing::WithParamInterface<uint32_t> {};

// 0, an even one, one never opened, the last one.
INSTANTIATE_TEST_SUITE_P(Streams, HostileStream, testing::Values(0U, 2U, 7U, kLastStream),
                         [](const auto& info) { return std::to_string(info.param); });

TEST_P(HostileStream, DataIsAnsweredByAResetAlone) {
    expectBorne(data(GetParam(), "stray") + data(GetParam(), "", kEndStream), {},
                {resetOf(GetParam())});
}

TEST_P(HostileStream, HeadersAreNotHeard) {
    expectBorne(headers(GetParam(), hpackIndexed(13)) +
                headers(GetParam(), hpackIndexed(14), kEndHeaders | kEndStream) +
                headers(GetParam(), hpackIndexed(14), 0) +
                continuation(GetParam(), hpackIndexed(8)));
}

TEST_P(HostileStream, OtherFramesAreNotHeard) {
    const uint32_t stream = GetParam();
    expectBorne(frame(kPriority, 0, stream, be32(1) + be8(1)) + windowUpdate(stream, 0) +
                windowUpdate(stream, 0xFFFFFFFF) + frame(kSettings, 0, stream, "") +
                frame(kPing, 0, stream, be64(1)) +
                frame(kPushPromise, kEndHeaders, stream, be32(stream) + hpackIndexed(2)));
}

TEST_P(HostileStream, ResetEndsTheConnection) {
    expectDropped(rstStream(GetParam(), 0) + okResponse(1), {Callback::closed()});
}

TEST_P(HostileStream, GoawayEndsTheConnection) {
    expectDropped(frame(kGoaway, 0, GetParam(), be32(1) + be32(0)), {Callback::closed()});
}

class HostileOwnStream : public HostileTest {};

TEST_F(HostileOwnStream, GoawayOnItFailsTheRequest) {
    expectDropped(frame(kGoaway, 0, 1, be32(1) + be32(0)), {Callback::failed(ERR_FETAL)});
}

class HostileOrder : public HostileTest {
protected:
    void finishFirst() {
        play(okResponse(1));
        ASSERT_TRUE(m_victim.waitEnd());
        ASSERT_TRUE(m_server.waitFramesOf(kVictim, kRstStream));
        m_victim.clear();
    }
};

TEST_F(HostileOrder, FramesForAFinishedStreamAreNotHeard) {
    finishFirst();
    play(headers(1, hpackIndexed(13)) + data(1, "late") + data(1, "", kEndStream) +
         windowUpdate(1, 1) + continuation(1, hpackIndexed(13)));
    ASSERT_TRUE(m_server.waitFramesOf(kVictim, kRstStream, 2));  // for the stray DATA
    EXPECT_EQ(m_victim.callbacks(), Callbacks());
    expectUsable();
}

TEST_F(HostileOrder, ResetOfAFinishedStreamEndsTheConnectionSilently) {
    finishFirst();
    play(rstStream(1, 0));
    expectDroppedNow({});
}

TEST_F(HostileOrder, DataBeforeHeadersIsHeardFirst) {
    expectBorne(data(1, "early"), {Callback::content("early", true)});
}

TEST_F(HostileOrder, DataThatEndsTheStreamNeedsNoHeaders) {
    play(data(1, "only", kEndStream));
    ASSERT_TRUE(m_victim.waitEnd());
    EXPECT_EQ(m_victim.callbacks(), Callbacks{Callback::content("only", false)});
    expectUsable();
    expectSent({});
}

TEST_F(HostileOrder, SecondBlockAddsToTheFirst) {
    play(headers(1, hpackIndexed(13) + hpackLiteral("a", "1")) +
         headers(1, hpackIndexed(8) + hpackLiteral("b", "2")) + data(1, "", kEndStream));
    ASSERT_TRUE(m_victim.waitEnd());
    EXPECT_EQ(m_victim.callbacks(),
              (Callbacks{Callback::headers(404, {{":status", "404"}, {"a", "1"}}),
                         Callback::headers(200, {{":status", "200"}, {"a", "1"}, {"b", "2"}}),
                         Callback::content("", false)}));
}

TEST_F(HostileOrder, SecondBlockThatIsNotEndedIsKeptAndNotHeard) {
    play(headers(1, hpackIndexed(13)) + headers(1, hpackIndexed(8) + hpackLiteral("b", "2"), 0) +
         data(1, "x", 0) + headers(1, hpackLiteral("c", "3")) + data(1, "", kEndStream));
    ASSERT_TRUE(m_victim.waitEnd());
    EXPECT_EQ(m_victim.callbacks(),
              (Callbacks{Callback::headers(404, {{":status", "404"}}), Callback::content("x", true),
                         Callback::headers(200, {{":status", "200"}, {"b", "2"}, {"c", "3"}}),
                         Callback::content("", false)}));
}

TEST_F(HostileOrder, HeadersThatEndTheStreamDoNotEndTheRequest) {
    play(headers(1, hpackIndexed(8), kEndHeaders | kEndStream) + data(1, "more", kEndStream));
    ASSERT_TRUE(m_victim.waitEnd());
    EXPECT_EQ(m_victim.callbacks(), okCallbacks("more"));
}

TEST_F(HostileOrder, GoawayInTheBodyEndsTheRequest) {
    expectDropped(headers(1, hpackIndexed(8)) + data(1, "part") + goaway(1, 0, "bye"),
                  {Callback::headers(200, {{":status", "200"}}), Callback::content("part", true),
                   Callback::closed()});
}

TEST_F(HostileOrder, BytesBehindAGoawayAreNotLookedAt) {
    expectDropped(headers(1, hpackIndexed(8)) + goaway(0, 0) + data(1, "ok", kEndStream) +
                      frame(0xEE, 0, 0, "no frame"),
                  {Callback::failed(ERR_FETAL)});
}

TEST_F(HostileOrder, FramesBehindAGoawayAreNotHeard) {
    expectDropped(headers(1, hpackIndexed(8)) + goaway(0, 0) + data(1, "ok", kEndStream),
                  {Callback::headers(200, {{":status", "200"}}), Callback::closed()});
}

TEST_F(HostileOrder, ServerMayClaimThatItAcknowledgesEverything) {
    expectBorne(repeated(settingsAck() + ping(0, kAck), 100) + frame(kSettings, kAck, 0, "abcdef") +
                frame(kSettings, kAck, 1, "x"));
}

}  // namespace
}  // namespace h2test
