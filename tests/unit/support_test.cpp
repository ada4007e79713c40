// The helpers whose mistakes no other test would find: bytes that are compared with the library's,
// pages that make a read past the end crash, and time limits.

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/bytes.h"
#include "tests/support/guarded.h"
#include "tests/support/wait.h"

namespace h2test {
namespace {

TEST(Bytes, HexReadsDigitsAndSkipsSeparators) {
    EXPECT_EQ(hex("00 0a | FF:7f\n10"), std::string("\x00\x0a\xff\x7f\x10", 5));
    EXPECT_EQ(hex(""), "");
    EXPECT_EQ(hex("aabb"), "\xaa\xbb");
    EXPECT_EQ(toHex(std::string("\x00\x0a\xff", 3)), "00 0a ff");
    EXPECT_EQ(toHex(""), "");
}

TEST(Bytes, FramesAreLaidOutAsOnTheWire) {
    // length | type | flags | R and stream | payload
    EXPECT_EQ(toHex(frame(0x0A, 0x81, kReservedBit | 5, "ab")), "00 00 02 0a 81 80 00 00 05 61 62");
    EXPECT_EQ(toHex(frameWithLength(0x010203, kData, 0, 1, "x")), "01 02 03 00 00 00 00 00 01 78");
    EXPECT_EQ(toHex(settings({{1, 4096}, {4, 0x7fffffff}})),
              "00 00 0c 04 00 00 00 00 00 00 01 00 00 10 00 00 04 7f ff ff ff");
    EXPECT_EQ(toHex(settingsAck()), "00 00 00 04 01 00 00 00 00");
    EXPECT_EQ(toHex(ping(0x0102030405060708)),
              "00 00 08 06 00 00 00 00 00 01 02 03 04 05 06 07 08");
    EXPECT_EQ(toHex(goaway(3, 2, "hi")),
              "00 00 0a 07 00 00 00 00 00 00 00 00 03 00 00 00 02 68 69");
    EXPECT_EQ(toHex(windowUpdate(1, 0x8000)), "00 00 04 08 00 00 00 00 01 00 00 80 00");
    EXPECT_EQ(toHex(rstStream(7, 8)), "00 00 04 03 00 00 00 00 07 00 00 00 08");
    EXPECT_EQ(toHex(data(1, "a", kEndStream)), "00 00 01 00 01 00 00 00 01 61");
    EXPECT_EQ(toHex(dataPadded(1, "a", 2, kEndStream)), "00 00 04 00 09 00 00 00 01 02 61 00 00");
    EXPECT_EQ(toHex(headers(1, "\x88")), "00 00 01 01 04 00 00 00 01 88");
    EXPECT_EQ(toHex(continuation(1, "\x88", 0)), "00 00 01 09 00 00 00 00 01 88");
}

TEST(Bytes, HpackIntegersFollowTheirExamples) {
    EXPECT_EQ(toHex(hpackInteger(10, 5)), "0a");          // RFC 7541, C.1.1
    EXPECT_EQ(toHex(hpackInteger(1337, 5)), "1f 9a 0a");  // RFC 7541, C.1.2
    EXPECT_EQ(toHex(hpackInteger(42, 8)), "2a");          // RFC 7541, C.1.3
    EXPECT_EQ(toHex(hpackInteger(30, 5, 0xE0)), "fe");
    EXPECT_EQ(toHex(hpackInteger(31, 5)), "1f 00");
    EXPECT_EQ(toHex(hpackInteger(31 + 127, 5)), "1f 7f");
    EXPECT_EQ(toHex(hpackInteger(31 + 128, 5)), "1f 80 01");
}

TEST(Bytes, HpackFieldsFollowTheirExamples) {
    // RFC 7541, C.2.1 to C.2.4
    EXPECT_EQ(toHex(hpackLiteral("custom-key", "custom-header", Literal::kIncremental)),
              "40 0a 63 75 73 74 6f 6d 2d 6b 65 79 0d 63 75 73 74 6f 6d 2d 68 65 61 64 65 72");
    EXPECT_EQ(toHex(hpackLiteral(4, "/sample/path")), "04 0c 2f 73 61 6d 70 6c 65 2f 70 61 74 68");
    EXPECT_EQ(toHex(hpackLiteral("password", "secret", Literal::kNeverIndexed)),
              "10 08 70 61 73 73 77 6f 72 64 06 73 65 63 72 65 74");
    EXPECT_EQ(toHex(hpackIndexed(2)), "82");
    EXPECT_EQ(toHex(hpackLiteral("a", "b")), "00 01 61 01 62");
    EXPECT_EQ(toHex(hpackHuffmanString(hex("f1 e3"))), "82 f1 e3");
}

TEST(Bytes, ParserCutsFramesAndKeepsEveryField) {
    const std::string bytes =
        frame(kData, 0x09, kReservedBit | 0x7FFFFFFF, "abc") + frame(0xFF, 0, 0, "");
    const std::vector<WireFrame> frames = parseFrames(bytes);
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0], (WireFrame{3, kData, 0x09, 0x7FFFFFFF, true, "abc"}));
    EXPECT_EQ(frames[1], (WireFrame{0, 0xFF, 0, 0, false, ""}));
    EXPECT_TRUE(parseFrames("").empty());
}

char readAt(const char* bytes, size_t position) {
    return static_cast<const volatile char*>(bytes)[position];
}

TEST(GuardedBytesDeathTest, ReadingPastTheEndCrashes) {
    EXPECT_DEATH(readAt(GuardedBytes("abc").data(), 3), "");
    EXPECT_DEATH(readAt(GuardedBytes("").data(), 0), "");
    EXPECT_DEATH(readAt(GuardedBytes(std::string(4096, 'x')).data(), 4096), "");
    EXPECT_DEATH(readAt(GuardedBytes("abc", "de").data(), 5), "");
}

TEST(Wait, EndsWithTheEventOrTheLimit) {
    constexpr std::chrono::milliseconds kShort{20};
    EXPECT_FALSE(waitFor([] { return false; }, kShort));
    Event event;
    EXPECT_FALSE(event.wait(kShort));
    Counter counter;
    counter.add();
    EXPECT_FALSE(counter.waitAtLeast(2, kShort));
    std::thread other([&] {
        counter.add(2);
        event.set();
    });
    EXPECT_TRUE(counter.waitAtLeast(3));
    EXPECT_TRUE(event.wait());
    EXPECT_TRUE(waitFor([&] { return event.isSet(); }));
    other.join();
    EXPECT_EQ(counter.count(), 3u);
}

}  // namespace
}  // namespace h2test
