#include <gtest/gtest.h>
#include <nghttp2/nghttp2.h>

#include <memory>
#include <random>

#include "Http2ClientStandard/hpack/static_table.h"
#include "hpack_support.h"
#include "tests/support/bytes.h"

// Random header lists to and from libnghttp2, while both sides' table sizes change.
namespace {

using namespace h2test;
using h2::hpack::Decoder;
using h2::hpack::Encoder;

constexpr int kLists = 100000;
constexpr int kDamagedBlocks = 10000;
constexpr uint32_t kOwnTable = 16384;

struct Release {
    void operator()(nghttp2_hd_deflater* deflater) const { nghttp2_hd_deflate_del(deflater); }
    void operator()(nghttp2_hd_inflater* inflater) const { nghttp2_hd_inflate_del(inflater); }
};

std::string textOf(const uint8_t* bytes, size_t size) {
    return {reinterpret_cast<const char*>(bytes), size};
}

std::optional<TestFields> inflate(nghttp2_hd_inflater* inflater, const std::string& block) {
    const auto* at = reinterpret_cast<const uint8_t*>(block.data());
    size_t left = block.size();
    TestFields fields;
    while (true) {
        nghttp2_nv field;
        int flags = 0;
        const auto used = nghttp2_hd_inflate_hd2(inflater, &field, &flags, at, left, 1);
        if (used < 0) return std::nullopt;
        at += used;
        left -= static_cast<size_t>(used);
        if ((flags & NGHTTP2_HD_INFLATE_EMIT) != 0) {
            fields.push_back({textOf(field.name, field.namelen),
                              textOf(field.value, field.valuelen),
                              (field.flags & NGHTTP2_NV_FLAG_NO_INDEX) != 0});
        }
        if ((flags & NGHTTP2_HD_INFLATE_FINAL) != 0) break;
    }
    nghttp2_hd_inflate_end_headers(inflater);
    return fields;
}

std::string deflate(nghttp2_hd_deflater* deflater, const TestFields& fields) {
    std::vector<nghttp2_nv> pairs;
    for (const TestField& field : fields) {
        const auto bytes = [](const std::string& text) {
            return reinterpret_cast<uint8_t*>(const_cast<char*>(text.data()));
        };
        pairs.push_back({bytes(field.name), bytes(field.value), field.name.size(),
                         field.value.size(),
                         static_cast<uint8_t>(field.neverIndexed ? NGHTTP2_NV_FLAG_NO_INDEX : 0)});
    }
    std::vector<uint8_t> out(nghttp2_hd_deflate_bound(deflater, pairs.data(), pairs.size()));
    const auto size =
        nghttp2_hd_deflate_hd(deflater, out.data(), out.size(), pairs.data(), pairs.size());
    EXPECT_GE(size, 0);
    return textOf(out.data(), static_cast<size_t>(size));
}

// Lists whose fields recur: of the static table, of a pool, and with random texts.
class RandomLists {
public:
    explicit RandomLists(unsigned seed) : m_random(seed) {
        for (int i = 0; i < 60; ++i) m_pool.push_back({token(), text(), one(10)});
    }

    uint32_t below(uint32_t limit) { return static_cast<uint32_t>(m_random() % limit); }
    bool one(uint32_t in) { return below(in) == 0; }

    TestFields next() {
        TestFields fields;
        for (uint32_t count = below(12); count > 0; --count) {
            TestField field = m_pool[below(static_cast<uint32_t>(m_pool.size()))];
            if (one(4)) field.value = text();
            if (one(8)) field.name = token();
            if (one(6)) {
                const auto& known = h2::hpack::kStaticTable[below(61)];
                field = {std::string(known.name), std::string(known.value)};
                if (one(2)) field.value = text();
            }
            fields.push_back(field);
        }
        return fields;
    }

private:
    std::string token() {
        std::string out(1 + below(20), '\0');
        for (char& c : out) c = static_cast<char>('a' + below(26));
        return out;
    }
    std::string text() {
        std::string out(below(one(5) ? 301 : 40), '\0');
        const bool any = one(3);
        for (char& c : out) c = static_cast<char>(any ? below(256) : 0x20 + below(95));
        return out;
    }

    std::mt19937 m_random;
    TestFields m_pool;
};

// Either side may mark more fields as never indexed than it was told to.
void expectEqual(TestFields sent, const std::optional<TestFields>& received) {
    ASSERT_TRUE(received);
    ASSERT_EQ(received->size(), sent.size());
    for (size_t i = 0; i < sent.size(); ++i) {
        EXPECT_TRUE((*received)[i].neverIndexed || !sent[i].neverIndexed);
        sent[i].neverIndexed = (*received)[i].neverIndexed;
    }
    ASSERT_EQ(*received, sent);
}

TEST(HpackPeer, DecodesWhatWeEncode) {
    RandomLists lists(7);
    Encoder encoder(kOwnTable);
    nghttp2_hd_inflater* made = nullptr;
    ASSERT_EQ(nghttp2_hd_inflate_new(&made), 0);
    const std::unique_ptr<nghttp2_hd_inflater, Release> inflater(made);
    for (int i = 0; i < kLists; ++i) {
        for (uint32_t changes = lists.one(10) ? 1 + lists.below(3) : 0; changes > 0; --changes) {
            const uint32_t size = lists.one(4) ? 0 : lists.below(20000);
            encoder.setPeerTableSize(size);
            ASSERT_EQ(nghttp2_hd_inflate_change_table_size(inflater.get(), size), 0);
        }
        const TestFields fields = lists.next();
        expectEqual(fields, inflate(inflater.get(), encodeBlock(encoder, fields)));
        if (HasFatalFailure()) FAIL() << "list " << i;
    }
}

TEST(HpackPeer, EncodesWhatWeDecode) {
    RandomLists lists(8);
    Decoder decoder;
    nghttp2_hd_deflater* made = nullptr;
    ASSERT_EQ(nghttp2_hd_deflate_new(&made, kOwnTable), 0);
    const std::unique_ptr<nghttp2_hd_deflater, Release> deflater(made);
    for (int i = 0; i < kLists; ++i) {
        for (uint32_t changes = lists.one(10) ? 1 + lists.below(3) : 0; changes > 0; --changes) {
            const uint32_t size = lists.one(4) ? 0 : lists.below(20000);
            decoder.setMaxTableSize(size);
            ASSERT_EQ(nghttp2_hd_deflate_change_table_size(deflater.get(), size), 0);
        }
        const TestFields fields = lists.next();
        expectEqual(fields, decodeBlock(decoder, deflate(deflater.get(), fields)));
        if (HasFatalFailure()) FAIL() << "list " << i;
    }
}

// Each value length and each byte, both ways.
TEST(HpackPeer, AgreesOnEachLengthAndByte) {
    nghttp2_hd_inflater* inflater = nullptr;
    nghttp2_hd_deflater* deflater = nullptr;
    ASSERT_EQ(nghttp2_hd_inflate_new(&inflater), 0);
    ASSERT_EQ(nghttp2_hd_deflate_new(&deflater, 4096), 0);
    const std::unique_ptr<nghttp2_hd_inflater, Release> freeInflater(inflater);
    const std::unique_ptr<nghttp2_hd_deflater, Release> freeDeflater(deflater);
    Encoder encoder;
    Decoder decoder;
    std::vector<std::string> values;
    for (size_t size = 0; size <= 300; ++size) {
        values.push_back(std::string(size, 'v'));     // shorter in Huffman's code
        values.push_back(std::string(size, '\x01'));  // longer, and so sent as it is
    }
    for (int byte = 0; byte < 256; ++byte) {
        for (const size_t size : {1, 5, 300}) {
            values.push_back(std::string(size, static_cast<char>(byte)));
        }
    }
    for (const std::string& value : values) {
        const TestFields fields = {{"name", value}};
        expectEqual(fields, inflate(inflater, encodeBlock(encoder, fields)));
        expectEqual(fields, decodeBlock(decoder, deflate(deflater, fields)));
    }
}

// What libnghttp2 refuses, we refuse, and the other way round; what both take, they read alike.
TEST(HpackPeer, AgreesOnDamagedBlocks) {
    RandomLists lists(9);
    int refused = 0;
    for (int i = 0; i < kDamagedBlocks; ++i) {
        Encoder encoder;
        std::string block = encodeBlock(encoder, lists.next());
        if (block.empty()) continue;
        for (uint32_t damage = lists.below(4); damage > 0; --damage) {
            block[lists.below(static_cast<uint32_t>(block.size()))] =
                static_cast<char>(lists.below(256));
        }
        if (lists.one(3)) block.resize(lists.below(static_cast<uint32_t>(block.size())));
        nghttp2_hd_inflater* made = nullptr;
        ASSERT_EQ(nghttp2_hd_inflate_new(&made), 0);
        const std::unique_ptr<nghttp2_hd_inflater, Release> inflater(made);
        Decoder decoder;
        const auto own = decodeBlock(decoder, block);
        ASSERT_EQ(own, inflate(inflater.get(), block)) << toHex(block);
        refused += own ? 0 : 1;
    }
    EXPECT_GT(refused, 1000);
    EXPECT_LT(refused, kDamagedBlocks - 1000);
}

}  // namespace
