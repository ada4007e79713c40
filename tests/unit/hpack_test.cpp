#include "Http2Client/hpack.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/bytes.h"
#include "tests/support/capture.h"

namespace {

using h2test::hex;
using h2test::hpackIndexed;
using h2test::hpackInteger;
using h2test::hpackLiteral;
using h2test::hpackString;
using h2test::Literal;
using hpack::HeaderField;
using hpack::HeaderFieldRepresentation;
using hpack::Table;

using Type = HeaderField::HEADER_FIELD_TYPE;
constexpr Type kIndexed = HeaderField::INDEXED_HEADER_FIELD;
constexpr Type kIncremental = HeaderField::LITERAL_HEADER_FIELD_WITH_INCREMENTAL_INDEXING;
constexpr Type kWithout = HeaderField::LITERAL_HEADER_FIELD_WITHOUT_INDEXING;
constexpr Type kNever = HeaderField::LITERAL_HEADER_FIELD_NEVER_INDEXED;

using List = std::vector<HeaderFieldRepresentation>;

HeaderFieldRepresentation field(const std::string& name, const std::string& value, Type type,
                                bool nameHuffman = false, bool valueHuffman = false) {
    HeaderFieldRepresentation header;
    header.Field() = HeaderField(nameHuffman, valueHuffman, name, value);
    header.Type() = type;
    return header;
}

std::string encoded(Table& table, const List& list, bool update = false) {
    Buffer buffer("stale");
    EXPECT_TRUE(table.Encode(buffer, list, update));
    return std::string(buffer.buffer, buffer.len);
}

std::string encoded(const List& list) {
    Table table;
    return encoded(table, list);
}

// A block's outcome as text: each field as name=value/type, then the verdict.
std::string decoded(Table& table, const std::string& block) {
    List list;
    const bool ok =
        table.Decode(list, Buffer(block.data(), static_cast<unsigned>(block.size())), true);
    std::string out;
    for (const auto& header : list) {
        out += header.constField().Name() + "=" + header.constField().Value() + "/" +
               std::to_string(header.constType()) + " ";
    }
    return out + (ok ? "ok" : "failed");
}

std::string decoded(const std::string& block) {
    Table table;
    return decoded(table, block);
}

TEST(HeaderField, StartsWithHuffmanFlagsSet) {
    const HeaderField empty;
    EXPECT_TRUE(empty.NameUseHuffman());
    EXPECT_TRUE(empty.ValueUseHuffman());
    EXPECT_EQ(empty.Name() + empty.Value(), "");
    const HeaderField full("n", "v");
    EXPECT_TRUE(full.NameUseHuffman());
    EXPECT_TRUE(full.ValueUseHuffman());
    EXPECT_EQ(full.Name(), "n");
    EXPECT_EQ(full.Value(), "v");
    const HeaderField flags(false, true, "n", "v");
    EXPECT_FALSE(flags.NameUseHuffman());
    EXPECT_TRUE(flags.ValueUseHuffman());
}

TEST(HeaderField, SettersStoreAndCopiesCarryAllFour) {
    HeaderField header;
    header.SetName("n");
    header.SetValue("v");
    EXPECT_TRUE(header.SetNameUseHuffman(false));
    EXPECT_TRUE(header.SetValueUseHuffman(false));
    HeaderField copy(header);
    HeaderField assigned;
    assigned = copy;
    const HeaderField moved(std::move(copy));
    for (const HeaderField* each : {static_cast<const HeaderField*>(&assigned), &moved}) {
        EXPECT_EQ(each->Name(), "n");
        EXPECT_EQ(each->Value(), "v");
        EXPECT_FALSE(each->NameUseHuffman());
        EXPECT_FALSE(each->ValueUseHuffman());
    }
}

TEST(HeaderField, TypesHaveFixedValues) {
    EXPECT_EQ(kIndexed, 0);
    EXPECT_EQ(kIncremental, 1);
    EXPECT_EQ(kWithout, 2);
    EXPECT_EQ(kNever, 3);
}

TEST(Table, StartsEmptyWithALimitOf4096Entries) {
    const Table table;
    EXPECT_EQ(table.dynamic_table_size_max_, 4096U);
    EXPECT_TRUE(table.dynamic_table_.empty());
}

TEST(Table, FindsFullMatchesAndNames) {
    Table table;
    EXPECT_EQ(table.Find(":method", "GET"), 2U);
    EXPECT_EQ(table.Find(":method", "PUT"), 0U);
    EXPECT_EQ(table.Find(":method", ""), 2U);
    EXPECT_EQ(table.Find(":status", ""), 8U);
    EXPECT_EQ(table.Find("user-agent", ""), 0U);
    EXPECT_EQ(table.Find("user-agend", ""), 58U);
    EXPECT_EQ(table.Find("Host", ""), 0U);
}

TEST(Table, KeepsTheNewestEntriesWithinItsLimit) {
    Table table;
    table.UpdateSize(2);
    for (const char* name : {"a", "b", "c"}) table.Append(HeaderField(name, "1"));
    EXPECT_EQ(table.Find("c", "1"), 62U);
    EXPECT_EQ(table.Find("b", ""), 63U);
    EXPECT_EQ(table.Find("a", ""), 0U);
    table.UpdateSize(1);
    EXPECT_EQ(table.Find("b", ""), 0U);
    EXPECT_EQ(table.Find("c", ""), 62U);
}

TEST(Table, DropsEverythingAtALimitOfZero) {
    Table table;
    table.Append(HeaderField("a", "1"));
    table.UpdateSize(0);
    EXPECT_EQ(table.Find("a", ""), 0U);
    table.Append(HeaderField("b", "1"));
    EXPECT_EQ(table.Find("b", ""), 0U);
}

TEST(Table, NeverFindsADynamicCopyOfAStaticEntry) {
    Table table;
    table.Append(HeaderField(":method", "GET"));
    EXPECT_EQ(table.Find(":method", "GET"), 2U);
}

TEST(Table, UpdateTakesUpIncrementalLiteralsInOrder) {
    Table table;
    table.Update({field("a", "1", kIncremental), field("b", "2", kNever), field("c", "3", kIndexed),
                  field("d", "4", kWithout), field("e", "5", kIncremental)});
    ASSERT_EQ(table.dynamic_table_.size(), 2U);
    EXPECT_EQ(table.Find("e", "5"), 62U);
    EXPECT_EQ(table.Find("a", "1"), 63U);
}

TEST(Table, PrintsItsDynamicEntries) {
    h2test::CoutCapture out;
    Table table;
    table.Print();
    EXPECT_EQ(out.str(), "");
    table.Append(HeaderField("x", "1"));
    table.Print();
    EXPECT_EQ(out.str(), "(62) x:1\n");
    table.Append(HeaderField("y", "2"));
    out.clear();
    table.Print();
    EXPECT_EQ(out.str(), "(62) y:2\n(63) x:1\n");
}

TEST(TableEncode, WritesIndexedFields) {
    EXPECT_EQ(encoded({field(":method", "GET", kIndexed)}), hex("82"));
    EXPECT_EQ(encoded({field(":scheme", "https", kIndexed), field(":path", "/", kIndexed)}),
              hex("87 84"));
    EXPECT_EQ(encoded(List{}), "");
}

TEST(TableEncode, FallsBackToALiteralWithIncrementalIndexing) {
    EXPECT_EQ(encoded({field(":method", "DELETE", kIndexed)}), hex("42 06") + "DELETE");
    EXPECT_EQ(encoded({field("x-a", "1", kIndexed)}), hex("40 03") + "x-a" + hex("01") + "1");
}

TEST(TableEncode, IndexesANameAloneWhenTheValueIsEmpty) {
    EXPECT_EQ(encoded({field(":method", "", kIndexed)}), hex("82"));
}

TEST(TableEncode, WritesLiteralsWithIndexedNames) {
    EXPECT_EQ(encoded({field("host", "h", kIncremental)}), hex("66 01") + "h");
    EXPECT_EQ(encoded({field("host", "h", kWithout)}), hex("0F 17 01") + "h");
    EXPECT_EQ(encoded({field("host", "h", kNever)}), hex("1F 17 01") + "h");
    EXPECT_EQ(encoded({field(":path", "/x", kNever)}), hex("14 02") + "/x");
}

TEST(TableEncode, WritesLiteralsWithNewNames) {
    EXPECT_EQ(encoded({field("x-a", "1", kNever)}), hex("10 03 78 2D 61 01 31"));
    EXPECT_EQ(encoded({field("x-a", "1", kWithout)}), hex("00 03 78 2D 61 01 31"));
    EXPECT_EQ(encoded({field("x-a", "1", kIncremental)}), hex("40 03 78 2D 61 01 31"));
    EXPECT_EQ(encoded({field("user-agent", "u", kIncremental)}),
              hex("40 0A") + "user-agent" + hex("01") + "u");
}

TEST(TableEncode, LosesFlaggedTexts) {
    EXPECT_EQ(encoded({field("x-a", "1", kIncremental, true, false)}), hex("40 80 01 31"));
    EXPECT_EQ(encoded({field("x-a", "1", kIncremental, true, true)}), hex("40 80 80"));
    EXPECT_EQ(encoded({field("host", "1", kIncremental, true, true)}), hex("66 80"));
}

TEST(TableEncode, EndsTextsAtTheirFirstNul) {
    EXPECT_EQ(encoded({field("x", std::string("a\0b", 3), kNever)}), hex("10 01 78 03 61"));
}

TEST(TableEncode, WritesSurplusBytesBehindLongLengths) {
    EXPECT_EQ(encoded({field("x", std::string(382, 'v'), kNever)}),
              hex("10 01 78 | 7F FF 01") + std::string(382, 'v'));
    EXPECT_EQ(encoded({field("x", std::string(427, 'v'), kNever)}),
              hex("10 01 78 | 7F AC 02 00") + std::string(427, 'v'));
}

// The scratch buffer is reused: the surplus byte is what the field before left in it.
TEST(TableEncode, SurplusBytesAreOldContents) {
    const std::string both = encoded({field("x", std::string(127 + 1000, 'a'), kNever),
                                      field("x", std::string(427, 'v'), kNever)});
    // 1000 = 7*128 + 104: E8 07, then 6 bytes to make 9; its capacity of 16 falls back to 8.
    EXPECT_EQ(both, hex("10 01 78 | 7F E8 07 00 00 00 00 00 00") + std::string(1127, 'a') +
                        hex("10 01 78 | 7F AC 02 00") + std::string(427, 'v'));
}

TEST(TableEncode, NeverChangesTheTable) {
    Table table;
    table.Append(HeaderField("x", "1"));
    EXPECT_EQ(encoded(table, {field("y", "2", kIncremental)}, true), hex("40 01 79 01 32"));
    EXPECT_EQ(encoded(table, {field("y", "2", kIndexed)}, false), hex("40 01 79 01 32"));
    EXPECT_EQ(table.dynamic_table_.size(), 1U);
    EXPECT_EQ(encoded(table, {field("x", "1", kIndexed)}), hex("BE"));
    EXPECT_EQ(encoded(table, {field("x", "2", kNever)}), hex("1F 2F 01 32"));
}

TEST(TableEncode, EmitsNothingForAnUnknownType) {
    EXPECT_EQ(encoded({field("x", "1", static_cast<Type>(4)), field(":method", "GET", kIndexed)}),
              hex("82"));
}

TEST(TableDecode, ReadsIndexedFields) {
    Table table;
    EXPECT_EQ(decoded(table, hex("82 86 84")), ":method=GET/0 :scheme=http/0 :path=//0 ok");
    EXPECT_TRUE(table.dynamic_table_.empty());
    EXPECT_EQ(decoded(hex("BA")), "user-agend=/0 ok");
    EXPECT_EQ(decoded(""), "ok");
}

TEST(TableDecode, FailsOnIndexesOutsideTheTables) {
    EXPECT_EQ(decoded(hex("82 80 84")), ":method=GET/0 failed");
    EXPECT_EQ(decoded(hex("BE")), "failed");
    EXPECT_EQ(decoded(hex("7E 01 31")), "failed");        // literal, name 62
    EXPECT_EQ(decoded(hex("1F 2F 01 31")), "failed");     // never indexed, name 62
    EXPECT_EQ(decoded(hex("FF 7F")), "failed");           // 254
    EXPECT_EQ(decoded(hex("FF FF FF FF 0F")), "failed");  // wraps
}

TEST(TableDecode, ReadsTheLiteralForms) {
    EXPECT_EQ(decoded(hpackLiteral("n", "v") + hpackLiteral("o", "w", Literal::kNeverIndexed) +
                      hpackLiteral(8, "201") + hpackLiteral(54, "s", Literal::kNeverIndexed)),
              "n=v/2 o=w/3 :status=201/2 server=s/3 ok");
}

TEST(TableDecode, TakesUpIncrementalLiteralsWhateverTheArgumentSays) {
    for (const bool update : {true, false}) {
        Table table;
        List list;
        const std::string block = hpackLiteral("n", "v", Literal::kIncremental);
        EXPECT_TRUE(
            table.Decode(list, Buffer(block.data(), static_cast<unsigned>(block.size())), update));
        EXPECT_EQ(table.Find("n", "v"), 62U);
    }
}

TEST(TableDecode, ResolvesEntriesOfTheSameBlock) {
    EXPECT_EQ(decoded(hpackLiteral("n", "v", Literal::kIncremental) +
                      hpackLiteral("o", "w", Literal::kIncremental) + hpackIndexed(63) +
                      hpackLiteral(62, "x")),
              "n=v/1 o=w/1 n=v/0 o=x/2 ok");
}

TEST(TableDecode, AppliesSizeUpdatesAsEntryCounts) {
    Table table;
    EXPECT_EQ(decoded(table, hex("3F E1 1F")), "ok");
    EXPECT_EQ(table.dynamic_table_size_max_, 3968U);
    EXPECT_EQ(decoded(table, hex("21") + hpackLiteral("n", "v", Literal::kIncremental) +
                                 hpackLiteral("o", "w", Literal::kIncremental) + hex("BE BF")),
              "n=v/1 o=w/1 o=w/0 failed");
    EXPECT_EQ(decoded(table, hex("20 BE")), "failed");
    EXPECT_EQ(table.dynamic_table_size_max_, 0U);
}

TEST(TableDecode, AcceptsTheEmptyHuffmanStringOnly) {
    EXPECT_EQ(decoded(hex("00 80 80")), "=/2 ok");
    EXPECT_EQ(decoded(hex("82 00 81 1F 01 31")), ":method=GET/0 failed");  // "a", coded
    EXPECT_EQ(decoded(hex("00 01 6E 81 1F")), "failed");
}

TEST(TableDecode, KeepsTheLastStringsFlagsForIndexedFields) {
    Table table;
    List list;
    const std::string block = hex("82") + hpackLiteral("n", "v") + hex("84 | 00 80 80 | 84");
    ASSERT_TRUE(
        table.Decode(list, Buffer(block.data(), static_cast<unsigned>(block.size())), true));
    std::string flags;
    for (const auto& header : list) {
        flags += header.constField().NameUseHuffman() ? 'H' : '-';
        flags += header.constField().ValueUseHuffman() ? 'H' : '-';
        flags += ' ';
    }
    EXPECT_EQ(flags, "HH -- -- HH HH ");
}

TEST(TableDecode, FailsOnAStringBeyondTheBlock) {
    EXPECT_EQ(decoded(hex("00 02 6E")), "failed");
    EXPECT_EQ(decoded(hex("00 01 6E 02 76")), "failed");
    EXPECT_EQ(decoded(hex("00 01 6E 7F 7F 76")), "failed");
    EXPECT_EQ(decoded(hex("00 01 6E FF 7F 76")), "failed");              // Huffman, too long
    EXPECT_EQ(decoded(hex("00 01 6E 7F FF FF FF FF 00 76")), "failed");  // wraps to a huge length
}

TEST(TableDecode, ReadsACutOffLiteralAsEmptyStrings) {
    EXPECT_EQ(decoded(hex("00")), "=/2 ok");
    EXPECT_EQ(decoded(hex("42")), ":method=/1 ok");
    EXPECT_EQ(decoded(hex("00 01 6E")), "n=/2 ok");
    EXPECT_EQ(decoded(hex("0F")), "=/2 ok");  // the index is cut off: 0, a new name
    EXPECT_EQ(decoded(hex("00 01 6E 7F")), "n=/2 ok");
}

TEST(TableDecode, ReadsLengthsBeyondPosition128FromElsewhere) {
    // 140 one-byte fields, then a literal whose value length 128 is cut into 7F 01 at 142, 143:
    // the summand is read from position 143 AND 127 = 15, which holds 82 (-126): 127 - 126 = 1.
    const std::string block = std::string(140, '\x82') + hex("04 | 7F 01") + "v" + hex("84");
    Table table;
    List list;
    ASSERT_TRUE(
        table.Decode(list, Buffer(block.data(), static_cast<unsigned>(block.size())), true));
    ASSERT_EQ(list.size(), 142U);
    EXPECT_EQ(list[140].constField().Value(), "v");
}

TEST(TableDecode, AppendsToTheListItIsGiven) {
    Table table;
    List list = {field("before", "1", kNever)};
    EXPECT_TRUE(table.Decode(list, Buffer("\x82", 1), true));
    ASSERT_EQ(list.size(), 2U);
    EXPECT_EQ(list[0].constField().Name(), "before");
}

// Buffer's block is exact, so AddressSanitizer sees a read past the cut.
TEST(TableDecode, SurvivesACutAtEveryPosition) {
    const std::string block = hex("82 3F E1 1F") + hpackLiteral("name", "value") +
                              hpackLiteral(31, std::string(130, 'v'), Literal::kIncremental) +
                              hpackLiteral("x", "y", Literal::kNeverIndexed) + hpackIndexed(62) +
                              hex("00 80 80");
    for (size_t cut = 0; cut <= block.size(); ++cut) {
        const std::string head = decoded(block.substr(0, cut));
        EXPECT_TRUE(head.ends_with("ok") || head.ends_with("failed")) << cut;
        EXPECT_EQ(head.starts_with(":method=GET/0"), cut > 0) << cut;
    }
    const std::string whole = decoded(block);
    EXPECT_TRUE(whole.ends_with("=/2 ok")) << whole;
}

TEST(TableDecode, KeepsFrontInsertionCheapAtAnyLimit) {
    Table table;
    std::string block;
    for (int i = 0; i < 100000; ++i) block += hex("40 00 00");
    List list;
    ASSERT_TRUE(
        table.Decode(list, Buffer(block.data(), static_cast<unsigned>(block.size())), true));
    EXPECT_EQ(list.size(), 100000U);
    EXPECT_EQ(table.dynamic_table_.size(), 4096U);
}

}  // namespace
