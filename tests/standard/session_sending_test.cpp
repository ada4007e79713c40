// Requests on their way out: order, limits of the server's, bodies, send windows, cancelling.
#include "tests/standard/session_support.h"

namespace h2test {
namespace {

using State = h2::BodyPart::State;

constexpr uint8_t kLast = kEndHeaders | kEndStream;
const std::string kOk = status("200");
const std::string kAnswer = "headers 1 200 :status=200";

TEST(SessionRequest, IsOneHeadersFrame) {
    play([](Peer& peer) {
        peer.start();
        const h2::hpack::Field fields[] = {
            {":method", "GET"}, {":scheme", "https"}, {":path", "/"}, {"cookie", "secret", true}};
        EXPECT_EQ(peer.session().submit({fields, false, nullptr, &peer}), 1u);
        const auto frames = parseFrames(peer.sentBytes());
        ASSERT_EQ(frames.size(), 1u);
        EXPECT_EQ(frames[0].flags, kEndHeaders | kEndStream);
        EXPECT_FALSE(frames[0].reserved);
        h2::hpack::Decoder decoder;
        h2::hpack::FieldList list;
        ASSERT_TRUE(decoder.decode(frames[0].payload, list));
        ASSERT_EQ(list.size(), 4u);
        EXPECT_EQ(list.value(1), "https");
        EXPECT_EQ(list.value(3), "secret");
        EXPECT_TRUE(list.neverIndexed(3));
    });
}

TEST(SessionRequest, UsesGrowingOddIdentifiers) {
    playWhole([](Peer& peer) {
        peer.start();
        for (uint32_t stream = 1; stream < 100; stream += 2) EXPECT_EQ(peer.get(), stream);
        peer.session().cancel(99);
        EXPECT_EQ(peer.get(), 101u);
    });
}

TEST(SessionRequest, EndsWhenIdentifiersAreUsedUp) {
    playWhole([](Peer& peer) {
        peer.start();
        peer.session().m_nextStream = 0x7fffffff;
        EXPECT_TRUE(peer.session().takesRequests());
        EXPECT_EQ(peer.sentGet(), 0x7fffffffu);
        EXPECT_FALSE(peer.session().takesRequests());
        EXPECT_EQ(peer.get(), 0u);
        EXPECT_EQ(peer.answer(headers(0x7fffffff, kOk, kLast)),
                  (Lines{"headers 2147483647 200 :status=200", "end 2147483647 complete"}));
    });
}

TEST(SessionRequest, IsSplitIntoContinuations) {
    playWhole([](Peer& peer) {
        peer.start();
        peer.get("/" + std::string(40000, 'Z'));  // Z has 8 bits in Huffman's code, too
        const auto frames = parseFrames(peer.sentBytes());
        ASSERT_EQ(frames.size(), 3u);
        EXPECT_EQ(frames[0].type, kHeaders);
        EXPECT_EQ(frames[0].flags, kEndStream);
        EXPECT_EQ(frames[0].length, 16384u);
        EXPECT_EQ(frames[1].type, kContinuation);
        EXPECT_EQ(frames[1].flags, 0);
        EXPECT_EQ(frames[1].length, 16384u);
        EXPECT_EQ(frames[2].type, kContinuation);
        EXPECT_EQ(frames[2].flags, kEndHeaders);
        peer.server(settings({{5, 50000}}));
        peer.get("/" + std::string(40000, 'Z'));
        EXPECT_EQ(parseFrames(peer.sentBytes()).size(), 2u);  // the acknowledgement, one HEADERS
    });
}

TEST(SessionConcurrency, IsAHundredUntilTheServerHasSpoken) {
    playWhole([](Peer& peer) {
        for (int i = 0; i < 130; ++i) peer.get();
        EXPECT_EQ(peer.sent().size(), 2u + 100u);
        EXPECT_EQ(peer.session().openStreams(), 100u);
        EXPECT_EQ(peer.session().requests(), 130u);
        peer.server(settings({}));  // no limit
        EXPECT_EQ(peer.sent().size(), 1u + 30u);
        EXPECT_EQ(peer.session().openStreams(), 130u);
    });
}

TEST(SessionConcurrency, LetsRequestsWaitInTheirOrder) {
    play([](Peer& peer) {
        peer.start({{3, 2}});
        peer.get("/1");
        peer.get("/3");
        peer.get("/5");
        peer.get("/7");
        peer.get("/9");
        EXPECT_EQ(peer.sent(), (Lines{"HEADERS 1 /1 end", "HEADERS 3 /3 end"}));
        peer.session().cancel(7);  // waits: nobody hears of it
        EXPECT_EQ(peer.sent(), Lines{});
        peer.server(headers(3, kOk, kLast));
        EXPECT_EQ(peer.events(), (Lines{"headers 3 200 :status=200", "end 3 complete"}));
        peer.get("/11");
        EXPECT_EQ(peer.sent(), Lines{"HEADERS 5 /5 end"});
        peer.server(settings({{3, 4}}));
        EXPECT_EQ(peer.sent(), (Lines{"SETTINGS ack", "HEADERS 9 /9 end", "HEADERS 11 /11 end"}));
        peer.server(settings({{3, 1}}));
        peer.session().cancel(1);
        peer.session().cancel(5);
        peer.get("/13");
        EXPECT_EQ(peer.sent(), (Lines{"SETTINGS ack", "RST_STREAM 1 8", "RST_STREAM 5 8"}));
        EXPECT_EQ(peer.session().openStreams(), 2u);
        peer.server(rstStream(9, 8) + headers(11, kOk, kLast));
        EXPECT_EQ(peer.sent(), Lines{"HEADERS 13 /13 end"});
    });
}

TEST(SessionConcurrency, MayBeZeroForAWhile) {
    play([](Peer& peer) {
        peer.start({{3, 0}});
        peer.get("/1");
        EXPECT_EQ(peer.sent(), Lines{});
        peer.server(settings({{3, 1}}));
        EXPECT_EQ(peer.sent(), (Lines{"SETTINGS ack", "HEADERS 1 /1 end"}));
    });
}

TEST(SessionConcurrency, KeepsWaitingRequestsBehindANewOneInOrder) {
    play([](Peer& peer) {
        peer.start({{3, 1}});
        peer.sentGet();
        peer.get("/3");
        peer.reaction = [&peer](const std::string& event) {
            if (event == "end 1 complete") peer.get("/5");
        };
        peer.server(headers(1, kOk, kLast));
        EXPECT_EQ(peer.sent(), Lines{"HEADERS 3 /3 end"});
        peer.server(headers(3, kOk, kLast));
        EXPECT_EQ(peer.sent(), Lines{"HEADERS 5 /5 end"});
    });
}

TEST(SessionBody, GoesOutBehindItsHeaders) {
    for (const bool inBlock : {false, true}) {
        play([inBlock](Peer& peer) {
            peer.start();
            TextBody body("hello", inBlock);
            peer.post(body);
            EXPECT_EQ(peer.sent(), (Lines{"HEADERS 1 /", "DATA 1 hello end"}));
            EXPECT_EQ(body.calls, 1u);
            EXPECT_EQ(peer.answer(headers(1, kOk, kLast)), (Lines{kAnswer, "end 1 complete"}));
            EXPECT_EQ(peer.sent(), Lines{});
        });
    }
}

TEST(SessionBody, MayBeEmpty) {
    play([](Peer& peer) {
        peer.start();
        TextBody body("");
        peer.post(body);
        EXPECT_EQ(peer.sent(), (Lines{"HEADERS 1 /", "DATA 1  end"}));
    });
}

TEST(SessionBody, IsCutIntoFramesThatTakeTurns) {
    playWhole([](Peer& peer) {
        peer.start({{4, 1 << 20}, {5, 1 << 20}});
        peer.server(windowUpdate(0, 1 << 20));
        TextBody first(std::string(40000, 'a'));
        TextBody second(std::string(20000, 'b'), true);
        peer.post(first);
        peer.post(second);
        EXPECT_EQ(peer.sent(), (Lines{"HEADERS 1 /", "HEADERS 3 /", "DATA 1 16384", "DATA 3 16384",
                                      "DATA 1 16384", "DATA 3 3616 end", "DATA 1 7232 end"}));
    });
}

TEST(SessionBody, StopsAtTheLimitOfATurn) {
    playWhole([](Peer& peer) {
        peer.start();
        TextBody body(std::string(50000, 'a'));
        peer.post(body);
        EXPECT_EQ(peer.sent(1), Lines{"HEADERS 1 /"});
        EXPECT_EQ(peer.sent(1), Lines{"DATA 1 16384"});
        EXPECT_TRUE(peer.session().wantsToSend());
        EXPECT_EQ(peer.sent(16384 + 10), (Lines{"DATA 1 16384", "DATA 1 16384"}));
        EXPECT_EQ(peer.sent(), Lines{"DATA 1 848 end"});
        EXPECT_FALSE(peer.session().wantsToSend());
    });
}

TEST(SessionSendWindow, OfTheConnectionHoldsAllStreams) {
    play([](Peer& peer) {
        peer.start({{4, 100000}});
        TextBody first(std::string(65530, 'a'));
        TextBody second("0123456789");
        peer.post(first);
        EXPECT_EQ(peer.sent().back(), "DATA 1 16378 end");
        peer.post(second);
        EXPECT_EQ(peer.sent(), (Lines{"HEADERS 3 /", "DATA 3 01234"}));
        EXPECT_FALSE(peer.session().wantsToSend());
        EXPECT_EQ(second.calls, 1u);
        peer.server(windowUpdate(0, 2));
        EXPECT_EQ(peer.sent(), Lines{"DATA 3 56"});
        peer.server(windowUpdate(3, 50));
        EXPECT_EQ(peer.sent(), Lines{});
        peer.server(windowUpdate(0, 0x7fffffff));
        EXPECT_EQ(peer.sent(), Lines{"DATA 3 789 end"});
    });
}

TEST(SessionSendWindow, OfAStreamHoldsThatStreamOnly) {
    play([](Peer& peer) {
        peer.start({{4, 5}});
        TextBody first("0123456789");
        TextBody second("abc");
        peer.post(first);
        peer.post(second);
        EXPECT_EQ(peer.sent(),
                  (Lines{"HEADERS 1 /", "HEADERS 3 /", "DATA 1 01234", "DATA 3 abc end"}));
        peer.server(windowUpdate(1, 1));
        EXPECT_EQ(peer.sent(), Lines{"DATA 1 5"});
        peer.server(windowUpdate(1, 4));
        EXPECT_EQ(peer.sent(), Lines{"DATA 1 6789 end"});
        EXPECT_EQ(peer.answer(windowUpdate(1, 4)), Lines{});  // half-closed: no error
        EXPECT_EQ(peer.sent(), Lines{});
    });
}

TEST(SessionSendWindow, MovesWithInitialWindowSizeAlsoBelowZero) {
    play([](Peer& peer) {
        peer.start({{4, 8}});
        TextBody body("0123456789ABCDEF");
        peer.post(body);
        EXPECT_EQ(peer.sent(), (Lines{"HEADERS 1 /", "DATA 1 01234567"}));
        peer.server(settings({{4, 3}}));  // 8 sent of 3: -5
        EXPECT_EQ(peer.sent(), Lines{"SETTINGS ack"});
        peer.server(windowUpdate(1, 5));  // 0
        EXPECT_EQ(peer.sent(), Lines{});
        peer.server(windowUpdate(1, 1));
        EXPECT_EQ(peer.sent(), Lines{"DATA 1 8"});
        peer.server(settings({{4, 0}}) + settings({{4, 5}}));
        EXPECT_EQ(peer.sent(), (Lines{"SETTINGS ack", "SETTINGS ack", "DATA 1 9A"}));
        peer.server(settings({{4, 1}, {4, 9}}));  // the last value counts
        EXPECT_EQ(peer.sent(), (Lines{"SETTINGS ack", "DATA 1 BCDE"}));
        // The connection's window does not move with it.
        TextBody other(std::string(1, 'x'));
        peer.post(other);
        EXPECT_EQ(peer.sent(), (Lines{"HEADERS 3 /", "DATA 3 x end"}));
    });
}

TEST(SessionSendWindow, OfNewStreamsIsTheCurrentInitialSize) {
    play([](Peer& peer) {
        peer.start({{3, 1}, {4, 3}});
        peer.sentGet();
        TextBody body("0123456789");
        peer.post(body);  // waits
        peer.server(settings({{4, 7}}) + headers(1, kOk, kLast));
        EXPECT_EQ(peer.sent(), (Lines{"SETTINGS ack", "HEADERS 3 /", "DATA 3 0123456"}));
    });
}

TEST(SessionSendWindow, MustNotExceedItsMaximum) {
    play([](Peer& peer) {
        peer.start();
        TextBody body(std::string(10, 'x'));
        peer.post(body);
        peer.sent();
        peer.server(windowUpdate(1, 0x7fffffff - 65535 + 10));
        EXPECT_EQ(peer.events(), Lines{});
        EXPECT_EQ(peer.answer(windowUpdate(1, 1)), Lines{"end 1 malformed 3"});
        EXPECT_EQ(peer.sent(), Lines{"RST_STREAM 1 3"});
        EXPECT_EQ(peer.error(), "");
    });
    play([](Peer& peer) {
        peer.start();
        peer.sentGet();
        peer.server(windowUpdate(0, 0x7fffffff - 65535));
        EXPECT_EQ(peer.error(), "");
        EXPECT_EQ(peer.answer(windowUpdate(0, 1)), Lines{"end 1 lost 3"});
        EXPECT_EQ(peer.sent(), Lines{"GOAWAY 0 3"});
    });
    // By INITIAL_WINDOW_SIZE, for any stream, and at any value in the frame.
    for (const std::string& bytes : {settings({{4, 65537}}), settings({{4, 65537}, {4, 0}})}) {
        play([&](Peer& peer) {
            peer.start();
            peer.get();
            peer.sentGet();
            peer.server(windowUpdate(3, 0x7fffffff - 65536));
            EXPECT_EQ(peer.answer(settings({{4, 65536}})), Lines{"settings"});
            EXPECT_EQ(peer.answer(bytes), (Lines{"end 3 malformed 3", "end 1 lost 3"}));
            EXPECT_EQ(peer.error(), "3");
        });
    }
}

TEST(SessionSendWindow, IsNotUpdatedByZero) {
    play([](Peer& peer) {
        peer.start();
        peer.sentGet();
        EXPECT_EQ(peer.answer(windowUpdate(1, 0)), Lines{"end 1 malformed 1"});
        EXPECT_EQ(peer.sent(), Lines{"RST_STREAM 1 1"});
        EXPECT_EQ(peer.error(), "");
        EXPECT_EQ(peer.answer(windowUpdate(0, 0x80000000)), Lines{});  // the R bit is no increment
        EXPECT_EQ(peer.error(), "1");
        EXPECT_EQ(peer.sent(), Lines{"GOAWAY 0 1"});
    });
}

TEST(SessionBody, IsNotAskedAgainAfterAWholeAnswer) {
    play([](Peer& peer) {
        peer.start({{4, 4}});
        TextBody body("0123456789");
        peer.post(body);
        EXPECT_EQ(peer.sent(), (Lines{"HEADERS 1 /", "DATA 1 0123"}));
        EXPECT_EQ(peer.answer(headers(1, status("413")) + data(1, "no", kEndStream) +
                              rstStream(1, 0) + windowUpdate(1, 100)),
                  (Lines{"headers 1 413 :status=413", "data 1 no", "end 1 complete"}));
        EXPECT_EQ(peer.sent(), Lines{"RST_STREAM 1 8"});
        EXPECT_EQ(body.calls, 1u);
    });
}

TEST(SessionBody, GoesOnDuringTheAnswer) {
    play([](Peer& peer) {
        peer.start({{4, 4}});
        TextBody body("01234567");
        peer.sentPost(body);
        peer.sent();
        EXPECT_EQ(peer.answer(headers(1, kOk) + data(1, "x") + windowUpdate(1, 10)),
                  (Lines{kAnswer, "data 1 x"}));
        EXPECT_EQ(peer.sent(), Lines{"DATA 1 4567 end"});
        EXPECT_EQ(peer.answer(data(1, "y", kEndStream)), (Lines{"data 1 y", "end 1 complete"}));
        EXPECT_EQ(peer.sent(), Lines{});
    });
}

TEST(SessionBody, IsNotAskedAfterTheServersReset) {
    play([](Peer& peer) {
        peer.start({{4, 4}});
        TextBody body("01234567");
        peer.sentPost(body);
        peer.sent();
        EXPECT_EQ(peer.answer(rstStream(1, 5)), Lines{"end 1 reset 5"});
        peer.server(windowUpdate(0, 100) + windowUpdate(1, 100));
        EXPECT_EQ(peer.sent(), Lines{});
        EXPECT_EQ(body.calls, 1u);
    });
}

TEST(SessionBody, ThatFailsResetsItsStream) {
    for (const h2::BodyPart& part :
         {h2::BodyPart{State::kFailed, nullptr, 0}, h2::BodyPart{State::kFailed, "abc", 3},
          h2::BodyPart{State::kMore, "abc", 65536}, h2::BodyPart{State::kEnd, nullptr, 16385}}) {
        play([&part](Peer& peer) {
            peer.start();
            ScriptedBody body([&part](h2::BodyRoom) { return part; });
            peer.post(body);
            EXPECT_EQ(peer.sent(), Lines{"HEADERS 1 /"});
            EXPECT_EQ(peer.events(), Lines{"end 1 body failed 8"});
            EXPECT_EQ(peer.sent(), Lines{"RST_STREAM 1 8"});
        });
    }
}

TEST(SessionBody, MayHaveNothingForAWhile) {
    play([](Peer& peer) {
        peer.start();
        int calls = 0;
        ScriptedBody body([&calls](h2::BodyRoom room) -> h2::BodyPart {
            if (++calls == 1) return {State::kMore, nullptr, 0};
            *room.get() = 'x';
            return {State::kEnd, nullptr, 1};
        });
        peer.post(body);
        EXPECT_EQ(peer.sent(), Lines{"HEADERS 1 /"});
        EXPECT_FALSE(peer.session().wantsToSend());
        EXPECT_EQ(peer.sent(), Lines{});
        EXPECT_EQ(calls, 1);
        peer.session().bodyReady(1);
        peer.session().bodyReady(77);
        EXPECT_TRUE(peer.session().wantsToSend());
        EXPECT_EQ(peer.sent(), Lines{"DATA 1 x end"});
    });
}

TEST(SessionBody, MayCancelItselfAndOthersAndStartRequests) {
    play([](Peer& peer) {
        peer.start();
        TextBody last("last");
        TextBody cancelled("cancelled");
        ScriptedBody body([&peer](h2::BodyRoom room) -> h2::BodyPart {
            *room.get() = 'x';
            peer.session().cancel(3);
            peer.session().cancel(1);
            peer.get("/new");
            return {State::kMore, nullptr, 1};
        });
        peer.post(body);
        peer.post(cancelled);
        peer.post(last);
        EXPECT_EQ(peer.sent(), (Lines{"HEADERS 1 /", "HEADERS 3 /", "HEADERS 5 /", "RST_STREAM 3 8",
                                      "RST_STREAM 1 8", "HEADERS 7 /new end", "DATA 5 last end"}));
        EXPECT_EQ(cancelled.calls, 0u);
        EXPECT_EQ(peer.events(), Lines{});
    });
}

// Whose HEADERS go before its content, and before what others send in the same turn.
TEST(SessionBody, MayFailAndLeadToARequestWithABody) {
    play([](Peer& peer) {
        peer.start();
        TextBody next("next");
        TextBody other("other");
        ScriptedBody body([](h2::BodyRoom) { return h2::BodyPart{State::kFailed, nullptr, 0}; });
        peer.reaction = [&](const std::string& event) {
            if (event == "end 1 body failed 8") peer.post(next, "/next");
        };
        peer.post(body);
        peer.post(other);
        EXPECT_EQ(peer.sent(), (Lines{"HEADERS 1 /", "HEADERS 3 /", "RST_STREAM 1 8",
                                      "HEADERS 5 /next", "DATA 3 other end", "DATA 5 next end"}));
    });
}

TEST(SessionCancel, ResetsAnOpenStreamAndSaysNothing) {
    play([](Peer& peer) {
        peer.start();
        peer.sentGet();
        peer.session().cancel(1);
        peer.session().cancel(1);
        peer.session().cancel(77);
        EXPECT_EQ(peer.sent(), Lines{"RST_STREAM 1 8"});
        EXPECT_EQ(peer.events(), Lines{});
        EXPECT_EQ(peer.session().requests(), 0u);
    });
}

TEST(SessionCancel, OfARequestThatHasEndedSendsNothing) {
    play([](Peer& peer) {
        peer.start();
        peer.sentGet();
        peer.server(headers(1, kOk, kLast));
        peer.session().cancel(1);
        EXPECT_EQ(peer.sent(), Lines{});
    });
}

TEST(SessionCancel, InAnEventEndsTheEvents) {
    const std::string answer = headers(1, status("103")) + headers(1, kOk) + data(1, "x") +
                               headers(1, hpackLiteral("t", "1"), kLast);
    for (const std::string at : {"interim 1", "headers 1", "data 1", "trailers 1"}) {
        play([&](Peer& peer) {
            peer.start();
            peer.sentGet();
            peer.reaction = [&](const std::string& event) {
                if (event.starts_with(at)) peer.session().cancel(1);
            };
            const Lines events = peer.answer(answer);
            ASSERT_FALSE(events.empty());
            EXPECT_TRUE(events.back().starts_with(at)) << events.back();
            EXPECT_EQ(peer.sent(), Lines{"RST_STREAM 1 8"});
            EXPECT_EQ(peer.error(), "");
        });
    }
}

TEST(SessionCancel, InTheMiddleOfADataFrameLeavesTheConnectionInOrder) {
    play([](Peer& peer) {
        peer.start();
        peer.get();
        peer.get();
        peer.sent();
        peer.server(headers(1, kOk) + data(1, "0123456789", kEndStream).substr(0, 12));
        peer.session().cancel(1);
        peer.events();
        EXPECT_EQ(peer.answer("3456789" + headers(3, kOk, kLast)),
                  (Lines{"headers 3 200 :status=200", "end 3 complete"}));
        EXPECT_EQ(peer.sent(), Lines{"RST_STREAM 1 8"});
    });
}

TEST(SessionRequest, MayBeStartedInAnyEvent) {
    play([](Peer& peer) {
        peer.start();
        peer.sentGet();
        peer.reaction = [&peer](const std::string& event) {
            if (event.starts_with("data")) return;  // how many there are is not fixed
            for (int i = 0; i < 20; ++i) peer.get();
        };
        EXPECT_EQ(peer.answer(headers(1, status("103")) + headers(1, kOk) + data(1, "x") +
                              headers(1, "", kLast))
                      .back(),
                  "end 1 complete");
        EXPECT_EQ(peer.sent().size(), 80u);
    });
}

TEST(SessionStreams, AreFoundAmongMany) {
    playWhole([](Peer& peer) {
        peer.start();
        for (int i = 0; i < 1000; ++i) peer.get();
        peer.sent();
        // Every third stays; the others end out of order.
        for (uint32_t i = 0; i < 1000; ++i) {
            const uint32_t stream = 2 * ((i * 7) % 1000) + 1;
            if (stream % 3 != 0) peer.server(headers(stream, kOk, kLast));
        }
        EXPECT_EQ(peer.events().size(), 2u * 667u);
        EXPECT_EQ(peer.session().requests(), 333u);
        for (uint32_t stream = 3; stream < 2000; stream += 6) {
            const std::string id = std::to_string(stream);
            EXPECT_EQ(peer.answer(headers(stream, kOk, kLast)),
                      (Lines{"headers " + id + " 200 :status=200", "end " + id + " complete"}));
        }
        EXPECT_EQ(peer.session().requests(), 0u);
        peer.session().trim();
        peer.sentGet();
        EXPECT_EQ(peer.answer(headers(2001, kOk, kLast)).back(), "end 2001 complete");
    });
}

}  // namespace
}  // namespace h2test
