// The connection itself: prefaces, frame sequence, SETTINGS, PING, GOAWAY, and what is passed over.
#include "tests/standard/session_support.h"

namespace h2test {
namespace {

const std::string kOk = status("200");

TEST(SessionPreface, IsSentFirstAndOnce) {
    play([](Peer& peer) {
        peer.get("/first");
        const std::string bytes = peer.sentBytes();
        ASSERT_TRUE(bytes.starts_with(kPreface));
        const auto frames = parseFrames(withoutPreface(bytes));
        ASSERT_EQ(frames.size(), 3u);
        // ENABLE_PUSH 0, INITIAL_WINDOW_SIZE 2^25, MAX_HEADER_LIST_SIZE 2^17
        EXPECT_EQ(toHex(frames[0].payload),
                  toHex(hex("0002 00000000 0004 02000000 0006 00020000")));
        EXPECT_EQ(frames[0].type, kSettings);
        EXPECT_EQ(frames[0].flags, 0);
        EXPECT_EQ(frames[1].type, kWindowUpdate);
        EXPECT_EQ(toHex(frames[1].payload), toHex(be32((64 << 20) - 65535)));
        EXPECT_EQ(frames[2].type, kHeaders);
        EXPECT_EQ(peer.sentBytes(), "");
        EXPECT_FALSE(peer.session().wantsToSend());
    });
}

TEST(SessionPreface, NamesTheWindowsOfTheOptions) {
    h2::SessionOptions options;
    options.streamWindow = 1000;
    options.connectionWindow = 65535;
    playWhole(
        [](Peer& peer) {
            EXPECT_EQ(peer.sent(), Lines{"SETTINGS 00 02 00 00 00 00 00 04 00 "
                                         "00 03 e8 00 06 00 02 00 00"});
        },
        options);
}

TEST(SessionPreface, GoesBeforeAPingAnswer) {
    play([](Peer& peer) {
        peer.server(settings({}) + ping(1));
        const Lines sent = peer.sent();
        ASSERT_EQ(sent.size(), 4u);
        EXPECT_EQ(sent[0].substr(0, 8), "SETTINGS");
        EXPECT_EQ(sent[2], "SETTINGS ack");
        EXPECT_EQ(sent[3], "PING ack 00 00 00 00 00 00 00 01");
    });
}

TEST(SessionPreface, OfTheServerMustBeSettings) {
    const std::string wrong[] = {settingsAck(),
                                 ping(1),
                                 goaway(0, 0),
                                 windowUpdate(0, 1),
                                 headers(1, kOk),
                                 frame(0x77, 0, 0, "?"),
                                 "HTTP/1.1 400 Bad Request\r\n\r\n",
                                 frame(kSettings, 0, 1, "")};
    for (const std::string& bytes : wrong) {
        play([&bytes](Peer& peer) {
            peer.sentGet();
            EXPECT_EQ(peer.answer(bytes), Lines{"end 1 lost 1"});
            EXPECT_EQ(peer.error(), "1");
            EXPECT_EQ(peer.sent(), Lines{"GOAWAY 0 1"});
        });
    }
}

TEST(SessionSettings, AreAcknowledgedEachInOrder) {
    play([](Peer& peer) {
        peer.start();
        EXPECT_EQ(peer.answer(settings({{3, 7}}) + settings({}) + settings({{0xfe03, 9}})),
                  (Lines{"settings", "settings", "settings"}));
        EXPECT_EQ(peer.session().peerSettings().maxConcurrentStreams, 7u);
        EXPECT_EQ(peer.sent(), (Lines{"SETTINGS ack", "SETTINGS ack", "SETTINGS ack"}));
        EXPECT_EQ(peer.answer(settingsAck()), Lines{});
        EXPECT_EQ(peer.sent(), Lines{});
    });
}

TEST(SessionSettings, TakeTheLastValue) {
    play([](Peer& peer) {
        peer.start();
        peer.server(settings({{1, 100}, {3, 1}, {4, 5}, {5, 20000}, {6, 9}, {3, 2}, {4, 6}}));
        const h2::PeerSettings& known = peer.session().peerSettings();
        EXPECT_EQ(known.headerTableSize, 100u);
        EXPECT_EQ(known.maxConcurrentStreams, 2u);
        EXPECT_EQ(known.initialWindowSize, 6u);
        EXPECT_EQ(known.maxFrameSize, 20000u);
        EXPECT_EQ(known.maxHeaderListSize, 9u);
    });
}

// What `bytes` do to a request that has been sent, one that has not, and the connection.
void expectConnectionError(const std::string& bytes, const std::string& code, std::string end,
                           Lines before = {}) {
    end.insert(end.find(' ') == std::string::npos ? end.size() : end.find(' '), " " + code);
    play([&](Peer& peer) {
        peer.start();
        const uint32_t stream = peer.sentGet();
        ASSERT_EQ(stream, 1u);
        peer.get("/not sent");
        Lines events = before;
        events.push_back("end 1 " + end);
        events.push_back("end 3 not processed " + code);
        EXPECT_EQ(peer.answer(bytes + settings({{1, 1}})), events);
        EXPECT_EQ(peer.error(), code);
        EXPECT_EQ(peer.sent(), Lines{"GOAWAY 0 " + code});
        EXPECT_FALSE(peer.session().wantsToSend());
        EXPECT_EQ(peer.session().submit({}), 0u);
        EXPECT_EQ(peer.answer(ping(1)), Lines{});
        EXPECT_EQ(peer.sentBytes(), "");
    });
}

TEST(SessionSettings, WithForbiddenValuesAreConnectionErrors) {
    expectConnectionError(settings({{2, 1}}), "1", "lost");
    expectConnectionError(settings({{2, 2}}), "1", "lost");
    expectConnectionError(settings({{4, 0x80000000}}), "3", "lost");
    expectConnectionError(settings({{5, 16383}}), "1", "lost");
    expectConnectionError(settings({{5, 16777216}}), "1", "lost");
    expectConnectionError(settings({{4, 1}, {4, 0xffffffff}, {4, 1}}), "3", "lost");
}

TEST(SessionSettings, AtTheEdgesAreTaken) {
    play([](Peer& peer) {
        peer.start({{2, 0}, {4, 0x7fffffff}, {5, 16777215}, {1, 0}, {3, 0}, {6, 0}});
        EXPECT_EQ(peer.answer(settings({{4, 0}, {5, 16384}, {1, 0xffffffff}, {3, 0xffffffff}})),
                  Lines{"settings"});
        EXPECT_EQ(peer.error(), "");
    });
}

TEST(SessionSettings, AnnounceASmallerTableAtTheNextBlock) {
    play([](Peer& peer) {
        peer.start({{1, 4096}});
        peer.get("/queued before");  // by the table of 4096 octets, and so before the SETTINGS ack
        peer.server(settings({{1, 0}, {1, 100}}));
        peer.get();
        const auto frames = parseFrames(peer.sentBytes());
        ASSERT_EQ(frames.size(), 3u);
        EXPECT_EQ(frames[0].type, kHeaders);
        EXPECT_NE(static_cast<uint8_t>(frames[0].payload[0]) & 0xe0, 0x20);
        EXPECT_EQ(frames[1].type, kSettings);
        // Size updates to 0 and to 100 (RFC 7541, 4.2: the smallest, then the last).
        EXPECT_EQ(toHex(frames[2].payload.substr(0, 3)), "20 3f 45");
    });
}

TEST(SessionSettings, OnAStreamOrOfAWrongLengthAreConnectionErrors) {
    expectConnectionError(frame(kSettings, 0, 3, ""), "1", "lost");
    expectConnectionError(frame(kSettings, kAck, 3, ""), "1", "lost");
    expectConnectionError(frame(kSettings, 0, 0, "12345"), "6", "lost");
    expectConnectionError(frame(kSettings, 0, 0, "1234567"), "6", "lost");
    expectConnectionError(frame(kSettings, kAck, 0, "123456"), "6", "lost");
}

TEST(SessionPing, IsAnsweredFirstAndWithItsBytes) {
    play([](Peer& peer) {
        peer.start();
        peer.get("/x");
        peer.server(settings({}) + ping(0x0102030405060708) + ping(2));
        EXPECT_EQ(peer.sent(),
                  (Lines{"PING ack 01 02 03 04 05 06 07 08", "PING ack 00 00 00 00 00 00 00 02",
                         "HEADERS 1 /x end", "SETTINGS ack"}));
    });
}

TEST(SessionPing, AnswersAreNotAnswered) {
    play([](Peer& peer) {
        peer.start();
        EXPECT_EQ(peer.answer(ping(7, kAck)), Lines{});
        EXPECT_EQ(peer.sent(), Lines{});
        EXPECT_EQ(peer.error(), "");
    });
}

TEST(SessionPing, OnAStreamOrOfAWrongLengthIsAConnectionError) {
    expectConnectionError(frame(kPing, 0, 3, "12345678"), "1", "lost");
    expectConnectionError(frame(kPing, 0, 0, "1234567"), "6", "lost");
    expectConnectionError(frame(kPing, kAck, 0, "123456789"), "6", "lost");
    expectConnectionError(frame(kPing, 0, 1, "12345678"), "1", "malformed");
}

TEST(SessionSequence, LetsNothingIntoAFieldBlock) {
    const std::string open = headers(1, kOk, 0);
    const std::string intruders[] = {
        data(1, "x"),    headers(1, kOk),      frame(kPriority, 0, 1, hex("0000000300")),
        rstStream(1, 8), continuation(3, kOk), frame(0x77, 0, 1, "extension"),
    };
    for (const std::string& intruder : intruders) {
        const bool other = intruder == continuation(3, kOk);
        expectConnectionError(open + intruder, "1", other ? "lost begun" : "malformed begun");
    }
    for (const std::string& intruder : {settings({}), ping(1), goaway(1, 0), windowUpdate(0, 1),
                                        frame(0x77, 0, 0, "extension")}) {
        play([&](Peer& peer) {
            peer.start();
            peer.sentGet();
            EXPECT_EQ(peer.answer(open + intruder), Lines{"end 1 lost 1 begun"});
            EXPECT_EQ(peer.error(), "1");
        });
    }
}

TEST(SessionSequence, WantsABlockToContinue) {
    expectConnectionError(continuation(1, kOk), "1", "malformed");
    expectConnectionError(headers(1, kOk) + continuation(1, kOk), "1", "malformed begun",
                          {"headers 1 200 :status=200"});
    expectConnectionError(continuation(0, kOk), "1", "lost");
}

TEST(SessionSequence, PutsABlockTogether) {
    play([](Peer& peer) {
        peer.start();
        peer.sentGet();
        const std::string block = kOk + hpackLiteral("name", "value");
        std::string bytes = headers(1, "", kEndStream);
        for (const char c : block) bytes += continuation(1, std::string(1, c), 0);
        bytes += continuation(1, "", 0) + continuation(1, "");
        EXPECT_EQ(peer.answer(bytes),
                  (Lines{"headers 1 200 :status=200 name=value", "end 1 complete"}));
        EXPECT_EQ(peer.sent(), Lines{});
    });
}

TEST(SessionSequence, ReadsPaddingAndPriorityOfHeaders) {
    play([](Peer& peer) {
        peer.start();
        peer.sentGet();
        const std::string payload = be8(4) + hex("80000003 ff") + kOk + std::string(4, '\0');
        EXPECT_EQ(peer.answer(frame(kHeaders, kPadded | kPriorityFlag | kEndHeaders, 1, payload)),
                  Lines{"headers 1 200 :status=200"});
    });
}

TEST(SessionSequence, MustNotHavePaddingBeyondTheFrame) {
    expectConnectionError(frame(kHeaders, kPadded | kEndHeaders, 1, be8(2) + "x"), "1",
                          "malformed");
    play([](Peer& peer) {
        peer.start();
        peer.sentGet();
        EXPECT_EQ(peer.answer(headers(1, kOk) + frame(kData, kPadded, 1, be8(3) + "ab")),
                  (Lines{"headers 1 200 :status=200", "end 1 malformed 1 begun"}));
        EXPECT_EQ(peer.sent(), Lines{"GOAWAY 0 1"});
    });
    play([](Peer& peer) {
        peer.start();
        peer.sentGet();
        EXPECT_EQ(peer.answer(headers(1, kOk) + frame(kData, kPadded, 1, be8(1))),
                  (Lines{"headers 1 200 :status=200", "end 1 malformed 1 begun"}));
    });
}

TEST(SessionSequence, RefusesFramesAboveTheSizeAllowed) {
    // The header alone is enough: the payload need not come.
    for (const uint8_t type :
         {kData, kHeaders, kPriority, kRstStream, kWindowUpdate, uint8_t{99}}) {
        expectConnectionError(frameHeader(16385, type, 0, 1), "6", "malformed");
    }
    expectConnectionError(frameHeader(16385, kGoaway, 0, 0), "6", "lost");
    expectConnectionError(frameHeader(0xffffff, kSettings, 0, 0), "6", "lost");
}

TEST(SessionSequence, TakesFramesOfTheFullSize) {
    play([](Peer& peer) {
        peer.start();
        peer.sentGet();
        const std::string text(16384, 'x');
        EXPECT_EQ(peer.answer(headers(1, kOk) + frame(0x77, 0xff, 1, text) + data(1, text, 1)),
                  (Lines{"headers 1 200 :status=200", "data 1 " + text, "end 1 complete"}));
    });
}

TEST(SessionSequence, WantsFixedPartsWhole) {
    expectConnectionError(frame(kRstStream, 0, 1, "123"), "6", "malformed");
    expectConnectionError(frame(kRstStream, 0, 1, "12345"), "6", "malformed");
    expectConnectionError(frame(kWindowUpdate, 0, 1, "123"), "6", "malformed");
    expectConnectionError(frame(kWindowUpdate, 0, 0, "12345"), "6", "lost");
    expectConnectionError(frame(kGoaway, 0, 0, "1234567"), "6", "lost");
    expectConnectionError(frame(kHeaders, kPadded | kEndHeaders, 1, ""), "6", "malformed");
    expectConnectionError(frame(kHeaders, kPriorityFlag | kEndHeaders, 1, "1234"), "6",
                          "malformed");
    expectConnectionError(frame(kData, kPadded, 1, ""), "6", "malformed");
    expectConnectionError(frame(kPushPromise, kEndHeaders, 1, "123"), "6", "malformed");
}

TEST(SessionSequence, KeepsStreamFramesOffStreamZero) {
    for (const std::string& bytes :
         {data(0, "x"), headers(0, kOk), frame(kPriority, 0, 0, "12345"), rstStream(0, 8),
          frame(kPushPromise, kEndHeaders, 0, hex("00000002") + kOk),
          frame(kGoaway, 0, 3, "12345678")}) {
        expectConnectionError(bytes, "1", "lost");
    }
}

TEST(SessionPriority, OfAWrongLengthIsAnErrorOfTheStream) {
    play([](Peer& peer) {
        peer.start();
        peer.sentGet();
        EXPECT_EQ(peer.answer(frame(kPriority, 0, 1, "1234")), Lines{"end 1 malformed 6"});
        EXPECT_EQ(peer.sent(), Lines{"RST_STREAM 1 6"});
        EXPECT_EQ(peer.answer(frame(kPriority, 0, 1, "123456")), Lines{});  // closed
        EXPECT_EQ(peer.sent(), Lines{});
    });
    // An idle stream cannot be reset.
    expectConnectionError(frame(kPriority, 0, 9, "1234"), "6", "lost");
}

TEST(SessionExtensions, ArePassedOver) {
    play([](Peer& peer) {
        peer.start({{0xfe03, 1}, {0, 5}, {0x99, 0xffffffff}});
        peer.sentGet();
        const std::string answer = frame(kHeaders, 0xc2 | kEndHeaders, 1 | kReservedBit, kOk);
        EXPECT_EQ(peer.answer(frame(0x0a, 0xff, 1, "altsvc") + frame(0xff, 0xff, 77, "") +
                              frame(0x20, 0, 0, "?") + frame(kPriority, 0xff, 1, "12345") +
                              frame(kPriority, 0, 1000, "12345") + answer +
                              frame(kData, 0xf6 | kEndStream, 1 | kReservedBit, "x")),
                  (Lines{"headers 1 200 :status=200", "data 1 x", "end 1 complete"}));
        EXPECT_EQ(peer.answer(frame(kPing, 0xfe, 0, "12345678")), Lines{});
        EXPECT_EQ(peer.sent(), Lines{"PING ack 31 32 33 34 35 36 37 38"});
        EXPECT_EQ(peer.error(), "");
    });
}

TEST(SessionGoAway, EndsWhatIsNotProcessedAndLetsTheRestFinish) {
    play([](Peer& peer) {
        peer.start({{3, 2}});
        peer.get();
        peer.get();
        peer.sent();
        peer.get("/waits");
        EXPECT_EQ(peer.answer(goaway(1, 0xfffffc7a, "bye")),
                  (Lines{"goaway 1 4294966394 bye", "end 3 not processed 4294966394",
                         "end 5 not processed 4294966394"}));
        EXPECT_FALSE(peer.session().takesRequests());
        EXPECT_EQ(peer.get(), 0u);
        EXPECT_EQ(peer.answer(headers(1, kOk) + data(1, "x", kEndStream)),
                  (Lines{"headers 1 200 :status=200", "data 1 x", "end 1 complete"}));
        EXPECT_EQ(peer.session().requests(), 0u);
        EXPECT_EQ(peer.sent(), Lines{});
    });
}

TEST(SessionGoAway, MayComeTwice) {
    play([](Peer& peer) {
        peer.start();
        for (int i = 0; i < 3; ++i) peer.get();
        peer.sent();
        EXPECT_EQ(peer.answer(goaway(0x7fffffff, 0)), Lines{"goaway 2147483647 0"});
        EXPECT_EQ(peer.get(), 0u);
        EXPECT_EQ(peer.answer(goaway(3, 0)), (Lines{"goaway 3 0", "end 5 not processed 0"}));
        // A last stream must not grow; when it does, the smaller one holds.
        EXPECT_EQ(peer.answer(goaway(5, 1)), Lines{"goaway 5 1"});
        EXPECT_EQ(peer.answer(goaway(1, 1)), (Lines{"goaway 1 1", "end 3 not processed 1"}));
        EXPECT_EQ(peer.answer(headers(1, kOk, kEndHeaders | kEndStream)),
                  (Lines{"headers 1 200 :status=200", "end 1 complete"}));
    });
}

TEST(SessionGoAway, LeavesRequestsThatWereNotSentUnprocessed) {
    play([](Peer& peer) {
        peer.start();
        peer.get("/in the output only");
        EXPECT_EQ(peer.answer(goaway(0, 0)), (Lines{"goaway 0 0", "end 1 not processed 0"}));
    });
}

TEST(SessionGoAway, EventMayCancelWhatIsAboutToEnd) {
    play([](Peer& peer) {
        peer.start();
        for (int i = 0; i < 4; ++i) peer.get();
        peer.sent();
        peer.reaction = [&peer](const std::string& event) {
            if (event == "goaway 0 0") peer.session().cancel(1);
            if (event == "end 3 not processed 0") peer.session().cancel(5);
            EXPECT_EQ(peer.get(), 0u);
        };
        EXPECT_EQ(peer.answer(goaway(0, 0)),
                  (Lines{"goaway 0 0", "end 3 not processed 0", "end 7 not processed 0"}));
        EXPECT_EQ(peer.sent(), Lines{});  // nothing to be reset: the server ignores those streams
    });
}

TEST(SessionClose, SaysGoAwayAndLetsRequestsFinish) {
    play([](Peer& peer) {
        peer.start();
        peer.sentGet();
        peer.session().close();
        peer.session().close();
        EXPECT_EQ(peer.get(), 0u);
        EXPECT_EQ(peer.sent(), Lines{"GOAWAY 0 0"});
        EXPECT_EQ(peer.answer(headers(1, kOk, kEndHeaders | kEndStream)),
                  (Lines{"headers 1 200 :status=200", "end 1 complete"}));
        EXPECT_EQ(peer.error(), "");
    });
}

TEST(SessionLoss, EndsEachRequestByWhatIsKnown) {
    play([](Peer& peer) {
        peer.start({{3, 2}});
        peer.sentGet();
        peer.get("/in the output only");
        peer.get("/waits");
        peer.server(headers(1, kOk));
        peer.events();
        peer.session().connectionLost("gone");
        EXPECT_EQ(peer.events(),
                  (Lines{"end 1 lost 0 begun", "end 3 not processed 0", "end 5 not processed 0"}));
        EXPECT_EQ(peer.error(), "0");
        EXPECT_EQ(peer.sentBytes(), "");
        peer.session().connectionLost("again");
        EXPECT_EQ(peer.events(), Lines{});
        EXPECT_EQ(peer.get(), 0u);
    });
}

TEST(SessionFailure, SendsWhatWasReadyButNoFurtherRequest) {
    play([](Peer& peer) {
        peer.start();
        peer.sentGet();
        peer.server(settings({}) + ping(1));
        peer.get("/must not be sent");
        peer.server(settings({}) + data(0, ""));
        EXPECT_EQ(peer.sent(),
                  (Lines{"PING ack 00 00 00 00 00 00 00 01", "SETTINGS ack", "GOAWAY 0 1"}));
    });
}

TEST(SessionFailure, MayBeMetByCallsOfTheVisitor) {
    play([](Peer& peer) {
        peer.start();
        for (int i = 0; i < 4; ++i) peer.get();
        peer.sent();
        peer.reaction = [&peer](const std::string& event) {
            if (event == "end 3 malformed 1") {
                EXPECT_EQ(peer.get(), 0u);
                peer.session().cancel(5);
                peer.session().pause(7);
                peer.session().resume(7);
                peer.session().close();
            }
        };
        EXPECT_EQ(peer.answer(frame(kPing, 0, 3, "12345678")),
                  (Lines{"end 3 malformed 1", "end 1 lost 1", "end 7 lost 1"}));
        EXPECT_EQ(peer.sent(), Lines{"GOAWAY 0 1"});
    });
}

}  // namespace
}  // namespace h2test
