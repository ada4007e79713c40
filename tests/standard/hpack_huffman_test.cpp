#include "Http2ClientStandard/hpack/huffman.h"

#include <gtest/gtest.h>

#include <fstream>
#include <optional>
#include <random>

#include "Http2ClientStandard/hpack/huffman_codes.h"
#include "tests/support/bytes.h"
#include "tests/support/guarded.h"

namespace {

using namespace h2::hpack;
using h2test::GuardedBytes;
using h2test::hex;

// Writes exactly as much as huffmanRoom() allows: one byte more would crash.
std::optional<std::string> decoded(std::string_view coded) {
    const GuardedBytes input(coded);
    GuardedBytes out(std::string(huffmanRoom(coded.size()), '?'));
    const ptrdiff_t size = decodeHuffman(input.view(), out.data());
    if (size < 0) return std::nullopt;
    return std::string(out.data(), static_cast<size_t>(size));
}

// The code, or none when that is not shorter. Writes no more than it may.
std::optional<std::string> encoded(std::string_view text) {
    const GuardedBytes input(text);
    GuardedBytes out(std::string(text.size() + kHuffmanSlack, '?'));
    char* const end = encodeHuffman(input.view(), out.data());
    if (end == nullptr) return std::nullopt;
    return std::string(out.data(), static_cast<size_t>(end - out.data()));
}

// A coder of its own, bit by bit; `padding` follows the codes.
std::string bitwise(const std::vector<int>& symbols, const std::string& padding = {}) {
    std::string bits;
    for (const int symbol : symbols) {
        const HuffmanCode code = kHuffmanCodes[static_cast<size_t>(symbol)];
        for (int i = code.size; i-- > 0;) bits += (code.bits >> i & 1) != 0 ? '1' : '0';
    }
    bits += padding;
    std::string out;
    for (size_t i = 0; i < bits.size(); i += 8) {
        std::string byte = bits.substr(i, 8);
        byte.resize(8, '1');
        out += static_cast<char>(std::stoi(byte, nullptr, 2));
    }
    return out;
}

std::string bitwiseText(const std::string& text) {
    return bitwise(
        std::vector<int>(reinterpret_cast<const unsigned char*>(text.data()),
                         reinterpret_cast<const unsigned char*>(text.data()) + text.size()));
}

size_t freeBits(const std::vector<int>& symbols) {
    size_t bits = 0;
    for (const int symbol : symbols) bits += kHuffmanCodes[static_cast<size_t>(symbol)].size;
    return (8 - bits % 8) % 8;
}

TEST(HpackHuffman, HasTheCodesOfTheAppendix) {
    std::ifstream file(HTTP2CLIENT_SOURCE_DIR "/tests/data/hpack_huffman_codes.csv");
    std::string line;
    ASSERT_TRUE(std::getline(file, line));
    int count = 0;
    for (; std::getline(file, line); ++count) {
        unsigned symbol = 0;
        unsigned bits = 0;
        unsigned size = 0;
        ASSERT_EQ(std::sscanf(line.c_str(), "%u,%x,%u", &symbol, &bits, &size), 3) << line;
        ASSERT_LT(symbol, kHuffmanCodes.size());
        EXPECT_EQ(kHuffmanCodes[symbol].bits, bits) << symbol;
        EXPECT_EQ(kHuffmanCodes[symbol].size, size) << symbol;
    }
    EXPECT_EQ(count, 257);
}

TEST(HpackHuffman, DecodesNothingToNothing) { EXPECT_EQ(decoded(""), ""); }

TEST(HpackHuffman, DecodesEachPairOfSymbols) {
    for (int first = 0; first < 256; ++first) {
        for (int second = 0; second < 256; second += second % 16 == first % 16 ? 1 : 3) {
            const std::string text{static_cast<char>(first), static_cast<char>(second)};
            ASSERT_EQ(decoded(bitwiseText(text)), text) << first << " " << second;
        }
    }
}

TEST(HpackHuffman, DecodesEachSymbolInEachPlace) {
    for (int symbol = 0; symbol < 256; ++symbol) {
        for (size_t before = 0; before < 16; ++before) {
            const std::string text =
                std::string(before, 'a') + static_cast<char>(symbol) + std::string(before % 5, '0');
            ASSERT_EQ(decoded(bitwiseText(text)), text) << symbol << " behind " << before;
        }
    }
}

TEST(HpackHuffman, AcceptsPaddingOfOnesUpToSevenBits) {
    for (int symbol = 0; symbol < 256; ++symbol) {
        const std::vector<int> symbols(3, symbol);
        const std::string text(3, static_cast<char>(symbol));
        const size_t room = freeBits(symbols);
        EXPECT_EQ(decoded(bitwise(symbols)), text) << symbol;
        // A zero at any place of the padding.
        for (size_t i = 0; i < room; ++i) {
            std::string padding(room, '1');
            padding[i] = '0';
            EXPECT_NE(decoded(bitwise(symbols, padding)), text) << symbol << " " << i;
        }
        // A byte more than needed.
        EXPECT_EQ(decoded(bitwise(symbols, std::string(room + 8, '1'))), std::nullopt) << symbol;
    }
}

TEST(HpackHuffman, RefusesPaddingWithAZero) {
    // "aaa" has 15 bits; '&' has 8, so that no padding is needed.
    EXPECT_EQ(decoded(bitwise({'a', 'a', 'a'}, "1")), "aaa");
    EXPECT_EQ(decoded(bitwise({'a', 'a', 'a'}, "0")), std::nullopt);
    EXPECT_EQ(decoded(bitwise({'X'})), "X");
    // 'a' and three bits that start no code of three.
    for (const char* padding : {"000", "001", "010", "011", "100", "101", "110"}) {
        EXPECT_EQ(decoded(bitwise({'a'}, padding)), std::nullopt) << padding;
    }
}

TEST(HpackHuffman, RefusesPaddingOfEightBits) {
    EXPECT_EQ(decoded("\xFF"), std::nullopt);
    EXPECT_EQ(decoded("\xFF\xFF"), std::nullopt);
    EXPECT_EQ(decoded("\xFF\xFF\xFF"), std::nullopt);
    EXPECT_EQ(decoded(bitwise({'X'}, "11111111")), std::nullopt);
}

TEST(HpackHuffman, RefusesEndOfString) {
    EXPECT_EQ(decoded("\xFF\xFF\xFF\xFF"), std::nullopt);
    for (size_t before = 0; before < 20; ++before) {
        std::vector<int> symbols(before, 'a');
        symbols.push_back(kEndOfString);
        EXPECT_EQ(decoded(bitwise(symbols)), std::nullopt) << before;
        symbols.push_back('a');
        EXPECT_EQ(decoded(bitwise(symbols)), std::nullopt) << before;
    }
}

TEST(HpackHuffman, CutAnywhereIsAnErrorOrShorter) {
    const std::string text = "A text, with \xC3\xA4 and \x01 in it: /index.html?q=1";
    const std::string code = bitwiseText(text);
    for (size_t size = 0; size < code.size(); ++size) {
        const auto start = decoded(code.substr(0, size));
        EXPECT_TRUE(!start || (text.starts_with(*start) && start->size() < text.size())) << size;
    }
}

// Any two bytes are decoded as the bit by bit reading of the code has it.
TEST(HpackHuffman, DecodesAnyTwoBytesAsTheCodeSays) {
    for (int value = 0; value < 65536; ++value) {
        uint32_t bits = static_cast<uint32_t>(value) << 16;
        unsigned left = 16;
        std::optional<std::string> expected{""};
        for (bool found = true; found && left > 0;) {
            found = false;
            for (size_t symbol = 0; symbol < 256 && !found; ++symbol) {
                const HuffmanCode code = kHuffmanCodes[symbol];
                if (code.size > left || bits >> (32 - code.size) != code.bits) continue;
                *expected += static_cast<char>(symbol);
                bits <<= code.size;
                left -= code.size;
                found = true;
            }
        }
        if (left > 7 || (left > 0 && bits >> (32 - left) != (1U << left) - 1)) expected.reset();
        char out[8];
        const std::string coded = h2test::be16(static_cast<uint32_t>(value));
        const ptrdiff_t size = decodeHuffman(coded, out);
        ASSERT_EQ(size, expected ? static_cast<ptrdiff_t>(expected->size()) : -1) << value;
        ASSERT_TRUE(!expected || std::string(out, expected->size()) == *expected) << value;
    }
}

TEST(HpackHuffman, EncodesWhatBecomesShorter) {
    EXPECT_EQ(encoded("www.example.com"), hex("f1e3c2e5f23a6ba0ab90f4ff"));
    EXPECT_EQ(encoded("no-cache"), hex("a8eb10649cbf"));
    EXPECT_EQ(encoded(""), std::nullopt);
    EXPECT_EQ(encoded("a"), std::nullopt);         // one byte either way
    EXPECT_EQ(encoded("ab"), std::nullopt);        // 11 bits
    EXPECT_EQ(encoded("aaa"), hex("18c7"));        // 15 bits and one of padding
    EXPECT_EQ(encoded("XXXXXXXX"), std::nullopt);  // 8 bits each
    EXPECT_EQ(encoded(std::string(300, '\n')), std::nullopt);
}

TEST(HpackHuffman, EncodesAsBitByBitWhateverTheText) {
    std::mt19937 random(1);
    size_t shorter = 0;
    for (int round = 0; round < 20000; ++round) {
        std::string text(random() % 80, '\0');
        const bool any = round % 2 == 0;
        for (char& c : text) {
            c = any && random() % 8 == 0 ? static_cast<char>(random())
                                         : static_cast<char>(' ' + random() % 95);
        }
        const std::string code = bitwiseText(text);
        ASSERT_EQ(decoded(code), text);
        if (code.size() < text.size()) {
            ASSERT_EQ(encoded(text), code);
            ++shorter;
        } else {
            ASSERT_EQ(encoded(text), std::nullopt);
        }
    }
    EXPECT_GT(shorter, 5000U);
}

}  // namespace
