#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>

#include "Http2Client/frame.h"
#include "tests/support/bytes.h"
#include "tests/support/guarded.h"

namespace {

using h2test::GuardedBytes;
using h2test::hex;
using hpack::HeaderField;
using hpack::HeaderFieldRepresentation;
using namespace tiny;

std::string text(const Buffer& buffer) { return std::string(buffer.buffer, buffer.len); }

std::string payload(Frame& frame, hpack::Table* table = nullptr) {
    const std::unique_ptr<Buffer> bytes(frame.encodeFramePayload(table));
    return text(*bytes);
}

// Decodes from memory that ends with the payload, or with what `after` adds to it.
bool decode(Frame& frame, const std::string& bytes, const std::string& after = "") {
    const GuardedBytes guarded(bytes, after);
    hpack::Table table;
    return frame.decodeFramePayload(guarded.data(), static_cast<int>(bytes.size()), table);
}

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

TEST(HeadersFrame, ConstructorsDiffer) {
    hpack::Table table;
    const HeadersFrame made;
    EXPECT_EQ(made.getType(), Frame::TYPE_HEADERS_FRAME);
    EXPECT_EQ(made.length(), 0U);
    EXPECT_EQ(made.getPadLength(), 0);
    EXPECT_EQ(made.getWeight(), 0);
    EXPECT_EQ(made.getStreamDependency(), 0U);
    EXPECT_FALSE(made.hasExclusive());

    const HeadersFrame plain(list({{":method", "GET"}}), table, 0);
    EXPECT_EQ(plain.getType(), Frame::TYPE_SETTINGS_FRAME);
    EXPECT_EQ(plain.getFlags(), 0);
    EXPECT_EQ(text(plain.getHeaderBlockFragment()), hex("82"));
    EXPECT_EQ(plain.length(), 1U);

    const HeadersFrame padded(list({{":method", "GET"}}), table, 3);
    EXPECT_EQ(padded.getFlags(), Frame::FLAG_PADDED);
    EXPECT_EQ(padded.length(), 5U);

    const HeadersFrame priority(list({{":method", "GET"}}), table, true, 3, 15, 2);
    EXPECT_EQ(priority.getType(), Frame::TYPE_SETTINGS_FRAME);
    EXPECT_EQ(priority.getFlags(), Frame::FLAG_PADDED | Frame::FLAG_PRIORITY);
    EXPECT_TRUE(priority.hasExclusive());
    EXPECT_EQ(priority.getStreamDependency(), 3U);
    EXPECT_EQ(priority.getWeight(), 15);
    EXPECT_EQ(priority.length(), 1U + 3U + 5U);
    const HeadersFrame unpadded(list({}), table, false, 0, 0, 0);
    EXPECT_EQ(unpadded.getFlags(), Frame::FLAG_PRIORITY);
}

TEST(HeadersFrame, FlagHelpersKeepTheLengthCurrent) {
    HeadersFrame frame;
    frame.setPadLength(4);
    EXPECT_EQ(frame.length(), 0U);  // plain store
    frame.setPadFlag();
    EXPECT_TRUE(frame.hasPadFlag());
    EXPECT_EQ(frame.length(), 5U);
    frame.setPriorityFlag();
    EXPECT_TRUE(frame.hasPriorityFlag());
    EXPECT_EQ(frame.length(), 10U);
    frame.clearPadFlag();
    EXPECT_EQ(frame.length(), 5U);
    frame.clearPriorityFlag();
    EXPECT_EQ(frame.length(), 0U);
    frame.setLength(42);
    frame.setEndStreamFlag();
    frame.setEndHeadersFlag();
    EXPECT_TRUE(frame.hasEndStreamFlag());
    EXPECT_TRUE(frame.hasEndHeadersFlag());
    EXPECT_EQ(frame.getFlags(), 5);
    frame.clearEndStreamFlag();
    frame.clearEndHeadersFlag();
    EXPECT_EQ(frame.getFlags(), 0);
    EXPECT_EQ(frame.length(), 42U);
}

TEST(HeadersFrame, EncodesWithoutPaddingBytes) {
    hpack::Table table;
    HeadersFrame frame;
    frame.setHeaderList(list({{":method", "GET"}}), table);
    frame.setPadLength(4);
    frame.setPadFlag();
    EXPECT_EQ(frame.length(), 1U + 5U);
    EXPECT_EQ(payload(frame, &table), hex("04 | 82"));
    const std::unique_ptr<Buffer> whole(frame.encodeFrame(&table));
    EXPECT_EQ(text(*whole), hex("00 00 02 | 01 | 08 | 00 00 00 00 | 04 82"));
}

TEST(HeadersFrame, EncodesPriorityWithTheMisplacedBit) {
    hpack::Table table;
    HeadersFrame frame;
    frame.setHeaderList(list({{":method", "GET"}}), table);
    frame.setExclusive(true);
    frame.setStreamDependency(0x80000003);
    frame.setWeight(0x0F);
    frame.setPriorityFlag();
    EXPECT_EQ(payload(frame, &table), hex("00 00 00 83 | 0F | 82"));
    frame.setPadLength(1);
    frame.setPadFlag();
    EXPECT_EQ(payload(frame, &table), hex("01 | 00 00 00 83 | 0F | 82"));
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

TEST(HeadersFrame, DecodesAnUnpaddedBlock) {
    HeadersFrame frame;
    EXPECT_TRUE(decode(frame, hex("82 86")));
    ASSERT_EQ(frame.getHeaderList().size(), 2U);
    EXPECT_EQ(frame.getHeaderList()[0].constField().Value(), "GET");
    EXPECT_EQ(text(frame.getHeaderBlockFragment()), hex("82 86"));
    EXPECT_EQ(frame.length(), 2U);
    EXPECT_TRUE(decode(frame, ""));
    EXPECT_EQ(frame.length(), 0U);
}

TEST(HeadersFrame, DecodesPaddingAndPriority) {
    HeadersFrame frame;
    frame.setFlags(Frame::FLAG_PADDED | Frame::FLAG_PRIORITY);
    EXPECT_TRUE(decode(frame, hex("02 | 80 00 00 03 | 0F | 82 86 84 | 00 00")));
    EXPECT_EQ(frame.getPadLength(), 2);
    EXPECT_TRUE(frame.hasExclusive());
    EXPECT_EQ(frame.getStreamDependency(), 3U);
    EXPECT_EQ(frame.getWeight(), 15);
    EXPECT_EQ(text(frame.getHeaderBlockFragment()), hex("82 86 84"));
    EXPECT_EQ(frame.length(), 11U);
}

TEST(HeadersFrame, ReadsItsDependencyWithSigns) {
    HeadersFrame frame;
    frame.setFlags(Frame::FLAG_PRIORITY);
    EXPECT_TRUE(decode(frame, hex("7F 00 80 01 | FF")));
    EXPECT_EQ(frame.getStreamDependency(), 0xFFFF8001U);
    EXPECT_FALSE(frame.hasExclusive());
    EXPECT_EQ(frame.getWeight(), 255);
}

TEST(HeadersFrame, KeepsWhatItHadWhenTheBlockFails) {
    HeadersFrame frame;
    frame.setFlags(Frame::FLAG_PADDED);
    frame.setLength(99);
    EXPECT_FALSE(decode(frame, hex("01 | 82 80 84 | 00")));
    EXPECT_EQ(frame.getPadLength(), 1);
    EXPECT_EQ(text(frame.getHeaderBlockFragment()), hex("82 80 84"));
    EXPECT_EQ(frame.getHeaderList().size(), 1U);
    EXPECT_EQ(frame.length(), 99U);
}

TEST(HeadersFrame, RefusesWhatDoesNotFit) {
    const auto refused = [](uint8_t flags, const std::string& bytes) {
        HeadersFrame frame;
        frame.setFlags(flags);
        frame.setPadLength(9);
        frame.setWeight(9);
        frame.setLength(99);
        EXPECT_FALSE(decode(frame, bytes));
        EXPECT_EQ(frame.getPadLength(), 9);
        EXPECT_EQ(frame.getWeight(), 9);
        EXPECT_EQ(frame.length(), 99U);
        EXPECT_EQ(frame.getHeaderBlockFragment().Length(), 0U);
    };
    refused(Frame::FLAG_PADDED, "");
    refused(Frame::FLAG_PADDED, hex("01"));
    refused(Frame::FLAG_PADDED, hex("FF 82 82"));
    for (size_t n = 0; n < 5; ++n) refused(Frame::FLAG_PRIORITY, std::string(n, '\x01'));
    refused(Frame::FLAG_PADDED | Frame::FLAG_PRIORITY, hex("01 | 00 00 00 03 | 10"));
    HeadersFrame full;
    full.setFlags(Frame::FLAG_PADDED);
    EXPECT_TRUE(decode(full, hex("02 00 00")));  // padding up to the end
    EXPECT_EQ(full.getHeaderList().size(), 0U);
}

TEST(ContinuationFrame, CarriesItsFragmentUndecoded) {
    ContinuationFrame frame;
    EXPECT_EQ(frame.getType(), Frame::TYPE_CONTINUATION_FRAME);
    EXPECT_EQ(frame.length(), 0U);
    EXPECT_TRUE(decode(frame, hex("80 FF")));
    EXPECT_EQ(text(frame.getHeaderBlockFragment()), hex("80 FF"));
    EXPECT_EQ(frame.length(), 2U);
    EXPECT_TRUE(decode(frame, ""));
    EXPECT_EQ(frame.getHeaderBlockFragment().Length(), 0U);
    EXPECT_EQ(frame.length(), 0U);
    Buffer fragment("abc");
    frame.setHeaderBlockFragment(fragment);
    EXPECT_EQ(frame.length(), 3U);
    EXPECT_EQ(payload(frame), "abc");
    const std::unique_ptr<Buffer> whole(frame.encodeFrame(nullptr));
    EXPECT_EQ(text(*whole), hex("00 00 03 09 00 00 00 00 00") + "abc");
    EXPECT_EQ(text(frame.getHeaderBlockFragment()), "abc");
    ContinuationFrame value(fragment);
    EXPECT_EQ(value.getType(), Frame::TYPE_SETTINGS_FRAME);
    EXPECT_EQ(value.length(), 3U);
    value.setEndHeadersFlag();
    EXPECT_TRUE(value.hasEndHeadersFlag());
    value.clearEndHeadersFlag();
    EXPECT_EQ(value.getFlags(), 0);
}

TEST(PushPromisFrame, ConstructorsDiffer) {
    PushPromisFrame made;
    EXPECT_EQ(made.getType(), Frame::TYPE_PUSH_PROMISE_FRAME);
    EXPECT_EQ(made.length(), 4U);
    EXPECT_FALSE(made.hasReserved());
    PushPromisFrame value(7, Buffer("abc"), 0);
    EXPECT_EQ(value.getType(), Frame::TYPE_SETTINGS_FRAME);
    EXPECT_EQ(value.getFlags(), 0);
    EXPECT_EQ(value.length(), 7U);
    EXPECT_EQ(payload(value), hex("00 00 00 07") + "abc");
    PushPromisFrame padded(7, Buffer("abc"), 2);
    EXPECT_EQ(padded.getFlags(), Frame::FLAG_PADDED);
    EXPECT_EQ(padded.length(), 10U);
    padded.setReserved(true);
    EXPECT_EQ(payload(padded), hex("02 | 00 00 00 87") + "abc");
    padded.clearPadFlag();
    EXPECT_EQ(padded.length(), 7U);
    padded.setPadFlag();
    EXPECT_EQ(padded.length(), 10U);
    Buffer fragment("x");
    padded.setHeaderBlockFragment(fragment);
    EXPECT_EQ(padded.length(), 8U);
    padded.setPromisedStreamId(0xFFFFFFFF);
    EXPECT_EQ(payload(padded), hex("02 | 7F FF FF FF") + "x");
    padded.setEndHeadersFlag();
    EXPECT_TRUE(padded.hasEndHeadersFlag());
    padded.clearEndHeadersFlag();
    EXPECT_FALSE(padded.hasEndHeadersFlag());
}

TEST(PushPromisFrame, TakesFourBytesBeyondItsBlock) {
    PushPromisFrame frame;
    EXPECT_TRUE(decode(frame, hex("80 00 00 04 | AA BB"), "wxyz"));
    EXPECT_TRUE(frame.hasReserved());
    EXPECT_EQ(frame.getPromisedStreamId(), 4U);
    EXPECT_EQ(text(frame.getHeaderBlockFragment()), hex("AA BB") + "wxyz");
    EXPECT_EQ(frame.length(), 10U);
}

TEST(PushPromisFrame, TakesItsPaddingFirst) {
    PushPromisFrame frame;
    frame.setFlags(Frame::FLAG_PADDED);
    EXPECT_TRUE(decode(frame, hex("01 | 00 00 00 04 | AA BB | 00"), "xyz"));
    EXPECT_EQ(frame.getPromisedStreamId(), 4U);
    EXPECT_EQ(text(frame.getHeaderBlockFragment()), hex("AA BB 00") + "xyz");
    PushPromisFrame four;
    four.setFlags(Frame::FLAG_PADDED);
    EXPECT_TRUE(decode(four, hex("04 | 00 80 00 04 | AA | 01 02 03 04")));
    EXPECT_EQ(four.getPromisedStreamId(), 0xFF800004U);
    EXPECT_EQ(text(four.getHeaderBlockFragment()), hex("AA 01 02 03 04"));
}

TEST(PushPromisFrame, RefusesWhatDoesNotFit) {
    const auto refused = [](uint8_t flags, const std::string& bytes) {
        PushPromisFrame frame(9, Buffer("old"), 0);
        frame.setFlags(flags);
        frame.setPadLength(9);
        frame.setLength(99);
        EXPECT_FALSE(decode(frame, bytes));
        EXPECT_EQ(frame.getPromisedStreamId(), 9U);
        EXPECT_EQ(frame.getPadLength(), 9);
        EXPECT_EQ(text(frame.getHeaderBlockFragment()), "old");
        EXPECT_EQ(frame.length(), 99U);
    };
    for (size_t n = 0; n < 4; ++n) refused(0, std::string(n, '\x01'));
    for (size_t n = 0; n < 5; ++n) refused(Frame::FLAG_PADDED, std::string(n, '\0'));
    refused(Frame::FLAG_PADDED, hex("01 00 00 00 04"));
    refused(Frame::FLAG_PADDED, hex("FF 00 00 00 04 AA"));
}

TEST(DataFrame, ConstructorsDiffer) {
    DataFrame made;
    EXPECT_EQ(made.getType(), Frame::TYPE_DATA_FRAME);
    EXPECT_EQ(made.length(), 0U);
    DataFrame value(Buffer("abc"), 2);
    EXPECT_EQ(value.getType(), Frame::TYPE_SETTINGS_FRAME);
    EXPECT_EQ(value.getFlags(), Frame::FLAG_PADDED);
    EXPECT_EQ(value.length(), 6U);
    EXPECT_EQ(payload(value), hex("02 61 62 63"));
    const std::unique_ptr<Buffer> whole(value.encodeFrame(nullptr));
    EXPECT_EQ(text(*whole), hex("00 00 04 | 04 | 08 | 00 00 00 00 | 02 61 62 63"));
    value.clearPadFlag();
    EXPECT_EQ(value.length(), 3U);
    value.setPadFlag();
    EXPECT_EQ(value.length(), 6U);
    Buffer data("x");
    value.setData(data);
    EXPECT_EQ(value.length(), 4U);
    value.setEndStreamFlag();
    EXPECT_TRUE(value.hasEndStreamFlag());
    value.clearEndStreamFlag();
    EXPECT_FALSE(value.hasEndStreamFlag());
    EXPECT_EQ(DataFrame(Buffer("abc"), 0).getFlags(), 0);
}

TEST(DataFrame, TakesBytesInPlaceOfThoseItHas) {
    DataFrame frame;
    const auto expectData = [&](const std::string& bytes) {
        EXPECT_EQ(text(frame.getData()), bytes);
        EXPECT_EQ(frame.length(), bytes.size());
        EXPECT_EQ(payload(frame), bytes);
    };
    std::string bytes = std::string(16'000, 'l') + std::string("\0end", 4);
    const std::string kept = bytes;
    frame.setData(bytes.data(), static_cast<unsigned int>(bytes.size()));
    std::fill(bytes.begin(), bytes.end(), '?');  // they are copied
    expectData(kept);
    const GuardedBytes shorter(hex("00 FF"));
    frame.setData(shorter.data(), 2);
    expectData(hex("00 FF"));
    frame.setData("unread", 0);
    expectData("");
    frame.setData(kept.data(), 9);
    expectData("lllllllll");
    frame.setPadLength(2);
    frame.setPadFlag();
    frame.setData("ab", 2);
    EXPECT_EQ(frame.length(), 5U);
    EXPECT_EQ(payload(frame), hex("02 61 62"));
    std::string appended;
    frame.appendTo(appended, nullptr);
    EXPECT_EQ(appended, hex("00 00 03 | 00 | 08 | 00 00 00 00 | 02 61 62"));
}

TEST(DataFrame, DecodesPaddedAndPlain) {
    DataFrame frame;
    frame.setFlags(Frame::FLAG_PADDED);
    EXPECT_TRUE(decode(frame, hex("03 | 61 62 | 00 00 00")));
    EXPECT_EQ(text(frame.getData()), "ab");
    EXPECT_EQ(frame.getPadLength(), 3);
    EXPECT_EQ(frame.length(), 6U);
    DataFrame plain;
    EXPECT_TRUE(decode(plain, "abcdefghij"));
    EXPECT_EQ(text(plain.getData()), "abcdefghij");
    EXPECT_EQ(plain.length(), 10U);
    EXPECT_TRUE(decode(plain, ""));
    EXPECT_EQ(plain.getData().Length(), 0U);
}

TEST(DataFrame, LeavesTheImpossibleLengthAlone) {
    DataFrame frame;
    frame.setLength(0xFFFFFFFF);
    EXPECT_TRUE(decode(frame, "ab"));
    EXPECT_EQ(frame.length(), 0xFFFFFFFFU);
}

TEST(DataFrame, RefusesPaddingThatDoesNotFit) {
    for (const std::string& bytes : {std::string(), hex("01"), hex("03 61 62"), hex("FF 61")}) {
        DataFrame frame(Buffer("old"), 9);
        frame.setLength(99);
        EXPECT_FALSE(decode(frame, bytes));
        EXPECT_EQ(text(frame.getData()), "old");
        EXPECT_EQ(frame.getPadLength(), 9);
        EXPECT_EQ(frame.length(), 99U);
    }
    DataFrame full;
    full.setFlags(Frame::FLAG_PADDED);
    EXPECT_TRUE(decode(full, hex("02 00 00")));
    EXPECT_EQ(full.getData().Length(), 0U);
    EXPECT_EQ(full.length(), 3U);
}

TEST(PayloadDecoders, RefuseANegativeLength) {
    hpack::Table table;
    for (int type = 0; type <= 9; ++type) {
        auto header = std::make_shared<BaseFrame>();
        header->m_type = static_cast<uint8_t>(type);
        const std::unique_ptr<Frame> frame(Frame::createFrame(header));
        EXPECT_FALSE(frame->decodeFramePayload("", -6, table)) << type;
    }
}

}  // namespace
