// The integer codec and the tables' helpers, which hpack.cpp keeps to itself.
#include "Http2Client/hpack.cpp"  // NOLINT(bugprone-suspicious-include): see the CMakeLists.txt

#include <gtest/gtest.h>

#include <string>

#include "tests/support/bytes.h"
#include "tests/unit/guarded_buffer.h"

namespace {

using h2test::hex;

std::string text(const Buffer& buffer) { return std::string(buffer.buffer, buffer.len); }

std::string integer(uint32_t value, uint8_t prefix, uint8_t pattern) {
    Buffer buffer;
    EncodeInteger(buffer, value, prefix, pattern);
    return text(buffer);
}

uint32_t decoded(const std::string& bytes, uint8_t prefix, uint32_t& offset) {
    return DecodeInteger(GuardedBuffer(bytes).get(), offset, prefix);
}

uint32_t decoded(const std::string& bytes, uint8_t prefix) {
    uint32_t offset = 0;
    return decoded(bytes, prefix, offset);
}

TEST(PrefixMax, IsAllOnesOfEachPrefix) {
    for (int n = 0; n <= 8; ++n) EXPECT_EQ(prefix_max[n], (1 << n) - 1);
}

TEST(EncodeInteger, WritesSmallValuesIntoThePrefix) {
    EXPECT_EQ(integer(10, 5, 0), hex("0A"));
    EXPECT_EQ(integer(30, 5, 0xE0), hex("FE"));
    EXPECT_EQ(integer(10, 5, 0xFF), hex("EA"));  // pattern bits inside the prefix are dropped
    EXPECT_EQ(integer(126, 7, 0x80), hex("FE"));
}

TEST(EncodeInteger, WritesContinuationBytes) {
    EXPECT_EQ(integer(127, 7, 0x80), hex("FF 00"));
    EXPECT_EQ(integer(31, 5, 0), hex("1F 00"));
    EXPECT_EQ(integer(127 + 127, 7, 0), hex("7F 7F"));
    EXPECT_EQ(integer(127 + 128, 7, 0), hex("7F 80 01"));
    EXPECT_EQ(integer(127 + 255, 7, 0), hex("7F FF 01"));
}

TEST(EncodeInteger, IsLongerThanTheIntegerFrom256Up) {
    EXPECT_EQ(integer(1337, 5, 0), hex("1F 9A 0A") + std::string(9, '\0'));
    EXPECT_EQ(integer(127 + 256, 7, 0), hex("7F 80 02 00"));
    EXPECT_EQ(integer(127 + 300, 7, 0), hex("7F AC 02 00"));
    EXPECT_EQ(integer(127 + 16384, 7, 0), hex("7F 80 80 01") + std::string(126, '\0'));
}

TEST(EncodeInteger, WritesTheLargestValue) {
    const std::string bytes = integer(0xFFFFFFFF, 7, 0x80);
    EXPECT_EQ(bytes.size(), 0x1FFFFFFU + 2);
    EXPECT_EQ(bytes.substr(0, 8), hex("FF 80 FF FF FF 0F 00 00"));
    EXPECT_EQ(bytes.find_first_not_of('\0', 6), std::string::npos);
}

TEST(EncodeInteger, LeavesOldContentsInTheSurplusBytes) {
    Buffer buffer("abcdefgh");
    EncodeInteger(buffer, 127 + 300, 7, 0);
    EXPECT_EQ(text(buffer), hex("7F AC 02") + "d");
    buffer = "abcdefghijklmnop";
    EncodeInteger(buffer, 1337, 5, 0);  // 12 bytes long, within the same capacity
    EXPECT_EQ(text(buffer), hex("1F 9A 0A") + "defghijkl");
}

TEST(EncodeInteger, EmptiesTheBufferForAnImpossiblePrefix) {
    for (const uint8_t prefix : {0, 9, 255}) {
        Buffer buffer("old");
        EncodeInteger(buffer, 1, prefix, 0);
        EXPECT_EQ(buffer.Length(), 0U);
    }
}

TEST(DecodeInteger, ReadsTheShortestAndTheLongestPrefix) {
    uint32_t offset = 0;
    EXPECT_EQ(decoded(hex("FE"), 1, offset), 0U);
    EXPECT_EQ(offset, 1U);
    EXPECT_EQ(decoded(hex("01 05"), 1), 6U);
    EXPECT_EQ(decoded(hex("FE"), 8), 254U);
    EXPECT_EQ(decoded(hex("FF 01"), 8), 256U);
}

TEST(EncodeInteger, WritesTheShortestPrefix) {
    EXPECT_EQ(integer(0, 1, 0xFE), hex("FE"));
    EXPECT_EQ(integer(1, 1, 0xFE), hex("FF 00"));
}

TEST(EncodeInteger, WritesTheEightBitPrefix) {
    EXPECT_EQ(integer(254, 8, 0), hex("FE"));
    EXPECT_EQ(integer(255, 8, 0), hex("FF 00"));
}

TEST(DecodeInteger, ReadsThePrefixAlone) {
    uint32_t offset = 1;
    EXPECT_EQ(decoded(hex("FF EA 00"), 5, offset), 10U);
    EXPECT_EQ(offset, 2U);
}

TEST(DecodeInteger, ReadsOneContinuationByteExactly) {
    for (int byte = 0; byte < 0x80; ++byte) {
        uint32_t offset = 0;
        EXPECT_EQ(decoded(std::string("\x7F") + static_cast<char>(byte), 7, offset), 127U + byte);
        EXPECT_EQ(offset, 2U);
    }
}

TEST(DecodeInteger, AddsContinuationBytesWithTheirSign) {
    EXPECT_EQ(decoded(hex("7F AD 01"), 7), 172U);
    EXPECT_EQ(decoded(hex("1F 9A 0A"), 5), 1209U);
    EXPECT_EQ(decoded(hex("3F E1 1F"), 5), 3968U);
    EXPECT_EQ(decoded(hex("7F 80 00"), 7), 0xFFFFFFFFU);  // 127 - 128
}

TEST(DecodeInteger, ReadsTruncatedIntegersAsZero) {
    uint32_t offset = 0;
    EXPECT_EQ(decoded(hex("7F"), 7, offset), 0U);
    EXPECT_EQ(offset, 1U);
    offset = 0;
    EXPECT_EQ(decoded(hex("7F 80 80"), 7, offset), 0U);
    EXPECT_EQ(offset, 3U);
}

TEST(DecodeInteger, ReadsZeroPastTheEnd) {
    uint32_t offset = 5;
    EXPECT_EQ(decoded("ab", 7, offset), 0U);
    EXPECT_EQ(offset, 6U);
}

TEST(DecodeInteger, RefusesAnImpossiblePrefixWithoutMoving) {
    for (const uint8_t prefix : {0, 9}) {
        uint32_t offset = 0;
        EXPECT_EQ(decoded(hex("01"), prefix, offset), 0U);
        EXPECT_EQ(offset, 0U);
    }
}

TEST(DecodeInteger, TakesBytesFromPosition128OnModulo128) {
    std::string bytes(130, '\x05');
    bytes[127] = '\x7F';
    bytes[128] = '\x22';
    bytes[0] = '\x11';
    uint32_t offset = 127;
    EXPECT_EQ(decoded(bytes, 7, offset), 127U + 0x11U);  // the byte at 128 AND 127
    EXPECT_EQ(offset, 129U);
    bytes[128] = '\xA2';  // its own top bit decides that there is more, at 129 AND 127
    bytes[1] = '\x01';
    offset = 127;
    EXPECT_EQ(decoded(bytes, 7, offset), 127U + 0x11U + 128U);
    EXPECT_EQ(offset, 130U);
}

TEST(DecodeInteger, ReadsTheLastOneByteContinuationAtPosition127) {
    std::string bytes(129, '\x05');
    bytes[126] = '\x7F';
    bytes[127] = '\x22';
    uint32_t offset = 126;
    EXPECT_EQ(decoded(bytes, 7, offset), 127U + 0x22U);
    EXPECT_EQ(offset, 128U);
}

TEST(DecodeInteger, EndsAtTheEndOfEndlessContinuation) {
    uint32_t offset = 0;
    EXPECT_EQ(decoded("\x7F" + std::string(100000, '\xFF'), 7, offset), 0U);
    EXPECT_EQ(offset, 100001U);
}

TEST(DecodeInteger, WrapsAtThirtyTwoBits) {
    // 127 - 1 - 2^7 - 2^14 - 2^21 - 2^28 + 16 * 2^35 (a weight that has left the 32 bits)
    const uint32_t expected = 127U - 1U - (1U << 7) - (1U << 14) - (1U << 21) - (1U << 28);
    EXPECT_EQ(decoded(hex("7F FF FF FF FF FF 10"), 7), expected);
}

TEST(StaticTable, HoldsTheStandardsEntriesButOne) {
    // RFC 7541, Appendix A, behind a placeholder; entry 58 has a spelling of its own.
    const char* rows =
        ":|:authority:|:method:GET|:method:POST|:path:/|:path:/index.html|:scheme:http|"
        ":scheme:https|:status:200|:status:204|:status:206|:status:304|:status:400|:status:404|"
        ":status:500|accept-charset:|accept-encoding:gzip, deflate|accept-language:|"
        "accept-ranges:|accept:|access-control-allow-origin:|age:|allow:|authorization:|"
        "cache-control:|content-disposition:|content-encoding:|content-language:|"
        "content-length:|content-location:|content-range:|content-type:|cookie:|date:|etag:|"
        "expect:|expires:|from:|host:|if-match:|if-modified-since:|if-none-match:|if-range:|"
        "if-unmodified-since:|last-modified:|link:|location:|max-forwards:|"
        "proxy-authenticate:|proxy-authorization:|range:|referer:|refresh:|retry-after:|"
        "server:|set-cookie:|strict-transport-security:|transfer-encoding:|user-agend:|vary:|"
        "via:|www-authenticate:|";
    std::string listed;
    size_t count = 0;
    for (const HeaderField& field : static_table) {
        listed += field.Name() + ":" + field.Value() + "|";
        ++count;
    }
    EXPECT_EQ(listed, rows);
    EXPECT_EQ(count, 62U);
}

TEST(AppendToTable, EvictsFromTheBack) {
    std::deque<HeaderField> table;
    AppendToTable(table, 2, HeaderField("a", "1"));
    AppendToTable(table, 2, HeaderField("b", "2"));
    AppendToTable(table, 2, HeaderField("c", "3"));
    ASSERT_EQ(table.size(), 2U);
    EXPECT_EQ(table[0].Name(), "c");
    EXPECT_EQ(table[1].Name(), "b");
    AppendToTable(table, 0, HeaderField("d", "4"));
    EXPECT_TRUE(table.empty());
}

TEST(AppendToTable, MovesNoEntryToMakeRoom) {
    std::deque<HeaderField> table;
    AppendToTable(table, 4096, HeaderField("first", "1"));
    const HeaderField* first = &table.front();
    for (int i = 0; i < 4095; ++i) AppendToTable(table, 4096, HeaderField("later", "2"));
    // A deque moves no element when one is put before it.
    // cppcheck-suppress invalidContainer
    EXPECT_EQ(&table.back(), first);
    EXPECT_EQ(first->Name(), "first");
}

TEST(FindFromTable, PrefersStaticThenNewestDynamic) {
    const std::deque<HeaderField> table = {{"x", "new"}, {":method", "GET"}, {"x", "old"}};
    EXPECT_EQ(FindFromTable(table, "x", ""), 62U);
    EXPECT_EQ(FindFromTable(table, "x", "old"), 64U);
    EXPECT_EQ(FindFromTable(table, "x", "none"), 0U);
    EXPECT_EQ(FindFromTable(table, ":method", "GET"), 2U);
    EXPECT_EQ(FindFromTable(table, "", ""), 0U);  // entry 0 is never matched
}

}  // namespace
