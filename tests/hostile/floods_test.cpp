// Many frames that each cost the server little.
#include "hostile_support.h"

namespace h2test {
namespace {

constexpr size_t kFlood = 20'000;

class Flood : public HostileTest {};

TEST_F(Flood, PingsAreToleratedAndNotAnswered) {
    expectTolerated(repeated(ping(0x0102030405060708), kFlood));
}

TEST_F(Flood, SettingsAreToleratedAndNotAcknowledged) {
    expectTolerated(repeated(settings({{3, 1}, {4, 1}}), kFlood));
}

TEST_F(Flood, SettingsWithManyEntriesAreTolerated) {
    std::vector<std::pair<uint16_t, uint32_t>> entries;
    for (uint32_t i = 0; i < 2400; ++i) entries.emplace_back(static_cast<uint16_t>(i % 9), i);
    expectTolerated(repeated(settings(entries), 20));
}

TEST_F(Flood, WindowUpdatesAndPrioritiesAreTolerated) {
    expectTolerated(repeated(windowUpdate(0, 0x7FFFFFFF) + windowUpdate(1, 0x7FFFFFFF) +
                                 frame(kPriority, 0, 1, be32(3) + be8(255)),
                             kFlood));
}

// The first reset ends the connection; what stands behind it is not looked at.
TEST_F(Flood, ResetsCostTheConnection) {
    std::string resets;
    for (uint32_t i = 0; i < kFlood; ++i) resets += rstStream(2 * i + 1, 0);
    expectDropped(resets, {Callback::failed(ERR_FETAL)});
}

TEST_F(Flood, ResetsOfOtherStreamsCostTheConnection) {
    expectDropped(repeated(rstStream(7, 8), kFlood), {Callback::closed()});
}

TEST_F(Flood, EmptyDataIsReportedFrameByFrame) {
    expectHeard(
        headers(1, hpackIndexed(8)) + repeated(data(1, ""), kFlood) + data(1, "", kEndStream),
        Callbacks{okHeaders()} + Callbacks(kFlood, Callback::content("", true)) +
            Callbacks{Callback::content("", false)});
    EXPECT_TRUE(m_server.frames(kVictim, kWindowUpdate).empty());
}

TEST_F(Flood, DataOfOneByteIsReportedFrameByFrameAndCredited) {
    expectHeard(
        headers(1, hpackIndexed(8)) + repeated(data(1, "x"), kFlood * 2) + data(1, "", kEndStream),
        Callbacks{okHeaders()} + Callbacks(kFlood * 2, Callback::content("x", true)) +
            Callbacks{Callback::content("", false)});
    // 40,000 bytes pass the threshold of 32,768 once; how far they are past it in that step is up
    // to the reads.
    const std::vector<WireFrame> credit = m_server.frames(kVictim, kWindowUpdate);
    ASSERT_EQ(credit.size(), 2U);
    EXPECT_EQ(credit[0].streamId, 0U);
    EXPECT_EQ(credit[1].streamId, 1U);
    EXPECT_EQ(toHex(credit[0].payload), toHex(credit[1].payload));
    EXPECT_GE(credit[1].payload, be32(32768));
    EXPECT_LE(credit[1].payload, be32(2 * kFlood));
}

// Frames for no stream of the client's: one reset a step, however many frames there were.
TEST_F(Flood, EmptyDataOnOtherStreamsIsAnsweredByResetsOnly) {
    expectTolerated(repeated(data(2, ""), kFlood), {}, {resetOf(2)});
    EXPECT_TRUE(m_server.frames(kVictim, kWindowUpdate).empty());
}

TEST_F(Flood, PushPromisesAreToleratedAndNotAnswered) {
    expectTolerated(
        repeated(frame(kPushPromise, kEndHeaders, 1, be32(2) + hpackIndexed(2)), kFlood));
}

// A block that nobody ends: the fields are kept, the frames forgotten.
TEST_F(Flood, HeadersThatAreNotEndedAreHeardWhenOneIs) {
    expectHeard(
        repeated(headers(1, hpackLiteral("x", "y"), 0), kFlood) + okResponse(1),
        {Callback::headers(200, {{":status", "200"}, {"x", "y"}}), Callback::content("ok", false)});
}

// Fragments are neither kept nor decoded: the block ends with its HEADERS frame.
TEST_F(Flood, ContinuationsAreToleratedAndNotDecoded) {
    const std::string fragment = continuation(1, hpackLiteral("x", "y"), 0);
    expectHeard(headers(1, hpackIndexed(8), 0) + repeated(fragment, kFlood) +
                    continuation(1, hpackLiteral("x", "y")) + data(1, "ok", kEndStream),
                {Callback::content("ok", false)});
}

TEST_F(Flood, EmptyHeaderBlocksAreReportedEachTime) {
    expectHeard(repeated(headers(1, ""), 1000) + okResponse(1),
                Callbacks(1000, Callback::headers(0, {})) + okCallbacks());
}

}  // namespace
}  // namespace h2test
