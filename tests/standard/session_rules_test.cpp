// Rules of RFC 9113 about pushes, about what the client never sends, and about errors that meet.
#include "tests/standard/session_support.h"

namespace h2test {
namespace {

constexpr uint8_t kLast = kEndHeaders | kEndStream;
const std::string kOk = status("200");

std::string promise(uint32_t stream, uint32_t promised, const std::string& block = kOk) {
    return frame(kPushPromise, kEndHeaders, stream, be32(promised) + block);
}

// A connection on which the server has not acknowledged our settings, so that it may still push.
void expectPushError(const std::string& bytes, const std::string& code) {
    play([&](Peer& peer) {
        peer.sentGet();
        EXPECT_EQ(peer.answer(settings({}) + bytes).back().substr(0, 6), "end 1 ");
        EXPECT_EQ(peer.error(), code);
        EXPECT_EQ(peer.sent().back(), "GOAWAY 0 " + code);
    });
}

TEST(SessionPush, IsRefusedWhateverItPromises) {
    // A method that is not safe, no method at all, content, another server: RFC 9113, 8.4.
    for (const std::string& block :
         {hpackLiteral(":method", "POST"), std::string(), hpackLiteral("content-length", "5"),
          hpackLiteral(":authority", "other"), hpackLiteral("Upper", "x")}) {
        play([&](Peer& peer) {
            peer.sentGet();
            EXPECT_EQ(peer.answer(settings({}) + promise(1, 2, block) + headers(1, kOk, kLast)),
                      (Lines{"settings", "headers 1 200 :status=200", "end 1 complete"}));
            EXPECT_EQ(peer.sent(), (Lines{"SETTINGS ack", "RST_STREAM 2 7"}));
        });
    }
}

TEST(SessionPush, MustBeWellFormed) {
    expectPushError(frame(kPushPromise, kEndHeaders | kPadded, 1, be8(5) + be32(2) + "abcd"), "1");
    expectPushError(frame(kPushPromise, kEndHeaders | kPadded, 1, be8(1) + be32(2)), "1");
    expectPushError(frame(kPushPromise, kEndHeaders, 1, "123"), "6");
    expectPushError(promise(0, 2), "1");
    expectPushError(promise(1, 2, hex("80")), "9");
    for (const std::string& intruder :
         {data(1, "x"), ping(1), continuation(3, kOk), promise(1, 4), frame(0x77, 0, 1, "x")}) {
        expectPushError(frame(kPushPromise, 0, 1, be32(2) + kOk) + intruder, "1");
    }
}

TEST(SessionPush, OnAStreamOfTheServersEndsTheConnection) {
    expectPushError(promise(1, 2) + promise(2, 4), "1");
    expectPushError(promise(1, 2) + headers(2, kOk) + promise(2, 4), "1");
}

TEST(SessionPush, StreamTakesWhatMayBeOnTheWay) {
    play([](Peer& peer) {
        peer.sentGet();
        peer.server(settings({}) + promise(1, 2));
        EXPECT_EQ(peer.sent(), (Lines{"SETTINGS ack", "RST_STREAM 2 7"}));
        peer.server(frame(kPriority, 0, 2, "12345") + windowUpdate(2, 1) + headers(2, kOk) +
                    data(2, "x", kEndStream) + rstStream(2, 8));
        EXPECT_EQ(peer.error(), "");
        EXPECT_EQ(peer.sent(), Lines{});
        // Streams below the promised one are closed with it, those above are idle.
        peer.server(promise(1, 8) + rstStream(6, 8));
        EXPECT_EQ(peer.error(), "");
        peer.server(rstStream(10, 8));
        EXPECT_EQ(peer.error(), "1");
    });
}

TEST(SessionFlood, OfPromisesEndsTheConnection) {
    h2::SessionOptions options;
    options.frameBudget = 50;
    options.frameBudgetPerSecond = 10;
    playWhole(
        [](Peer& peer) {
            peer.sentGet();
            peer.server(settings({}));  // takes one, and our settings are never acknowledged
            peer.sent();
            for (uint32_t i = 1; i < 50; ++i) {
                peer.server(promise(1, 2 * i));
                EXPECT_EQ(peer.sent(), Lines{"RST_STREAM " + std::to_string(2 * i) + " 7"});
            }
            EXPECT_EQ(peer.error(), "");
            peer.server(promise(1, 100));
            EXPECT_EQ(peer.error(), "11");
            EXPECT_EQ(peer.sent(), Lines{"GOAWAY 0 11"});
        },
        options);
}

// Flags that RFC 9113, 6 defines and this client uses, by type of frame; -1: it never sends it.
int flagsSent(uint8_t type) {
    switch (type) {
        case kData: return kEndStream;
        case kHeaders: return kEndStream | kEndHeaders;
        case kContinuation: return kEndHeaders;
        case kSettings:
        case kPing: return kAck;
        case kRstStream:
        case kGoaway:
        case kWindowUpdate: return 0;
        default: return -1;
    }
}

TEST(SessionFrames, HaveNoUnusedFlagNorReservedBit) {
    h2::SessionOptions options;
    options.streamWindow = 100;
    play(
        [](Peer& peer) {
            peer.get("/" + std::string(20000, 'Z'));  // and its CONTINUATION
            TextBody body("content");
            TextBody endless(std::string(200, 'x'));
            peer.post(body);
            peer.post(endless);
            peer.get();
            std::string bytes = peer.sentBytes();
            peer.server(settings({{5, 16384}}) + ping(1) + promise(1, 2) + headers(3, kOk) +
                        data(3, std::string(60, 'y')) + headers(1, "", kLast));
            peer.session().cancel(7);
            peer.now += 30'000;
            peer.session().onTime(peer.now);
            bytes += peer.sentBytes();
            peer.server(ping(0));
            peer.session().close();
            bytes += peer.sentBytes();
            uint32_t seen = 0;
            for (const WireFrame& frame : parseFrames(withoutPreface(bytes))) {
                SCOPED_TRACE(testing::PrintToString(frame));
                const int allowed = flagsSent(frame.type);
                ASSERT_GE(allowed, 0);
                EXPECT_EQ(frame.flags & ~allowed, 0);
                EXPECT_FALSE(frame.reserved);
                EXPECT_LE(frame.length, 16384u);
                seen |= 1u << frame.type;
            }
            EXPECT_EQ(seen, 0x3dbu);  // all types but PRIORITY and PUSH_PROMISE
        },
        options);
}

TEST(SessionFrames, HaveNoReservedBitInTheirPayload) {
    play([](Peer& peer) {
        peer.sentGet();
        peer.server(settings({}) + promise(1, 0x80000002));
        peer.session().close();
        std::string payloads;
        for (const WireFrame& frame : parseFrames(peer.sentBytes())) {
            if (frame.type == kRstStream) {
                EXPECT_EQ(frame.streamId, 2u);
            }
            if (frame.type == kGoaway) payloads += frame.payload;
        }
        EXPECT_EQ(toHex(payloads), "00 00 00 00 00 00 00 00");
    });
    h2::SessionOptions largest;
    largest.connectionWindow = 0x7fffffff;
    playWhole(
        [](Peer& peer) {
            const auto frames = parseFrames(withoutPreface(peer.sentBytes()));
            ASSERT_EQ(frames.size(), 2u);
            EXPECT_EQ(frames[1].payload, be32(0x7fffffff - 65535));
        },
        largest);
}

TEST(SessionClose, FailureBehindItSaysTheSameLastStream) {
    play([](Peer& peer) {
        peer.start();
        peer.sentGet();
        peer.session().close();
        EXPECT_EQ(peer.sent(), Lines{"GOAWAY 0 0"});
        EXPECT_EQ(peer.answer(data(0, "x")), Lines{"end 1 lost 1"});
        EXPECT_EQ(peer.sent(), Lines{"GOAWAY 0 1"});
        peer.session().close();
        EXPECT_EQ(peer.sent(), Lines{});
    });
}

TEST(SessionFailure, IsReportedOnceAndFirst) {
    // Two errors in each: of the stream and of the connection, or two of the same.
    const struct {
        std::string bytes;
        Lines sent;
    } rows[] = {
        {headers(1, status("1")) + data(1, "x") + windowUpdate(1, 0), {"RST_STREAM 1 1"}},
        {windowUpdate(1, 0) + headers(1, status("1"), kLast), {"RST_STREAM 1 1"}},
        {headers(1, status("1")) + data(0, "x") + ping(1), {"RST_STREAM 1 1", "GOAWAY 0 1"}},
        {data(0, "x") + frame(kSettings, 0, 0, "x") + headers(1, hex("80")), {"GOAWAY 0 1"}},
        {frame(kPing, 0, 3, "1234567"), {"GOAWAY 0 1"}},
    };
    for (const auto& row : rows) {
        play([&](Peer& peer) {
            peer.start();
            peer.sentGet();
            peer.server(row.bytes);
            EXPECT_EQ(peer.sent(), row.sent);
        });
    }
}

TEST(SessionGoAway, FramesOfStreamsAboveItStillCount) {
    h2::SessionOptions options;
    options.connectionWindow = 65535;
    play(
        [](Peer& peer) {
            peer.start();
            peer.get();
            peer.get();
            peer.sent();
            peer.server(goaway(1, 0));
            EXPECT_EQ(peer.events(), (Lines{"goaway 1 0", "end 3 not processed 0"}));
            // The block enters the table, and the content takes from the connection's window.
            peer.server(headers(3, kOk + hpackLiteral("new", "entry", Literal::kIncremental)));
            for (int i = 0; i < 2; ++i) peer.server(data(3, std::string(16384, 'x')));
            EXPECT_EQ(peer.answer(headers(1, kOk + hpackIndexed(62), kLast)),
                      (Lines{"headers 1 200 :status=200 new=entry", "end 1 complete"}));
            EXPECT_EQ(peer.sent(), (Lines{"RST_STREAM 3 5", "WINDOW_UPDATE 0 32768"}));
        },
        options);
}

TEST(SessionReceiveWindow, CountsFramesInErrorToo) {
    h2::SessionOptions options;
    options.connectionWindow = 65535;
    play(
        [](Peer& peer) {
            peer.start();
            for (int i = 0; i < 2; ++i) peer.get();
            peer.sent();
            // Before the headers, and beyond content-length.
            peer.server(data(1, std::string(16384, 'x')) +
                        headers(3, kOk + hpackLiteral("content-length", "1")) +
                        data(3, std::string(16383, 'x')));
            EXPECT_EQ(peer.sent(),
                      (Lines{"RST_STREAM 1 1", "RST_STREAM 3 1", "WINDOW_UPDATE 0 32767"}));
        },
        options);
}

TEST(SessionReceiveWindow, UsedUpStillTakesOtherFrames) {
    h2::SessionOptions options;
    options.connectionWindow = 65535;
    options.streamWindow = 20000;
    play(
        [](Peer& peer) {
            peer.start();
            for (int i = 0; i < 4; ++i) peer.get();
            peer.sent();
            // Nothing is sent meanwhile, so that no window is given back: 65535 octets in all.
            std::string bytes;
            for (uint32_t stream : {1u, 3u, 5u}) {
                bytes += headers(stream, kOk) + data(stream, std::string(16384, 'x')) +
                         data(stream, std::string(3616, 'x'));
            }
            peer.server(bytes + headers(7, kOk) + data(7, std::string(5535, 'x')));
            peer.events();
            EXPECT_EQ(peer.answer(ping(1) + settings({{3, 9}}) + windowUpdate(0, 1) +
                                  frame(kPriority, 0, 3, "12345") + rstStream(5, 8) +
                                  headers(1, hpackLiteral("t", "1"), kLast) + goaway(7, 0)),
                      (Lines{"settings", "end 5 reset 8 begun", "trailers 1 t=1", "end 1 complete",
                             "goaway 7 0"}));
            EXPECT_EQ(peer.error(), "");
        },
        options);
}

TEST(SessionSettings, ApplyToWhatIsSentBehindTheAcknowledgement) {
    play([](Peer& peer) {
        peer.start({{5, 30000}, {4, 10}});
        TextBody body("0123456789abcdef");
        peer.post(body);
        peer.sent();
        // All values hold at once: the frame size, the window, the number of streams.
        peer.server(settings({{5, 16384}, {4, 12}, {3, 1}}));
        peer.get("/waits");
        EXPECT_EQ(peer.sent(), (Lines{"SETTINGS ack", "DATA 1 ab"}));
        peer.server(rstStream(1, 8));
        EXPECT_EQ(peer.sent(), Lines{"HEADERS 3 /waits end"});
    });
}

TEST(SessionAnswer, HasItsFieldsInTheirOrder) {
    play([](Peer& peer) {
        peer.start();
        peer.sentGet();
        std::string block = kOk;
        std::string event = "headers 1 200 :status=200";
        for (int i = 0; i < 40; ++i) {
            const std::string name = "n" + std::to_string(i * 7 % 5);
            block += hpackLiteral(name, std::to_string(i));
            event += " " + name + "=" + std::to_string(i);
        }
        EXPECT_EQ(peer.answer(headers(1, block, kLast)), (Lines{event, "end 1 complete"}));
    });
}

}  // namespace
}  // namespace h2test
