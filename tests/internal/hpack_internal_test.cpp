// The integer codec and the static table, which are internal to hpack.cpp.
#include "Http2Client/hpack.cpp"  // NOLINT(bugprone-suspicious-include): see the CMakeLists.txt

#include <gtest/gtest.h>

#include <string>

#include "tests/support/bytes.h"
#include "tests/unit/guarded_buffer.h"

namespace {

using h2test::hex;

std::string text(const Buffer& buffer) { return std::string(buffer.buffer, buffer.len); }

TEST(PrefixMax, IsAllOnesOfEachPrefix) {
    for (int n = 0; n <= 8; ++n) EXPECT_EQ(prefix_max[n], (1 << n) - 1);
}

TEST(EncodeInteger, WritesPrefixContinuationAndSurplus) {
    struct Case {
        uint32_t value;
        uint8_t prefix;
        uint8_t pattern;
        std::string bytes;
    };
    const Case cases[] = {
        {10, 5, 0, hex("0A")},
        {30, 5, 0xE0, hex("FE")},
        {10, 5, 0xFF, hex("EA")},  // pattern bits inside the prefix are dropped
        {126, 7, 0x80, hex("FE")},
        {0, 1, 0xFE, hex("FE")},
        {1, 1, 0xFE, hex("FF 00")},
        {254, 8, 0, hex("FE")},
        {255, 8, 0, hex("FF 00")},
        {127, 7, 0x80, hex("FF 00")},
        {31, 5, 0, hex("1F 00")},
        {127 + 127, 7, 0, hex("7F 7F")},
        {127 + 128, 7, 0, hex("7F 80 01")},
        {127 + 255, 7, 0, hex("7F FF 01")},
        // From 256 above the prefix on the buffer is longer than the integer.
        {127 + 256, 7, 0, hex("7F 80 02 00")},
        {127 + 300, 7, 0, hex("7F AC 02 00")},
        {1337, 5, 0, hex("1F 9A 0A") + std::string(9, '\0')},
        {127 + 16384, 7, 0, hex("7F 80 80 01") + std::string(126, '\0')},
        {0xFFFFFFFF, 7, 0x80, hex("FF 80 FF FF FF 0F") + std::string(0x1FFFFFF - 4, '\0')},
        // An impossible prefix.
        {1, 0, 0, ""},
        {1, 9, 0, ""},
        {1, 255, 0, ""},
    };
    for (const Case& each : cases) {
        Buffer buffer;
        EncodeInteger(buffer, each.value, each.prefix, each.pattern);
        EXPECT_TRUE(text(buffer) == each.bytes) << each.value << " " << int{each.prefix};
    }
}

TEST(EncodeInteger, LeavesOldContentsInTheSurplusBytes) {
    Buffer buffer("abcdefgh");
    EncodeInteger(buffer, 127 + 300, 7, 0);
    EXPECT_EQ(text(buffer), hex("7F AC 02") + "d");
    buffer = "abcdefghijklmnop";
    EncodeInteger(buffer, 1337, 5, 0);  // 12 bytes long, within the same capacity
    EXPECT_EQ(text(buffer), hex("1F 9A 0A") + "defghijkl");
}

struct Integer {
    std::string bytes;
    uint8_t prefix;
    uint32_t value;
    uint32_t offset;     // behind it
    uint32_t start = 0;  // where it begins
};

void expectDecoded(const Integer& expected) {
    uint32_t offset = expected.start;
    EXPECT_EQ(DecodeInteger(GuardedBuffer(expected.bytes).get(), offset, expected.prefix),
              expected.value)
        << h2test::toHex(expected.bytes.substr(0, 16));
    EXPECT_EQ(offset, expected.offset);
}

TEST(DecodeInteger, ReadsPrefixAndContinuation) {
    expectDecoded({hex("FE"), 1, 0, 1});
    expectDecoded({hex("01 05"), 1, 6, 2});
    expectDecoded({hex("FE"), 8, 254, 1});
    expectDecoded({hex("FF 01"), 8, 256, 2});
    expectDecoded({hex("FF EA 00"), 5, 10, 2, 1});
    for (uint32_t byte = 0; byte < 0x80; ++byte) {
        expectDecoded({std::string("\x7F") + static_cast<char>(byte), 7, 127 + byte, 2});
    }
    for (const uint8_t impossible : {0, 9}) expectDecoded({hex("01"), impossible, 0, 0});
}

TEST(DecodeInteger, AddsContinuationBytesWithTheirSign) {
    expectDecoded({hex("7F AD 01"), 7, 172, 3});
    expectDecoded({hex("1F 9A 0A"), 5, 1209, 3});
    expectDecoded({hex("3F E1 1F"), 5, 3968, 3});
    expectDecoded({hex("7F 80 00"), 7, 0xFFFFFFFF, 3});  // 127 - 128
    // 127 - 1 - 2^7 - 2^14 - 2^21 - 2^28 + 16 * 2^35 (a weight that has left the 32 bits)
    const uint32_t wrapped = 127U - 1U - (1U << 7) - (1U << 14) - (1U << 21) - (1U << 28);
    expectDecoded({hex("7F FF FF FF FF FF 10"), 7, wrapped, 7});
}

TEST(DecodeInteger, ReadsTruncatedIntegersAsZero) {
    expectDecoded({hex("7F"), 7, 0, 1});
    expectDecoded({hex("7F 80 80"), 7, 0, 3});
    expectDecoded({"\x7F" + std::string(100000, '\xFF'), 7, 0, 100001});
    expectDecoded({"ab", 7, 0, 6, 5});  // past the end
}

TEST(DecodeInteger, TakesContinuationFromPosition128OnModulo128) {
    std::string bytes(130, '\x05');
    bytes[126] = '\x7F';
    bytes[127] = '\x22';
    expectDecoded({bytes, 7, 127 + 0x22, 128, 126});  // the last one that is read exactly
    bytes[127] = '\x7F';
    bytes[128] = '\x22';
    bytes[0] = '\x11';
    expectDecoded({bytes, 7, 127 + 0x11, 129, 127});  // the byte at 128 AND 127
    bytes[128] = '\xA2';  // its own top bit decides that there is more, at 129 AND 127
    bytes[1] = '\x01';
    expectDecoded({bytes, 7, 127 + 0x11 + 128, 130, 127});
}

TEST(StaticTable, HasTheStandardsEntriesButOne) {
    // RFC 7541, Appendix A, behind a placeholder; entry 58 is spelled differently.
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
    for (const HeaderField& field : static_table) {
        listed += field.Name() + ":" + field.Value() + "|";
    }
    EXPECT_EQ(listed, rows);
    EXPECT_EQ(std::size(static_table), 62U);
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

}  // namespace
