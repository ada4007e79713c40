#include <gtest/gtest.h>

#include "hpack_support.h"
#include "tests/support/bytes.h"

// The examples of RFC 7541, Appendix C.
namespace {

using namespace h2test;
using h2::hpack::Decoder;
using h2::hpack::Encoder;

struct Example {
    std::string section;
    std::string block;  // hexadecimal
    TestFields fields;
    TestFields table;  // afterwards, the newest entry first
    uint32_t tableSize;
};

// clang-format off
const std::vector<Example> kExamples = {
    {"C.2.1",
     "400a637573746f6d2d6b65790d637573746f6d2d686561646572",
     {{"custom-key", "custom-header"}},
     {{"custom-key", "custom-header"}},
     55},
    {"C.2.2",
     "040c2f73616d706c652f70617468",
     {{":path", "/sample/path"}},
     {},
     0},
    {"C.2.3",
     "100870617373776f726406736563726574",
     {{"password", "secret"}},
     {},
     0},
    {"C.2.4",
     "82",
     {{":method", "GET"}},
     {},
     0},
    {"C.3.1",
     "828684410f7777772e6578616d706c652e636f6d",
     {{":method", "GET"}, {":scheme", "http"}, {":path", "/"}, {":authority", "www.example.com"}},
     {{":authority", "www.example.com"}},
     57},
    {"C.3.2",
     "828684be58086e6f2d6361636865",
     {{":method", "GET"}, {":scheme", "http"}, {":path", "/"}, {":authority", "www.example.com"}, {"cache-control", "no-cache"}},
     {{"cache-control", "no-cache"}, {":authority", "www.example.com"}},
     110},
    {"C.3.3",
     "828785bf400a637573746f6d2d6b65790c637573746f6d2d76616c7565",
     {{":method", "GET"}, {":scheme", "https"}, {":path", "/index.html"}, {":authority", "www.example.com"}, {"custom-key", "custom-value"}},
     {{"custom-key", "custom-value"}, {"cache-control", "no-cache"}, {":authority", "www.example.com"}},
     164},
    {"C.4.1",
     "828684418cf1e3c2e5f23a6ba0ab90f4ff",
     {{":method", "GET"}, {":scheme", "http"}, {":path", "/"}, {":authority", "www.example.com"}},
     {{":authority", "www.example.com"}},
     57},
    {"C.4.2",
     "828684be5886a8eb10649cbf",
     {{":method", "GET"}, {":scheme", "http"}, {":path", "/"}, {":authority", "www.example.com"}, {"cache-control", "no-cache"}},
     {{"cache-control", "no-cache"}, {":authority", "www.example.com"}},
     110},
    {"C.4.3",
     "828785bf408825a849e95ba97d7f8925a849e95bb8e8b4bf",
     {{":method", "GET"}, {":scheme", "https"}, {":path", "/index.html"}, {":authority", "www.example.com"}, {"custom-key", "custom-value"}},
     {{"custom-key", "custom-value"}, {"cache-control", "no-cache"}, {":authority", "www.example.com"}},
     164},
    {"C.5.1",
     "4803333032580770726976617465611d4d6f6e2c203231204f63742032303133"
     "2032303a31333a323120474d546e1768747470733a2f2f7777772e6578616d70"
     "6c652e636f6d",
     {{":status", "302"}, {"cache-control", "private"}, {"date", "Mon, 21 Oct 2013 20:13:21 GMT"}, {"location", "https://www.example.com"}},
     {{"location", "https://www.example.com"}, {"date", "Mon, 21 Oct 2013 20:13:21 GMT"}, {"cache-control", "private"}, {":status", "302"}},
     222},
    {"C.5.2",
     "4803333037c1c0bf",
     {{":status", "307"}, {"cache-control", "private"}, {"date", "Mon, 21 Oct 2013 20:13:21 GMT"}, {"location", "https://www.example.com"}},
     {{":status", "307"}, {"location", "https://www.example.com"}, {"date", "Mon, 21 Oct 2013 20:13:21 GMT"}, {"cache-control", "private"}},
     222},
    {"C.5.3",
     "88c1611d4d6f6e2c203231204f637420323031332032303a31333a323220474d"
     "54c05a04677a69707738666f6f3d4153444a4b48514b425a584f5157454f5049"
     "5541585157454f49553b206d61782d6167653d333630303b2076657273696f6e"
     "3d31",
     {{":status", "200"}, {"cache-control", "private"}, {"date", "Mon, 21 Oct 2013 20:13:22 GMT"}, {"location", "https://www.example.com"}, {"content-encoding", "gzip"}, {"set-cookie", "foo=ASDJKHQKBZXOQWEOPIUAXQWEOIU; max-age=3600; version=1"}},
     {{"set-cookie", "foo=ASDJKHQKBZXOQWEOPIUAXQWEOIU; max-age=3600; version=1"}, {"content-encoding", "gzip"}, {"date", "Mon, 21 Oct 2013 20:13:22 GMT"}},
     215},
    {"C.6.1",
     "488264025885aec3771a4b6196d07abe941054d444a8200595040b8166e082a6"
     "2d1bff6e919d29ad171863c78f0b97c8e9ae82ae43d3",
     {{":status", "302"}, {"cache-control", "private"}, {"date", "Mon, 21 Oct 2013 20:13:21 GMT"}, {"location", "https://www.example.com"}},
     {{"location", "https://www.example.com"}, {"date", "Mon, 21 Oct 2013 20:13:21 GMT"}, {"cache-control", "private"}, {":status", "302"}},
     222},
    {"C.6.2",
     "4883640effc1c0bf",
     {{":status", "307"}, {"cache-control", "private"}, {"date", "Mon, 21 Oct 2013 20:13:21 GMT"}, {"location", "https://www.example.com"}},
     {{":status", "307"}, {"location", "https://www.example.com"}, {"date", "Mon, 21 Oct 2013 20:13:21 GMT"}, {"cache-control", "private"}},
     222},
    {"C.6.3",
     "88c16196d07abe941054d444a8200595040b8166e084a62d1bffc05a839bd9ab"
     "77ad94e7821dd7f2e6c7b335dfdfcd5b3960d5af27087f3672c1ab270fb5291f"
     "9587316065c003ed4ee5b1063d5007",
     {{":status", "200"}, {"cache-control", "private"}, {"date", "Mon, 21 Oct 2013 20:13:22 GMT"}, {"location", "https://www.example.com"}, {"content-encoding", "gzip"}, {"set-cookie", "foo=ASDJKHQKBZXOQWEOPIUAXQWEOIU; max-age=3600; version=1"}},
     {{"set-cookie", "foo=ASDJKHQKBZXOQWEOPIUAXQWEOIU; max-age=3600; version=1"}, {"content-encoding", "gzip"}, {"date", "Mon, 21 Oct 2013 20:13:22 GMT"}},
     215},
};  // clang-format on

// C.2's stand by themselves; those of C.3 to C.6 follow one another on one connection each.
bool startsConnection(const Example& example) {
    return example.section.starts_with("C.2") || example.section.ends_with(".1");
}

uint32_t tableSizeOf(const Example& example) { return example.section >= "C.5" ? 256 : 4096; }

TestFields tableOf(Decoder& decoder) {
    TestFields fields;
    for (uint64_t i = decoder.m_table.end(); i-- != decoder.m_table.oldest();) {
        const auto& entry = decoder.m_table.entry(i);
        fields.push_back({std::string(entry.name()), std::string(entry.value())});
    }
    return fields;
}

TEST(HpackExamples, AreDecodedWithTheirTables) {
    std::optional<Decoder> decoder;
    for (const Example& example : kExamples) {
        SCOPED_TRACE(example.section);
        if (startsConnection(example)) decoder.emplace(tableSizeOf(example));
        TestFields expected = example.fields;
        if (example.section == "C.2.3") expected[0].neverIndexed = true;
        EXPECT_EQ(decodeBlock(*decoder, hex(example.block)), expected);
        EXPECT_EQ(tableOf(*decoder), example.table);
        EXPECT_EQ(decoder->m_table.size(), example.tableSize);
    }
}

// A cut block is an error, or ends between two fields.
TEST(HpackExamples, CutAnywhereAreErrorsOrShorterLists) {
    std::optional<Decoder> decoder;
    for (const Example& example : kExamples) {
        SCOPED_TRACE(example.section);
        if (!startsConnection(example)) continue;
        const std::string block = hex(example.block);
        size_t shorter = 0;
        for (size_t size = 0; size < block.size(); ++size) {
            decoder.emplace(tableSizeOf(example));
            const auto fields = decodeBlock(*decoder, block.substr(0, size));
            if (!fields) continue;
            ASSERT_EQ(fields->size(), shorter) << size;
            for (size_t i = 0; i < shorter; ++i)
                EXPECT_EQ((*fields)[i].name, example.fields[i].name);
            ++shorter;
        }
        EXPECT_EQ(shorter, example.fields.size());
    }
}

// This encoder makes the choices of C.4: entries for all but the path, Huffman coding where it
// helps.
TEST(HpackExamples, RequestsAreEncodedToTheSameBytes) {
    Encoder encoder;
    for (const Example& example : kExamples) {
        if (!example.section.starts_with("C.4")) continue;
        EXPECT_EQ(toHex(encodeBlock(encoder, example.fields)), toHex(hex(example.block)))
            << example.section;
    }
}

// C.1: 10 and 1337 with a prefix of five bits, as a size update has it.
TEST(HpackExamples, IntegersAreEncodedAndDecoded) {
    const std::pair<uint32_t, const char*> kIntegers[] = {{10, "2a"}, {1337, "3f 9a 0a"}};
    for (const auto& [value, bytes] : kIntegers) {
        Encoder encoder(value);
        EXPECT_EQ(toHex(encodeBlock(encoder, {})), bytes);
        Decoder decoder;
        EXPECT_EQ(decodeBlock(decoder, hex(bytes)), TestFields());
        EXPECT_EQ(decoder.m_table.maxSize(), value);
    }
}

}  // namespace
