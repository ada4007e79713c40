#include "Http2Client/huffman.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/unit/guarded_buffer.h"

namespace {

using hpack::Huffman;

TEST(Huffman, DecodesOnlyTheEmptyString) {
    const auto decodes = [](const std::string& code) {
        Buffer target("stale");
        const bool decoded = Huffman::Decode(target, GuardedBuffer(code).get());
        EXPECT_EQ(target.Length(), 0U);
        return decoded;
    };
    EXPECT_TRUE(decodes(""));
    for (int byte = 0; byte < 256; ++byte) {
        EXPECT_FALSE(decodes(std::string(1, static_cast<char>(byte)))) << byte;
    }
    EXPECT_FALSE(decodes("\x1F\xFF\xFF"));
}

TEST(Huffman, EncodesLengthsOnly) {
    const std::pair<std::string, std::string> cases[] = {
        {"", ""},
        // Symbols shorter than a byte (5 bits each) are dropped.
        {"a", ""},
        {"aeiost", ""},
        // An eight-bit symbol is its own byte.
        {"&", "\x26"},
        // "a" (0x61, 5 bits): 0xFF AND (0x61 << 3 = 0x08); then "&" (0x26): AND 0x26 = 0.
        {"a&", std::string(1, '\0')},
        // " " (0x20, 6 bits): AND (0x20 << 2 = 0x80), then "X" (0x58, 8 bits): AND 0x58 = 0.
        {" X", std::string(1, '\0')},
        // "e" (0x65, 5 bits): AND (0x65 << 3 = 0x28), then "*" (0x2A, 8 bits): AND 0x2A = 0x28.
        {"e*", "\x28"},
        // Symbol 1 has 23 bits: 0x01 >> 15, 0x01 >> 7, then 7 bits are dropped.
        {"\x01", std::string(2, '\0')},
        // "\\" (0x5C) has 19 bits: 0x5C >> 11, 0x5C >> 3 = 0x0B, then 3 bits are dropped.
        {"\\", std::string("\x00\x0B", 2)},
        // Or they stay, 0x5C << 5 = 0x80, for the first byte of 0xFF (26 bits).
        {"\\\xFF", std::string("\x00\x0B\x80\xFF\xFF", 5)},
        // 0xFF has 26 bits: -1 shifted right is -1 in all three bytes.
        {"\xFF", "\xFF\xFF\xFF"},
        // 0x80 has 20 bits: -128 >> 12 = -1, -128 >> 4 = -8.
        {"\x80", "\xFF\xF8"},
    };
    for (const auto& [text, code] : cases) {
        Buffer target("stale");
        EXPECT_TRUE(Huffman::Encode(target, GuardedBuffer(text).get()));
        EXPECT_EQ(std::string(target.buffer, target.len), code) << text;
    }
}

}  // namespace
