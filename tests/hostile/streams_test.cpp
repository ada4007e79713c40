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
    expectTolerated(data(GetParam(), "stray") + data(GetParam(), "", kEndStream), {},
                    {resetOf(GetParam())});
}

TEST_P(HostileStream, HeadersAreNotHeard) {
    expectTolerated(headers(GetParam(), hpackIndexed(13)) +
                    headers(GetParam(), hpackIndexed(14), kEndHeaders | kEndStream) +
                    headers(GetParam(), hpackIndexed(14), 0) +
                    continuation(GetParam(), hpackIndexed(8)));
}

TEST_P(HostileStream, OtherFramesAreNotHeard) {
    const uint32_t stream = GetParam();
    expectTolerated(frame(kPriority, 0, stream, be32(1) + be8(1)) + windowUpdate(stream, 0) +
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

class HostileOrder : public HostileTest {
protected:
    void finishFirst() {
        play(okResponse(1));
        ASSERT_TRUE(m_victim.waitEnd());
        ASSERT_TRUE(m_server.waitFramesOf(kVictim, kRstStream));
        m_victim.clear();
    }
    // The first request is finished, the second runs.
    void startSecond() {
        finishFirst();
        ASSERT_EQ(m_victim.startRequest(nullptr), 0);
        ASSERT_TRUE(m_server.waitFramesOf(kVictim, kHeaders, 2));
    }
    // The connection has ended: the victim has heard this, and no more was sent than `sent`.
    void expectEnd(const Callbacks& heard, const std::string& sent) {
        ASSERT_TRUE(m_server.waitClosedByPeer(kVictim));
        EXPECT_EQ(m_victim.callbacks(), heard);
        EXPECT_EQ(toHex(m_server.received(kVictim)),
                  toHex(opening() + getRequest(1, "/") + rstStream(1, kCancel) + sent));
        expectGone();
    }
};

TEST_F(HostileOrder, FramesForAFinishedStreamAreNotHeard) {
    finishFirst();
    play(headers(1, hpackIndexed(13)) + data(1, "late") + data(1, "", kEndStream) +
         windowUpdate(1, 1) + continuation(1, hpackIndexed(13)));
    ASSERT_TRUE(m_server.waitFramesOf(kVictim, kRstStream, 2));  // for the stray DATA
    EXPECT_EQ(m_victim.callbacks(), Callbacks());
    expectUsable();
    expectReceived(m_server, kVictim,
                   opening() + getRequest(1, "/") + rstStream(1, kCancel) + rstStream(1, kCancel) +
                       getRequest(3, "/") + rstStream(3, kCancel));
}

// As above, with the next request half way: it must not take the first one's frames for its own.
TEST_F(HostileOrder, FramesForAFinishedStreamDoNotReachTheNextRequest) {
    startSecond();
    play(headers(3, hpackIndexed(8)) + data(3, "a"));
    ASSERT_TRUE(m_victim.waitContent());
    play(headers(1, hpackIndexed(13) + hpackLiteral("stale", "1")) + headers(1, "", 0) +
         continuation(1, hpackLiteral("stale", "2")) + data(1, "stale") + data(1, "", kEndStream) +
         windowUpdate(1, 1) + frame(kPriority, 0, 1, be32(3) + be8(1)) +
         frame(kPushPromise, kEndHeaders, 1, be32(3)) + data(3, "b", kEndStream));
    ASSERT_TRUE(m_victim.waitEnd());
    EXPECT_EQ(m_victim.callbacks(), (Callbacks{okHeaders(), Callback::content("a", true),
                                               Callback::content("b", false)}));
    // The resets of one step go out together, the lower stream first.
    expectReceived(m_server, kVictim,
                   opening() + getRequest(1, "/") + rstStream(1, kCancel) + getRequest(3, "/") +
                       rstStream(1, kCancel) + rstStream(3, kCancel));
}

TEST_F(HostileOrder, ResetOfAFinishedStreamTakesTheNextRequestAlong) {
    startSecond();
    play(rstStream(1, 0) + okResponse(3));
    expectEnd({Callback::closed()}, getRequest(3, "/"));
}

// The frame's own stream is looked up, not the last stream that it names.
TEST_F(HostileOrder, GoawayOnAFinishedStreamFailsNoRequest) {
    startSecond();
    play(frame(kGoaway, 0, 1, be32(0) + be32(0)) + okResponse(3));
    expectEnd({Callback::closed()}, getRequest(3, "/"));
}

// Every stream gets its reset, and its bytes are credited: below the threshold of one stream they
// stay in the sum of the connection.
TEST_F(HostileOrder, DataForManyStreamsIsAnsweredByAsManyResets) {
    std::string bytes;
    std::vector<WireFrame> resets;
    for (uint32_t i = 0; i < 3000; ++i) {
        bytes += data(2 * i, "stray");
        resets.push_back(resetOf(2 * i));
    }
    expectTolerated(bytes, {}, resets);
    EXPECT_TRUE(m_server.frames(kVictim, kWindowUpdate).empty());  // 15,000 bytes in all
}

TEST_F(HostileOrder, ResetOfAFinishedStreamEndsTheConnectionSilently) {
    finishFirst();
    play(rstStream(1, 0));
    expectEnd({}, "");
}

TEST_F(HostileOrder, DataBeforeHeadersIsHeardFirst) {
    expectTolerated(data(1, "early"), {Callback::content("early", true)});
}

TEST_F(HostileOrder, DataThatEndsTheStreamNeedsNoHeaders) {
    expectHeard(data(1, "only", kEndStream), {Callback::content("only", false)});
}

TEST_F(HostileOrder, DataBetweenTheBlocksIsHeardInItsPlace) {
    expectHeard(
        data(1, "a") + headers(1, hpackIndexed(8), 0) + data(1, "b") +
            headers(1, hpackLiteral("t", "1")) + data(1, "c", kEndStream),
        {Callback::content("a", true), Callback::content("b", true),
         Callback::headers(200, {{":status", "200"}, {"t", "1"}}), Callback::content("c", false)});
}

TEST_F(HostileOrder, SecondBlockAddsToTheFirst) {
    expectHeard(headers(1, hpackIndexed(13) + hpackLiteral("a", "1")) +
                    headers(1, hpackIndexed(8) + hpackLiteral("b", "2")) + data(1, "", kEndStream),
                {Callback::headers(404, {{":status", "404"}, {"a", "1"}}),
                 Callback::headers(200, {{":status", "200"}, {"a", "1"}, {"b", "2"}}),
                 Callback::content("", false)});
}

TEST_F(HostileOrder, SecondBlockThatIsNotEndedIsKeptAndNotHeard) {
    expectHeard(headers(1, hpackIndexed(13)) +
                    headers(1, hpackIndexed(8) + hpackLiteral("b", "2"), 0) + data(1, "x", 0) +
                    headers(1, hpackLiteral("c", "3")) + data(1, "", kEndStream),
                {Callback::headers(404, {{":status", "404"}}), Callback::content("x", true),
                 Callback::headers(200, {{":status", "200"}, {"b", "2"}, {"c", "3"}}),
                 Callback::content("", false)});
}

TEST_F(HostileOrder, GoawayInTheBodyEndsTheRequest) {
    expectDropped(headers(1, hpackIndexed(8)) + data(1, "part") + goaway(1, 0, "bye"),
                  {okHeaders(), Callback::content("part", true), Callback::closed()});
}

TEST_F(HostileOrder, BytesBehindAGoawayAreNotLookedAt) {
    expectDropped(headers(1, hpackIndexed(8)) + goaway(0, 0) + data(1, "ok", kEndStream) +
                      frame(0xEE, 0, 0, "no frame"),
                  {Callback::failed(ERR_FETAL)});
}

// What comes in a read of its own is not read any more, be it a frame or not.
TEST_F(HostileOrder, BytesInAReadAfterAGoawayAreNotRead) {
    const std::string first = headers(1, hpackIndexed(8)) + goaway(1, 0);
    m_server.sendCut(kVictim, first + data(1, "ok", kEndStream) + frame(0xEE, 0, 0, "no frame"),
                     {first.size()});
    expectDroppedNow({okHeaders(), Callback::closed()});
}

TEST_F(HostileOrder, FramesBehindAGoawayAreNotHeard) {
    expectDropped(headers(1, hpackIndexed(8)) + goaway(0, 0) + data(1, "ok", kEndStream),
                  {okHeaders(), Callback::closed()});
}

TEST_F(HostileOrder, ServerMayClaimThatItAcknowledgesEverything) {
    expectTolerated(repeated(settingsAck() + ping(0, kAck), 100) +
                    frame(kSettings, kAck, 0, "abcdef") + frame(kSettings, kAck, 1, "x"));
}

}  // namespace
}  // namespace h2test
