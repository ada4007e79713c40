// Frames whose lengths, padding or fixed fields lie, and types that nobody knows.
#include "hostile_support.h"

namespace h2test {
namespace {

class HostileFrame : public HostileTest {};

const Callback kEmptyMore = Callback::content("", true);
const Callback kNoHeaders = Callback::headers(0, {});

// A payload of `length` bytes, none of which is zero.
std::string filler(size_t length) { return std::string(length, '\xA5'); }

TEST_F(HostileFrame, ControlFramesOfAnyLengthWithAnyFlagsAreTolerated) {
    std::string bytes;
    for (const uint8_t type : {kPing, kWindowUpdate, kPriority, kSettings}) {
        for (size_t length = 0; length <= 16; ++length) {
            bytes += frame(type, 0, 0, filler(length)) + frame(type, 0xFF, 1, filler(length));
        }
    }
    expectTolerated(bytes);
}

class HostileLength : public HostileTest, public testing::WithParamInterface<int> {
protected:
    static std::string payload() { return filler(static_cast<size_t>(GetParam())); }
};

INSTANTIATE_TEST_SUITE_P(Bytes, HostileLength, testing::Range(0, 17),
                         [](const auto& info) { return std::to_string(info.param); });

TEST_P(HostileLength, GoawayOfAnyLengthEndsTheConnection) {
    expectDropped(frame(kGoaway, 0, 0, payload()) + okResponse(1), {Callback::closed()});
}

TEST_P(HostileLength, ResetOfAnyLengthFailsTheRequest) {
    expectDropped(frame(kRstStream, 0, 1, payload()) + okResponse(1),
                  {Callback::failed(ERR_FETAL)});
}

// The requests from the frame's own stream on are failed before the connection goes.
TEST_P(HostileLength, GoawayOfAnyLengthOnTheRequestsStreamFailsIt) {
    expectDropped(frame(kGoaway, 0, 1, payload()) + okResponse(1), {Callback::failed(ERR_FETAL)});
}

TEST_P(HostileLength, ResetOfAnyLengthOnStreamZeroEndsTheConnection) {
    expectDropped(frame(kRstStream, 0, 0, payload()) + okResponse(1), {Callback::closed()});
}

// One type a connection: a frame that is cut in the wrong place takes the answer behind it along.
TEST_P(HostileLength, ControlFramesOfAnyLengthBehindEachOtherAreTolerated) {
    std::string bytes;
    for (const uint8_t type : {kPing, kWindowUpdate, kPriority, kSettings}) {
        bytes += repeated(frame(type, 0, 0, payload()), 50) + frame(type, kAck, 1, payload());
    }
    expectTolerated(bytes);
}

// The frame's data is empty then; the frame is reported as any other.
TEST_F(HostileFrame, PaddingBeyondTheDataLeavesNone) {
    Callbacks heard;
    std::string bytes;
    for (const int pad : {4, 5, 6, 255}) {
        bytes += frame(kData, kPadded, 1, be8(static_cast<uint32_t>(pad)) + "abcd");
        heard.push_back(kEmptyMore);
    }
    expectTolerated(bytes + frame(kData, kPadded, 1, ""), heard + Callbacks{kEmptyMore});
}

// The whole frame is credited, as its header has it, though none of it counts as data.
// A frame counts its padding as declared, with the pad length itself: 256 bytes each here.
TEST_F(HostileFrame, PaddingBeyondTheDataIsCreditedAsDeclared) {
    const std::string lie = frame(kData, kPadded, 1, be8(255) + std::string(199, 'x'));
    expectTolerated(repeated(lie, 127), Callbacks(127, kEmptyMore));  // 32512 bytes: not yet due
    EXPECT_TRUE(m_server.frames(kVictim, kWindowUpdate).empty());

    m_victim.clear();
    ASSERT_EQ(m_victim.startRequest(nullptr), 0);
    ASSERT_TRUE(m_server.waitFramesOf(kVictim, kHeaders, 3));
    // Of the bodies of two answers, 2 bytes are on stream 1 and 5 on stream 3: 32519 before this.
    play(lie);
    ASSERT_TRUE(m_server.waitFramesOf(kVictim, kWindowUpdate, 2));
    const std::vector<WireFrame> credit = m_server.frames(kVictim, kWindowUpdate);
    EXPECT_EQ(credit[0].streamId, 0U);
    EXPECT_EQ(toHex(credit[0].payload), toHex(be32(32770 + 5)));
    EXPECT_EQ(credit[1].streamId, 1U);
    EXPECT_EQ(toHex(credit[1].payload), toHex(be32(32770)));
    play(okResponse(5));
    ASSERT_TRUE(m_victim.waitEnd());
    EXPECT_EQ(m_victim.callbacks(), okCallbacks());
}

TEST_F(HostileFrame, PaddingThatFitsIsCutOff) {
    expectTolerated(dataPadded(1, "abcd", 0) + dataPadded(1, "abcd", 255) +
                        frame(kData, kPadded, 1, hex("03") + "abcd"),
                    {Callback::content("abcd", true), Callback::content("abcd", true),
                     Callback::content("a", true)});
}

TEST_F(HostileFrame, PaddingBeyondTheBlockLeavesNoFields) {
    Callbacks heard;
    std::string bytes;
    for (const int pad : {2, 3, 255}) {
        bytes +=
            frame(kHeaders, kPadded | kEndHeaders, 1, be8(static_cast<uint32_t>(pad)) + "\x88");
        heard.push_back(kNoHeaders);
    }
    expectTolerated(bytes + frame(kHeaders, kPadded | kEndHeaders, 1, ""),
                    heard + Callbacks{kNoHeaders});
}

TEST_F(HostileFrame, PriorityThatDoesNotFitLeavesNoFields) {
    std::string bytes;
    for (size_t length = 0; length < 5; ++length) {
        bytes += frame(kHeaders, kPriorityFlag | kEndHeaders, 1, filler(length));
    }
    for (size_t length = 0; length < 6; ++length) {
        bytes +=
            frame(kHeaders, kPriorityFlag | kPadded | kEndHeaders, 1, std::string(length, '\0'));
    }
    expectTolerated(bytes, Callbacks(11, kNoHeaders));
}

// Between 0 and 3 bytes of the promised identifier, and between 0 and 3 bytes behind the payload
// when it is decoded.
TEST_F(HostileFrame, PushPromisesThatEndTooSoonAreTolerated) {
    std::string bytes;
    std::vector<size_t> cuts;
    for (size_t length = 0; length <= 5; ++length) {
        for (size_t behind = 0; behind <= 4; ++behind) {
            bytes += frame(kPushPromise, kEndHeaders, 1, std::string(length, '\x7F'));
            cuts.push_back(bytes.size() + behind);
            bytes += ping(0);
        }
    }
    bytes += frame(kPushPromise, kPadded, 1, hex("FF 00 00 00 02 82"));
    bytes += okResponse(1);
    m_server.sendCut(kVictim, bytes, cuts);
    ASSERT_TRUE(m_victim.waitEnd());
    EXPECT_EQ(m_victim.callbacks(), okCallbacks());
    expectUsable();
    expectSent({});
}

// The frame header's R bit is no part of the stream identifier.
TEST_F(HostileFrame, ReservedBitIsNotLookedAt) {
    expectHeard(headers(1 | kReservedBit, hpackIndexed(8)) + ping(0) + settings({}) +
                    frame(kPing, 0, kReservedBit, be64(0)) + data(1 | kReservedBit, "a") +
                    data(1 | kReservedBit, "b", kEndStream),
                {okHeaders(), Callback::content("a", true), Callback::content("b", false)});
}

// Flags that a frame type does not know change nothing; END_STREAM on HEADERS is one of them here.
TEST_F(HostileFrame, FlagsWithoutMeaningAreNotLookedAt) {
    constexpr uint8_t kNoPadding = 0xFF & ~(kPadded | kPriorityFlag);
    expectTolerated(headers(1, hpackIndexed(13), kNoPadding) +
                        data(1, "x", static_cast<uint8_t>(0xFF & ~(kPadded | kEndStream))),
                    {Callback::headers(404, {{":status", "404"}}), Callback::content("x", true)});
}

// All that a PUSH_PROMISE has room for: it reserves no stream.
TEST_F(HostileFrame, PushPromisesOpenNoStream) {
    expectTolerated(
        frame(kPushPromise, kEndHeaders, 1, be32(2) + hpackIndexed(2) + hpackIndexed(7)) +
            headers(2, hpackIndexed(8)) + data(2, "pushed", kEndStream),
        {}, {resetOf(2)});
}

// A type that is not known yet: the frame's length says how much, and nothing of it has come.
TEST_F(HostileFrame, UnknownTypeIsFatalBeforeItsPayloadComes) {
    expectDropped(frameWithLength(16777215, 0x0B, 0, 1, ""), {Callback::failed(ERR_FETAL)});
}

class HostileType : public HostileTest, public testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(Types, HostileType, testing::Values(10, 11, 16, 127, 128, 255),
                         [](const auto& info) { return std::to_string(info.param); });

TEST_P(HostileType, UnknownTypeFailsTheRequestAndEndsTheConnection) {
    expectDropped(frame(static_cast<uint8_t>(GetParam()), 0, 1, "abc") + okResponse(1),
                  {Callback::failed(ERR_FETAL)});
}

// What came whole in the same read goes down with it.
TEST_P(HostileType, UnknownTypeBehindTheAnswerFailsTheRequestToo) {
    expectDropped(okResponse(1) + frame(static_cast<uint8_t>(GetParam()), 0, 0, ""),
                  {Callback::failed(ERR_FETAL)});
}

TEST_F(HostileFrame, LargestFrameIsTolerated) {
    std::string body = repeated(distinctBytes(65536), 256);
    body.pop_back();
    ASSERT_EQ(body.size(), 16777215U);
    expectHeard(headers(1, hpackIndexed(8)) + data(1, body) + data(1, "", kEndStream),
                {okHeaders(), Callback::content(body, true), Callback::content("", false)});
}

}  // namespace
}  // namespace h2test
