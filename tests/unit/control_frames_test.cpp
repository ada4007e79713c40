#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "Http2Client/frame.h"
#include "tests/support/bytes.h"
#include "tests/support/guarded.h"

namespace {

using h2test::GuardedBytes;
using h2test::hex;
using namespace tiny;

std::string payload(Frame& frame) {
    const std::unique_ptr<Buffer> bytes(frame.encodeFramePayload(nullptr));
    return std::string(bytes->buffer, bytes->len);
}

// Decodes from memory that ends with the payload.
bool decode(Frame& frame, const std::string& bytes) {
    const GuardedBytes guarded(bytes);
    hpack::Table table;
    return frame.decodeFramePayload(guarded.data(), static_cast<int>(bytes.size()), table);
}

std::string be16be32(uint16_t id, uint32_t value) { return h2test::be16(id) + h2test::be32(value); }

TEST(Settings, StartWithWhatThisClientAnnounces) {
    const Settings settings;
    EXPECT_EQ(settings.getHeaderTableSize(), 4096U);
    EXPECT_EQ(settings.getMaxConcurrentStream(), 100U);
    EXPECT_EQ(settings.getInitialWindowSize(), 0x40000000U);
    EXPECT_EQ(settings.getMaxFrameSize(), 0x800000U);
    EXPECT_EQ(settings.getMaxHeaderListSize(), 65535U);
    EXPECT_FALSE(settings.enablePush());
}

Settings protocolDefaults() {
    Settings settings;
    settings.setHeaderTableSize(4096);
    settings.setEnablePush(true);
    settings.setMaxConcurrentStream(0xFFFFFFFF);
    settings.setInitialWindowSize(65535);
    settings.setMaxFrameSize(16384);
    settings.setMaxHeaderListSize(0xFFFFFFFF);
    return settings;
}

TEST(SettingsFrame, DefaultConstructedEncodesNothing) {
    SettingsFrame frame;
    EXPECT_EQ(frame.getType(), Frame::TYPE_SETTINGS_FRAME);
    EXPECT_EQ(frame.length(), 0U);
    EXPECT_EQ(payload(frame), "");
    frame.updateLength();
    EXPECT_EQ(frame.length(), 30U);
}

TEST(SettingsFrame, EncodesTheDefaultsInThirtyBytes) {
    const std::string expected =
        hex("00 02 00 00 00 00 | 00 03 00 00 00 64 | 00 04 40 00 00 00 |"
            "00 05 00 80 00 00 | 00 06 00 00 FF FF");
    SettingsFrame frame;
    Settings settings;
    frame.setSettings(settings);
    EXPECT_EQ(frame.length(), 30U);
    EXPECT_EQ(payload(frame), expected);
    SettingsFrame constructed{Settings()};
    EXPECT_EQ(constructed.getType(), Frame::TYPE_SETTINGS_FRAME);
    EXPECT_EQ(constructed.length(), 30U);
    EXPECT_EQ(payload(constructed), expected);
}

TEST(SettingsFrame, LeavesOutTheProtocolsInitialValues) {
    SettingsFrame frame(protocolDefaults());
    EXPECT_EQ(frame.length(), 0U);
    EXPECT_EQ(payload(frame), "");
    Settings settings = protocolDefaults();
    settings.setHeaderTableSize(8192);
    settings.setMaxHeaderListSize(1);
    frame.setSettings(settings);
    EXPECT_EQ(frame.length(), 12U);
    EXPECT_EQ(payload(frame), hex("00 01 00 00 20 00 | 00 06 00 00 00 01"));
}

TEST(SettingsFrame, AckEmptiesIt) {
    SettingsFrame frame{Settings()};
    frame.setAckFlag();
    EXPECT_TRUE(frame.hasAckFlag());
    EXPECT_EQ(frame.length(), 0U);
    EXPECT_EQ(payload(frame), "");
    frame.setLength(30);
    EXPECT_EQ(payload(frame), "");
    frame.clearAckFlag();
    EXPECT_FALSE(frame.hasAckFlag());
    EXPECT_EQ(frame.length(), 30U);
}

TEST(SettingsFrame, DecodesOnlyMultiplesOfSix) {
    for (size_t length = 0; length <= 16; ++length) {
        SettingsFrame frame(protocolDefaults());
        frame.setLength(99);
        EXPECT_EQ(decode(frame, std::string(length, '\x00')), length % 6 == 0) << length;
        if (length % 6 != 0) {
            EXPECT_EQ(frame.length(), 99U);
            EXPECT_TRUE(frame.getSettings().enablePush());
        }
    }
}

TEST(SettingsFrame, WhatIsNotSentBecomesTheRecordsDefault) {
    SettingsFrame frame(protocolDefaults());
    EXPECT_TRUE(decode(frame, ""));
    EXPECT_EQ(frame.getSettings().getInitialWindowSize(), 0x40000000U);
    EXPECT_FALSE(frame.getSettings().enablePush());
    EXPECT_EQ(frame.length(), 30U);
    SettingsFrame ack;
    ack.setAckFlag();
    EXPECT_TRUE(decode(ack, ""));
    EXPECT_EQ(ack.length(), 0U);
}

TEST(SettingsFrame, DecodesEachParameter) {
    SettingsFrame frame;
    EXPECT_TRUE(decode(frame, be16be32(1, 1) + be16be32(2, 1) + be16be32(3, 0x64) +
                                  be16be32(4, 0x7F) + be16be32(5, 0x4001) + be16be32(6, 0x10000)));
    const Settings& settings = frame.getSettings();
    EXPECT_EQ(settings.getHeaderTableSize(), 1U);
    EXPECT_TRUE(settings.enablePush());
    EXPECT_EQ(settings.getMaxConcurrentStream(), 100U);
    EXPECT_EQ(settings.getInitialWindowSize(), 0x7FU);
    EXPECT_EQ(settings.getMaxFrameSize(), 0x4001U);
    EXPECT_EQ(settings.getMaxHeaderListSize(), 0x10000U);
    EXPECT_EQ(frame.length(), 5U * 6U);  // push is enabled, so five differ
}

TEST(SettingsFrame, LastOfARepeatedParameterHolds) {
    SettingsFrame frame;
    EXPECT_TRUE(
        decode(frame, be16be32(3, 7) + be16be32(8, 1) + be16be32(0x0103, 2) + be16be32(3, 9)));
    EXPECT_EQ(frame.getSettings().getMaxConcurrentStream(), 9U);
}

TEST(SettingsFrame, BringsTheFrameSizeIntoItsRange) {
    SettingsFrame frame;
    EXPECT_TRUE(decode(frame, be16be32(5, 100)));
    EXPECT_EQ(frame.getSettings().getMaxFrameSize(), 16384U);
    EXPECT_TRUE(decode(frame, be16be32(5, 0x01000000)));
    EXPECT_EQ(frame.getSettings().getMaxFrameSize(), 16777215U);
}

TEST(SettingsFrame, ReadsBytesWithTheirSign) {
    SettingsFrame frame;
    EXPECT_TRUE(decode(frame, hex("00 04 00 00 FF FF")));
    EXPECT_EQ(frame.getSettings().getInitialWindowSize(), 0xFFFFFFFFU);
    EXPECT_TRUE(decode(frame, hex("00 04 00 80 00 01")));
    EXPECT_EQ(frame.getSettings().getInitialWindowSize(), 0xFF800001U);
    EXPECT_TRUE(decode(frame, hex("00 04 80 00 00 01")));
    EXPECT_EQ(frame.getSettings().getInitialWindowSize(), 0x80000001U);
}

TEST(PingFrame, ConstructorsDiffer) {
    PingFrame made;
    made.setOpaqueData(7);
    EXPECT_EQ(made.getType(), Frame::TYPE_PING_FRAME);
    EXPECT_EQ(made.length(), 8U);
    const PingFrame value(7);
    EXPECT_EQ(value.getType(), Frame::TYPE_SETTINGS_FRAME);
    EXPECT_EQ(value.length(), 0U);
    EXPECT_EQ(value.getOpaqueData(), 7U);
}

TEST(PingFrame, EncodesAndDecodes) {
    PingFrame frame;
    frame.setOpaqueData(0x0102030405060708);
    EXPECT_EQ(payload(frame), hex("01 02 03 04 05 06 07 08"));
    EXPECT_TRUE(decode(frame, hex("11 12 13 14 15 16 17 18")));
    EXPECT_EQ(frame.getOpaqueData(), 0x1112131415161718U);
    EXPECT_TRUE(decode(frame, hex("01 02 03 04 05 06 07 80")));
    EXPECT_EQ(frame.getOpaqueData(), 0xFFFFFFFFFFFFFF80U);
    EXPECT_TRUE(decode(frame, hex("FF 00 00 00 00 00 00 01")));
    EXPECT_EQ(frame.getOpaqueData(), 0xFF00000000000001U);
    frame.setAckFlag();
    EXPECT_TRUE(frame.hasAckFlag());
    frame.clearAckFlag();
    EXPECT_FALSE(frame.hasAckFlag());
    EXPECT_EQ(frame.length(), 8U);
}

TEST(PingFrame, NeedsEightBytesAndIgnoresMore) {
    for (size_t length = 0; length <= 16; ++length) {
        PingFrame frame;
        frame.setOpaqueData(5);
        frame.setLength(static_cast<uint32_t>(length));
        EXPECT_EQ(decode(frame, std::string(length, '\x01')), length >= 8) << length;
        EXPECT_EQ(frame.getOpaqueData(), length >= 8 ? 0x0101010101010101U : 5U);
        EXPECT_EQ(frame.length(), length >= 8 ? 8U : length);
    }
}

TEST(GoawayFrame, ConstructorsDiffer) {
    const GoawayFrame made;
    EXPECT_EQ(made.getType(), Frame::TYPE_GOAWAY_FRAME);
    EXPECT_EQ(made.length(), 8U);
    EXPECT_FALSE(made.hasReserved());
    GoawayFrame value(5, 2, Buffer("bye"));
    EXPECT_EQ(value.getType(), Frame::TYPE_SETTINGS_FRAME);
    EXPECT_EQ(value.length(), 11U);
    EXPECT_EQ(payload(value), hex("00 00 00 05 00 00 00 02") + "bye");
}

TEST(GoawayFrame, EncodesItsReservedBitMisplaced) {
    GoawayFrame frame;
    frame.setReserved(true);
    frame.setLastStreamId(0x80000003);
    frame.setErrorEode(0x80000002);
    Buffer debug("d");
    frame.setAdditionalDebugData(debug);
    EXPECT_EQ(frame.length(), 9U);
    EXPECT_EQ(payload(frame), hex("00 00 00 83 80 00 00 02") + "d");
}

TEST(GoawayFrame, DropsTheTopBitOfItsErrorCode) {
    GoawayFrame frame;
    EXPECT_TRUE(decode(frame, hex("00 00 00 05 80 00 00 02")));
    EXPECT_EQ(frame.getLastStreamId(), 5U);
    EXPECT_EQ(frame.getErrorCode(), 2U);
    EXPECT_EQ(frame.getAdditionalDebugData().Length(), 0U);
    EXPECT_FALSE(frame.hasReserved());
    EXPECT_TRUE(decode(frame, hex("FF 00 00 05 00 80 00 01") + "why"));
    EXPECT_TRUE(frame.hasReserved());
    EXPECT_EQ(frame.getLastStreamId(), 0x7F000005U);
    EXPECT_EQ(frame.getErrorCode(), 0xFF800001U);
    EXPECT_STREQ(std::string(frame.getAdditionalDebugData().Address(0), 3).c_str(), "why");
    EXPECT_EQ(frame.length(), 11U);
}

TEST(GoawayFrame, NeedsEightBytes) {
    for (size_t length = 0; length <= 16; ++length) {
        GoawayFrame frame(1, 1, Buffer("old"));
        frame.setLength(77);
        EXPECT_EQ(decode(frame, std::string(length, '\x01')), length >= 8) << length;
        EXPECT_EQ(frame.getErrorCode(), length >= 8 ? 0x01010101U : 1U);
        EXPECT_EQ(frame.getAdditionalDebugData().Length(), length >= 8 ? length - 8 : 3U);
        EXPECT_EQ(frame.length(), length >= 8 ? length : 77U);
    }
}

TEST(WindowUpdateFrame, ConstructorsDiffer) {
    const WindowUpdateFrame made;
    EXPECT_EQ(made.getType(), Frame::TYPE_WINDOW_UPDATE_FRAME);
    EXPECT_EQ(made.length(), 4U);
    const WindowUpdateFrame value(7);
    EXPECT_EQ(value.getType(), Frame::TYPE_SETTINGS_FRAME);
    EXPECT_EQ(value.length(), 0U);
    EXPECT_EQ(value.getWindowSizeIncrement(), 7U);
}

TEST(WindowUpdateFrame, PlacesItsReservedBitOnTop) {
    WindowUpdateFrame frame;
    frame.setWindowSizeIncrement(-1);
    EXPECT_EQ(frame.getWindowSizeIncrement(), 0xFFFFFFFFU);
    EXPECT_EQ(payload(frame), hex("7F FF FF FF"));
    frame.setReserved(true);
    frame.setWindowSizeIncrement(1);
    EXPECT_EQ(payload(frame), hex("80 00 00 01"));
}

TEST(WindowUpdateFrame, DecodesUnsigned) {
    WindowUpdateFrame frame;
    EXPECT_TRUE(decode(frame, hex("80 00 FF FF")));
    EXPECT_TRUE(frame.hasReserved());
    EXPECT_EQ(frame.getWindowSizeIncrement(), 65535U);
    EXPECT_TRUE(decode(frame, hex("7F 80 FF 80")));
    EXPECT_FALSE(frame.hasReserved());
    EXPECT_EQ(frame.getWindowSizeIncrement(), 0x7F80FF80U);
    EXPECT_TRUE(decode(frame, hex("00 00 00 00")));
    EXPECT_EQ(frame.getWindowSizeIncrement(), 0U);
}

TEST(WindowUpdateFrame, NeedsFourBytesAndIgnoresMore) {
    for (size_t length = 0; length <= 16; ++length) {
        WindowUpdateFrame frame;
        frame.setWindowSizeIncrement(9);
        frame.setLength(77);
        EXPECT_EQ(decode(frame, std::string(length, '\x01')), length >= 4) << length;
        EXPECT_EQ(frame.getWindowSizeIncrement(), length >= 4 ? 0x01010101U : 9U);
        EXPECT_EQ(frame.length(), length >= 4 ? 4U : 77U);
    }
}

TEST(RSTStreamFrame, ConstructorsDiffer) {
    const RSTStreamFrame made;
    EXPECT_EQ(made.getType(), Frame::TYPE_RST_STREAM_FRAME);
    EXPECT_EQ(made.length(), 4U);
    RSTStreamFrame value(8);
    EXPECT_EQ(value.getType(), Frame::TYPE_SETTINGS_FRAME);
    EXPECT_EQ(value.length(), 0U);
    EXPECT_EQ(payload(value), hex("00 00 00 08"));
    EXPECT_EQ(value.length(), 4U);  // encoding recomputes it
}

TEST(RSTStreamFrame, NeedsExactlyFourBytes) {
    for (size_t length = 0; length <= 16; ++length) {
        RSTStreamFrame frame;
        frame.setErrorEode(3);
        frame.setLength(77);
        EXPECT_EQ(decode(frame, std::string(length, '\x01')), length == 4) << length;
        EXPECT_EQ(frame.getErrorCode(), length == 4 ? 0x01010101U : 3U);
        EXPECT_EQ(frame.length(), 77U);  // never recomputed here
    }
}

TEST(RSTStreamFrame, ReadsBytesWithTheirSign) {
    RSTStreamFrame frame;
    EXPECT_TRUE(decode(frame, hex("00 00 00 08")));
    EXPECT_EQ(frame.getErrorCode(), 8U);
    EXPECT_TRUE(decode(frame, hex("00 00 00 80")));
    EXPECT_EQ(frame.getErrorCode(), 0xFFFFFF80U);
    EXPECT_TRUE(decode(frame, hex("80 00 00 01")));
    EXPECT_EQ(frame.getErrorCode(), 0x80000001U);
}

TEST(PriorityFrame, ConstructorsBothSetTheirType) {
    const PriorityFrame made;
    EXPECT_EQ(made.getType(), Frame::TYPE_PRIORITY_FRAME);
    EXPECT_EQ(made.length(), 5U);
    PriorityFrame value(true, 3, 16);
    EXPECT_EQ(value.getType(), Frame::TYPE_PRIORITY_FRAME);
    EXPECT_EQ(value.length(), 5U);
    EXPECT_EQ(payload(value), hex("00 00 00 83 10"));
}

TEST(PriorityFrame, EncodesAndDecodes) {
    PriorityFrame frame;
    frame.setStreamDependency(0xFFFFFFFF);
    frame.setWeight(255);
    EXPECT_EQ(payload(frame), hex("7F FF FF FF FF"));
    frame.setExclusive(true);
    EXPECT_TRUE(frame.hasExclusive());
    EXPECT_TRUE(decode(frame, hex("80 00 00 03 10")));
    EXPECT_TRUE(frame.hasExclusive());
    EXPECT_EQ(frame.getStreamDependency(), 3U);
    EXPECT_EQ(frame.getWeight(), 16);
    EXPECT_TRUE(decode(frame, hex("00 80 00 01 FF")));
    EXPECT_FALSE(frame.hasExclusive());
    EXPECT_EQ(frame.getStreamDependency(), 0xFF800001U);  // only the top byte is masked
    EXPECT_EQ(frame.getWeight(), 255);
}

TEST(PriorityFrame, NeedsExactlyFiveBytes) {
    for (size_t length = 0; length <= 16; ++length) {
        PriorityFrame frame(true, 7, 7);
        frame.setLength(77);
        EXPECT_EQ(decode(frame, std::string(length, '\x01')), length == 5) << length;
        EXPECT_EQ(frame.getStreamDependency(), length == 5 ? 0x01010101U : 7U);
        EXPECT_EQ(frame.length(), length == 5 ? 5U : 77U);
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
