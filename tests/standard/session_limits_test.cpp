// Receive windows, bounds on what a server may cost, and silence.
#include "tests/standard/session_support.h"

namespace h2test {
namespace {

constexpr uint8_t kLast = kEndHeaders | kEndStream;
const std::string kOk = status("200");
const std::string kHead = "headers 1 200 :status=200";

h2::SessionOptions smallWindows() {
    h2::SessionOptions options;
    options.streamWindow = 100;
    options.connectionWindow = 65535;
    return options;
}

TEST(SessionReceiveWindow, IsGivenBackFromHalfOn) {
    play(
        [](Peer& peer) {
            peer.start();
            peer.sentGet();
            peer.server(headers(1, kOk) + data(1, std::string(49, 'x')));
            EXPECT_FALSE(peer.session().wantsToSend());
            EXPECT_EQ(peer.sent(), Lines{});
            peer.server(data(1, "x"));
            EXPECT_TRUE(peer.session().wantsToSend());
            EXPECT_EQ(peer.sent(), Lines{"WINDOW_UPDATE 1 50"});
            // Padding counts, its length field too.
            peer.server(dataPadded(1, std::string(20, 'x'), 79));
            EXPECT_EQ(peer.sent(), Lines{"WINDOW_UPDATE 1 100"});
            peer.server(data(1, std::string(100, 'x')));
            EXPECT_EQ(peer.sent(), Lines{"WINDOW_UPDATE 1 100"});
            EXPECT_EQ(peer.error(), "");
        },
        smallWindows());
}

TEST(SessionReceiveWindow, OfAStreamThatHasEndedIsNotGivenBack) {
    play(
        [](Peer& peer) {
            peer.start();
            peer.sentGet();
            peer.server(headers(1, kOk) + data(1, std::string(60, 'x'), kEndStream));
            EXPECT_EQ(peer.sent(), Lines{});
        },
        smallWindows());
}

TEST(SessionReceiveWindow, BeyondTheStreamsIsAnErrorOfTheStream) {
    for (const std::string& tooMuch : {data(1, "xy"), dataPadded(1, "", 1), data(1, "xy", 1)}) {
        play(
            [&](Peer& peer) {
                peer.start();
                peer.get();
                peer.get();
                peer.sent();
                peer.server(headers(1, kOk) + data(1, std::string(99, 'x')));
                peer.events();
                EXPECT_EQ(peer.answer(tooMuch + headers(3, kOk, kLast)),
                          (Lines{"end 1 malformed 3 begun", "headers 3 200 :status=200",
                                 "end 3 complete"}));
                EXPECT_EQ(peer.sent(), Lines{"RST_STREAM 1 3"});
            },
            smallWindows());
    }
}

TEST(SessionReceiveWindow, OfTheConnectionIsGivenBackForAllFrames) {
    h2::SessionOptions options;
    options.connectionWindow = 65535;
    playWhole(
        [](Peer& peer) {
            peer.start();
            peer.get();
            peer.get();
            peer.sent();
            peer.session().cancel(3);
            peer.sent();
            // DATA of a stream that is gone counts as well, and so does padding.
            peer.server(headers(1, kOk) + data(1, std::string(16384, 'x')) +
                        data(3, std::string(16382, 'y')));
            EXPECT_EQ(peer.sent(), Lines{});
            peer.server(dataPadded(3, "", 0));
            EXPECT_EQ(peer.sent(), Lines{"WINDOW_UPDATE 0 32767"});
        },
        options);
}

TEST(SessionReceiveWindow, BeyondTheConnectionsEndsTheConnection) {
    h2::SessionOptions options;
    options.connectionWindow = 65535;
    playWhole(
        [](Peer& peer) {
            peer.start();
            peer.sentGet();
            std::string bytes = headers(1, kOk);
            for (int i = 0; i < 4; ++i) bytes += data(1, std::string(16383, 'x'));
            peer.server(bytes + data(1, "xyz"));  // 65535 in all, and nothing given back meanwhile
            EXPECT_EQ(peer.error(), "");
            peer.events();
            EXPECT_EQ(peer.answer(data(1, "x")), Lines{"end 1 malformed 3 begun"});
            EXPECT_EQ(peer.sent(), Lines{"GOAWAY 0 3"});
        },
        options);
}

TEST(SessionReceiveWindow, IsKeptWhileTheAnswerIsPaused) {
    play(
        [](Peer& peer) {
            peer.start();
            peer.sentGet();
            peer.session().pause(1);
            peer.session().pause(77);
            EXPECT_EQ(peer.answer(headers(1, kOk) + data(1, std::string(100, 'x'))),
                      (Lines{kHead, "data 1 " + std::string(100, 'x')}));
            EXPECT_EQ(peer.sent(), Lines{});
            peer.session().resume(1);
            peer.session().resume(77);
            EXPECT_EQ(peer.sent(), Lines{"WINDOW_UPDATE 1 100"});
            peer.server(data(1, std::string(60, 'x')));
            peer.session().pause(1);  // the update was due already, but has not been sent
            EXPECT_EQ(peer.sent(), Lines{});
            peer.session().resume(1);
            EXPECT_EQ(peer.sent(), Lines{"WINDOW_UPDATE 1 60"});
        },
        smallWindows());
}

std::string times(int count, const std::string& bytes) {
    std::string all;
    for (int i = 0; i < count; ++i) all += bytes;
    return all;
}

h2::SessionOptions smallBudget() {
    h2::SessionOptions options;
    options.frameBudget = 50;
    options.frameBudgetPerSecond = 10;
    return options;
}

// A flood of frames ends the connection after 50 of them. (start() has used two.)
void expectFlood(const std::string& frame, const std::string& before = "", int used = 2,
                 const Lines& left = {"GOAWAY 0 11"}) {
    play(
        [&](Peer& peer) {
            peer.start();
            peer.sentGet();
            peer.server(before + times(50 - used, frame));
            EXPECT_EQ(peer.error(), "");
            peer.sent();
            peer.server(frame);
            EXPECT_EQ(peer.error(), "11");
            EXPECT_EQ(peer.sent(), left);
            peer.server(times(100, frame));
            EXPECT_EQ(peer.sentBytes(), "");
        },
        smallBudget());
}

TEST(SessionFlood, OfAnyFrameThatBringsNothingEndsTheConnection) {
    expectFlood(ping(1));
    expectFlood(ping(1, kAck));
    expectFlood(settings({{3, 100}}));
    expectFlood(settingsAck());
    expectFlood(windowUpdate(0, 1));
    expectFlood(windowUpdate(1, 1));
    expectFlood(frame(kPriority, 0, 99, "12345"));
    expectFlood(frame(0x77, 0, 0, "?"));
    expectFlood(goaway(0x7fffffff, 0));
    expectFlood(data(1, ""), headers(1, kOk));
    expectFlood(dataPadded(1, "", 3), headers(1, kOk));
    expectFlood(rstStream(1, 8));
    expectFlood(data(1, "x"), rstStream(1, 8), 3);
    expectFlood(headers(1, kOk), rstStream(1, 8), 3);
    expectFlood(headers(1, status("102")));
    expectFlood(continuation(1, "", 0), headers(1, kOk, 0));
}

TEST(SessionFlood, IsForgivenWithTime) {
    play(
        [](Peer& peer) {
            peer.start();
            peer.server(times(48, ping(1)));
            peer.now += 999;
            peer.sent();
            EXPECT_EQ(peer.error(), "");
            peer.now += 1001;  // two seconds: 20 frames
            peer.server(times(20, ping(1)));
            EXPECT_EQ(peer.error(), "");
            peer.server(ping(1));
            EXPECT_EQ(peer.error(), "11");
        },
        smallBudget());
}

TEST(SessionFlood, IsForgivenWithProgress) {
    // Answers: 16 frames each.
    play(
        [](Peer& peer) {
            peer.start();
            peer.sentGet();
            peer.server(times(48, ping(1)) + headers(1, kOk, kLast) + times(16, ping(1)));
            EXPECT_EQ(peer.error(), "");
            peer.server(ping(1));
            EXPECT_EQ(peer.error(), "11");
        },
        smallBudget());
    // Content sent: one frame for 16 octets.
    play(
        [](Peer& peer) {
            peer.start();
            TextBody body(std::string(16 * 7 + 15, 'x'));
            peer.post(body);
            peer.server(times(48, ping(1)));
            peer.sent();
            peer.server(times(7, ping(1)));
            EXPECT_EQ(peer.error(), "");
            peer.server(ping(1));
            EXPECT_EQ(peer.error(), "11");
        },
        smallBudget());
}

TEST(SessionFlood, OfRepliesThatAreNotSentEndsTheConnection) {
    h2::SessionOptions options;
    options.maxReplies = 20;
    for (const std::string& bytes : {ping(1), settings({}), settings({}) + ping(1)}) {
        play(
            [&](Peer& peer) {
                peer.start();
                const int each = bytes.size() > 20 ? 2 : 1;
                for (int i = 0; i < 3; ++i) {
                    peer.server(times(20 / each, bytes));
                    peer.sentBytes();
                }
                peer.server(times(20 / each, bytes));
                EXPECT_EQ(peer.error(), "");
                peer.server(bytes);
                EXPECT_EQ(peer.error(), "11");
            },
            options);
    }
    // Resets of streams that are closed.
    play(
        [](Peer& peer) {
            peer.start();
            for (int i = 0; i < 21; ++i) peer.get();
            peer.sent();
            std::string bytes;
            for (uint32_t i = 0; i < 21; ++i) bytes += headers(2 * i + 1, kOk, kLast);
            peer.server(bytes);
            peer.events();
            for (uint32_t i = 0; i < 20; ++i) peer.server(data(2 * i + 1, "x"));
            EXPECT_EQ(peer.error(), "");
            peer.server(data(41, "x"));
            EXPECT_EQ(peer.error(), "11");
        },
        options);
}

TEST(SessionFieldBlock, IsBoundedByItsBytes) {
    h2::SessionOptions options;
    options.maxHeaderBlock = 100;
    play(
        [](Peer& peer) {
            peer.start();
            peer.sentGet();
            const std::string block = kOk + hpackLiteral("n", std::string(200, 'x'));
            peer.server(headers(1, block.substr(0, 60), 0) +
                        continuation(1, block.substr(60, 40), 0));
            EXPECT_EQ(peer.error(), "");
            EXPECT_EQ(peer.answer(continuation(1, "x", 0)), Lines{"end 1 malformed 11 begun"});
            EXPECT_EQ(peer.sent(), Lines{"GOAWAY 0 11"});
        },
        options);
}

TEST(SessionFieldBlock, IsBoundedByItsFrames) {
    h2::SessionOptions options;
    options.maxContinuations = 20;
    play(
        [](Peer& peer) {
            peer.start();
            peer.sentGet();
            peer.server(headers(1, kOk + hpackLiteral("n", "v").substr(0, 2), 0) +
                        times(20, continuation(1, "", 0)));
            EXPECT_EQ(peer.error(), "");
            EXPECT_EQ(peer.answer(continuation(1, "")), Lines{"end 1 malformed 11 begun"});
        },
        options);
}

TEST(SessionFieldBlock, MayBeAsLargeAsManyServersSendIt) {
    playWhole([](Peer& peer) {
        peer.start();
        peer.sentGet();
        // 16 KB of headers in CONTINUATION frames of 760 bytes, as one server does.
        std::string block = kOk;
        std::string event = kHead;
        for (int i = 0; i < 16; ++i) {
            block += hpackLiteral("name", std::string(1000, 'v'));
            event += " name=" + std::string(1000, 'v');
        }
        std::string bytes = headers(1, block.substr(0, 760), kEndStream);
        for (size_t at = 760; at < block.size(); at += 760) {
            const bool last = at + 760 >= block.size();
            bytes += continuation(1, block.substr(at, 760), last ? kEndHeaders : 0);
        }
        EXPECT_EQ(peer.answer(bytes), (Lines{event, "end 1 complete"}));
    });
}

TEST(SessionHeaderList, AboveItsLimitResetsTheStream) {
    h2::SessionOptions options;
    options.maxHeaderList = 200;
    play(
        [](Peer& peer) {
            peer.start();
            peer.get();
            peer.get();
            peer.sent();
            // A large entry, and references to it. The table is kept right.
            const std::string big =
                kOk + hpackLiteral("n", std::string(60, 'v'), Literal::kIncremental);
            EXPECT_EQ(peer.answer(headers(1, big + times(3, hpackIndexed(62)))),
                      Lines{"end 1 malformed 11 begun"});
            EXPECT_EQ(peer.sent(), Lines{"RST_STREAM 1 11"});
            EXPECT_EQ(
                peer.answer(headers(3, kOk + hpackIndexed(62), kLast)),
                (Lines{"headers 3 200 :status=200 n=" + std::string(60, 'v'), "end 3 complete"}));
        },
        options);
}

TEST(SessionInterim, AnswersAreBounded) {
    h2::SessionOptions options;
    options.maxInterim = 10;
    play(
        [](Peer& peer) {
            peer.start();
            peer.sentGet();
            EXPECT_EQ(peer.answer(times(10, headers(1, status("102")))).size(), 10u);
            EXPECT_EQ(peer.answer(headers(1, status("102"))), Lines{"end 1 malformed 11 begun"});
            EXPECT_EQ(peer.sent(), Lines{"RST_STREAM 1 11"});
            EXPECT_EQ(peer.error(), "");
        },
        options);
}

TEST(SessionSilence, IsMetByAPingWhileRequestsRun) {
    play([](Peer& peer) {
        h2::Session& session = peer.session();
        peer.start();
        EXPECT_EQ(session.nextDeadline(), h2::kNever);
        peer.now = 1'000'000;
        peer.get();
        EXPECT_EQ(session.nextDeadline(), h2::kNever);  // it has not been sent
        peer.sent();
        EXPECT_EQ(session.nextDeadline(), 1'030'000u);
        session.onTime(1'029'999);
        EXPECT_EQ(peer.sent(), Lines{});
        peer.now = 1'030'000;
        session.onTime(peer.now);
        EXPECT_EQ(peer.sent(), Lines{"PING 00 00 00 00 00 00 00 01"});
        EXPECT_EQ(session.nextDeadline(), 1'045'000u);
        peer.now = 1'040'000;
        peer.server(ping(1, kAck));
        EXPECT_EQ(session.nextDeadline(), 1'070'000u);
        peer.now = 1'070'000;
        session.onTime(peer.now);
        EXPECT_EQ(peer.sent(), Lines{"PING 00 00 00 00 00 00 00 02"});
        peer.get("/not sent");
        session.onTime(1'084'999);
        EXPECT_EQ(peer.events(), Lines{});
        session.onTime(1'085'000);
        EXPECT_EQ(peer.events(), (Lines{"end 1 lost 0", "end 3 not processed 0"}));
        EXPECT_EQ(peer.error(), "0");
        EXPECT_EQ(session.nextDeadline(), h2::kNever);
    });
}

TEST(SessionSilence, EndsWithAnyByte) {
    play([](Peer& peer) {
        peer.start();
        peer.sentGet();
        peer.now += 30'000;
        peer.session().onTime(peer.now);
        EXPECT_EQ(peer.sent().size(), 1u);
        peer.now += 14'999;
        peer.server(headers(1, kOk));
        EXPECT_EQ(peer.session().nextDeadline(), peer.now + 30'000);
    });
}

TEST(SessionSilence, OfAnIdleConnectionIsNoMatter) {
    play([](Peer& peer) {
        peer.start();
        peer.sentGet();
        peer.now += 30'000;
        peer.session().onTime(peer.now);
        peer.sent();
        peer.session().cancel(1);
        EXPECT_EQ(peer.session().nextDeadline(), h2::kNever);
        peer.now += 1'000'000;
        peer.session().onTime(peer.now);
        EXPECT_EQ(peer.error(), "");
        // The next request starts its own silence.
        peer.sentGet();
        EXPECT_EQ(peer.session().nextDeadline(), peer.now + 30'000);
    });
}

TEST(SessionSilence, MayBeAllowed) {
    h2::SessionOptions options;
    options.pingAfter = 0;
    playWhole(
        [](Peer& peer) {
            peer.start();
            peer.sentGet();
            EXPECT_EQ(peer.session().nextDeadline(), h2::kNever);
        },
        options);
}

TEST(SessionMemory, IsGivenBackWhenIdle) {
    playWhole([](Peer& peer) {
        peer.start();
        for (int i = 0; i < 200; ++i) peer.get("/" + std::string(1000, 'x'));
        peer.session().trim();  // nothing happens
        peer.sent();
        std::string bytes;
        for (uint32_t i = 0; i < 200; ++i) {
            bytes += headers(2 * i + 1, kOk + hpackLiteral("n", std::string(5000, 'v')), kLast);
        }
        peer.server(bytes);
        EXPECT_EQ(peer.events().size(), 400u);
        peer.session().trim();
        const h2::Session& session = peer.session();
        EXPECT_EQ(session.m_out.capacity(), 0u);
        EXPECT_EQ(session.m_partial.capacity(), 0u);
        EXPECT_EQ(session.m_block.capacity(), 0u);
        EXPECT_TRUE(session.m_streams.m_pool.empty());
        EXPECT_LT(sizeof(h2::Session), 2500u);
    });
}

}  // namespace
}  // namespace h2test
