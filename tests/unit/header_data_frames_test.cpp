#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "Http2Client/frame.h"
#include "frame_support.h"
#include "tests/support/bytes.h"

namespace {

using h2test::GuardedBytes;
using h2test::hex;
using hpack::HeaderField;
using hpack::HeaderFieldRepresentation;
using namespace tiny;

HeadersFrame::HeaderList list(std::initializer_list<std::pair<const char*, const char*>> fields) {
    HeadersFrame::HeaderList out;
    for (const auto& [name, value] : fields) {
        HeaderFieldRepresentation header;
        header.Field() = HeaderField(false, false, name, value);
        header.Type() = HeaderField::INDEXED_HEADER_FIELD;
        out.push_back(header);
    }
    return out;
}

const auto kGet = list({{":method", "GET"}});

void expectHeader(const Frame& frame, Frame::FRAME_TYPE type, int flags, uint32_t length) {
    EXPECT_EQ(frame.getType(), type);
    EXPECT_EQ(frame.getFlags(), flags);
    EXPECT_EQ(frame.length(), length);
}

// The padding helpers of a frame whose length without padding is `bare`.
template <typename PaddedFrame>
void expectPaddingHelpers(PaddedFrame frame, uint32_t bare) {
    frame.setPadLength(4);
    EXPECT_EQ(frame.getPadLength(), 4);
    EXPECT_EQ(frame.length(), bare);  // a plain store
    frame.setPadFlag();
    EXPECT_TRUE(frame.hasPadFlag());
    EXPECT_EQ(frame.length(), bare + 5);
    frame.clearPadFlag();
    EXPECT_FALSE(frame.hasPadFlag());
    EXPECT_EQ(frame.length(), bare);
}

// A flag helper that changes the flag only.
template <typename F>
void expectFlag(uint8_t flag, void (F::*set)(), bool (F::*has)() const, void (F::*clear)()) {
    F frame;
    frame.setLength(42);
    (frame.*set)();
    EXPECT_TRUE((frame.*has)());
    EXPECT_EQ(frame.getFlags(), flag);
    (frame.*clear)();
    EXPECT_FALSE((frame.*has)());
    EXPECT_EQ(frame.getFlags(), 0);
    EXPECT_EQ(frame.length(), 42U);
}

TEST(FlagHelpers, KeepTheLengthCurrentOrAlone) {
    expectPaddingHelpers(HeadersFrame(), 0);
    expectPaddingHelpers(PushPromisFrame(), 4);
    expectPaddingHelpers(DataFrame(), 0);
    HeadersFrame frame;
    frame.setPriorityFlag();
    EXPECT_TRUE(frame.hasPriorityFlag());
    EXPECT_EQ(frame.length(), 5U);
    frame.clearPriorityFlag();
    EXPECT_EQ(frame.length(), 0U);
    expectFlag(1, &HeadersFrame::setEndStreamFlag, &HeadersFrame::hasEndStreamFlag,
               &HeadersFrame::clearEndStreamFlag);
    expectFlag(1, &DataFrame::setEndStreamFlag, &DataFrame::hasEndStreamFlag,
               &DataFrame::clearEndStreamFlag);
    expectFlag(4, &HeadersFrame::setEndHeadersFlag, &HeadersFrame::hasEndHeadersFlag,
               &HeadersFrame::clearEndHeadersFlag);
    expectFlag(4, &ContinuationFrame::setEndHeadersFlag, &ContinuationFrame::hasEndHeadersFlag,
               &ContinuationFrame::clearEndHeadersFlag);
    expectFlag(4, &PushPromisFrame::setEndHeadersFlag, &PushPromisFrame::hasEndHeadersFlag,
               &PushPromisFrame::clearEndHeadersFlag);
}

TEST(HeadersFrame, ConstructorsDiffer) {
    hpack::Table table;
    const HeadersFrame made;
    expectHeader(made, Frame::TYPE_HEADERS_FRAME, 0, 0);
    EXPECT_EQ(made.getPadLength() + made.getWeight(), 0);
    EXPECT_EQ(made.getStreamDependency(), 0U);
    EXPECT_FALSE(made.hasExclusive());
    const HeadersFrame plain(kGet, table, 0);
    expectHeader(plain, Frame::TYPE_SETTINGS_FRAME, 0, 1);
    EXPECT_EQ(text(plain.getHeaderBlockFragment()), hex("82"));
    expectHeader(HeadersFrame(kGet, table, 3), Frame::TYPE_SETTINGS_FRAME, 8, 5);
    const HeadersFrame priority(kGet, table, true, 3, 15, 2);
    expectHeader(priority, Frame::TYPE_SETTINGS_FRAME, 8 + 32, 1 + 3 + 5);
    EXPECT_TRUE(priority.hasExclusive());
    EXPECT_EQ(priority.getStreamDependency(), 3U);
    EXPECT_EQ(priority.getWeight(), 15);
    expectHeader(HeadersFrame({}, table, false, 0, 0, 0), Frame::TYPE_SETTINGS_FRAME, 32, 5);
}

TEST(HeadersFrame, EncodesPaddingAndPriorityInFrontOfTheBlock) {
    hpack::Table table;
    HeadersFrame frame;
    frame.setHeaderList(kGet, table);
    frame.setExclusive(true);
    frame.setStreamDependency(0x80000003);
    frame.setWeight(0x0F);
    frame.setPriorityFlag();
    EXPECT_EQ(payload(frame, &table), hex("00 00 00 83 | 0F | 82"));  // the bit is misplaced
    frame.setPadLength(4);
    frame.setPadFlag();
    EXPECT_EQ(payload(frame, &table), hex("04 | 00 00 00 83 | 0F | 82"));
    frame.clearPriorityFlag();
    EXPECT_EQ(frame.length(), 1U + 5U);  // no padding bytes are written
    EXPECT_EQ(wire(frame, &table), hex("00 00 02 | 01 | 08 | 00 00 00 00 | 04 82"));
}

TEST(HeadersFrame, EncodesItsListAgainWhenSerialised) {
    hpack::Table table;
    HeadersFrame frame;
    frame.setHeaderList(list({{"x", "1"}}), table);
    EXPECT_EQ(text(frame.getHeaderBlockFragment()), hex("40 01 78 01 31"));
    table.Append(HeaderField("x", "1"));
    EXPECT_EQ(payload(frame, &table), hex("BE"));
    EXPECT_EQ(frame.length(), 1U);
}

TEST(HeadersFrame, EncodesPlainTextWithoutATable) {
    hpack::Table table;
    HeadersFrame frame;
    frame.m_headerList =
        list({{":method", "GET"}, {":scheme", "http"}, {":path", "/a"}, {"host", "h"}});
    EXPECT_EQ(payload(frame), "GET /a\r\nhost: h\r\n\r\n");
    HeadersFrame post;
    post.setHeaderList(list({{":method", "POST"}, {":path", "/x"}, {"te", "trailers"}}), table);
    const std::string block = text(post.getHeaderBlockFragment());
    const std::string head = "POST /x\r\nte: trailers\r\n\r\n";
    EXPECT_EQ(payload(post), block + head);
    EXPECT_EQ(post.length(), block.size() + head.size());
    EXPECT_EQ(payload(post), block + head + head);  // appended each time
}

TEST(HeadersFrame, DecodesPaddingPriorityAndBlock) {
    struct Case {
        uint8_t flags;
        uint8_t formerPadLength;
        std::string bytes;
        std::string block;
        bool exclusive;
        uint32_t dependency;
        uint8_t weight;
    };
    constexpr uint8_t kPadded = Frame::FLAG_PADDED;
    constexpr uint8_t kPriority = Frame::FLAG_PRIORITY;
    const Case cases[] = {
        {0, 0, hex("82 86"), hex("82 86"), false, 0, 0},
        {0, 0, "", "", false, 0, 0},
        {kPadded | kPriority, 0, hex("02 | 80 00 00 03 | 0F | 82 86 84 | 00 00"), hex("82 86 84"),
         true, 3, 15},
        {kPriority, 0, hex("7F 00 80 01 | FF"), "", false, 0xFFFF8001, 255},
        {kPadded, 0, hex("02 00 00"), "", false, 0, 0},  // padding up to the end
        // Padding and fixed fields that do not fit.
        {kPadded, 0, "", "", false, 0, 0},
        {kPadded, 0, hex("01"), "", false, 0, 0},
        {kPadded, 0, hex("FF 82 82"), "", false, 0, 0},
        {kPriority, 0, hex("81 82"), "", true, 0xFF820000, 0},
        {kPriority, 0, hex("81 82 83 04"), "", true, 0xFFFF8304, 0},
        {kPadded | kPriority, 0, hex("01 | 00 00 00 03 | 10"), "", false, 3, 16},
        // A pad length from before is subtracted, too.
        {0, 1, hex("82 86"), hex("82"), false, 0, 0},
        {kPriority, 2, hex("00 00 00 03 | 10 | 82 86 84"), hex("82"), false, 3, 16},
        {0, 9, hex("82 86"), "", false, 0, 0}};
    for (const Case& each : cases) {
        SCOPED_TRACE(h2test::toHex(each.bytes));
        HeadersFrame frame;
        frame.setFlags(each.flags);
        frame.setPadLength(each.formerPadLength);
        EXPECT_TRUE(decode(frame, each.bytes));
        const bool padLengthRead = (each.flags & kPadded) != 0 && !each.bytes.empty();
        const uint8_t read = padLengthRead ? static_cast<uint8_t>(each.bytes[0]) : 0;
        EXPECT_EQ(frame.getPadLength(), (each.flags & kPadded) != 0 ? read : each.formerPadLength);
        EXPECT_EQ(text(frame.getHeaderBlockFragment()), each.block);
        EXPECT_EQ(frame.getHeaderList().size(), each.block.size());
        EXPECT_EQ(frame.hasExclusive(), each.exclusive);
        EXPECT_EQ(frame.getStreamDependency(), each.dependency);
        EXPECT_EQ(frame.getWeight(), each.weight);
        EXPECT_EQ(frame.length(), each.block.size() + ((each.flags & kPadded) != 0 ? read + 1 : 0) +
                                      ((each.flags & kPriority) != 0 ? 5 : 0));
    }
}

TEST(HeadersFrame, KeepsWhatItHasWhenTheBlockFails) {
    HeadersFrame frame;
    frame.setFlags(Frame::FLAG_PADDED);
    frame.setLength(99);
    EXPECT_FALSE(decode(frame, hex("01 | 82 80 84 | 00")));
    EXPECT_EQ(frame.getPadLength(), 1);
    EXPECT_EQ(text(frame.getHeaderBlockFragment()), hex("82 80 84"));
    EXPECT_EQ(frame.getHeaderList().size(), 1U);
    EXPECT_EQ(frame.length(), 99U);
}

TEST(ContinuationFrame, CarriesItsFragmentUndecoded) {
    ContinuationFrame frame;
    expectHeader(frame, Frame::TYPE_CONTINUATION_FRAME, 0, 0);
    for (const std::string& bytes : {hex("80 FF"), std::string()}) {
        EXPECT_TRUE(decode(frame, bytes));
        EXPECT_EQ(text(frame.getHeaderBlockFragment()), bytes);
        EXPECT_EQ(frame.length(), bytes.size());
    }
    Buffer fragment("abc");
    frame.setHeaderBlockFragment(fragment);
    EXPECT_EQ(frame.length(), 3U);
    EXPECT_EQ(payload(frame), "abc");
    EXPECT_EQ(wire(frame), hex("00 00 03 09 00 00 00 00 00") + "abc");
    EXPECT_EQ(text(frame.getHeaderBlockFragment()), "abc");
    expectHeader(ContinuationFrame(fragment), Frame::TYPE_SETTINGS_FRAME, 0, 3);
}

TEST(PushPromisFrame, EncodesItsReservedBitMisplaced) {
    expectHeader(PushPromisFrame(), Frame::TYPE_PUSH_PROMISE_FRAME, 0, 4);
    EXPECT_FALSE(PushPromisFrame().hasReserved());
    PushPromisFrame plain(7, Buffer("abc"), 0);
    expectHeader(plain, Frame::TYPE_SETTINGS_FRAME, 0, 7);
    EXPECT_EQ(payload(plain), hex("00 00 00 07") + "abc");
    PushPromisFrame padded(7, Buffer("abc"), 2);
    expectHeader(padded, Frame::TYPE_SETTINGS_FRAME, 8, 10);
    padded.setReserved(true);
    EXPECT_EQ(payload(padded), hex("02 | 00 00 00 87") + "abc");
    Buffer fragment("x");
    padded.setHeaderBlockFragment(fragment);
    EXPECT_EQ(padded.length(), 8U);
    padded.setReserved(false);
    padded.setPromisedStreamId(0xFFFFFFFF);
    EXPECT_EQ(payload(padded), hex("02 | 7F FF FF FF") + "x");
}

// The fragment's count does not deduct the identifier, so it takes up to four bytes from behind.
TEST(PushPromisFrame, DecodesFourBytesBeyondItsBlock) {
    struct Case {
        uint8_t flags;
        uint8_t formerPadLength;
        std::string bytes;
        std::string after;
        uint32_t streamId;
        std::string fragment;
    };
    constexpr uint8_t kPadded = Frame::FLAG_PADDED;
    const Case cases[] = {
        {0, 0, hex("80 00 00 04 | AA BB"), "wxyz", 4, hex("AA BB") + "wxyz"},
        {kPadded, 0, hex("01 | 00 00 00 04 | AA BB | 00"), "xyz", 4, hex("AA BB 00") + "xyz"},
        {kPadded, 0, hex("04 | 80 80 00 04 | AA | 01 02 03 04"), "", 0xFF800004,
         hex("AA 01 02 03 04")},
        // Padding that reaches into the identifier, and that does not fit.
        {kPadded, 0, hex("03 | 00 00 00 04"), "wxyz", 4, "w"},
        {kPadded, 0, hex("01 | 00 00 00 04"), "wxyz", 4, "wxy"},
        {kPadded, 0, hex("05 | 00 00 00 04"), "", 4, ""},
        {kPadded, 0, hex("FF | 00 00 00 04 | AA"), "", 4, ""},
        // An identifier that is not all there.
        {0, 0, hex("01 02"), "wxyz", 0x01020000, "yz"},
        {0, 0, "", "wxyz", 0, ""},
        {kPadded, 0, "", "wxyz", 0, ""},
        {kPadded, 0, hex("00 | 01 02 03"), "wxyz", 0x01020300, "xyz"},
        // A pad length from before is subtracted, too.
        {0, 3, hex("00 00 00 04 | AA BB"), "wxyz", 4, hex("AA BB") + "w"}};
    for (const Case& each : cases) {
        SCOPED_TRACE(h2test::toHex(each.bytes));
        PushPromisFrame frame(9, Buffer("old"), 0);
        frame.setFlags(each.flags);
        frame.setPadLength(each.formerPadLength);
        EXPECT_TRUE(decode(frame, each.bytes, each.after));
        const size_t offset = each.flags == kPadded ? 1 : 0;
        EXPECT_EQ(frame.hasReserved(),
                  each.bytes.size() > offset && (each.bytes[offset] & 0x80) != 0);
        EXPECT_EQ(frame.getPromisedStreamId(), each.streamId);
        EXPECT_EQ(text(frame.getHeaderBlockFragment()), each.fragment);
        EXPECT_EQ(frame.length(),
                  each.fragment.size() + 4 + (offset != 0 ? frame.getPadLength() + 1 : 0));
    }
}

TEST(DataFrame, EncodesThePadLengthAndTheData) {
    expectHeader(DataFrame(), Frame::TYPE_DATA_FRAME, 0, 0);
    expectHeader(DataFrame(Buffer("abc"), 0), Frame::TYPE_SETTINGS_FRAME, 0, 3);
    DataFrame padded(Buffer("abc"), 2);
    expectHeader(padded, Frame::TYPE_SETTINGS_FRAME, 8, 6);
    EXPECT_EQ(payload(padded), hex("02 61 62 63"));
    EXPECT_EQ(wire(padded), hex("00 00 04 | 04 | 08 | 00 00 00 00 | 02 61 62 63"));
    Buffer data("x");
    padded.setData(data);
    EXPECT_EQ(padded.length(), 4U);
    EXPECT_EQ(payload(padded), hex("02 78"));
}

TEST(DataFrame, CopiesABlockInPlaceOfItsData) {
    DataFrame frame;
    std::string bytes = std::string(16'000, 'l') + std::string("\0end", 4);
    const std::string kept = bytes;
    frame.setData(bytes.data(), static_cast<unsigned int>(bytes.size()));
    std::fill(bytes.begin(), bytes.end(), '?');
    EXPECT_EQ(payload(frame), kept);
    const GuardedBytes shorter(hex("00 FF"));
    frame.setData(shorter.data(), 2);
    EXPECT_EQ(payload(frame), hex("00 FF"));
    EXPECT_EQ(frame.length(), 2U);
    frame.setData("unread", 0);
    EXPECT_EQ(payload(frame), "");
}

TEST(DataFrame, DecodesWhatItsPaddingLeaves) {
    struct Case {
        uint8_t flags;
        uint8_t formerPadLength;
        std::string bytes;
        std::string data;
        uint32_t length;
    };
    constexpr uint8_t kPadded = Frame::FLAG_PADDED;
    const Case cases[] = {{kPadded, 0, hex("03 | 61 62 | 00 00 00"), "ab", 6},
                          {0, 0, "abcdefghij", "abcdefghij", 10},
                          {0, 0, "", "", 0},
                          {kPadded, 0, hex("02 00 00"), "", 3},
                          // Padding that does not fit.
                          {kPadded, 0, "", "", 1},
                          {kPadded, 0, hex("01"), "", 2},
                          {kPadded, 0, hex("03 61 62"), "", 4},
                          {kPadded, 0, hex("FF 61"), "", 256},
                          // A pad length from before is subtracted, too.
                          {0, 2, "abcd", "ab", 2},
                          {0, 9, "abcd", "", 0},
                          {kPadded, 9, hex("01 61 62"), "a", 3}};
    for (const Case& each : cases) {
        SCOPED_TRACE(h2test::toHex(each.bytes));
        DataFrame frame(Buffer("old"), 0);
        frame.setFlags(each.flags);
        frame.setPadLength(each.formerPadLength);
        EXPECT_TRUE(decode(frame, each.bytes));
        EXPECT_EQ(text(frame.getData()), each.data);
        EXPECT_EQ(frame.length(), each.length);
    }
    DataFrame frame;
    frame.setLength(0xFFFFFFFF);
    EXPECT_TRUE(decode(frame, "ab"));
    EXPECT_EQ(frame.length(), 0xFFFFFFFFU);  // the only length that stays
}

}  // namespace
