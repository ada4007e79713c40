#include "Http2Client/huffman.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/unit/guarded_buffer.h"

namespace {

using hpack::Huffman;

std::string encoded(const std::string& text) {
    Buffer target("stale");
    EXPECT_TRUE(Huffman::Encode(target, GuardedBuffer(text).get()));
    return std::string(target.buffer, target.Length());
}

TEST(Huffman, DecodesOnlyTheEmptyString) {
    Buffer target("stale");
    EXPECT_TRUE(Huffman::Decode(target, GuardedBuffer("").get()));
    EXPECT_EQ(target.Length(), 0U);
    for (int byte = 0; byte < 256; ++byte) {
        target = "stale";
        const std::string code(1, static_cast<char>(byte));
        EXPECT_FALSE(Huffman::Decode(target, GuardedBuffer(code).get())) << byte;
        EXPECT_EQ(target.Length(), 0U);
    }
    target = "stale";
    EXPECT_FALSE(Huffman::Decode(target, GuardedBuffer("\x1F\xFF\xFF").get()));
    EXPECT_EQ(target.Length(), 0U);
}

TEST(Huffman, EncodesNothingToNothing) { EXPECT_EQ(encoded(""), ""); }

TEST(Huffman, DropsSymbolsShorterThanAByte) {
    EXPECT_EQ(encoded("a"), "");       // 5 bits
    EXPECT_EQ(encoded("aeiost"), "");  // 5 bits each
}

TEST(Huffman, WritesTheInputByteForAnEightBitSymbol) { EXPECT_EQ(encoded("&"), "\x26"); }

TEST(Huffman, CarriesShortSymbolsByAndIntoTheNextByte) {
    // "a" (0x61, 5 bits): 0xFF AND (0x61 << 3 = 0x08); then "&" (0x26, 8 bits): AND 0x26 = 0.
    EXPECT_EQ(encoded("a&"), std::string(1, '\0'));
    // " " (0x20, 6 bits): AND (0x20 << 2 = 0x80), then "X" (0x58, 8 bits): 0x80 AND 0x58 = 0.
    EXPECT_EQ(encoded(" X"), std::string(1, '\0'));
    // "e" (0x65, 5 bits): AND (0x65 << 3 = 0x28), then "*" (0x2A, 8 bits): 0x28 AND 0x2A = 0x28.
    EXPECT_EQ(encoded("e*"), "\x28");
    // "\\" (0x5C, 19 bits) writes 0x00 and 0x0B; its last 3 bits, 0x5C << 5 = 0x80, stay for the
    // first byte of 0xFF (26 bits).
    EXPECT_EQ(encoded("\\\xFF"), std::string("\x00\x0B\x80\xFF\xFF", 5));
}

TEST(Huffman, WritesLengthDividedByEightBytes) {
    // Symbol 1 has 23 bits: 0x01 >> 15, 0x01 >> 7, then 7 bits are dropped.
    EXPECT_EQ(encoded("\x01"), std::string(2, '\0'));
    // "\\" (0x5C) has 19 bits: 0x5C >> 11, 0x5C >> 3 = 0x0B, then 3 bits are dropped.
    EXPECT_EQ(encoded("\\"), std::string("\x00\x0B", 2));
}

TEST(Huffman, TakesHighBytesFromTheirOwnRowWithTheirSign) {
    // 0xFF has 26 bits: -1 shifted right is -1 in all three bytes.
    EXPECT_EQ(encoded("\xFF"), "\xFF\xFF\xFF");
    // 0x80 has 20 bits: -128 >> 12 = -1, -128 >> 4 = -8.
    EXPECT_EQ(encoded("\x80"), "\xFF\xF8");
}

}  // namespace
