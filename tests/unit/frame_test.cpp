#include "Http2Client/frame.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <typeinfo>

#include "frame_support.h"
#include "tests/support/bytes.h"
#include "tests/support/capture.h"

namespace {

using h2test::hex;
using namespace tiny;

std::unique_ptr<Frame> created(uint8_t type, uint32_t length = 0, uint8_t flags = 0,
                               uint32_t streamId = 0, bool reserved = false) {
    auto header = std::make_shared<BaseFrame>();
    header->m_length = length;
    header->m_type = type;
    header->m_flags = flags;
    header->m_streamId = streamId;
    header->m_reserved = reserved;
    return std::unique_ptr<Frame>(Frame::createFrame(header));
}

TEST(FrameHeader, DecodesAllFieldsUnsigned) {
    struct Case {
        std::string bytes;
        uint32_t length;
        uint8_t type;
        uint8_t flags;
        bool reserved;
        uint32_t streamId;
    };
    const Case cases[] = {
        {hex("00 00 05 | 00 | 01 | 80 00 00 01"), 5, 0, 1, true, 1},
        {hex("FF FF FF | 09 | 00 | 7F FF FF FF"), 16777215, 9, 0, false, 2147483647},
        {hex("80 FF 01 | FE | AA | 01 80 FF 02"), 0x80FF01, 0xFE, 0xAA, false, 0x0180FF02}};
    for (const Case& each : cases) {
        const h2test::GuardedBytes bytes(each.bytes);
        const auto header = Frame::decodeBaseFrame(bytes.data());
        EXPECT_EQ(header->m_length, each.length);
        EXPECT_EQ(header->m_type, each.type);
        EXPECT_EQ(header->m_flags, each.flags);
        EXPECT_EQ(header->m_reserved, each.reserved);
        EXPECT_EQ(header->m_streamId, each.streamId);
    }
}

TEST(FrameFactory, RefusesNothingAndUnknownTypes) {
    EXPECT_EQ(Frame::createFrame(nullptr), nullptr);
    EXPECT_EQ(created(10), nullptr);
    EXPECT_EQ(created(255), nullptr);
}

TEST(FrameFactory, MakesTheClassOfEachTypeWithTheHeadersFields) {
    const std::pair<const std::type_info*, const char*> classes[] = {
        {&typeid(DataFrame), "DATA"},
        {&typeid(HeadersFrame), "HEADERS"},
        {&typeid(PriorityFrame), "PRIORITY"},
        {&typeid(RSTStreamFrame), "RST_STREAM"},
        {&typeid(SettingsFrame), "SETTINGS"},
        {&typeid(PushPromisFrame), "PUSH_PROMISE"},
        {&typeid(PingFrame), "PING"},
        {&typeid(GoawayFrame), "GOAWAY"},
        {&typeid(WindowUpdateFrame), "WINDOW_UPDATE"},
        {&typeid(ContinuationFrame), "CONTINUATION"}};
    uint8_t type = 0;
    for (const auto& [wanted, name] : classes) {
        const auto frame = created(type, 77, 0x2D, 0x7FFFFFFF, true);
        ASSERT_NE(frame, nullptr);
        const Frame& made = *frame;
        EXPECT_TRUE(typeid(made) == *wanted) << name;
        EXPECT_EQ(frame->getType(), type++);
        EXPECT_EQ(frame->length(), 77U);
        EXPECT_EQ(frame->getFlags(), 0x2D);
        EXPECT_EQ(frame->getStreamId(), 0x7FFFFFFFU);
        EXPECT_TRUE(frame->hasReserved());
        EXPECT_EQ(frame->getFrameTypeName(), name);
    }
    EXPECT_EQ(type, Frame::TYPE_LAST_TYPE + 1);
}

TEST(FrameFactory, ReservedBitOfTheHeaderIsNotThePayloads) {
    EXPECT_FALSE(static_cast<GoawayFrame&>(*created(7, 8, 0, 0, true)).hasReserved());
    EXPECT_FALSE(static_cast<WindowUpdateFrame&>(*created(8, 4, 0, 0, true)).hasReserved());
    EXPECT_FALSE(static_cast<PushPromisFrame&>(*created(5, 4, 0, 0, true)).hasReserved());
}

TEST(Frame, BaseDefaultsToSettings) {
    class Bare : public Frame {
        Buffer* encodeFramePayload(hpack::Table*) override { return new Buffer; }
        bool decodeFramePayload(const char*, int, hpack::Table&) override { return true; }
        void updateLength() override {}
    };
    Bare bare;
    EXPECT_EQ(bare.getType(), Frame::TYPE_SETTINGS_FRAME);
    EXPECT_EQ(bare.length(), 0U);
    EXPECT_EQ(bare.getFlags(), 0);
    EXPECT_EQ(bare.getStreamId(), 0U);
    EXPECT_FALSE(bare.hasReserved());
    EXPECT_EQ(wire(bare), hex("00 00 00 04 00 00 00 00 00"));
}

TEST(Frame, NamesAnythingElseUnknown) {
    PingFrame frame;
    for (const uint32_t type : {10U, 12U, 0xFFFFFFFFU}) {
        frame.m_type = static_cast<Frame::FRAME_TYPE>(type);
        EXPECT_EQ(frame.getFrameTypeName(), "UNKNOWN");
    }
}

TEST(Frame, SetsClearsAndTestsFlags) {
    PingFrame frame;
    frame.setFlags(Frame::FLAG_PADDED);
    frame.setFlags(Frame::FLAG_END_HEADERS);
    EXPECT_EQ(frame.getFlags(), 0x0C);
    EXPECT_FALSE(frame.hasFlags(Frame::FLAG_PADDED | Frame::FLAG_PRIORITY));
    EXPECT_TRUE(frame.hasFlags(Frame::FLAG_PADDED | Frame::FLAG_END_HEADERS));
    EXPECT_TRUE(frame.hasFlags(0));
    frame.clearFlags(Frame::FLAG_PADDED | Frame::FLAG_PRIORITY);
    EXPECT_EQ(frame.getFlags(), 0x04);
    EXPECT_EQ(Frame::FLAG_ACK, 1);
    EXPECT_EQ(Frame::FLAG_END_STREAM, 1);
    EXPECT_EQ(Frame::FLAG_PRIORITY, 32);
}

TEST(Frame, StoresStreamAndLengthUnchanged) {
    PingFrame frame;
    frame.setStreamId(0xFFFFFFFF);
    frame.setLength(0xFFFFFFFF);
    EXPECT_EQ(frame.getStreamId(), 0xFFFFFFFFU);
    EXPECT_EQ(frame.length(), 0xFFFFFFFFU);
    // On the wire the identifier has 31 bits, and the length is that of the payload.
    EXPECT_EQ(wire(frame), hex("00 00 08 06 00 7F FF FF FF") + std::string(8, '\0'));
}

TEST(Frame, WritesTheReservedBitIntoTheLastByte) {
    SettingsFrame frame;
    frame.m_reserved = true;
    frame.setStreamId(1);
    EXPECT_EQ(wire(frame), hex("00 00 00 04 00 00 00 00 81"));
}

TEST(Frame, SerializesAndPrintsWhenAsked) {
    WindowUpdateFrame frame;
    frame.setWindowSizeIncrement(0x41);
    frame.setStreamId(3);
    h2test::CoutCapture out;
    const std::shared_ptr<Buffer> quiet = Frame::serializeFrame(&frame, nullptr, false);
    EXPECT_EQ(text(*quiet), hex("00 00 04 08 00 00 00 00 03 00 00 00 41"));
    EXPECT_EQ(out.str(), "");
    const std::shared_ptr<Buffer> printed = Frame::serializeFrame(&frame, nullptr, true);
    EXPECT_EQ(text(*printed), text(*quiet));
    EXPECT_EQ(out.str(),
              "00 00 04 08 00 00 00 00 ........\n"
              "03 00 00 00 41          ....A\n");
}

TEST(PayloadDecoders, TakeALengthBelowZeroAsZero) {
    hpack::Table table;
    for (uint8_t type = 0; type <= 9; ++type) {
        const bool fixedLength =
            type == Frame::TYPE_PRIORITY_FRAME || type == Frame::TYPE_RST_STREAM_FRAME;
        const auto frame = created(type, 0, Frame::FLAG_PADDED | Frame::FLAG_PRIORITY);
        EXPECT_EQ(frame->decodeFramePayload(nullptr, -6, table), !fixedLength) << int{type};
    }
}

TEST(Http2ErrorCode, HasTheStandardsValues) {
    EXPECT_EQ(HTTP2_ERROR_NO_ERROR, 0);
    EXPECT_EQ(HTTP2_ERROR_FLOW_CONTROL_ERROR, 3);
    EXPECT_EQ(HTTP2_ERROR_REFUSED_STREAM, 7);
    EXPECT_EQ(HTTP2_ERROR_CANCEL, 8);
    EXPECT_EQ(HTTP2_ERROR_ENHANCE_YOUR_CALM, 11);
    EXPECT_EQ(HTTP2_ERROR_HTTP_1_1_REQUIRED, 13);
}

}  // namespace
