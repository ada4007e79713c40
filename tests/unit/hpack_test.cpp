#include "Http2Client/hpack.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <tuple>
#include <type_traits>
#include <vector>

#include "tests/support/bytes.h"
#include "tests/support/capture.h"
#include "tests/unit/guarded_buffer.h"

namespace {

using h2test::hex;
using h2test::hpackIndexed;
using h2test::hpackLiteral;
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
    const bool ok = table.Decode(list, GuardedBuffer(block).get(), true);
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
    EXPECT_TRUE(empty.NameUseHuffman() && empty.ValueUseHuffman());
    EXPECT_EQ(empty.Name() + empty.Value(), "");
    const HeaderField full("n", "v");
    EXPECT_TRUE(full.NameUseHuffman() && full.ValueUseHuffman());
    EXPECT_EQ(full.Name() + full.Value(), "nv");
    HeaderField flags(false, true, "n", "v");
    EXPECT_FALSE(flags.NameUseHuffman());
    EXPECT_TRUE(flags.ValueUseHuffman());
    EXPECT_TRUE(flags.SetNameUseHuffman(true));
    EXPECT_TRUE(flags.SetValueUseHuffman(false));
    EXPECT_TRUE(flags.NameUseHuffman());
    EXPECT_FALSE(flags.ValueUseHuffman());
}

TEST(HeaderFieldRepresentation, CopiesAndMovesCarryEverythingAndLeaveTheSource) {
    HeaderFieldRepresentation source = field("n", "v", kNever);
    EXPECT_EQ(&source.constField(), &source.Field());
    EXPECT_EQ(&source.constType(), &source.Type());
    const HeaderFieldRepresentation copy(source);
    const HeaderFieldRepresentation moved(std::move(source));
    HeaderFieldRepresentation assigned;
    assigned = copy;
    HeaderFieldRepresentation moveAssigned;
    moveAssigned = std::move(assigned);
    // A moved-from field keeps its texts.
    // NOLINTNEXTLINE(bugprone-use-after-move)
    const HeaderFieldRepresentation* all[] = {&copy, &moved, &moveAssigned, &assigned, &source};
    for (const HeaderFieldRepresentation* each : all) {
        EXPECT_EQ(each->constField().Name(), "n");
        EXPECT_EQ(each->constField().Value(), "v");
        EXPECT_FALSE(each->constField().NameUseHuffman());
        EXPECT_FALSE(each->constField().ValueUseHuffman());
        EXPECT_EQ(each->constType(), kNever);
    }
}

TEST(HeaderFieldRepresentation, HasTheStandardsTypesAndASmallSize) {
    EXPECT_EQ(kIndexed, 0);
    EXPECT_EQ(kIncremental, 1);
    EXPECT_EQ(kWithout, 2);
    EXPECT_EQ(kNever, 3);
    EXPECT_EQ(sizeof(HeaderFieldRepresentation), 32U);  // a 16 MiB frame decodes to 16 Mi of them
}

TEST(HeaderField, ShowsANewTextThroughEarlierReferences) {
    const std::string longer(100, 'l');
    HeaderField made("n", "v");
    HeaderField empty;
    for (HeaderField* each : {&made, &empty}) {
        const std::string& name = each->Name();
        const std::string& value = each->Value();
        each->SetName("x");
        each->SetValue(longer);
        EXPECT_EQ(name, "x");
        EXPECT_EQ(value, longer);
        *each = HeaderField("assigned", "too");
        EXPECT_EQ(name + value, "assignedtoo");
        each->SetName("");
        EXPECT_EQ(name, "");
        const HeaderField& itself = *each;
        *each = itself;  // cppcheck-suppress selfAssignment ; it must change nothing
        EXPECT_EQ(value, "too");
    }
}

TEST(HeaderField, ChangesNoCopyAndEndsNoReferenceOfASharedText) {
    HeaderField original("n", "v");
    HeaderField changed(original);
    const std::string& former = changed.Name();
    EXPECT_EQ(&former, &original.Name());
    changed.SetName("x");
    changed.SetValue("y");
    EXPECT_EQ(changed.Name() + changed.Value(), "xy");
    EXPECT_EQ(original.Name() + original.Value(), "nv");
    EXPECT_EQ(former, "n");
    HeaderField assigned(original);
    const std::string& value = assigned.Value();
    assigned = changed;
    EXPECT_EQ(assigned.Name() + assigned.Value(), "xy");
    EXPECT_EQ(value, "v");
    EXPECT_EQ(original.Value(), "v");
}

TEST(HeaderField, TextsAreSharedAcrossThreads) {
    HeaderField shared("n", "v");
    std::atomic<int> started{0};
    const auto copy = [&] {
        ++started;
        while (started < 2) std::this_thread::yield();
        for (int i = 0; i < 500'000; ++i) {
            // NOLINTNEXTLINE(performance-unnecessary-copy-initialization): it is what is tested
            const HeaderField mine(shared);
            if (mine.Name().empty()) return;
        }
    };
    std::thread one(copy);
    std::thread other(copy);
    one.join();
    other.join();
    const std::string& name = shared.Name();
    shared.SetName("without copies again");
    EXPECT_EQ(name, "without copies again");
}

TEST(Table, HasSignaturesByValue) {
    EXPECT_TRUE((std::is_same_v<decltype(&Table::Update), void (Table::*)(List)>));
    EXPECT_TRUE((std::is_same_v<decltype(&Table::Encode), bool (Table::*)(Buffer&, List, bool)>));
}

TEST(Table, StartsEmptyWithALimitOf4096Entries) {
    const Table table;
    EXPECT_EQ(table.dynamic_table_size_max_, 4096U);
    EXPECT_TRUE(table.dynamic_table_.empty());
}

TEST(Table, FindsFullMatchesAndNamesStaticFirstThenNewest) {
    Table table;
    for (const auto& [name, value] :
         {std::pair{"x", "old"}, {":method", "PUT"}, {":method", "GET"}, {"x", "new"}}) {
        table.Append(HeaderField(name, value));
    }
    const std::tuple<const char*, const char*, uint32_t> cases[] = {{":method", "GET", 2},
                                                                    {":method", "PUT", 64},
                                                                    {":method", "", 2},
                                                                    {":method", "X", 0},
                                                                    {":status", "", 8},
                                                                    {"user-agent", "", 0},
                                                                    {"user-agend", "", 58},
                                                                    {"www-authenticate", "", 61},
                                                                    {"Host", "", 0},
                                                                    {"PUT", "", 0},
                                                                    {"", "", 0},
                                                                    {"x", "", 62},
                                                                    {"x", "new", 62},
                                                                    {"x", "old", 65},
                                                                    {"x", "none", 0}};
    for (const auto& [name, value, index] : cases) {
        EXPECT_EQ(table.Find(name, value), index) << name << " " << value;
    }
}

TEST(Table, KeepsTheNewestEntriesWithinItsLimit) {
    Table table;
    table.UpdateSize(2);
    for (const char* name : {"a", "b", "c"}) table.Append(HeaderField(name, "1"));
    EXPECT_EQ(table.Find("c", "1"), 62U);
    EXPECT_EQ(table.Find("b", ""), 63U);
    EXPECT_EQ(table.Find("a", ""), 0U);
    table.UpdateSize(4);  // keeps what is there
    for (const char* name : {"d", "e"}) table.Append(HeaderField(name, "1"));
    EXPECT_EQ(table.Find("b", "1"), 65U);
    table.UpdateSize(1);
    EXPECT_EQ(table.Find("e", ""), 62U);
    EXPECT_EQ(table.Find("d", ""), 0U);
    table.UpdateSize(0);
    table.Append(HeaderField("f", "1"));
    EXPECT_TRUE(table.dynamic_table_.empty());
}

TEST(Table, CopyHasTheLimitAndTheEntries) {
    Table table;
    table.UpdateSize(2);
    table.Append(HeaderField("a", "1"));
    Table copy(table);
    copy.Append(HeaderField("b", "2"));
    copy.Append(HeaderField("c", "3"));
    EXPECT_EQ(copy.Find("c", "3"), 62U);
    EXPECT_EQ(copy.Find("a", "1"), 0U);
    EXPECT_EQ(table.Find("a", "1"), 62U);
    EXPECT_EQ(table.Find("b", ""), 0U);
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

TEST(TableEncode, WritesEachRepresentation) {
    struct Case {
        HeaderFieldRepresentation field;
        std::string block;
    };
    const std::string v382(382, 'v');
    const std::string v427(427, 'v');
    const Case cases[] = {
        {field(":method", "GET", kIndexed), hex("82")},
        {field(":method", "", kIndexed), hex("82")},  // an empty value searches for the name only
        // Not in the tables: a literal with incremental indexing.
        {field(":method", "DELETE", kIndexed), hex("42 06") + "DELETE"},
        {field("x-a", "1", kIndexed), hex("40 03 78 2D 61 01 31")},
        // Literals with an indexed name, and with a new one.
        {field("host", "h", kIncremental), hex("66 01") + "h"},
        {field("host", "h", kWithout), hex("0F 17 01") + "h"},
        {field("host", "h", kNever), hex("1F 17 01") + "h"},
        {field(":path", "/x", kNever), hex("14 02") + "/x"},
        {field("x-a", "1", kNever), hex("10 03 78 2D 61 01 31")},
        {field("x-a", "1", kWithout), hex("00 03 78 2D 61 01 31")},
        {field("x-a", "1", kIncremental), hex("40 03 78 2D 61 01 31")},
        {field("user-agent", "u", kIncremental), hex("40 0A") + "user-agent" + hex("01") + "u"},
        // Flagged texts are lost, also those whose symbols have eight bits and more.
        {field("x-a", "1", kIncremental, true, false), hex("40 80 01 31")},
        {field("x-a", "1", kIncremental, true, true), hex("40 80 80")},
        {field("host", "1", kIncremental, true, true), hex("66 80")},
        {field("x-a", std::string(1000, 'v'), kNever, false, true), hex("10 03 78 2D 61 80")},
        {field("&&", "\\XX", kNever, true, true), hex("10 80 80")},
        // Texts end at their first NUL, their lengths do not.
        {field("x", std::string("a\0b", 3), kNever), hex("10 01 78 03 61")},
        {field(std::string("\0x", 2), "1", kNever), hex("10 02 | 01 31")},
        // Long lengths are followed by surplus bytes.
        {field("x", v382, kNever), hex("10 01 78 | 7F FF 01") + v382},
        {field("x", v427, kNever), hex("10 01 78 | 7F AC 02 00") + v427},
        // None of the four types.
        {field("x", "1", static_cast<Type>(4)), ""},
        {field("x", "1", static_cast<Type>(-1)), ""},
        {field("x", "1", static_cast<Type>(255)), ""},
    };
    List all;
    std::string block;
    for (const Case& each : cases) {
        EXPECT_EQ(encoded({each.field}), each.block);
        all.push_back(each.field);
        block += each.block;
    }
    EXPECT_EQ(encoded(all), block);
    EXPECT_EQ(all[3].constType(), kIndexed);  // the caller's list is left alone
    EXPECT_EQ(encoded(List{}), "");
}

TEST(TableEncode, GrowsItsBufferByTheGrowthRuleOnly) {
    Table table;
    Buffer buffer(1000U);
    table.Encode(buffer, {field("x", std::string(100, 'v'), kNever)}, false);
    EXPECT_EQ(buffer.Length(), 104U);
    EXPECT_EQ(buffer.max_len, 128U);
    table.Encode(buffer, {field(":method", "GET", kIndexed)}, false);
    EXPECT_EQ(buffer.max_len, 8U);
}

TEST(TableEncode, WritesLongIndexes) {
    Table table;
    for (int i = 0; i < 400; ++i) {
        table.Append(HeaderField("n" + std::to_string(i), "v"));
    }
    const auto at = [](int index) { return "n" + std::to_string(399 - (index - 62)); };
    EXPECT_EQ(encoded(table, {field(at(126), "v", kIndexed)}), hex("FE"));
    EXPECT_EQ(encoded(table, {field(at(127), "v", kIndexed)}), hex("FF 00"));
    EXPECT_EQ(encoded(table, {field(at(382), "v", kIndexed)}), hex("FF FF 01"));
    EXPECT_EQ(encoded(table, {field(at(383), "v", kIndexed)}), hex("FF 80 02 00"));
    EXPECT_EQ(encoded(table, {field(at(62), "w", kIncremental)}), hex("7E | 01 77"));
    EXPECT_EQ(encoded(table, {field(at(63), "w", kIncremental)}), hex("7F 00 | 01 77"));
    EXPECT_EQ(encoded(table, {field(at(271), "w", kNever)}), hex("1F 80 02 00 | 01 77"));
}

TEST(TableEncode, SurplusBytesAreOldContents) {
    // 49279 = 127 + 3 * 2^14: 7F 80 80 03, and zeros up to the 386 bytes of 2 + (49152 >> 7). Of
    // them the first eight are kept; the short lengths between overwrite only the first one.
    // 427 = 127 + 300: 7F AC 02, and a fourth byte that is not written.
    EXPECT_EQ(encoded({field("x", std::string(49279, 'a'), kNever),
                       field("x", std::string(427, 'v'), kNever)}),
              hex("10 01 78 | 7F 80 80 03") + std::string(382, '\0') + std::string(49279, 'a') +
                  hex("10 01 78 | 7F AC 02 03") + std::string(427, 'v'));
    // They never reach another block.
    EXPECT_EQ(encoded({field("x", std::string(427, 'v'), kNever)}),
              hex("10 01 78 | 7F AC 02 00") + std::string(427, 'v'));
}

TEST(TableEncode, NeverChangesTheTable) {
    Table table;
    table.Append(HeaderField("x", "1"));
    EXPECT_EQ(encoded(table, {field("y", "2", kIncremental)}, true), hex("40 01 79 01 32"));
    EXPECT_EQ(encoded(table, {field("y", "2", kIndexed)}, false), hex("40 01 79 01 32"));
    ASSERT_EQ(table.dynamic_table_.size(), 1U);
    EXPECT_EQ(table.dynamic_table_[0].Name(), "x");
    EXPECT_EQ(table.dynamic_table_[0].Value(), "1");
    EXPECT_EQ(table.dynamic_table_size_max_, 4096U);
    EXPECT_EQ(encoded(table, {field("x", "1", kIndexed)}), hex("BE"));
    EXPECT_EQ(encoded(table, {field("x", "2", kNever)}), hex("1F 2F 01 32"));
}

TEST(TableDecode, ReadsEachRepresentation) {
    const std::pair<std::string, std::string> cases[] = {
        {"", "ok"},
        {hex("82 86 84"), ":method=GET/0 :scheme=http/0 :path=//0 ok"},
        {hex("BA"), "user-agend=/0 ok"},
        {hpackLiteral("n", "v") + hpackLiteral("o", "w", Literal::kNeverIndexed) +
             hpackLiteral(8, "201") + hpackLiteral(54, "s", Literal::kNeverIndexed),
         "n=v/2 o=w/3 :status=201/2 server=s/3 ok"},
        {hpackLiteral("n", "v", Literal::kIncremental) +
             hpackLiteral("o", "w", Literal::kIncremental) + hpackIndexed(63) +
             hpackLiteral(62, "x"),
         "n=v/1 o=w/1 n=v/0 o=x/2 ok"},
        // A continuation byte with its top bit set counts 256 less: 127 - 125, 15 - 12.
        {hex("FF 83 00"), ":method=GET/0 ok"},
        {hex("0F F4 00 01 77"), ":method=w/2 ok"},
        // The only Huffman-coded string that decodes is the empty one.
        {hex("00 80 80"), "=/2 ok"},
        {hex("82 00 81 1F 01 31"), ":method=GET/0 failed"},  // "a"
        {hex("00 01 6E 81 1F"), "failed"},
        // Indexes outside the tables.
        {hex("82 80 84"), ":method=GET/0 failed"},
        {hex("BE"), "failed"},
        {hex("7E 01 31"), "failed"},     // literal, name 62
        {hex("1F 2F 01 31"), "failed"},  // never indexed, name 62
        {hex("FF 7F"), "failed"},        // 254
        {hex("FF FF FF FF 0F"), "failed"},
        {hex("82 FF"), ":method=GET/0 failed"},  // cut off: index 0
        {hex("82 FF 80"), ":method=GET/0 failed"},
        {hex("FF 81 00"), "failed"},  // 127 - 127 = 0
        // Strings beyond the block.
        {hex("00 02 6E"), "failed"},
        {hex("00 01 6E 02 76"), "failed"},
        {hex("00 01 6E 7F 7F 76"), "failed"},
        {hex("00 01 6E FF 7F 76"), "failed"},              // Huffman-coded
        {hex("00 01 6E 7F FF FF FF FF 00 76"), "failed"},  // wraps to a huge length
        // A literal that is cut off between its parts has empty strings.
        {hex("00"), "=/2 ok"},
        {hex("42"), ":method=/1 ok"},
        {hex("00 01 6E"), "n=/2 ok"},
        {hex("00 01 6E 7F"), "n=/2 ok"},
        {hex("0F"), "=/2 ok"},  // the index is cut off: 0, a new name
        {hex("7F"), "=/1 ok"},
        {hex("1F 80"), "=/3 ok"},
        {hex("00 FF"), "=/2 ok"},  // a Huffman-coded string's length, cut off
    };
    for (const auto& [block, outcome] : cases) {
        EXPECT_EQ(decoded(block), outcome) << h2test::toHex(block);
    }
}

TEST(TableDecode, AppendsToTheListAndTheTableWhateverTheArgumentSays) {
    for (const bool update : {true, false}) {
        Table table;
        List list = {field("before", "1", kNever)};
        const std::string block = hpackLiteral("n", "v", Literal::kIncremental) + hex("82");
        EXPECT_TRUE(table.Decode(list, GuardedBuffer(block).get(), update));
        ASSERT_EQ(list.size(), 3U);
        EXPECT_EQ(list[0].constField().Name(), "before");
        ASSERT_EQ(table.dynamic_table_.size(), 1U);
        EXPECT_EQ(table.Find("n", "v"), 62U);
    }
}

TEST(TableDecode, StoresATextOnceHoweverOftenItIsReferredTo) {
    const std::string name(100, 'n');
    const std::string value(250, 'v');
    std::string block = hpackLiteral(name, value, Literal::kIncremental);
    block += std::string(1000, hpackIndexed(62)[0]);
    for (int i = 0; i < 1000; ++i) block += hpackLiteral(62, "x", Literal::kIncremental);
    block += hex("40 00 00 | 40 00 00");  // empty texts are shared, too
    Table table;
    List list;
    ASSERT_TRUE(table.Decode(list, GuardedBuffer(block).get(), true));
    ASSERT_EQ(list.size(), 2003U);
    const HeaderField& first = list.front().constField();
    EXPECT_EQ(first.Name(), name);
    EXPECT_EQ(first.Value(), value);
    for (size_t i = 1; i <= 2000; ++i) {
        const HeaderField& each = list[i].constField();
        ASSERT_EQ(&each.Name(), &first.Name());
        ASSERT_EQ(&each.Value() == &first.Value(), i <= 1000);
        ASSERT_EQ(each.Value(), i <= 1000 ? value : "x");
    }
    EXPECT_EQ(&list[2001].constField().Name(), &list[2002].constField().Name());
    EXPECT_EQ(&list[2001].constField().Value(), &list[2002].constField().Value());
    // Table entries share them with the list, and a change of the list's field reaches none.
    EXPECT_EQ(&table.dynamic_table_.back().Value(), &first.Value());
    list.front().Field().SetName("changed");
    EXPECT_EQ(table.dynamic_table_.back().Name(), name);
    EXPECT_EQ(list[1].constField().Name(), name);
}

TEST(TableDecode, KeepsWhatCameBeforeAFailure) {
    Table table;
    EXPECT_EQ(decoded(table, hpackLiteral("n", "v", Literal::kIncremental) + hex("80") +
                                 hpackLiteral("o", "w", Literal::kIncremental)),
              "n=v/1 failed");
    ASSERT_EQ(table.dynamic_table_.size(), 1U);
    EXPECT_EQ(table.Find("n", "v"), 62U);
}

TEST(TableDecode, ReadsLongIndexes) {
    Table table;
    for (int i = 0; i < 300; ++i) table.Append(HeaderField("n" + std::to_string(i), "v"));
    EXPECT_EQ(decoded(table, hex("FE | FF 00 | FF 7F")), "n235=v/0 n234=v/0 n107=v/0 ok");
    EXPECT_EQ(decoded(table, hex("0F 32 01 77")), "n296=w/2 ok");  // 15 + 50 = 65
    EXPECT_EQ(decoded(table, hex("7F 02 01 77")), "n296=w/1 ok");  // 63 + 2 = 65
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

TEST(TableDecode, KeepsTheLastStringsFlagsForIndexedFields) {
    Table table;
    List list;
    const std::string block = hex("82 | 48 01 33") + hpackLiteral("n", "v") + hex("84 | 48 80 |") +
                              hex("00 80 80 | 84 | 48 01 33 | 48 FF");
    ASSERT_TRUE(table.Decode(list, GuardedBuffer(block).get(), true));
    std::string flags;
    for (const auto& header : list) {
        flags += header.constField().NameUseHuffman() ? 'H' : '-';
        flags += header.constField().ValueUseHuffman() ? 'H' : '-';
        flags += ' ';
    }
    EXPECT_EQ(flags, "HH H- -- -- -H HH HH H- HH ");
}

TEST(TableDecode, ReadsLengthsBeyondPosition128FromElsewhere) {
    // 140 one-byte fields, then a literal whose value length 128 is cut into 7F 01 at 142, 143:
    // the summand is read from position 143 AND 127 = 15, which holds 82 (-126): 127 - 126 = 1.
    const std::string block = std::string(140, '\x82') + hex("04 | 7F 01") + "v" + hex("84");
    Table table;
    List list;
    ASSERT_TRUE(table.Decode(list, GuardedBuffer(block).get(), true));
    ASSERT_EQ(list.size(), 142U);
    EXPECT_EQ(list[140].constField().Value(), "v");
}

TEST(TableDecode, ReadsWhatIsThereOfABlockCutAnywhere) {
    const std::string block =
        hex("82 |"                    // :method GET
            "3F E1 1F |"              // size update: 3968
            "00 02 6E 6F 02 76 77 |"  // no: vw, without indexing
            "5F 01 78 |"              // content-type: x, incremental
            "BE |"                    // entry 62
            "10 80 80");              // two empty Huffman strings, never indexed
    const std::string get = ":method=GET/0 ";
    const std::string no = get + "no=vw/2 ";
    const std::string type = no + "content-type=x/1 ";
    const std::string again = type + "content-type=x/0 ";
    struct Outcome {
        std::string text;
        uint32_t limit;
        size_t entries;
    };
    const Outcome outcomes[] = {{"ok", 4096, 0},
                                {get + "ok", 4096, 0},
                                {get + "ok", 0, 0},  // 3F: the size is cut off, and so 0
                                {get + "ok", 0, 0},
                                {get + "ok", 3968, 0},
                                {get + "=/2 ok", 3968, 0},
                                {get + "failed", 3968, 0},  // the name is cut off
                                {get + "failed", 3968, 0},
                                {get + "no=/2 ok", 3968, 0},
                                {get + "failed", 3968, 0},  // the value is cut off
                                {get + "failed", 3968, 0},
                                {no + "ok", 3968, 0},
                                {no + "content-type=/1 ok", 3968, 1},
                                {no + "failed", 3968, 0},
                                {type + "ok", 3968, 1},
                                {again + "ok", 3968, 1},
                                {again + "=/3 ok", 3968, 1},
                                {again + "=/3 ok", 3968, 1},
                                {again + "=/3 ok", 3968, 1}};
    ASSERT_EQ(std::size(outcomes), block.size() + 1);
    for (size_t cut = 0; cut <= block.size(); ++cut) {
        Table table;
        EXPECT_EQ(decoded(table, block.substr(0, cut)), outcomes[cut].text) << cut;
        EXPECT_EQ(table.dynamic_table_size_max_, outcomes[cut].limit) << cut;
        EXPECT_EQ(table.dynamic_table_.size(), outcomes[cut].entries) << cut;
    }
}

TEST(TableDecode, HoldsNoMoreThan4096Entries) {
    std::string block;
    for (int i = 0; i < 5000; ++i) block += hex("40 00 00");
    Table table;
    List list;
    ASSERT_TRUE(table.Decode(list, GuardedBuffer(block).get(), true));
    EXPECT_EQ(list.size(), 5000U);
    EXPECT_EQ(table.dynamic_table_.size(), 4096U);
}

}  // namespace
