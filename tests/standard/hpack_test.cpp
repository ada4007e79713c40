#include "Http2ClientStandard/hpack/decoder.h"

#include <gtest/gtest.h>

#include "Http2ClientStandard/hpack/static_table.h"
#include "hpack_support.h"
#include "tests/support/bytes.h"

// The decoder, rule by rule of RFC 7541, and what a hostile peer may try.
namespace {

using namespace h2test;
using h2::hpack::Decoder;
using h2::hpack::FieldList;
using h2::hpack::NameId;

const TestFields kNone;

std::optional<TestFields> decoded(const std::string& block) {
    Decoder decoder;
    return decodeBlock(decoder, block);
}

std::string sizeUpdate(uint64_t size) { return hpackInteger(size, 5, 0x20); }

std::string incremental(std::string_view name, std::string_view value) {
    return hpackLiteral(name, value, Literal::kIncremental);
}

TEST(HpackDecoder, KeepsTheOrderOfFields) {
    EXPECT_EQ(decoded(hpackLiteral("b", "1") + hpackIndexed(2) + incremental("a", "2") +
                      hpackLiteral("b", "0")),
              (TestFields{{"b", "1"}, {":method", "GET"}, {"a", "2"}, {"b", "0"}}));
}

TEST(HpackDecoder, HasTheStaticTable) {
    std::string block;
    TestFields expected;
    for (uint64_t index = 1; index <= 61; ++index) {
        block += hpackIndexed(index);
        const auto& field = h2::hpack::kStaticTable[index - 1];
        expected.push_back({std::string(field.name), std::string(field.value)});
    }
    EXPECT_EQ(decoded(block), expected);
    EXPECT_EQ(expected[0], (TestField{":authority", ""}));
    EXPECT_EQ(expected[15], (TestField{"accept-encoding", "gzip, deflate"}));
    EXPECT_EQ(expected[60], (TestField{"www-authenticate", ""}));
}

TEST(HpackDecoder, TakesEqualEntries) {
    EXPECT_EQ(decoded(incremental("a", "b") + incremental("a", "b") + hpackIndexed(62) +
                      hpackIndexed(63)),
              (TestFields(4, {"a", "b"})));
}

TEST(HpackDecoder, RefusesIndexZero) {
    EXPECT_EQ(decoded(hpackIndexed(0)), std::nullopt);
    EXPECT_EQ(decoded(hpackIndexed(2) + hpackIndexed(0)), std::nullopt);
}

TEST(HpackDecoder, RefusesIndexesBeyondBothTables) {
    for (const uint64_t index : {62ULL, 63ULL, 126ULL, 127ULL, 300ULL, 0xFFFFFFFFULL}) {
        EXPECT_EQ(decoded(hpackIndexed(index)), std::nullopt) << index;
        EXPECT_EQ(decoded(incremental("a", "b") + hpackIndexed(index + 1)), std::nullopt) << index;
        for (const Literal form :
             {Literal::kIncremental, Literal::kWithoutIndexing, Literal::kNeverIndexed}) {
            EXPECT_EQ(decoded(hpackLiteral(index, "v", form)), std::nullopt) << index;
        }
    }
    EXPECT_EQ(decoded(incremental("a", "b") + hpackIndexed(62)), (TestFields(2, {"a", "b"})));
}

TEST(HpackDecoder, FindsLongIndexes) {
    std::string block;
    TestFields expected;
    for (int i = 0; i < 110; ++i) {
        const std::string name = "n" + std::to_string(i);
        block += incremental(name, "");
        expected.push_back({name, ""});
    }
    for (int i = 0; i < 110; ++i) {
        block += hpackIndexed(62 + static_cast<uint64_t>(i));
        expected.push_back(expected[static_cast<size_t>(109 - i)]);
    }
    EXPECT_EQ(decoded(block), expected);
}

TEST(HpackDecoder, EntersOnlyLiteralsWithIncrementalIndexing) {
    EXPECT_EQ(decoded(hpackLiteral("a", "b") + hpackIndexed(62)), std::nullopt);
    EXPECT_EQ(decoded(hpackLiteral("a", "b", Literal::kNeverIndexed) + hpackIndexed(62)),
              std::nullopt);
    EXPECT_EQ(decoded(hpackIndexed(2) + hpackIndexed(62)), std::nullopt);
}

TEST(HpackDecoder, KeepsNeverIndexed) {
    EXPECT_EQ(decoded(hpackLiteral("a", "b", Literal::kNeverIndexed) +
                      hpackLiteral(23, "c", Literal::kNeverIndexed) + hpackLiteral("a", "b")),
              (TestFields{{"a", "b", true}, {"authorization", "c", true}, {"a", "b"}}));
}

TEST(HpackDecoder, TakesNamesFromBothTables) {
    EXPECT_EQ(decoded(incremental("name", "1") + hpackLiteral(62, "2") + hpackLiteral(8, "299") +
                      hpackLiteral(62, "3", Literal::kIncremental) + hpackIndexed(62)),
              (TestFields{
                  {"name", "1"}, {"name", "2"}, {":status", "299"}, {"name", "3"}, {"name", "3"}}));
}

TEST(HpackDecoder, EvictsTheOldestEntries) {
    Decoder decoder(100);  // three entries of 33 or two of more
    EXPECT_TRUE(
        decodeBlock(decoder, incremental("a", "") + incremental("b", "") + incremental("c", "")));
    EXPECT_EQ(decodeBlock(decoder, hpackIndexed(62) + hpackIndexed(63) + hpackIndexed(64)),
              (TestFields{{"c", ""}, {"b", ""}, {"a", ""}}));
    EXPECT_TRUE(decodeBlock(decoder, incremental("d", "1")));  // 34: 100 in all
    EXPECT_EQ(decoder.m_table.size(), 100U);
    EXPECT_TRUE(decodeBlock(decoder, incremental("e", "1")));  // needs two to go
    EXPECT_EQ(decodeBlock(decoder, hpackIndexed(62) + hpackIndexed(63)),
              (TestFields{{"e", "1"}, {"d", "1"}}));
    EXPECT_EQ(decoder.m_table.count(), 2U);
}

TEST(HpackDecoder, AnEntryOfTheTablesSizeFitsAndALargerOneEmptiesIt) {
    Decoder decoder(100);
    EXPECT_TRUE(
        decodeBlock(decoder, incremental("a", "") + incremental("b", std::string(67, 'v'))));
    EXPECT_EQ(decoder.m_table.count(), 1U);
    EXPECT_EQ(decoder.m_table.size(), 100U);
    EXPECT_EQ(decodeBlock(decoder, incremental("b", std::string(68, 'v'))),
              (TestFields{{"b", std::string(68, 'v')}}));
    EXPECT_EQ(decoder.m_table.count(), 0U);
    EXPECT_EQ(decoder.m_table.size(), 0U);
    EXPECT_EQ(decodeBlock(decoder, hpackIndexed(62)), std::nullopt);
}

// RFC 7541, 4.4: the name may come from an entry that has to go for the new one.
TEST(HpackDecoder, TakesANameFromAnEntryThatItsOwnInsertionEvicts) {
    Decoder decoder(80);
    const std::string name(20, 'n');
    EXPECT_TRUE(decodeBlock(decoder, incremental(name, "1")));
    EXPECT_EQ(decodeBlock(decoder, hpackLiteral(62, std::string(28, '2'), Literal::kIncremental)),
              (TestFields{{name, std::string(28, '2')}}));
    EXPECT_EQ(decodeBlock(decoder, hpackIndexed(62)), (TestFields{{name, std::string(28, '2')}}));
    // Too large for the table: it empties it, and the field is there all the same.
    EXPECT_EQ(decodeBlock(decoder, hpackLiteral(62, std::string(29, '3'), Literal::kIncremental)),
              (TestFields{{name, std::string(29, '3')}}));
    EXPECT_EQ(decoder.m_table.count(), 0U);
}

TEST(HpackDecoder, SizeUpdatesEvict) {
    Decoder decoder;
    EXPECT_TRUE(decodeBlock(decoder, incremental("a", "") + incremental("b", "")));
    EXPECT_EQ(decodeBlock(decoder, sizeUpdate(65) + hpackIndexed(62)), (TestFields{{"b", ""}}));
    EXPECT_EQ(decoder.m_table.count(), 1U);
    EXPECT_EQ(decodeBlock(decoder, sizeUpdate(0) + sizeUpdate(4096)), kNone);
    EXPECT_EQ(decodeBlock(decoder, hpackIndexed(62)), std::nullopt);
}

TEST(HpackDecoder, RefusesSizeUpdatesAboveTheLimit) {
    EXPECT_EQ(decoded(sizeUpdate(4096)), kNone);
    EXPECT_EQ(decoded(sizeUpdate(4097)), std::nullopt);
    EXPECT_EQ(decoded(sizeUpdate(0xFFFFFFFF)), std::nullopt);
    Decoder larger(65536);
    EXPECT_EQ(larger.m_table.maxSize(), 4096U);
    EXPECT_EQ(decodeBlock(larger, sizeUpdate(65536)), kNone);
    EXPECT_EQ(larger.m_table.maxSize(), 65536U);
    EXPECT_EQ(decodeBlock(larger, sizeUpdate(65537)), std::nullopt);
    Decoder none(0);
    EXPECT_EQ(decodeBlock(none, incremental("a", "b")), (TestFields{{"a", "b"}}));
    EXPECT_EQ(decodeBlock(none, hpackIndexed(62)), std::nullopt);
}

TEST(HpackDecoder, RefusesSizeUpdatesBehindAField) {
    EXPECT_EQ(decoded(sizeUpdate(0) + hpackIndexed(2)), (TestFields{{":method", "GET"}}));
    EXPECT_EQ(decoded(hpackIndexed(2) + sizeUpdate(0)), std::nullopt);
    EXPECT_EQ(decoded(hpackLiteral("a", "b") + sizeUpdate(4096)), std::nullopt);
    EXPECT_EQ(decoded(sizeUpdate(0) + incremental("a", "b") + sizeUpdate(0)), std::nullopt);
}

TEST(HpackDecoder, WantsASizeUpdateOnceAReductionIsAcknowledged) {
    const auto reduced = [](const std::string& block) {
        Decoder decoder;
        decoder.setMaxTableSize(100);
        decoder.setMaxTableSize(1000);
        return decodeBlock(decoder, block);
    };
    EXPECT_EQ(reduced(""), std::nullopt);
    EXPECT_EQ(reduced(hpackIndexed(2)), std::nullopt);
    EXPECT_EQ(reduced(sizeUpdate(101)), std::nullopt);  // the smallest has to come first
    EXPECT_EQ(reduced(sizeUpdate(1000)), std::nullopt);
    EXPECT_EQ(reduced(sizeUpdate(100)), kNone);
    EXPECT_EQ(reduced(sizeUpdate(0) + sizeUpdate(1000) + hpackIndexed(2)),
              (TestFields{{":method", "GET"}}));
    EXPECT_EQ(reduced(sizeUpdate(100) + sizeUpdate(1001)), std::nullopt);

    Decoder decoder;
    decoder.setMaxTableSize(100);
    EXPECT_EQ(decodeBlock(decoder, sizeUpdate(100)), kNone);
    EXPECT_EQ(decodeBlock(decoder, ""), kNone);  // once is enough
    decoder.setMaxTableSize(100);                // no reduction
    EXPECT_EQ(decodeBlock(decoder, ""), kNone);
    decoder.setMaxTableSize(4096);
    EXPECT_EQ(decodeBlock(decoder, ""), kNone);
    EXPECT_EQ(decodeBlock(decoder, sizeUpdate(4096)), kNone);
}

TEST(HpackDecoder, RefusesIntegersBeyond32BitsOrFiveBytes) {
    // A string length of 2^32 - 1 is too long for the block; a size update shows the value.
    Decoder decoder(0xFFFFFFFF);
    EXPECT_EQ(decodeBlock(decoder, hex("3f e0 ff ff ff 0f")), kNone);
    EXPECT_EQ(decoder.m_table.maxSize(), 0xFFFFFFFF);
    EXPECT_EQ(decodeBlock(decoder, hex("3f e1 ff ff ff 0f")), std::nullopt);  // 2^32
    EXPECT_EQ(decodeBlock(decoder, hex("3f ff ff ff ff 7f")), std::nullopt);
    EXPECT_EQ(decodeBlock(decoder, hex("3f 80 80 80 80 00")), kNone);  // 31, with zeros
    EXPECT_EQ(decoder.m_table.maxSize(), 31U);
    EXPECT_EQ(decodeBlock(decoder, hex("3f 80 80 80 80 80 00")), std::nullopt);
    for (const char* first : {"ff", "7f", "1f", "0f"}) {
        for (size_t more = 0; more < 12; ++more) {
            const std::string block = hex(first) + std::string(more, '\xFF');
            EXPECT_EQ(decoded(block), std::nullopt) << first << " " << more;
            EXPECT_EQ(decoded(block + '\x7F'), std::nullopt) << first << " " << more;
        }
    }
}

TEST(HpackDecoder, RefusesStringsBeyondTheBlockBeforeMemoryIsTaken) {
    for (const uint64_t length : {2ULL, 127ULL, 1ULL << 28, 0xFFFFFFFFULL}) {
        for (const uint8_t huffman : {0x00, 0x80}) {
            const std::string text = hpackInteger(length, 7, huffman) + "a";
            for (const std::string& block : {hex("40") + text, hex("00") + hpackString("n") + text,
                                             hex("51") + text, hex("14") + text}) {
                Decoder decoder;
                FieldList list;
                EXPECT_FALSE(decoder.decode(GuardedBytes(block).view(), list)) << length;
                EXPECT_LT(list.m_texts.capacity(), 4096U);
            }
        }
    }
}

TEST(HpackDecoder, DecodesHuffmanNamesAndValues) {
    EXPECT_EQ(decoded(hex("40 88 25a849e95ba97d7f 89 25a849e95bb8e8b4bf") + hpackIndexed(62)),
              (TestFields(2, {"custom-key", "custom-value"})));
    EXPECT_EQ(decoded(hex("00 80 80")), (TestFields{{"", ""}}));
}

TEST(HpackDecoder, RefusesBadHuffmanCodes) {
    for (const char* bad : {"81 ff", "81 18", "84 ffffffff", "82 18c0", "83 ffffff"}) {
        EXPECT_EQ(decoded(hex("00") + hpackString("n") + hex(bad)), std::nullopt) << bad;
        EXPECT_EQ(decoded(hex("00") + hex(bad) + hpackString("v")), std::nullopt) << bad;
        EXPECT_EQ(decoded(hex("51") + hex(bad)), std::nullopt) << bad;
    }
}

TEST(HpackDecoder, TakesValuesOfEachLengthAndByte) {
    for (size_t size = 0; size <= 300; ++size) {
        const std::string value(size, 'v');
        Decoder decoder;
        EXPECT_EQ(decodeBlock(decoder, incremental("n", value) + hpackIndexed(62)),
                  (TestFields(2, {"n", value})))
            << size;
    }
    for (int byte = 0; byte < 256; ++byte) {
        const std::string text(1, static_cast<char>(byte));
        EXPECT_EQ(decoded(incremental(text, text) + hpackIndexed(62)),
                  (TestFields(2, {text, text})));
    }
}

// The texts that fields refer to stay where they are while the table moves on.
TEST(HpackDecoder, KeepsTheTextsOfAListWhileTheTableTurnsOver) {
    Decoder decoder(300);
    FieldList list;
    TestFields expected;
    for (int i = 0; i < 200; ++i) {
        const std::string value = std::to_string(i) + std::string(static_cast<size_t>(i) % 60, 'v');
        ASSERT_TRUE(decoder.decode(
            incremental("n", value) + hpackIndexed(62) + hpackLiteral("a", value), list));
        expected.insert(expected.end(), {{"n", value}, {"n", value}, {"a", value}});
        ASSERT_EQ(fieldsOf(list), expected) << i;
    }
}

// The list refers to entries while the table moves its texts: neither takes new memory for it.
TEST(HpackDecoder, AllocatesNothingInASteadyState) {
    Decoder decoder(300);
    FieldList list;
    const char* tableTexts = nullptr;
    const char* listTexts = nullptr;
    const void* fields = nullptr;
    for (int i = 0; i < 1000; ++i) {
        list.clear();
        const std::string value =
            std::to_string(1000 + i) + std::string(static_cast<size_t>(i) % 30, 'v');
        ASSERT_TRUE(decoder.decode(
            incremental("n", value) + hpackIndexed(62) + incremental("m", value) + hpackIndexed(63),
            list));
        ASSERT_EQ(list.value(3), value);
        if (i == 100) {
            tableTexts = decoder.m_table.m_texts.bytes();
            listTexts = list.m_texts.data();
            fields = list.m_fields.get();
        } else if (i > 100) {
            ASSERT_EQ(decoder.m_table.m_texts.bytes(), tableTexts) << i;
            ASSERT_EQ(list.m_texts.data(), listTexts) << i;
            ASSERT_EQ(list.m_fields.get(), fields) << i;
        }
    }
}

TEST(HpackDecoder, KeepsTheTextsOfAListThatOutlivesTheDecoder) {
    FieldList first;
    FieldList second;
    {
        Decoder decoder(300);
        ASSERT_TRUE(decoder.decode(incremental("n", "v1") + hpackIndexed(62), first));
        ASSERT_TRUE(decoder.decode(hpackIndexed(62), second));
        for (int i = 0; i < 100; ++i) {
            ASSERT_TRUE(decodeBlock(decoder, incremental("other", std::string(50, 'x'))));
        }
    }
    EXPECT_EQ(fieldsOf(first), (TestFields(2, {"n", "v1"})));
    EXPECT_EQ(fieldsOf(second), (TestFields(1, {"n", "v1"})));
}

TEST(HpackDecoder, KeepsTheTableRightBeyondTheListsLimit) {
    Decoder decoder;
    FieldList list;
    list.setLimit(70);
    ASSERT_TRUE(decoder.decode(incremental("a", "1") + incremental("b", "2") +
                                   incremental("c", "3") + hpackIndexed(64) + hpackIndexed(2),
                               list));
    EXPECT_TRUE(list.overflow());
    EXPECT_EQ(list.octets(), 4 * 34U + 42U);
    EXPECT_EQ(fieldsOf(list), (TestFields{{"a", "1"}, {"b", "2"}}));
    EXPECT_EQ(decodeBlock(decoder, hpackIndexed(62) + hpackIndexed(63) + hpackIndexed(64)),
              (TestFields{{"c", "3"}, {"b", "2"}, {"a", "1"}}));
    EXPECT_EQ(decoder.decode(hpackIndexed(0), list), false);
}

// 16 KB of a block, each byte of which stands for a field of 4 KB.
TEST(HpackDecoder, AListOfReferencesToALargeEntryCostsNoMemory) {
    Decoder decoder;
    ASSERT_TRUE(decodeBlock(decoder, incremental("n", std::string(4000, 'v'))));
    FieldList list;
    list.setLimit(64 * 1024);
    ASSERT_TRUE(decoder.decode(std::string(16384, '\xBE'), list));
    EXPECT_TRUE(list.overflow());
    EXPECT_EQ(list.octets(), 16384 * 4033ULL);
    EXPECT_EQ(list.size(), 16U);
    EXPECT_EQ(list.m_texts.capacity(), 0U);
}

TEST(HpackDecoder, ResizingUpAndDownCostsNoMemory) {
    Decoder decoder;
    std::string block;
    for (int i = 0; i < 3000; ++i) block += sizeUpdate(4096) + sizeUpdate(0);
    block += sizeUpdate(4096) + incremental("a", std::string(3000, 'v'));
    for (int i = 0; i < 20; ++i) ASSERT_TRUE(decodeBlock(decoder, block));
    EXPECT_EQ(decoder.m_table.count(), 1U);
    EXPECT_LE(decoder.m_table.m_textsCapacity, 2 * 4096U);
}

TEST(HpackDecoder, BoundsTheTablesMemoryWhateverEntersIt) {
    Decoder decoder;
    for (size_t i = 0; i < 5000; ++i) {
        ASSERT_TRUE(decodeBlock(decoder, incremental("n", std::string(i * 37 % 4100, 'v'))));
    }
    EXPECT_LE(decoder.m_table.m_textsCapacity, 2 * 4096U);
    for (int i = 0; i < 1000; ++i) ASSERT_TRUE(decodeBlock(decoder, incremental("", "")));
    EXPECT_EQ(decoder.m_table.count(), 128U);
    EXPECT_EQ(decoder.m_table.m_capacity, 128U);
}

TEST(HpackDecoder, AnEmptyTableTakesNoMemory) {
    Decoder decoder;
    EXPECT_EQ(decoder.m_table.m_textsCapacity, 0U);
    EXPECT_EQ(decoder.m_table.m_capacity, 0U);
}

TEST(HpackDecoder, MarksBadTextsWhereverTheyComeFrom) {
    const auto malformed = [](std::initializer_list<std::string> blocks) {
        Decoder decoder;
        FieldList list;
        for (const std::string& block : blocks) {
            list.clear();
            EXPECT_TRUE(decoder.decode(block, list));
        }
        return list.malformed();
    };
    EXPECT_FALSE(malformed({hpackLiteral("a", "b") + hpackIndexed(2)}));
    EXPECT_TRUE(malformed({hpackLiteral("A", "b")}));
    EXPECT_TRUE(malformed({hpackLiteral("a", "b\n")}));
    EXPECT_TRUE(malformed({incremental("a", " b")}));
    EXPECT_TRUE(malformed({incremental("A", "b"), hpackIndexed(62)}));
    EXPECT_TRUE(malformed({incremental("a", "\r"), hpackIndexed(62)}));
    EXPECT_TRUE(malformed({incremental("a", "\r"), hpackIndexed(62) + hpackIndexed(2)}));
    // A name from an entry whose value was bad is good, and the other way round.
    EXPECT_FALSE(malformed({incremental("a", "\r"), hpackLiteral(62, "b")}));
    EXPECT_TRUE(malformed({incremental("A", "b"), hpackLiteral(62, "b")}));
}

TEST(HpackDecoder, TellsNamesApart) {
    Decoder decoder;
    FieldList list;
    ASSERT_TRUE(decoder.decode(hpackIndexed(8) + hpackLiteral(":status", "1") + hpackIndexed(2) +
                                   incremental("te", "trailers") + hpackIndexed(62) +
                                   hpackLiteral(62, "x") + hpackIndexed(28) + hpackIndexed(57) +
                                   hpackIndexed(55) + hpackIndexed(32) + hpackIndexed(33),
                               list));
    const NameId kExpected[] = {
        NameId::kStatus,    NameId::kStatus, NameId::kOtherPseudo,   NameId::kTe,
        NameId::kTe,        NameId::kTe,     NameId::kContentLength, NameId::kConnectionSpecific,
        NameId::kSetCookie, NameId::kCookie, NameId::kOther};
    ASSERT_EQ(list.size(), std::size(kExpected));
    for (size_t i = 0; i < list.size(); ++i) EXPECT_EQ(list.id(i), kExpected[i]) << i;
}

}  // namespace
