#include <gtest/gtest.h>

#include <string>

#include "Http2Client/frame.h"
#include "frame_support.h"
#include "tests/support/bytes.h"

namespace {

using h2test::be32;
using h2test::hex;
using namespace tiny;

// The constructors of a control frame: its own type and length by default, SETTINGS with values.
void expectHeader(const Frame& frame, Frame::FRAME_TYPE type, uint32_t length) {
    EXPECT_EQ(frame.getType(), type);
    EXPECT_EQ(frame.length(), length);
    EXPECT_EQ(frame.getFlags(), 0);
}

std::string be16be32(uint16_t id, uint32_t value) { return h2test::be16(id) + be32(value); }

std::string describe(const Settings& settings) {
    return std::to_string(settings.getHeaderTableSize()) + " " +
           std::to_string(settings.enablePush()) + " " +
           std::to_string(settings.getMaxConcurrentStream()) + " " +
           std::to_string(settings.getInitialWindowSize()) + " " +
           std::to_string(settings.getMaxFrameSize()) + " " +
           std::to_string(settings.getMaxHeaderListSize());
}

const char kDefaults[] = "4096 0 100 1073741824 8388608 65535";

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

TEST(SettingsFrame, EncodesTheDefaultsInThirtyBytes) {
    const std::string expected =
        hex("00 02 00 00 00 00 | 00 03 00 00 00 64 | 00 04 40 00 00 00 |"
            "00 05 00 80 00 00 | 00 06 00 00 FF FF");
    Settings settings;
    EXPECT_EQ(describe(settings), kDefaults);
    SettingsFrame frame;
    expectHeader(frame, Frame::TYPE_SETTINGS_FRAME, 0);
    EXPECT_EQ(payload(frame), "");  // the length is not computed yet
    frame.updateLength();
    EXPECT_EQ(payload(frame), expected);
    SettingsFrame set;
    set.setSettings(settings);
    EXPECT_EQ(payload(set), expected);
    SettingsFrame constructed(settings);
    expectHeader(constructed, Frame::TYPE_SETTINGS_FRAME, 30);
    EXPECT_EQ(payload(constructed), expected);
}

TEST(SettingsFrame, LeavesOutTheProtocolsInitialValues) {
    SettingsFrame frame(protocolDefaults());
    expectHeader(frame, Frame::TYPE_SETTINGS_FRAME, 0);
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
        EXPECT_EQ(frame.length(), length % 6 == 0 ? 30U : 99U);
        EXPECT_EQ(describe(frame.getSettings()),
                  length % 6 == 0 ? kDefaults : describe(protocolDefaults()));
    }
    SettingsFrame ack;
    ack.setAckFlag();
    EXPECT_TRUE(decode(ack, ""));
    EXPECT_EQ(ack.length(), 0U);
}

TEST(SettingsFrame, DecodesEachParameter) {
    const std::pair<std::string, std::string> cases[] = {
        {be16be32(1, 1) + be16be32(2, 1) + be16be32(3, 0x64) + be16be32(4, 0x7F) +
             be16be32(5, 0x4001) + be16be32(6, 0x10000),
         "1 1 100 127 16385 65536"},
        // Unknown ones are skipped, and the last of several counts.
        {be16be32(3, 7) + be16be32(8, 1) + be16be32(0x0103, 2) + be16be32(0xFF03, 2) +
             be16be32(3, 9),
         "4096 0 9 1073741824 8388608 65535"},
        // The frame size is brought into its range.
        {be16be32(5, 100), "4096 0 100 1073741824 16384 65535"},
        {be16be32(5, 0x01000000), "4096 0 100 1073741824 16777215 65535"},
        // Bytes have their sign.
        {hex("00 01 00 00 FF FF"), "4294967295 0 100 1073741824 8388608 65535"},
        {hex("00 03 00 80 00 01"), "4096 0 4286578689 1073741824 8388608 65535"},
        {hex("00 04 80 00 00 01"), "4096 0 100 2147483649 8388608 65535"},
        {hex("00 80 00 00 00 01"), kDefaults}};
    for (const auto& [bytes, settings] : cases) {
        SettingsFrame frame;
        EXPECT_TRUE(decode(frame, bytes));
        EXPECT_EQ(describe(frame.getSettings()), settings);
    }
    SettingsFrame frame;
    EXPECT_TRUE(decode(frame, be16be32(2, 1)));
    EXPECT_EQ(frame.length(), 24U);  // push is enabled, so four values differ
}

TEST(PingFrame, EncodesItsOpaqueData) {
    PingFrame frame;
    frame.setOpaqueData(0x0102030405060708);
    expectHeader(frame, Frame::TYPE_PING_FRAME, 8);
    EXPECT_EQ(payload(frame), hex("01 02 03 04 05 06 07 08"));
    frame.setLength(42);
    frame.setAckFlag();
    EXPECT_TRUE(frame.hasAckFlag());
    frame.clearAckFlag();
    EXPECT_FALSE(frame.hasAckFlag());
    EXPECT_EQ(frame.length(), 42U);
    const PingFrame value(7);
    expectHeader(value, Frame::TYPE_SETTINGS_FRAME, 0);
    EXPECT_EQ(value.getOpaqueData(), 7U);
}

TEST(PingFrame, DecodesAnyLengthWithSigns) {
    const std::pair<std::string, uint64_t> cases[] = {
        {hex("11 12 13 14 15 16 17 18"), 0x1112131415161718},
        {hex("01 02 03 04 05 06 07 80"), 0xFFFFFFFFFFFFFF80},
        {hex("FF 00 00 00 00 00 00 01"), 0xFF00000000000001},
        {hex("11 12 13 14 15 16 17 18 19"), 0x1112131415161718},
        {hex("11 12 13"), 0x1112130000000000},  // what is missing is zero
        {hex("11 82"), 0xFF82000000000000},
        {"", 0}};
    for (const auto& [bytes, opaque] : cases) {
        PingFrame frame(5);
        EXPECT_TRUE(decode(frame, bytes));
        EXPECT_EQ(frame.getOpaqueData(), opaque);
        EXPECT_EQ(frame.length(), 8U);
    }
}

TEST(GoawayFrame, EncodesItsReservedBitMisplaced) {
    GoawayFrame frame;
    expectHeader(frame, Frame::TYPE_GOAWAY_FRAME, 8);
    frame.setReserved(true);
    frame.setLastStreamId(0x80000003);
    frame.setErrorEode(0x80000002);
    Buffer debug("d");
    frame.setAdditionalDebugData(debug);
    EXPECT_EQ(frame.length(), 9U);
    EXPECT_EQ(payload(frame), hex("00 00 00 83 80 00 00 02") + "d");
    GoawayFrame value(5, 2, Buffer("bye"));
    expectHeader(value, Frame::TYPE_SETTINGS_FRAME, 11);
    EXPECT_EQ(payload(value), hex("00 00 00 05 00 00 00 02") + "bye");
}

TEST(GoawayFrame, DecodesAnyLengthWithSigns) {
    struct Case {
        std::string bytes;
        bool reserved;
        uint32_t lastStreamId;
        uint32_t errorCode;  // without its top bit
        std::string debugData;
    };
    const Case cases[] = {
        {hex("00 00 00 05 80 00 00 02"), false, 5, 2, ""},
        {hex("FF 00 00 05 00 80 00 01") + "why", true, 0x7F000005, 0xFF800001, "why"},
        {hex("80 01 02 03 04 05"), true, 0x010203, 0x04050000, ""},
        {hex("01 02 83"), false, 0xFFFF8300, 0, ""},
        {"", false, 0, 0, ""}};
    for (const Case& each : cases) {
        GoawayFrame frame(1, 1, Buffer("old"));
        frame.setReserved(true);
        EXPECT_TRUE(decode(frame, each.bytes));
        EXPECT_EQ(frame.hasReserved(), each.reserved);
        EXPECT_EQ(frame.getLastStreamId(), each.lastStreamId);
        EXPECT_EQ(frame.getErrorCode(), each.errorCode);
        EXPECT_EQ(text(frame.getAdditionalDebugData()), each.debugData);
        EXPECT_EQ(frame.length(), 8 + each.debugData.size());
    }
}

TEST(WindowUpdateFrame, PlacesItsReservedBitOnTop) {
    WindowUpdateFrame frame;
    expectHeader(frame, Frame::TYPE_WINDOW_UPDATE_FRAME, 4);
    frame.setWindowSizeIncrement(-1);
    EXPECT_EQ(frame.getWindowSizeIncrement(), 0xFFFFFFFFU);
    EXPECT_EQ(payload(frame), hex("7F FF FF FF"));
    frame.setReserved(true);
    frame.setWindowSizeIncrement(1);
    EXPECT_EQ(payload(frame), hex("80 00 00 01"));
    const WindowUpdateFrame value(7);
    expectHeader(value, Frame::TYPE_SETTINGS_FRAME, 0);
    EXPECT_EQ(value.getWindowSizeIncrement(), 7U);
}

TEST(WindowUpdateFrame, DecodesAnyLengthUnsigned) {
    const std::tuple<std::string, bool, uint32_t> cases[] = {
        {hex("80 00 FF FF"), true, 65535}, {hex("7F 80 FF 80"), false, 0x7F80FF80},
        {hex("00 00 00 00"), false, 0},    {hex("00 00 00 01 02"), false, 1},
        {hex("81 82"), true, 0x01820000},  {"", false, 0}};
    for (const auto& [bytes, reserved, increment] : cases) {
        WindowUpdateFrame frame(9);
        frame.setReserved(true);
        EXPECT_TRUE(decode(frame, bytes));
        EXPECT_EQ(frame.hasReserved(), reserved);
        EXPECT_EQ(frame.getWindowSizeIncrement(), increment);
        EXPECT_EQ(frame.length(), 4U);
    }
}

TEST(RSTStreamFrame, EncodesItsErrorCode) {
    expectHeader(RSTStreamFrame(), Frame::TYPE_RST_STREAM_FRAME, 4);
    RSTStreamFrame value(8);
    expectHeader(value, Frame::TYPE_SETTINGS_FRAME, 0);
    EXPECT_EQ(payload(value), hex("00 00 00 08"));
    EXPECT_EQ(value.length(), 4U);  // encoding recomputes it
}

TEST(RSTStreamFrame, DecodesExactlyFourBytesWithSigns) {
    const std::tuple<std::string, bool, uint32_t> cases[] = {
        {hex("00 00 00 08"), true, 8},          {hex("00 00 00 80"), true, 0xFFFFFF80},
        {hex("80 00 00 01"), true, 0x80000001}, {hex("00 00 08"), false, 3},
        {hex("00 00 00 00 08"), false, 3},      {"", false, 3}};
    for (const auto& [bytes, decoded, errorCode] : cases) {
        RSTStreamFrame frame;
        frame.setErrorEode(3);
        frame.setLength(77);
        EXPECT_EQ(decode(frame, bytes), decoded);
        EXPECT_EQ(frame.getErrorCode(), errorCode);
        EXPECT_EQ(frame.length(), 77U);  // never recomputed here
    }
}

TEST(PriorityFrame, EncodesItsExclusiveBitMisplaced) {
    PriorityFrame frame;
    expectHeader(frame, Frame::TYPE_PRIORITY_FRAME, 5);
    frame.setStreamDependency(0xFFFFFFFF);
    frame.setWeight(255);
    EXPECT_EQ(payload(frame), hex("7F FF FF FF FF"));
    frame.setExclusive(true);
    EXPECT_TRUE(frame.hasExclusive());
    PriorityFrame value(true, 3, 16);
    expectHeader(value, Frame::TYPE_PRIORITY_FRAME, 5);
    EXPECT_EQ(payload(value), hex("00 00 00 83 10"));
}

TEST(PriorityFrame, DecodesExactlyFiveBytesWithSigns) {
    struct Case {
        std::string bytes;
        bool decoded;
        bool exclusive;
        uint32_t dependency;
        uint8_t weight;
    };
    const Case cases[] = {{hex("80 00 00 03 10"), true, true, 3, 16},
                          // Only the top byte is masked.
                          {hex("00 80 00 01 FF"), true, false, 0xFF800001, 255},
                          {hex("00 00 00 03"), false, true, 7, 7},
                          {hex("00 00 00 03 10 00"), false, true, 7, 7},
                          {"", false, true, 7, 7}};
    for (const Case& each : cases) {
        PriorityFrame frame(true, 7, 7);
        frame.setLength(77);
        EXPECT_EQ(decode(frame, each.bytes), each.decoded);
        EXPECT_EQ(frame.hasExclusive(), each.exclusive);
        EXPECT_EQ(frame.getStreamDependency(), each.dependency);
        EXPECT_EQ(frame.getWeight(), each.weight);
        EXPECT_EQ(frame.length(), each.decoded ? 5U : 77U);
    }
}

}  // namespace
