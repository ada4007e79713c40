// Frame headers, the checks on them, the payload readers, and the writers of all ten types.
#include <gtest/gtest.h>

#include <sys/uio.h>

#include <string>

#include "Http2ClientStandard/frames/frame_reader.h"
#include "Http2ClientStandard/frames/frame_writer.h"
#include "Http2ClientStandard/frames/output.h"
#include "tests/support/bytes.h"
#include "tests/support/guarded.h"

namespace {

using h2::ErrorCode;
using h2::ErrorLevel;
using h2::FrameHeader;
using h2::FrameType;
using h2::Violation;
using h2test::GuardedBytes;
using h2test::hex;

constexpr uint32_t kMax = h2::kDefaultMaxFrameSize;

void expectViolation(const FrameHeader& header, ErrorLevel level, ErrorCode code) {
    SCOPED_TRACE(testing::Message()
                 << "type " << int(header.type) << " flags " << int(header.flags) << " length "
                 << header.length << " stream " << header.streamId);
    const Violation violation = h2::checkFrameHeader(header, kMax);
    EXPECT_EQ(violation.level, level);
    EXPECT_EQ(violation.code, code);
    EXPECT_EQ(violation.rule[0] != '\0', level != ErrorLevel::kNone);
}

void expectFine(const FrameHeader& header) {
    expectViolation(header, ErrorLevel::kNone, ErrorCode::kNoError);
}

void expectSizeError(const FrameHeader& header) {
    expectViolation(header, ErrorLevel::kConnection, ErrorCode::kFrameSizeError);
}

TEST(FrameHeader, IsReadFieldByField) {
    // length 0x010203, type 4, flags 0x81, R bit set, stream 0x7fffffff
    const GuardedBytes bytes(hex("01 02 03 | 04 | 81 | ff ff ff ff"));
    const FrameHeader header = h2::readFrameHeader(bytes.data());
    EXPECT_EQ(header.length, 0x010203u);
    EXPECT_EQ(header.type, FrameType::kSettings);
    EXPECT_EQ(header.flags, 0x81);
    EXPECT_EQ(header.streamId, 0x7fffffffu);  // RFC 9113, 4.1: the R bit is ignored
}

TEST(FrameHeader, IsWrittenFieldByField) {
    GuardedBytes bytes(std::string(9, '\x55'));
    h2::writeFrameHeader(bytes.data(), {0xfffefd, FrameType::kContinuation, 0x04, 0x01020304});
    EXPECT_EQ(h2test::toHex(bytes.view()), "ff fe fd 09 04 01 02 03 04");
}

TEST(FrameHeaderCheck, AllowsEachTypeOnItsKindOfStream) {
    const struct {
        FrameType type;
        uint32_t length;
        bool onStream;
        bool onConnection;
    } rows[] = {
        {FrameType::kData, 3, true, false},          {FrameType::kHeaders, 3, true, false},
        {FrameType::kPriority, 5, true, false},      {FrameType::kRstStream, 4, true, false},
        {FrameType::kSettings, 6, false, true},      {FrameType::kPushPromise, 4, true, false},
        {FrameType::kPing, 8, false, true},          {FrameType::kGoAway, 8, false, true},
        {FrameType::kWindowUpdate, 4, true, true},   {FrameType::kContinuation, 3, true, false},
        {static_cast<FrameType>(10), 1, true, true}, {static_cast<FrameType>(255), 0, true, true},
    };
    for (const auto& row : rows) {
        for (const uint32_t stream : {0u, 1u, 2u, 0x7fffffffu}) {
            const FrameHeader header{row.length, row.type, 0, stream};
            if (stream == 0 ? row.onConnection : row.onStream) {
                expectFine(header);
            } else {
                expectViolation(header, ErrorLevel::kConnection, ErrorCode::kProtocolError);
            }
        }
    }
}

TEST(FrameHeaderCheck, RefusesFramesAboveTheLimitOfEveryType) {
    for (int type = 0; type < 256; ++type) {
        expectSizeError({kMax + 1, static_cast<FrameType>(type), 0, 1});
        expectSizeError({0xffffff, static_cast<FrameType>(type), 0, 0});
    }
    expectFine({kMax, FrameType::kData, 0, 1});
    expectFine({kMax, static_cast<FrameType>(77), 0, 1});
}

TEST(FrameHeaderCheck, WantsExactLengths) {
    for (uint32_t length = 0; length < 40; ++length) {
        const auto judge = [](const FrameHeader& header, bool fine) {
            if (fine) {
                expectFine(header);
            } else if (header.type == FrameType::kPriority) {
                expectViolation(header, ErrorLevel::kStream, ErrorCode::kFrameSizeError);
            } else {
                expectSizeError(header);
            }
        };
        judge({length, FrameType::kPriority, 0, 1}, length == 5);
        judge({length, FrameType::kRstStream, 0, 1}, length == 4);
        judge({length, FrameType::kWindowUpdate, 0, 0}, length == 4);
        judge({length, FrameType::kWindowUpdate, 0, 1}, length == 4);
        judge({length, FrameType::kPing, 0, 0}, length == 8);
        judge({length, FrameType::kPing, h2::flag::kAck, 0}, length == 8);
        judge({length, FrameType::kSettings, 0, 0}, length % 6 == 0);
        judge({length, FrameType::kSettings, h2::flag::kAck, 0}, length == 0);
    }
}

TEST(FrameHeaderCheck, WantsRoomForFixedParts) {
    const struct {
        FrameType type;
        uint8_t flags;
        uint32_t minimum;
    } rows[] = {
        {FrameType::kData, 0, 0},
        {FrameType::kData, h2::flag::kPadded, 1},
        {FrameType::kHeaders, 0, 0},
        {FrameType::kHeaders, h2::flag::kPadded, 1},
        {FrameType::kHeaders, h2::flag::kPriority, 5},
        {FrameType::kHeaders, h2::flag::kPadded | h2::flag::kPriority, 6},
        {FrameType::kPushPromise, 0, 4},
        {FrameType::kPushPromise, h2::flag::kPadded, 5},
        {FrameType::kContinuation, h2::flag::kPadded, 0},  // the flag means nothing there
    };
    for (const auto& row : rows) {
        for (uint32_t length = 0; length < 10; ++length) {
            const FrameHeader header{length, row.type, row.flags, 1};
            if (length >= row.minimum) {
                expectFine(header);
            } else {
                expectSizeError(header);
            }
        }
    }
    for (uint32_t length = 0; length < 8; ++length) {
        expectSizeError({length, FrameType::kGoAway, 0, 0});
    }
    expectFine({8, FrameType::kGoAway, 0, 0});
    expectFine({9, FrameType::kGoAway, 0, 0});
}

// Reads a fragment from bytes that end at an unreadable page.
std::optional<std::string> fragmentOf(FrameType type, uint8_t flags, const std::string& payload) {
    const GuardedBytes bytes(payload);
    const FrameHeader header{static_cast<uint32_t>(payload.size()), type, flags, 1};
    const auto fragment = h2::readFragment(header, bytes.view());
    if (!fragment.has_value()) return std::nullopt;
    return std::string(*fragment);
}

TEST(Fragment, LeavesOutPaddingAndPriority) {
    EXPECT_EQ(fragmentOf(FrameType::kHeaders, 0x04, "abc"), "abc");
    EXPECT_EQ(fragmentOf(FrameType::kHeaders, 0x04, ""), "");
    EXPECT_EQ(fragmentOf(FrameType::kHeaders, 0x08, hex("02 61 62 63 00 00")), "abc");
    EXPECT_EQ(fragmentOf(FrameType::kHeaders, 0x20, hex("80 00 00 03 10 61 62")), "ab");
    EXPECT_EQ(fragmentOf(FrameType::kHeaders, 0x28, hex("01 80 00 00 03 10 61 62 00")), "ab");
    EXPECT_EQ(fragmentOf(FrameType::kPushPromise, 0x00, hex("00 00 00 02 61")), "a");
    EXPECT_EQ(fragmentOf(FrameType::kPushPromise, 0x08, hex("01 00 00 00 02 61 00")), "a");
    // CONTINUATION has no flag but END_HEADERS: the others are ignored.
    EXPECT_EQ(fragmentOf(FrameType::kContinuation, 0x28, hex("05 61")), hex("05 61"));
}

TEST(Fragment, IsNothingWhenThePaddingDoesNotFit) {
    for (int padding = 0; padding < 256; ++padding) {
        const std::string payload = h2test::be8(static_cast<uint32_t>(padding)) + "abc";
        const auto fragment = fragmentOf(FrameType::kHeaders, 0x08, payload);
        EXPECT_EQ(fragment.has_value(), padding <= 3) << padding;
        if (fragment.has_value()) {
            EXPECT_EQ(fragment->size(), 3u - static_cast<size_t>(padding));
        }
    }
    EXPECT_EQ(fragmentOf(FrameType::kHeaders, 0x08, hex("01")), std::nullopt);
    EXPECT_EQ(fragmentOf(FrameType::kHeaders, 0x08, hex("00")), "");
    // Padding must not reach into the fixed fields either.
    EXPECT_EQ(fragmentOf(FrameType::kHeaders, 0x28, hex("02 80 00 00 03 10 61")), std::nullopt);
    EXPECT_EQ(fragmentOf(FrameType::kPushPromise, 0x08, hex("01 00 00 00 02")), std::nullopt);
}

TEST(Payload, IsReadInPlace) {
    const GuardedBytes promise(hex("00 80 00 00 0a"));
    EXPECT_EQ(h2::readPromisedStream({5, FrameType::kPushPromise, 0x08, 1}, promise.view()), 10u);
    const GuardedBytes promiseOnly(hex("ff ff ff fe"));
    EXPECT_EQ(h2::readPromisedStream({4, FrameType::kPushPromise, 0, 1}, promiseOnly.view()),
              0x7ffffffeu);

    const GuardedBytes code(hex("ff ff fc 7a"));
    EXPECT_EQ(h2::readErrorCode(code.view()), 0xfffffc7au);
    EXPECT_EQ(h2::readIncrement(code.view()), 0x7ffffc7au);  // the R bit is ignored

    const GuardedBytes settings(hex("00 03 00 00 00 64 | fe 03 00 00 00 01"));
    ASSERT_EQ(h2::settingCount(settings.view()), 2u);
    EXPECT_EQ(h2::readSetting(settings.view(), 0).id, 3);
    EXPECT_EQ(h2::readSetting(settings.view(), 0).value, 100u);
    EXPECT_EQ(h2::readSetting(settings.view(), 1).id, 0xfe03);
    EXPECT_EQ(h2::readSetting(settings.view(), 1).value, 1u);

    const GuardedBytes goAway(hex("80 00 00 05 | 00 00 00 0b | 62 79 65"));
    const h2::GoAway read = h2::readGoAway(goAway.view());
    EXPECT_EQ(read.lastStreamId, 5u);
    EXPECT_EQ(read.code, 11u);
    EXPECT_EQ(read.debugData, "bye");
    EXPECT_EQ(h2::readGoAway(goAway.view().substr(0, 8)).debugData, "");

    const GuardedBytes priority(hex("80 00 00 07 ff"));
    EXPECT_TRUE(h2::readPriority(priority.view()).exclusive);
    EXPECT_EQ(h2::readPriority(priority.view()).dependency, 7u);
    EXPECT_EQ(h2::readPriority(priority.view()).weight, 255);
}

TEST(FrameWriter, WritesEachType) {
    h2::Bytes out;
    const auto written = [&out] {
        std::string text(out.view());
        out.clear();
        return text;
    };
    h2::writeData(out, 1, "abc", true);
    EXPECT_EQ(written(), h2test::data(1, "abc", h2test::kEndStream));
    h2::writeData(out, 0x7fffffff, "", false);
    EXPECT_EQ(written(), h2test::data(0x7fffffff, ""));
    h2::writeHeaders(out, 3, "block", h2::flag::kEndHeaders | h2::flag::kEndStream);
    EXPECT_EQ(written(), h2test::headers(3, "block", 0x05));
    h2::writeContinuation(out, 3, "more", false);
    EXPECT_EQ(written(), h2test::continuation(3, "more", 0));
    h2::writeContinuation(out, 3, "last", true);
    EXPECT_EQ(written(), h2test::continuation(3, "last"));
    h2::writePriority(out, 5, {3, 15, true});
    EXPECT_EQ(written(), h2test::frame(2, 0, 5, hex("80 00 00 03 0f")));
    h2::writeRstStream(out, 5, ErrorCode::kCancel);
    EXPECT_EQ(written(), h2test::rstStream(5, 8));
    const h2::Setting settings[] = {{2, 0}, {4, 0x02000000}};
    h2::writeSettings(out, settings);
    EXPECT_EQ(written(), h2test::settings({{2, 0}, {4, 0x02000000}}));
    h2::writeSettings(out, {});
    EXPECT_EQ(written(), h2test::settings({}));
    h2::writeSettingsAck(out);
    EXPECT_EQ(written(), h2test::settingsAck());
    h2::writePushPromise(out, 1, 2, "block", true);
    EXPECT_EQ(written(), h2test::frame(5, 0x04, 1, hex("00 00 00 02") + "block"));
    h2::writePing(out, "12345678", false);
    EXPECT_EQ(written(), h2test::frame(6, 0, 0, "12345678"));
    h2::writePing(out, "12345678", true);
    EXPECT_EQ(written(), h2test::frame(6, 1, 0, "12345678"));
    h2::writeGoAway(out, 7, ErrorCode::kEnhanceYourCalm, "bye");
    EXPECT_EQ(written(), h2test::goaway(7, 11, "bye"));
    h2::writeWindowUpdate(out, 0, 0x7fffffff);
    EXPECT_EQ(written(), h2test::windowUpdate(0, 0x7fffffff));
}

TEST(FrameWriter, SplitsALargeFieldBlock) {
    for (const size_t size : {0u, 1u, 9u, 10u, 11u, 20u, 21u, 30u, 35u}) {
        std::string block;
        for (size_t i = 0; i < size; ++i) block += static_cast<char>('a' + i % 26);
        h2::Bytes out;
        out.append("before");
        out.append(std::string(h2::kFrameHeaderSize, '\0'));
        out.append(block);
        h2::frameFieldBlock(out, 6, 9, true, 10);

        std::string expected = "before";
        std::string rest = block;
        uint8_t type = h2test::kHeaders;
        do {
            const std::string fragment = rest.substr(0, 10);
            rest.erase(0, 10);
            const int flags = (type == h2test::kHeaders ? 1 : 0) | (rest.empty() ? 4 : 0);
            expected += h2test::frame(type, static_cast<uint8_t>(flags), 9, fragment);
            type = h2test::kContinuation;
        } while (!rest.empty());
        EXPECT_EQ(h2test::toHex(out.view()), h2test::toHex(expected)) << size;
    }
}

std::string gathered(const h2::Output& output, size_t max) {
    iovec parts[16];
    const size_t count = output.gather(parts, max);
    EXPECT_LE(count, max);
    std::string text;
    for (size_t i = 0; i < count; ++i) {
        text.append(static_cast<const char*>(parts[i].iov_base), parts[i].iov_len);
    }
    return text;
}

const std::string kMixed = "head-block1-mid-block2block3-tail";

void fillMixed(h2::Output& output) {
    static const char block1[] = "block1";
    static const char block2[] = "block2";
    static const char block3[] = "block3";
    output.own().append("head-");
    output.refer(block1, 6);
    output.own().append("-mid-");
    output.refer(block2, 6);
    output.refer(nullptr, 0);
    output.refer(block3, 6);
    output.own().append("-tail");
}

TEST(Output, GivesOwnBytesAndBlocksInOrder) {
    h2::Output output;
    EXPECT_TRUE(output.empty());
    EXPECT_EQ(gathered(output, 16), "");
    fillMixed(output);
    EXPECT_EQ(output.size(), kMixed.size());
    EXPECT_EQ(gathered(output, 16), kMixed);
    EXPECT_EQ(gathered(output, 6), kMixed);
    EXPECT_EQ(gathered(output, 3), "head-block1-mid-");
    EXPECT_EQ(gathered(output, 2), "head-block1");
    EXPECT_EQ(gathered(output, 0), "");
}

TEST(Output, IsConsumedAtEveryPlace) {
    for (size_t first = 0; first <= kMixed.size(); ++first) {
        for (size_t second = 0; first + second <= kMixed.size(); ++second) {
            h2::Output output;
            fillMixed(output);
            output.consume(first);
            EXPECT_EQ(gathered(output, 16), kMixed.substr(first));
            output.consume(second);
            const std::string rest = kMixed.substr(first + second);
            EXPECT_EQ(output.size(), rest.size());
            EXPECT_EQ(gathered(output, 16), rest);
            fillMixed(output);
            EXPECT_EQ(gathered(output, 16), rest + kMixed);
            output.copyBlocks();
            EXPECT_EQ(gathered(output, 1), rest + kMixed);
        }
    }
}

TEST(Output, KeepsTheBytesWhenBlocksGoAway) {
    h2::Output output;
    {
        std::string block = "a block that goes away";
        output.own().append("head ");
        output.refer(block.data(), block.size());
        output.consume(7);
        output.copyBlocks();
        block.assign(block.size(), 'x');
    }
    output.own().append("!");
    EXPECT_EQ(gathered(output, 16), "block that goes away!");
    output.clear();
    EXPECT_TRUE(output.empty());
    output.release();
    EXPECT_EQ(gathered(output, 16), "");
}

}  // namespace
