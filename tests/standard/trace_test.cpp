// Frames described to people, from the bytes of each direction.
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "Http2ClientStandard/trace/frame_trace.h"
#include "tests/support/bytes.h"
#include "tests/support/guarded.h"

namespace {

using namespace h2test;
using Texts = std::vector<std::string>;

h2::TraceSink sinkTo(Texts& texts) {
    return {[](const char* text, void* opaque) { static_cast<Texts*>(opaque)->emplace_back(text); },
            &texts};
}

// What comes of the bytes in one piece, byte by byte, and cut at every place: the same.
Texts traced(const std::string& bytes, bool isSent = false) {
    Texts whole;
    h2::FrameTrace("< ", isSent, sinkTo(whole)).add(GuardedBytes(bytes).view());
    Texts single;
    h2::FrameTrace oneByOne("< ", isSent, sinkTo(single));
    for (const char& byte : bytes) oneByOne.add({&byte, 1});
    EXPECT_EQ(single, whole);
    for (size_t cut = 1; cut < bytes.size(); ++cut) {
        Texts texts;
        h2::FrameTrace trace("< ", isSent, sinkTo(texts));
        trace.add(std::string_view(bytes).substr(0, cut));
        trace.add(std::string_view(bytes).substr(cut));
        EXPECT_EQ(texts, whole) << cut;
    }
    return whole;
}

TEST(FrameTrace, DescribesEachType) {
    EXPECT_EQ(traced(data(1, "abc", kEndStream)), Texts{"< DATA stream 1, 3 bytes END_STREAM"});
    EXPECT_EQ(traced(dataPadded(1, "abc", 2)), Texts{"< DATA stream 1, 6 bytes PADDED"});
    EXPECT_EQ(traced(data(1, "")), Texts{"< DATA stream 1, 0 bytes"});
    EXPECT_EQ(traced(frame(kPriority, 0, 3, hex("00 00 00 00 | 10"))),
              Texts{"< PRIORITY stream 3, 5 bytes"});
    EXPECT_EQ(traced(rstStream(5, 8)), Texts{"< RST_STREAM stream 5, 4 bytes: CANCEL"});
    EXPECT_EQ(traced(rstStream(5, 99)), Texts{"< RST_STREAM stream 5, 4 bytes: error 99"});
    EXPECT_EQ(traced(settings({{3, 100}, {4, 65535}, {8, 1}})),
              Texts{"< SETTINGS stream 0, 18 bytes\n    MAX_CONCURRENT_STREAMS: 100\n"
                    "    INITIAL_WINDOW_SIZE: 65535\n    setting 8: 1"});
    EXPECT_EQ(traced(settingsAck()), Texts{"< SETTINGS stream 0, 0 bytes ACK"});
    EXPECT_EQ(traced(ping(0x0123456789abcdef, kAck)),
              Texts{"< PING stream 0, 8 bytes ACK: 0123456789abcdef"});
    EXPECT_EQ(traced(goaway(7, 0)), Texts{"< GOAWAY stream 0, 8 bytes: NO_ERROR, last stream 7"});
    EXPECT_EQ(traced(goaway(7, 11, "slow\x1b[0m\n")),
              Texts{"< GOAWAY stream 0, 17 bytes: ENHANCE_YOUR_CALM, last stream 7, "
                    "\"slow\\x1b[0m\\x0a\""});
    EXPECT_EQ(traced(windowUpdate(0, 1000)), Texts{"< WINDOW_UPDATE stream 0, 4 bytes: 1000"});
    EXPECT_EQ(traced(frame(0xbe, 0xff, 1, "xy")), Texts{"< type 190 stream 1, 2 bytes"});
}

TEST(FrameTrace, DecodesHeadersAndMasksSecrets) {
    const std::string block = hpackIndexed(8) + hpackLiteral("a", "1\x80", Literal::kIncremental) +
                              hpackLiteral("set-cookie", "s") + hpackLiteral("cookie", "s") +
                              hpackLiteral("authorization", "s") +
                              hpackLiteral("proxy-authorization", "s");
    // The second block refers to the first one's entry, and comes in two frames.
    const Texts texts = traced(headers(1, block) + headers(3, hpackIndexed(62), kEndStream) +
                               continuation(3, hpackIndexed(8)));
    EXPECT_EQ(texts, (Texts{"< HEADERS stream 1, " + std::to_string(block.size()) +
                                " bytes END_HEADERS\n    :status: 200\n    a: 1\\x80\n"
                                "    set-cookie: ***\n    cookie: ***\n    authorization: ***\n"
                                "    proxy-authorization: ***",
                            "< HEADERS stream 3, 1 bytes END_STREAM",
                            "< CONTINUATION stream 3, 1 bytes END_HEADERS\n    a: 1\\x80\n"
                            "    :status: 200"}));
    EXPECT_EQ(traced(frame(kPushPromise, kEndHeaders, 1, hex("00 00 00 02") + hpackIndexed(2))),
              Texts{"< PUSH_PROMISE stream 1, 5 bytes END_HEADERS: stream 2\n    :method: GET"});
}

TEST(FrameTrace, ShowsWhatItCannotReadByItsHeader) {
    EXPECT_EQ(traced(frame(kRstStream, 0, 1, "abc")), Texts{"< RST_STREAM stream 1, 3 bytes"});
    EXPECT_EQ(traced(frame(kSettings, 0, 0, "abc")), Texts{"< SETTINGS stream 0, 3 bytes"});
    EXPECT_EQ(traced(frame(kGoaway, 0, 0, "abc")), Texts{"< GOAWAY stream 0, 3 bytes"});
    const std::string lost = "\n    (fields that cannot be decoded)";
    EXPECT_EQ(traced(headers(1, hpackIndexed(70)) + headers(3, hpackIndexed(8))),
              (Texts{"< HEADERS stream 1, 1 bytes END_HEADERS" + lost,
                     "< HEADERS stream 3, 1 bytes END_HEADERS" + lost}));
    EXPECT_EQ(traced(frame(kHeaders, kPadded | kEndHeaders, 1, "\x05")),
              Texts{"< HEADERS stream 1, 1 bytes END_HEADERS PADDED" + lost});
}

TEST(FrameTrace, BoundsWhatItKeeps) {
    Texts texts;
    h2::FrameTrace trace("", false, sinkTo(texts));
    trace.add(frameWithLength(0xffffff, kHeaders, kEndHeaders, 1, ""));
    const std::string part(1 << 16, 'x');
    for (size_t sent = 0; sent < 0xffffff; sent += part.size()) {
        trace.add(std::string_view(part).substr(0, std::min<size_t>(part.size(), 0xffffff - sent)));
        ASSERT_LE(trace.m_kept.size(), size_t{1} << 20);
    }
    EXPECT_EQ(texts, Texts{"HEADERS stream 1, 16777215 bytes END_HEADERS"});
    for (int i = 0; i < 100; ++i) {
        trace.add(frame(kContinuation, 0, 1, part));
        ASSERT_LE(trace.m_block.size(), (size_t{1} << 20) + part.size());
    }
    trace.add(continuation(1, ""));
    EXPECT_EQ(texts.back(),
              "CONTINUATION stream 1, 0 bytes END_HEADERS\n    (fields that cannot be decoded)");
}

// Each reference to the large entry costs the server one byte.
TEST(FrameTrace, BoundsWhatItShowsOfABlock) {
    const std::string bomb = hpackLiteral("n", std::string(4000, 'v'), Literal::kIncremental) +
                             std::string(100000, '\xbe');
    Texts texts;
    h2::FrameTrace trace("< ", false, sinkTo(texts));
    trace.add(headers(1, bomb));
    trace.add(headers(3, hpackIndexed(62)));
    ASSERT_EQ(texts.size(), 2u);
    EXPECT_LT(texts[0].size(), size_t{256} * 1024);
    EXPECT_TRUE(texts[0].ends_with("(further fields are left out)"));
    EXPECT_NE(texts[1].find("\n    n: vvv"), std::string::npos);
}

TEST(FrameTrace, BeginsWithThePrefaceOfTheClient) {
    EXPECT_EQ(traced(std::string(h2::kClientPreface) + settings({}), true),
              (Texts{"< connection preface", "< SETTINGS stream 0, 0 bytes"}));
}

TEST(ConnectionTrace, NumbersConnectionsAndTellsDirections) {
    Texts texts;
    h2::ConnectionTrace first(sinkTo(texts));
    h2::ConnectionTrace second(sinkTo(texts));
    std::string start(h2::kClientPreface);
    std::string rest = settings({}) + "not sent yet";
    const iovec parts[] = {{start.data(), start.size()}, {rest.data(), rest.size()}};
    first.sent(parts, start.size() + 9);
    second.received(settingsAck());
    ASSERT_EQ(texts.size(), 3u);
    const int number = std::stoi(texts[0].substr(1));
    EXPECT_EQ(texts[0], "#" + std::to_string(number) + " > connection preface");
    EXPECT_EQ(texts[1], "#" + std::to_string(number) + " > SETTINGS stream 0, 0 bytes");
    EXPECT_EQ(texts[2], "#" + std::to_string(number + 1) + " < SETTINGS stream 0, 0 bytes ACK");
}

}  // namespace
