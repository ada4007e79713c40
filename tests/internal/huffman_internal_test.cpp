// The code table and the decoding tree, which are internal to huffman.cpp.
#include "Http2Client/huffman.cpp"  // NOLINT(bugprone-suspicious-include): see the CMakeLists.txt

#include <gtest/gtest.h>

#include <cstddef>
#include <fstream>
#include <string>

#include "tests/unit/guarded_buffer.h"

namespace {

using hpack::Huffman;

TEST(HuffmanTable, HasTheCodesOfTheStandard) {
    std::ifstream csv(HTTP2CLIENT_SOURCE_DIR "/tests/data/hpack_huffman_codes.csv");
    std::string line;
    std::getline(csv, line);
    ASSERT_EQ(line, "symbol,code,code_len");
    size_t symbol = 0;
    for (; std::getline(csv, line); ++symbol) {
        ASSERT_LT(symbol, 257U);
        unsigned int listed = 0;
        unsigned int code = 0;
        unsigned int length = 0;
        ASSERT_EQ(sscanf(line.c_str(), "%u,%x,%u", &listed, &code, &length), 3);
        ASSERT_EQ(listed, symbol);
        EXPECT_EQ(huffman_codes[symbol].code, code) << symbol;
        EXPECT_EQ(huffman_codes[symbol].code_len, length) << symbol;
    }
    EXPECT_EQ(symbol, 257U);
}

TEST(HuffmanTable, IsPrefixFreeAndComplete) {
    uint64_t sum = 0;  // of 2^-length, in units of 2^-30
    for (const HuffmanCode& shorter : huffman_codes) {
        ASSERT_GE(shorter.code_len, 5);
        ASSERT_LE(shorter.code_len, 30);
        sum += uint64_t{1} << (30 - shorter.code_len);
        for (const HuffmanCode& longer : huffman_codes) {
            if (&shorter == &longer || shorter.code_len > longer.code_len) continue;
            EXPECT_NE(longer.code >> (longer.code_len - shorter.code_len), shorter.code);
        }
    }
    EXPECT_EQ(sum, uint64_t{1} << 30);
}

TEST(HuffmanTree, IsBuiltWholeAndCutOffFromTheRoot) {
    EXPECT_NE(Huffman::GetInstance(), nullptr);
    EXPECT_EQ(Huffman::m_huffmanRoot.left, nullptr);
    EXPECT_EQ(Huffman::m_huffmanRoot.right, nullptr);
    EXPECT_EQ(Huffman::m_huffmanRoot.value, -1);
    EXPECT_GE(tree.size(), 512U);  // 257 leaves and 255 inner nodes below the root
}

TEST(HuffmanTree, NodeIsBareAndKeepsItsFieldsInOrder) {
    const Huffman::node node;
    EXPECT_EQ(node.left, nullptr);
    EXPECT_EQ(node.right, nullptr);
    EXPECT_EQ(node.value, -1);
    EXPECT_EQ(offsetof(Huffman::node, left), 0U);
    EXPECT_EQ(offsetof(Huffman::node, right), 8U);
    EXPECT_EQ(offsetof(Huffman::node, value), 16U);
    EXPECT_EQ(offsetof(HuffmanCode, code), 0U);
    EXPECT_EQ(offsetof(HuffmanCode, code_len), 4U);
}

// The decoder's other rules need a tree under the root.
class HuffmanWithTree : public testing::Test {
protected:
    void SetUp() override { const Huffman builder; }
    void TearDown() override {
        Huffman::m_huffmanRoot.left = nullptr;
        Huffman::m_huffmanRoot.right = nullptr;
    }
    static std::string decoded(std::string_view code, bool success = true) {
        Buffer target("stale");
        EXPECT_EQ(Huffman::Decode(target, GuardedBuffer(code).get()), success);
        return std::string(target.buffer, target.len);
    }
};

TEST_F(HuffmanWithTree, HasALeafForEachCodeAndTwoChildrenElsewhere) {
    for (int symbol = 0; symbol < 257; ++symbol) {
        const HuffmanCode& entry = huffman_codes[symbol];
        const Huffman::node* current = &Huffman::m_huffmanRoot;
        for (int bit = entry.code_len - 1; bit >= 0; --bit) {
            ASSERT_EQ(current->value, -1);
            ASSERT_NE(current->left, nullptr);
            ASSERT_NE(current->right, nullptr);
            current = ((entry.code >> bit) & 1) != 0 ? current->right : current->left;
        }
        EXPECT_EQ(current->value, symbol);
        EXPECT_EQ(current->left, nullptr);
        EXPECT_EQ(current->right, nullptr);
    }
}

TEST_F(HuffmanWithTree, DecodesAndIgnoresPadding) {
    // RFC 7541, C.4.1: "www.example.com".
    EXPECT_EQ(decoded("\xf1\xe3\xc2\xe5\xf2\x3a\x6b\xa0\xab\x90\xf4\xff"), "www.example.com");
    EXPECT_EQ(decoded("\x18"), "a");  // "a" is 00011, the rest 000 is padding of any kind
    EXPECT_EQ(decoded("\x1f"), "a");
    // 0xFF is 0x3ffffee in 26 bits, then six bits of padding.
    EXPECT_EQ(decoded("\xff\xff\xfb\xbf"), "\xff");
}

TEST_F(HuffmanWithTree, KeepsWhatCameBeforeAMissingBranch) {
    Huffman::m_huffmanRoot.right = nullptr;
    // "a" twice (00011 00011), then a 1.
    EXPECT_EQ(decoded(std::string_view("\x18\xe0\x00", 3), false), "aa");
}

TEST_F(HuffmanWithTree, StopsAtEndOfString) {
    // "a", then the 30 ones of EOS, then bits that would be more text.
    EXPECT_EQ(decoded("\x1f\xff\xff\xff\xf8\x18\x18"), "a");
}

}  // namespace
