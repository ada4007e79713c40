#include "Http2ClientStandard/hpack/encoder.h"

#include <gtest/gtest.h>

#include "Http2ClientStandard/hpack/static_table.h"
#include "hpack_support.h"
#include "tests/support/bytes.h"

namespace {

using namespace h2test;
using h2::Bytes;
using h2::hpack::Decoder;
using h2::hpack::Encoder;
using h2::hpack::KeptFields;

std::string hexOf(Encoder& encoder, const TestFields& fields) {
    return toHex(encodeBlock(encoder, fields));
}

TEST(HpackEncoder, WritesNothingForNoFields) {
    Encoder encoder;
    EXPECT_EQ(hexOf(encoder, {}), "");
}

TEST(HpackEncoder, FindsEachStaticField) {
    for (uint64_t index = 1; index <= 61; ++index) {
        const auto& [name, value] = h2::hpack::kStaticTable[index - 1];
        Encoder encoder;
        if (name == "cookie" || name.ends_with("authorization")) continue;  // never indexed
        EXPECT_EQ(encodeBlock(encoder, {{std::string(name), std::string(value)}}),
                  hpackIndexed(index))
            << index;
    }
}

TEST(HpackEncoder, EntersAFieldOnceAndRefersToItThen) {
    Encoder encoder;
    EXPECT_EQ(hexOf(encoder, {{"&", "*"}}), toHex(hpackLiteral("&", "*", Literal::kIncremental)));
    EXPECT_EQ(hexOf(encoder, {{"&", "*"}}), "be");
    EXPECT_EQ(hexOf(encoder, {{"&", "X"}}), toHex(hpackLiteral(62, "X", Literal::kIncremental)));
    EXPECT_EQ(hexOf(encoder, {{"&", "*"}, {"&", "X"}}), "bf be");
}

TEST(HpackEncoder, EntersNoFieldThatVaries) {
    Encoder encoder;
    for (const char* name :
         {":path", "content-length", "if-none-match", "if-modified-since", "range", "etag"}) {
        for (int i = 0; i < 2; ++i) {
            const auto block = hex(hexOf(encoder, {{name, "&*"}}));
            EXPECT_EQ(block[0] & 0xF0, 0x00) << name;
        }
    }
    EXPECT_EQ(encoder.m_table.count(), 0U);
}

TEST(HpackEncoder, NeverIndexesWhatIsWorthGuessing) {
    Encoder encoder;
    const TestFields fields = {{"authorization", "Basic abc"},
                               {"proxy-authorization", "x"},
                               {"cookie", "short=1"},
                               {"x-any", "value", true},
                               {":method", "GET", true}};
    TestFields expected = fields;
    for (TestField& field : expected) field.neverIndexed = true;
    for (int i = 0; i < 2; ++i) {
        Decoder decoder;
        EXPECT_EQ(decodeBlock(decoder, encodeBlock(encoder, fields)), expected);
    }
    EXPECT_EQ(encoder.m_table.count(), 0U);
    EXPECT_TRUE(encodeBlock(encoder, {{"cookie", std::string(20, 'c')}}).starts_with('\x60'));
    // A field that is in the table is not referred to when it must not be.
    encodeBlock(encoder, {{"x-any", "value"}});
    EXPECT_TRUE(encodeBlock(encoder, {{"x-any", "value", true}}).starts_with("\x1F\x2F"));
}

TEST(HpackEncoder, EntersNoFieldOfMoreThanHalfOfTheTable) {
    Encoder encoder(200);
    encodeBlock(encoder, {});
    encodeBlock(encoder, {{"a", std::string(68, 'v')}});
    EXPECT_EQ(encoder.m_table.count(), 0U);
    encodeBlock(encoder, {{"a", std::string(67, 'v')}});
    EXPECT_EQ(encoder.m_table.count(), 1U);
}

TEST(HpackEncoder, CodesLengthsOfEachSize) {
    for (const size_t size : {0, 1, 126, 127, 128, 200, 254, 255, 300, 20000}) {
        for (const char c : {'a', 'X', '\n'}) {  // 5, 8 and 30 bits
            Encoder encoder;
            Decoder decoder;
            const TestFields fields = {{std::string(size, c), std::string(size, c)}};
            EXPECT_EQ(decodeBlock(decoder, encodeBlock(encoder, fields)), fields) << size << c;
        }
    }
}

TEST(HpackEncoder, AnnouncesItsOwnSmallerTable) {
    Encoder encoder(100);
    EXPECT_EQ(hexOf(encoder, {}), "3f 45");
    EXPECT_EQ(hexOf(encoder, {}), "");
    EXPECT_EQ(encoder.m_table.maxSize(), 100U);
}

TEST(HpackEncoder, AnnouncesTheSmallestSizeAndThenTheLast) {
    Encoder encoder;
    encoder.setPeerTableSize(0);
    EXPECT_EQ(hexOf(encoder, {}), "20");
    encoder.setPeerTableSize(4096);
    EXPECT_EQ(hexOf(encoder, {}), "3f e1 1f");
    encoder.setPeerTableSize(4096);
    EXPECT_EQ(hexOf(encoder, {}), "");
    encodeBlock(encoder, {{"a", "b"}});
    EXPECT_EQ(encoder.m_table.count(), 1U);
    encoder.setPeerTableSize(10);
    encoder.setPeerTableSize(5);
    encoder.setPeerTableSize(4096);
    encoder.setPeerTableSize(30);
    EXPECT_EQ(hexOf(encoder, {{":method", "GET"}}), "25 3e 82");
    EXPECT_EQ(encoder.m_table.count(), 0U);
    EXPECT_EQ(encoder.m_table.maxSize(), 30U);
    EXPECT_EQ(hexOf(encoder, {{":method", "GET"}}), "82");
}

TEST(HpackEncoder, UsesNoMoreThanItIsWillingTo) {
    Encoder encoder;
    encoder.setPeerTableSize(65536);
    EXPECT_EQ(hexOf(encoder, {}), "");
    EXPECT_EQ(encoder.m_table.maxSize(), 4096U);
    Encoder larger(65536);
    EXPECT_EQ(hexOf(larger, {}), "");
    EXPECT_EQ(larger.m_table.maxSize(), 4096U);  // until the peer allows more
    larger.setPeerTableSize(100000);
    EXPECT_EQ(hexOf(larger, {}), toHex(hpackInteger(65536, 5, 0x20)));
}

TEST(HpackEncoder, TakesNamesOfTheStaticTableAndNewestOfItsOwn) {
    Encoder encoder;
    EXPECT_EQ(hexOf(encoder, {{"user-agent", "&"}}),
              toHex(hpackLiteral(58, "&", Literal::kIncremental)));
    encodeBlock(encoder, {{"own", "1"}, {"own", "2"}});
    EXPECT_EQ(hexOf(encoder, {{"own", "&"}}), toHex(hpackLiteral(62, "&", Literal::kIncremental)));
}

// The index of the table is exact: each entry is found for as long as it is there, and no longer.
TEST(HpackEncoder, FindsExactlyWhatIsInTheTable) {
    Encoder encoder(1000);
    Decoder decoder;
    for (int round = 0; round < 3000; ++round) {
        const TestFields field = {{"n" + std::to_string(round % 7), std::to_string(round % 41)}};
        bool there = false;
        for (uint64_t i = encoder.m_table.oldest(); i != encoder.m_table.end(); ++i) {
            const auto& entry = encoder.m_table.entry(i);
            there |= entry.name() == field[0].name && entry.value() == field[0].value;
        }
        const std::string block = encodeBlock(encoder, field);
        const auto last = static_cast<uint8_t>(block[round == 0 ? 3 : 0]);  // behind an update
        ASSERT_EQ((last & 0x80) != 0, there) << round;
        ASSERT_EQ(decodeBlock(decoder, block), field);
    }
}

TEST(HpackEncoder, TextsThatCollideAreToldApart) {
    // Only bytes that the hash does not look at differ.
    Encoder encoder;
    Decoder decoder;
    TestFields fields;
    for (char c = 'a'; c <= 'z'; ++c) {
        std::string value(64, 'v');
        value[10] = c;
        fields.push_back({"name", value});
    }
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(decodeBlock(decoder, encodeBlock(encoder, fields)), fields);
    }
    EXPECT_EQ(encodeBlock(encoder, fields).size(), fields.size());
}

TEST(HpackEncoder, AppendsToWhatIsThere) {
    Encoder encoder;
    Bytes out;
    out.append("before");
    const TestFields fields = {{":method", "GET"}};
    encoder.encode(out, toFields(fields));
    EXPECT_EQ(out.view(), "before\x82");
}

class KeptFieldsTest : public ::testing::Test {
protected:
    // The block of ":path" and then `head`, as another encoder and decoder would see it.
    std::string block(const std::string& path) {
        const TestFields first = {{":path", path}};
        Bytes out;
        encoder->begin(out);
        encoder->add(out, toFields(first));
        encoder->add(out, kept, toFields(head));
        std::string bytes(out.view());
        TestFields expected = first;
        expected.insert(expected.end(), head.begin(), head.end());
        EXPECT_EQ(decodeBlock(*decoder, bytes), expected);
        return bytes;
    }
    bool isKept() const { return kept.m_tableState == encoder->m_state; }

    std::optional<Encoder> encoder{std::in_place};
    std::optional<Decoder> decoder{std::in_place};
    KeptFields kept;
    TestFields head = {{":method", "GET"}, {"user-agent", "someone"}, {"x", "y"}};
};

TEST_F(KeptFieldsTest, AreKeptOnceTheTableHasThem) {
    block("/1");
    EXPECT_FALSE(isKept());  // they have just entered the table
    const std::string second = block("/2");
    EXPECT_TRUE(isKept());
    EXPECT_EQ(block("/2"), second);
    EXPECT_EQ(block("/3").size(), second.size());
}

TEST_F(KeptFieldsTest, AreEncodedAnewWhenTheTableChanges) {
    for (const char* path : {"/1", "/2", "/3"}) block(path);
    EXPECT_TRUE(isKept());
    const TestFields other = {{"other", "field"}};
    EXPECT_EQ(decodeBlock(*decoder, encodeBlock(*encoder, other)), other);
    EXPECT_FALSE(isKept());
    block("/4");
    EXPECT_TRUE(isKept());
    encoder->setPeerTableSize(0);
    block("/5");
    block("/6");
    EXPECT_TRUE(isKept());  // literals, too
    encoder->setPeerTableSize(4096);
    block("/7");
    block("/8");
    EXPECT_TRUE(isKept());
}

TEST_F(KeptFieldsTest, AreNotTakenForAnotherConnections) {
    for (int i = 0; i < 3; ++i) block("/");
    for (int i = 0; i < 3; ++i) {
        encoder.emplace();
        decoder.emplace();
        EXPECT_FALSE(isKept());
        block("/");
    }
}

TEST_F(KeptFieldsTest, AreDroppedWhenTheyBecomeOthers) {
    for (int i = 0; i < 3; ++i) block("/");
    kept.clear();
    head.pop_back();
    EXPECT_FALSE(isKept());
    block("/");
    EXPECT_TRUE(isKept());
}

TEST(HpackEncoder, StatesAreNeverUsedTwice) {
    Encoder first;
    first.m_state |= 0xFFFFFFFF;  // the last of its range
    const uint64_t last = first.m_state;
    Encoder second;
    first.changeState();
    EXPECT_GT(first.m_state, second.m_state);
    EXPECT_GT(second.m_state, last);
    EXPECT_NE(static_cast<uint32_t>(first.m_state), 0U);
}

}  // namespace
