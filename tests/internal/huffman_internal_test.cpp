// The code table and the decoding tree, which huffman.cpp keeps to itself.
#include "Http2Client/huffman.cpp"  // NOLINT(bugprone-suspicious-include): see the CMakeLists.txt

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <fstream>
#include <string>
#include <vector>

#include "tests/unit/guarded_buffer.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TEST_HAS_ASAN
#endif
#elif defined(__SANITIZE_ADDRESS__)
#define TEST_HAS_ASAN
#endif
#ifdef TEST_HAS_ASAN
#include <sanitizer/asan_interface.h>
#endif

namespace {

using hpack::Huffman;

TEST(HuffmanTable, HoldsTheCodesOfTheStandard) {
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

TEST(HuffmanTable, LengthsLieBetweenFiveAndThirty) {
    for (const HuffmanCode& entry : huffman_codes) {
        EXPECT_GE(entry.code_len, 5);
        EXPECT_LE(entry.code_len, 30);
        EXPECT_EQ(entry.code >> entry.code_len, 0U);
    }
}

TEST(HuffmanTable, NoCodeIsAPrefixOfAnother) {
    for (size_t a = 0; a < 257; ++a) {
        for (size_t b = 0; b < 257; ++b) {
            const HuffmanCode& shorter = huffman_codes[a];
            const HuffmanCode& longer = huffman_codes[b];
            if (a == b || shorter.code_len > longer.code_len) continue;
            EXPECT_NE(longer.code >> (longer.code_len - shorter.code_len), shorter.code)
                << a << " " << b;
        }
    }
}

TEST(HuffmanTable, IsComplete) {
    uint64_t sum = 0;  // of 2^-length, in units of 2^-30
    for (const HuffmanCode& entry : huffman_codes) sum += uint64_t{1} << (30 - entry.code_len);
    EXPECT_EQ(sum, uint64_t{1} << 30);
}

TEST(HuffmanTable, IsCanonical) {
    std::vector<std::pair<int, int>> order;  // length, symbol
    order.reserve(257);
    for (int i = 0; i < 257; ++i) order.emplace_back(huffman_codes[i].code_len, i);
    std::sort(order.begin(), order.end());
    uint32_t next = 0;
    int length = order.front().first;
    for (const auto& [codeLength, symbol] : order) {
        next <<= codeLength - length;
        length = codeLength;
        EXPECT_EQ(huffman_codes[symbol].code, next) << symbol;
        ++next;
    }
}

// The tree that was built at load, reached through what is kept for its release.
TEST(HuffmanTree, IsBuiltWholeAndCutOffFromTheRoot) {
    EXPECT_NE(Huffman::GetInstance(), nullptr);
    EXPECT_EQ(Huffman::m_huffmanRoot.left, nullptr);
    EXPECT_EQ(Huffman::m_huffmanRoot.right, nullptr);
    EXPECT_EQ(Huffman::m_huffmanRoot.value, -1);
    Huffman::node root;
    root.left = unlinked_left;
    root.right = unlinked_right;
    for (int symbol = 0; symbol < 257; ++symbol) {
        const HuffmanCode& entry = huffman_codes[symbol];
        const Huffman::node* current = &root;
        for (int bit = entry.code_len - 1; bit >= 0; --bit) {
            ASSERT_EQ(current->value, -1);
            current = ((entry.code >> bit) & 1) != 0 ? current->right : current->left;
            ASSERT_NE(current, nullptr);
        }
        EXPECT_EQ(current->value, symbol);
        EXPECT_EQ(current->left, nullptr);
        EXPECT_EQ(current->right, nullptr);
    }
}

std::vector<Huffman::node*> cutOffNodes() {
    std::vector<Huffman::node*> nodes = {unlinked_left, unlinked_right};
    for (size_t i = 0; i < nodes.size(); ++i) {
        for (Huffman::node* child : {nodes[i]->left, nodes[i]->right}) {
            if (child != nullptr) nodes.push_back(child);
        }
    }
    return nodes;
}

TEST(HuffmanTree, HasTwoChildrenAtEachInnerNode) {
    // 257 leaves and 255 inner nodes below the root: every code is in use.
    const std::vector<Huffman::node*> nodes = cutOffNodes();
    EXPECT_EQ(nodes.size(), 512U);
    for (const Huffman::node* node : nodes) {
        EXPECT_EQ(node->left == nullptr, node->value != -1);
        EXPECT_EQ(node->right == nullptr, node->value != -1);
    }
}

// Ends the process: 0 when the holder's destructor has left nothing of the tree.
[[noreturn]] void unloadAndJudge() {
    [[maybe_unused]] const std::vector<Huffman::node*> nodes = cutOffNodes();
    Huffman::m_huffmanGarbage.~HuffmanGarbage();
    bool released = unlinked_left == nullptr && unlinked_right == nullptr &&
                    Huffman::m_huffmanRoot.left == nullptr &&
                    Huffman::m_huffmanRoot.right == nullptr;
#ifdef TEST_HAS_ASAN
    for (const Huffman::node* node : nodes) {
        released = released && __asan_address_is_poisoned(node) != 0;
    }
#endif
    _exit(released ? 0 : 1);
}

TEST(HuffmanTreeDeathTest, IsReleasedAtUnload) {
    EXPECT_EXIT(unloadAndJudge(), testing::ExitedWithCode(0), "");
}

TEST(HuffmanTree, NodeKeepsItsFieldsInOrder) {
    EXPECT_EQ(offsetof(Huffman::node, left), 0U);
    EXPECT_EQ(offsetof(Huffman::node, right), 8U);
    EXPECT_EQ(offsetof(Huffman::node, value), 16U);
    EXPECT_EQ(offsetof(HuffmanCode, code), 0U);
    EXPECT_EQ(offsetof(HuffmanCode, code_len), 4U);
}

TEST(HuffmanTree, NodeStartsAsBareInnerNode) {
    const Huffman::node node;
    EXPECT_EQ(node.left, nullptr);
    EXPECT_EQ(node.right, nullptr);
    EXPECT_EQ(node.value, -1);
}

// With the tree put back under the root the decoder shows the rest of its rules.
class HuffmanWithTree : public testing::Test {
protected:
    void SetUp() override {
        Huffman::m_huffmanRoot.left = unlinked_left;
        Huffman::m_huffmanRoot.right = unlinked_right;
    }
    void TearDown() override {
        Huffman::m_huffmanRoot.left = nullptr;
        Huffman::m_huffmanRoot.right = nullptr;
    }
    static std::string decoded(std::string_view code, bool success = true) {
        Buffer target("stale");
        EXPECT_EQ(Huffman::Decode(target, GuardedBuffer(code).get()), success);
        return std::string(target.Length() == 0 ? "" : target.Address(0), target.Length());
    }
};

TEST_F(HuffmanWithTree, DecodesAndIgnoresPadding) {
    // RFC 7541, C.4.1: "www.example.com".
    EXPECT_EQ(decoded("\xf1\xe3\xc2\xe5\xf2\x3a\x6b\xa0\xab\x90\xf4\xff"), "www.example.com");
    EXPECT_EQ(decoded("\x18"), "a");  // "a" is 00011, the rest 000 is padding of any kind
    EXPECT_EQ(decoded("\x1f"), "a");
}

TEST_F(HuffmanWithTree, DecodesHighSymbolsToOneByte) {
    // 0xFF is 0x3ffffee in 26 bits, then six bits of padding.
    EXPECT_EQ(decoded("\xff\xff\xfb\xbf"), "\xff");
}

TEST_F(HuffmanWithTree, KeepsWhatCameBeforeAMissingBranch) {
    Huffman::m_huffmanRoot.right = nullptr;
    EXPECT_EQ(decoded("\x18"), "a");
    // "a" twice (00011 00011), then a 1.
    EXPECT_EQ(decoded(std::string_view("\x18\xe0\x00", 3), false), "aa");
}

TEST_F(HuffmanWithTree, StopsAtEndOfString) {
    // "a", then the 30 ones of EOS, then bits that would be more text.
    EXPECT_EQ(decoded("\x1f\xff\xff\xff\xf8\x18\x18"), "a");
}

}  // namespace
