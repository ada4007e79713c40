#include "Http2Client/frame.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "tests/support/bytes.h"
#include "tests/support/capture.h"

namespace {

using h2test::hex;
using tiny::BaseFrame;
using tiny::Frame;

std::string text(const Buffer& buffer) { return std::string(buffer.buffer, buffer.len); }

std::string wire(Frame& frame, hpack::Table* table = nullptr) {
    const std::unique_ptr<Buffer> bytes(frame.encodeFrame(table));
    return text(*bytes);
}

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
    const auto low = Frame::decodeBaseFrame(hex("00 00 05 | 00 | 01 | 80 00 00 01").data());
    EXPECT_EQ(low->m_length, 5U);
    EXPECT_EQ(low->m_type, 0);
    EXPECT_EQ(low->m_flags, 1);
    EXPECT_TRUE(low->m_reserved);
    EXPECT_EQ(low->m_streamId, 1U);
    const auto high = Frame::decodeBaseFrame(hex("FF FF FF | 09 | 00 | 7F FF FF FF").data());
    EXPECT_EQ(high->m_length, 16777215U);
    EXPECT_EQ(high->m_type, 9);
    EXPECT_EQ(high->m_flags, 0);
    EXPECT_FALSE(high->m_reserved);
    EXPECT_EQ(high->m_streamId, 2147483647U);
    const auto mixed = Frame::decodeBaseFrame(hex("80 FF 01 | FE | AA | 01 80 FF 02").data());
    EXPECT_EQ(mixed->m_length, 0x80FF01U);
    EXPECT_EQ(mixed->m_type, 0xFE);
    EXPECT_EQ(mixed->m_flags, 0xAA);
    EXPECT_EQ(mixed->m_streamId, 0x0180FF02U);
}

TEST(FrameFactory, RefusesNothingAndUnknownTypes) {
    EXPECT_EQ(Frame::createFrame(nullptr), nullptr);
    EXPECT_EQ(created(10), nullptr);
    EXPECT_EQ(created(255), nullptr);
}

TEST(FrameFactory, MakesTheClassOfEachTypeWithTheHeadersFields) {
    const auto check = [](uint8_t type, auto* wanted, const char* name) {
        const auto frame = created(type, 77, 0x2D, 0x7FFFFFFF, true);
        ASSERT_NE(frame, nullptr);
        EXPECT_NE(dynamic_cast<decltype(wanted)>(frame.get()), nullptr) << name;
        EXPECT_EQ(frame->getType(), type);
        EXPECT_EQ(frame->length(), 77U);
        EXPECT_EQ(frame->getFlags(), 0x2D);
        EXPECT_EQ(frame->getStreamId(), 0x7FFFFFFFU);
        EXPECT_TRUE(frame->hasReserved());
        EXPECT_EQ(frame->getFrameTypeName(), name);
    };
    check(0, static_cast<tiny::DataFrame*>(nullptr), "DATA");
    check(1, static_cast<tiny::HeadersFrame*>(nullptr), "HEADERS");
    check(2, static_cast<tiny::PriorityFrame*>(nullptr), "PRIORITY");
    check(3, static_cast<tiny::RSTStreamFrame*>(nullptr), "RST_STREAM");
    check(4, static_cast<tiny::SettingsFrame*>(nullptr), "SETTINGS");
    check(5, static_cast<tiny::PushPromisFrame*>(nullptr), "PUSH_PROMISE");
    check(6, static_cast<tiny::PingFrame*>(nullptr), "PING");
    check(7, static_cast<tiny::GoawayFrame*>(nullptr), "GOAWAY");
    check(8, static_cast<tiny::WindowUpdateFrame*>(nullptr), "WINDOW_UPDATE");
    check(9, static_cast<tiny::ContinuationFrame*>(nullptr), "CONTINUATION");
}

TEST(FrameFactory, ReservedBitOfTheHeaderIsNotThePayloads) {
    auto goaway = created(7, 8, 0, 0, true);
    EXPECT_FALSE(static_cast<tiny::GoawayFrame*>(goaway.get())->hasReserved());
    auto update = created(8, 4, 0, 0, true);
    EXPECT_FALSE(static_cast<tiny::WindowUpdateFrame*>(update.get())->hasReserved());
    auto push = created(5, 4, 0, 0, true);
    EXPECT_FALSE(static_cast<tiny::PushPromisFrame*>(push.get())->hasReserved());
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
    tiny::PingFrame frame;
    frame.m_type = static_cast<Frame::FRAME_TYPE>(12);
    EXPECT_EQ(frame.getFrameTypeName(), "UNKNOWN");
    frame.m_type = static_cast<Frame::FRAME_TYPE>(0xFFFFFFFF);
    EXPECT_EQ(frame.getFrameTypeName(), "UNKNOWN");
}

TEST(Frame, SetsClearsAndTestsFlags) {
    tiny::PingFrame frame;
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
    EXPECT_EQ(Frame::TYPE_LAST_TYPE, 9);
}

TEST(Frame, StoresStreamAndLengthUnchanged) {
    tiny::PingFrame frame;
    frame.setStreamId(0xFFFFFFFF);
    frame.setLength(0xFFFFFFFF);
    EXPECT_EQ(frame.getStreamId(), 0xFFFFFFFFU);
    EXPECT_EQ(frame.length(), 0xFFFFFFFFU);
    // On the wire the identifier has 31 bits, and the length is that of the payload.
    EXPECT_EQ(wire(frame), hex("00 00 08 06 00 7F FF FF FF") + std::string(8, '\0'));
}

TEST(Frame, WritesTheReservedBitIntoTheLastByte) {
    tiny::SettingsFrame frame;
    frame.m_reserved = true;
    frame.setStreamId(1);
    EXPECT_EQ(wire(frame), hex("00 00 00 04 00 00 00 00 81"));
}

TEST(Frame, SerializesAndPrintsWhenAsked) {
    tiny::WindowUpdateFrame frame;
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

// What the engine sends, beside what the frame gives a caller: decoded from a payload and sent
// back.
TEST(Frame, AppendsTheSameBytesAsItEncodes) {
    const std::string payload = hex("03 80 00 01 82 FF 00 7F 41 01 78 82 00 00 00");
    for (uint8_t type = Frame::TYPE_DATA_FRAME; type <= Frame::TYPE_LAST_TYPE; ++type) {
        for (const uint8_t flags : {0, 1, 4, 8, 32, 45}) {
            for (const size_t length : {0, 4, 5, 8, 12}) {
                SCOPED_TRACE(testing::Message() << int{type} << " " << int{flags} << " " << length);
                hpack::Table table;
                const auto frame = created(type, 0, flags, 0x7F000003, length == 5);
                frame->decodeFramePayload(payload.data(), static_cast<int>(length), table);
                std::string bytes = "before";
                frame->appendTo(bytes, &table);
                EXPECT_EQ(bytes, "before" + wire(*frame, &table));
            }
        }
    }
}

}  // namespace
