#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "Http2Client/frame.h"
#include "tests/support/bytes.h"
#include "tests/support/capture.h"

namespace {

using namespace h2test;
using tiny::FrameCtx;

// A context, its console, and helpers that feed it.
class FrameCtxTest : public testing::Test {
protected:
    FrameCtx::CONTEXT_STATE feed(const std::string& bytes) {
        return m_ctx.sendPacket(bytes.data(), bytes.size(), m_table, true);
    }

    // All queued frames, one line each.
    static std::string drained(FrameCtx& ctx) {
        std::string out;
        while (const auto frame = ctx.getFrame()) {
            out += frame->getFrameTypeName() + " stream=" + std::to_string(frame->getStreamId()) +
                   " flags=" + std::to_string(frame->getFlags()) +
                   " length=" + std::to_string(frame->length());
            if (const auto* data = dynamic_cast<tiny::DataFrame*>(frame.get())) {
                out += " data=" + toHex(std::string(data->getData().buffer, data->getData().len));
            }
            if (const auto* headers = dynamic_cast<tiny::HeadersFrame*>(frame.get())) {
                for (const auto& header : headers->getHeaderList()) {
                    out += " " + header.constField().Name() + "=" + header.constField().Value();
                }
            }
            if (const auto* push = dynamic_cast<tiny::PushPromisFrame*>(frame.get())) {
                const Buffer& fragment = push->getHeaderBlockFragment();
                out += " fragment=" + toHex(std::string(fragment.buffer, fragment.len));
            }
            out += "\n";
        }
        return out;
    }

    CoutCapture m_out;
    FrameCtx m_ctx;
    hpack::Table m_table;
};

TEST_F(FrameCtxTest, StatesHaveFixedValues) {
    EXPECT_EQ(FrameCtx::CTX_DONE, 0);
    EXPECT_EQ(FrameCtx::CTX_MORE_DATA, 1);
    EXPECT_EQ(FrameCtx::CTX_MUST_READ, 2);
    EXPECT_EQ(FrameCtx::CTX_FETAL_ERROR, -1);
    EXPECT_EQ(FrameCtx::CTX_NEED_CLOSE, -2);
}

TEST_F(FrameCtxTest, NullDataOnlyAsksForTheState) {
    EXPECT_FALSE(m_ctx.hasFrame());
    EXPECT_EQ(m_ctx.getFrame(), nullptr);
    EXPECT_EQ(m_ctx.sendPacket(nullptr, 50, m_table, true), FrameCtx::CTX_MORE_DATA);
    EXPECT_EQ(feed(settingsAck()), FrameCtx::CTX_DONE);
    EXPECT_EQ(m_ctx.sendPacket(nullptr, 50, m_table, true), FrameCtx::CTX_DONE);
    EXPECT_EQ(m_ctx.m_stackedData, "");
}

TEST_F(FrameCtxTest, QueuesACompleteFrameAtOnce) {
    EXPECT_EQ(feed(hex("00 00 00 04 01 00 00 00 00")), FrameCtx::CTX_DONE);
    EXPECT_EQ(m_ctx.m_stackedData, "");
    ASSERT_TRUE(m_ctx.hasFrame());
    const auto frame = m_ctx.getFrame();
    EXPECT_TRUE(dynamic_cast<tiny::SettingsFrame&>(*frame).hasAckFlag());
    EXPECT_FALSE(m_ctx.hasFrame());
    EXPECT_EQ(m_out.str(), "SETTINGS\n");
}

TEST_F(FrameCtxTest, WaitsForHeaderAndPayload) {
    const std::string whole = ping(0x0102030405060708);
    EXPECT_EQ(feed(whole.substr(0, 5)), FrameCtx::CTX_MORE_DATA);
    EXPECT_EQ(m_ctx.m_stackedData.size(), 5U);
    EXPECT_EQ(m_out.str(), "");
    EXPECT_EQ(feed(whole.substr(5, 4)), FrameCtx::CTX_MORE_DATA);
    EXPECT_NE(m_ctx.m_frame, nullptr);
    ASSERT_NE(m_ctx.m_baseFrame, nullptr);
    EXPECT_EQ(m_ctx.m_baseFrame->m_length, 8U);
    EXPECT_EQ(m_ctx.m_stackedData, "");
    EXPECT_EQ(m_out.str(), "PING\n");
    EXPECT_EQ(feed(whole.substr(9, 7)), FrameCtx::CTX_MORE_DATA);
    EXPECT_EQ(feed(whole.substr(16)), FrameCtx::CTX_DONE);
    EXPECT_EQ(m_ctx.m_frame, nullptr);
    EXPECT_EQ(m_ctx.m_baseFrame, nullptr);
    EXPECT_EQ(m_out.str(), "PING\n");
}

TEST_F(FrameCtxTest, ReportsTheQueueWhileAnotherFrameIsAwaited) {
    EXPECT_EQ(feed(settingsAck() + ping(1).substr(0, 12)), FrameCtx::CTX_DONE);
    EXPECT_EQ(feed(""), FrameCtx::CTX_DONE);
    m_ctx.getFrame();
    EXPECT_EQ(feed(""), FrameCtx::CTX_MORE_DATA);
}

TEST_F(FrameCtxTest, FramesComeOutInWireOrder) {
    EXPECT_EQ(feed(data(1, "ab") + windowUpdate(3, 5) + data(5, "", kEndStream)),
              FrameCtx::CTX_DONE);
    EXPECT_EQ(drained(m_ctx), "DATA stream=1 flags=0 length=2 data=" + toHex("ab") +
                                  "\n"
                                  "WINDOW_UPDATE stream=3 flags=0 length=4\n"
                                  "DATA stream=5 flags=1 length=0 data=\n");
    EXPECT_EQ(m_ctx.getFrame(), nullptr);
}

TEST_F(FrameCtxTest, KnowsTenTypes) {
    for (int type = 0; type < 256; ++type) {
        FrameCtx ctx;
        const std::string bytes = frame(static_cast<uint8_t>(type), 0, 1, "");
        EXPECT_EQ(ctx.sendPacket(bytes.data(), bytes.size(), m_table, true),
                  type <= 9 ? FrameCtx::CTX_DONE : FrameCtx::CTX_FETAL_ERROR)
            << type;
    }
}

TEST_F(FrameCtxTest, KeepsUnknownTypeAtFrontForever) {
    const std::string bad = frame(0x0A, 0, 1, "abc");
    EXPECT_EQ(feed(settingsAck() + bad), FrameCtx::CTX_FETAL_ERROR);
    EXPECT_EQ(m_ctx.m_stackedData, bad);
    EXPECT_EQ(m_ctx.m_frame, nullptr);
    EXPECT_EQ(feed(ping(1)), FrameCtx::CTX_FETAL_ERROR);
    EXPECT_EQ(feed(""), FrameCtx::CTX_FETAL_ERROR);
    EXPECT_EQ(m_ctx.m_stackedData, bad + ping(1));
    EXPECT_EQ(m_out.str(), "SETTINGS\nfetal error\nfetal error\nfetal error\n");
    EXPECT_EQ(drained(m_ctx), "SETTINGS stream=0 flags=1 length=0\n");
}

TEST_F(FrameCtxTest, QueuesFramesWhoseDecoderFails) {
    EXPECT_EQ(feed(frame(kSettings, 0, 0, "12345") + rstStream(1, 8).substr(0, 2) +
                   hex("03 03 00 00 00 00 01") + "abc" + headers(1, hex("80"))),
              FrameCtx::CTX_DONE);
    EXPECT_EQ(drained(m_ctx),
              "SETTINGS stream=0 flags=0 length=5\n"
              "RST_STREAM stream=1 flags=0 length=3\n"
              "HEADERS stream=1 flags=4 length=1\n");
}

TEST_F(FrameCtxTest, FailsAPendingFrameOfImpossibleLength) {
    EXPECT_EQ(feed(ping(1).substr(0, 9)), FrameCtx::CTX_MORE_DATA);
    m_ctx.m_frame->setLength(0x1000001);
    EXPECT_EQ(feed("12345678"), FrameCtx::CTX_FETAL_ERROR);
    EXPECT_EQ(m_ctx.m_stackedData, "");
    m_ctx.m_frame->setLength(0x1000000);
    EXPECT_EQ(feed("12345678"), FrameCtx::CTX_DONE);
}

TEST_F(FrameCtxTest, DecodesBlocksAgainstACopyOfTheTable) {
    const std::string first = headers(1, hpackLiteral("n", "v", Literal::kIncremental));
    EXPECT_EQ(feed(first + headers(1, hpackIndexed(62))), FrameCtx::CTX_DONE);
    EXPECT_EQ(drained(m_ctx),
              "HEADERS stream=1 flags=4 length=5 n=v\n"
              "HEADERS stream=1 flags=4 length=1 n=v\n");
    EXPECT_TRUE(m_table.dynamic_table_.empty());
    EXPECT_EQ(feed(headers(1, hpackIndexed(62))), FrameCtx::CTX_DONE);  // gone with the call
    EXPECT_EQ(drained(m_ctx), "HEADERS stream=1 flags=4 length=1\n");
}

TEST_F(FrameCtxTest, PushPromiseTakesWhatFollowsOrZeros) {
    const std::pair<std::string, std::string> cases[] = {
        {hex("00 00 00 04 01 00 00 00 00"), "aa 00 00 00 04\nSETTINGS stream=0 flags=1 length=0"},
        {"", "aa 00 00 00 00"},
        {hex("00 00 08"), "aa 00 00 08 00"}};
    for (const auto& [after, fragment] : cases) {
        EXPECT_EQ(feed(frame(kPushPromise, 0, 1, hex("00 00 00 02 | AA")) + after),
                  FrameCtx::CTX_DONE);
        EXPECT_EQ(drained(m_ctx),
                  "PUSH_PROMISE stream=1 flags=0 length=9 fragment=" + fragment + "\n");
    }
    EXPECT_EQ(m_ctx.m_stackedData, hex("00 00 08"));
}

// No PUSH_PROMISE and no reference to a dynamic entry: those depend on the cuts.
std::string mixedStream() {
    return settings({{3, 7}, {5, 16384}}) + headers(1, hex("88") + hpackLiteral("n", "v")) +
           data(1, "hello") + dataPadded(1, "pad", 4) + ping(9) + frame(kSettings, 0, 0, "12345") +
           windowUpdate(0, 1) + continuation(1, "xyz") +
           frame(kPriority, 0, 3, hex("80 00 00 01 10")) + data(1, "", kEndStream) +
           goaway(1, 0, "bye") + rstStream(3, 8);
}

TEST_F(FrameCtxTest, GivesTheSameFramesHoweverTheStreamIsCut) {
    const std::string stream = mixedStream();
    EXPECT_EQ(feed(stream), FrameCtx::CTX_DONE);
    const std::string expected = drained(m_ctx);
    const std::string console = m_out.str();
    EXPECT_EQ(m_ctx.m_stackedData, "");
    ASSERT_EQ(std::count(expected.begin(), expected.end(), '\n'), 12);
    for (size_t cut = 0; cut <= stream.size(); ++cut) {
        m_out.clear();
        FrameCtx ctx;
        ctx.sendPacket(stream.data(), cut, m_table, true);
        EXPECT_EQ(ctx.sendPacket(stream.data() + cut, stream.size() - cut, m_table, true),
                  FrameCtx::CTX_DONE);
        EXPECT_EQ(drained(ctx), expected) << cut;
        EXPECT_EQ(m_out.str(), console) << cut;
    }
    for (const char byte : stream) feed(std::string(1, byte));
    EXPECT_EQ(drained(m_ctx), expected);
    EXPECT_EQ(m_ctx.m_stackedData, "");
}

TEST_F(FrameCtxTest, TakesTheLargestFrame) {
    const std::string body(16777215, 'x');
    EXPECT_EQ(feed(frameHeader(16777215, kData, 0, 1)), FrameCtx::CTX_MORE_DATA);
    EXPECT_EQ(feed(body.substr(1)), FrameCtx::CTX_MORE_DATA);
    EXPECT_EQ(feed("x" + settingsAck()), FrameCtx::CTX_DONE);
    const auto whole = m_ctx.getFrame();
    EXPECT_EQ(whole->length(), 16777215U);
    EXPECT_TRUE(m_ctx.hasFrame());
    EXPECT_EQ(m_ctx.m_stackedData, "");
    EXPECT_LT(m_ctx.m_stackedData.capacity(), 65537U);  // not kept for the connection's life
}

TEST_F(FrameCtxTest, ReleasesAFrameThatIsStillAwaited) {
    auto ctx = std::make_unique<FrameCtx>();
    const std::string bytes = settingsAck() + ping(1).substr(0, 10);
    ctx->sendPacket(bytes.data(), bytes.size(), m_table, true);
    EXPECT_NE(ctx->m_frame, nullptr);
    ctx.reset();  // AddressSanitizer reports a leak
}

}  // namespace
