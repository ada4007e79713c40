// What an answer may be: RFC 9113, 8.1 to 8.3, and the end of streams.
#include "tests/standard/session_support.h"

namespace h2test {
namespace {

constexpr uint8_t kLast = kEndHeaders | kEndStream;
const std::string kOk = status("200");
const std::string kHead = "headers 1 200 :status=200";

// One GET that the server answers with `bytes`.
void expectAnswer(const std::string& bytes, const Lines& events, const Lines& sent,
                  const std::string& method = "GET") {
    play([&](Peer& peer) {
        peer.start();
        peer.get("/", method);
        peer.sent();
        EXPECT_EQ(peer.answer(bytes), events);
        EXPECT_EQ(peer.sent(), sent);
        EXPECT_EQ(peer.error(), "");
        // The connection is in order.
        const uint32_t stream = peer.sentGet();
        const std::string id = std::to_string(stream);
        EXPECT_EQ(peer.answer(headers(stream, status("204"), kLast)),
                  (Lines{"headers " + id + " 204 :status=204", "end " + id + " complete"}));
    });
}

void expectMalformed(const std::string& bytes, Lines before = {},
                     const std::string& method = "GET") {
    before.push_back("end 1 malformed 1 begun");
    expectAnswer(bytes, before, {"RST_STREAM 1 1"}, method);
}

std::string field(const std::string& name, const std::string& value) {
    return hpackLiteral(name, value);
}

TEST(SessionAnswer, HasHeadersContentAndEnd) {
    expectAnswer(headers(1, kOk + field("b", "2") + field("a", "1") + field("b", "")) +
                     data(1, "hello ") + data(1, "world", kEndStream),
                 {kHead + " b=2 a=1 b=", "data 1 hello world", "end 1 complete"}, {});
}

TEST(SessionAnswer, MayBeHeadersOnly) {
    expectAnswer(headers(1, kOk, kLast), {kHead, "end 1 complete"}, {});
    expectAnswer(headers(1, kOk) + data(1, "", kEndStream), {kHead, "end 1 complete"}, {});
    expectAnswer(
        headers(1, kOk) + data(1, "") + dataPadded(1, "", 7) + dataPadded(1, "", 3, kEndStream),
        {kHead, "end 1 complete"}, {});
}

TEST(SessionAnswer, MayHaveTrailers) {
    expectAnswer(headers(1, kOk) + data(1, "x") + headers(1, field("t", "1"), kLast),
                 {kHead, "data 1 x", "trailers 1 t=1", "end 1 complete"}, {});
    expectAnswer(headers(1, kOk) + headers(1, "", kLast), {kHead, "trailers 1", "end 1 complete"},
                 {});
    expectAnswer(headers(1, kOk) + headers(1, field("t", "1"), kEndStream) + continuation(1, ""),
                 {kHead, "trailers 1 t=1", "end 1 complete"}, {});
}

TEST(SessionAnswer, TakesInterimAnswers) {
    expectAnswer(headers(1, status("100")) + headers(1, status("103") + field("link", "</x>")) +
                     headers(1, kOk, kLast),
                 {"interim 1 100 :status=100", "interim 1 103 :status=103 link=</x>", kHead,
                  "end 1 complete"},
                 {});
}

TEST(SessionAnswer, LeavesOutPadding) {
    expectAnswer(headers(1, kOk) + dataPadded(1, "hello", 255) + dataPadded(1, "", 0) +
                     dataPadded(1, "!", 1, kEndStream),
                 {kHead, "data 1 hello!", "end 1 complete"}, {});
}

TEST(SessionAnswer, OfHeadAnd204And304HasNoContentWhateverItsLength) {
    const std::string length = field("content-length", "5");
    expectAnswer(headers(1, kOk + length, kLast), {kHead + " content-length=5", "end 1 complete"},
                 {}, "HEAD");
    expectAnswer(headers(1, kOk + length) + data(1, "", kEndStream),
                 {kHead + " content-length=5", "end 1 complete"}, {}, "HEAD");
    for (const std::string code : {"204", "304"}) {
        const std::string head = "headers 1 " + code + " :status=" + code;
        expectAnswer(headers(1, status(code) + length, kLast),
                     {head + " content-length=5", "end 1 complete"}, {});
        expectAnswer(headers(1, status(code)) + data(1, "", kEndStream), {head, "end 1 complete"},
                     {});
        expectMalformed(headers(1, status(code)) + data(1, "x"), {head});
    }
    expectMalformed(headers(1, kOk) + data(1, "x"), {kHead}, "HEAD");
    expectMalformed(headers(1, kOk) + dataPadded(1, "x", 1), {kHead}, "HEAD");
}

TEST(SessionAnswer, IsMalformedWithoutAProperStatus) {
    for (const std::string& block :
         {std::string(), field("a", "b"), status(""), status("20"), status("2000"), status("2x0"),
          status("099"), status("000"), status("-20"), field("a", "b") + kOk, kOk + kOk,
          kOk + status("404"), kOk + field("a", "b") + status("200")}) {
        expectMalformed(headers(1, block));
        expectMalformed(headers(1, block, kLast));
    }
}

TEST(SessionAnswer, IsMalformedWithOtherPseudoHeaders) {
    for (const std::string name :
         {":method", ":path", ":scheme", ":authority", ":protocol", ":x", ":"}) {
        expectMalformed(headers(1, kOk + field(name, "x")));
        expectMalformed(headers(1, field(name, "x") + kOk));
    }
}

TEST(SessionAnswer, IsMalformedWithForbiddenNamesAndValues) {
    for (const std::string name :
         {"", "Upper", "sp ace", "co:lon", "ctl\x01", "del\x7f", "\xc3\xa4"}) {
        expectMalformed(headers(1, kOk + field(name, "x")));
    }
    for (const std::string& value :
         {std::string("a\rb"), std::string("a\nb"), std::string("a\0b", 3), std::string(" a"),
          std::string("a\t")}) {
        expectMalformed(headers(1, kOk + field("n", value)));
    }
    // Also when the field comes from the table the second time.
    const std::string bad = hpackLiteral("n", " a", Literal::kIncremental);
    play([&](Peer& peer) {
        peer.start();
        peer.get();
        peer.get();
        peer.sent();
        EXPECT_EQ(peer.answer(headers(1, kOk + bad) + headers(3, kOk + hpackIndexed(62))),
                  (Lines{"end 1 malformed 1 begun", "end 3 malformed 1 begun"}));
        EXPECT_EQ(peer.sent(), (Lines{"RST_STREAM 1 1", "RST_STREAM 3 1"}));
    });
}

TEST(SessionAnswer, IsMalformedWithConnectionSpecificFields) {
    for (const std::string name :
         {"connection", "keep-alive", "proxy-connection", "transfer-encoding", "upgrade"}) {
        expectMalformed(headers(1, kOk + field(name, "x")));
        expectMalformed(headers(1, status("103") + field(name, "x")));
        expectMalformed(headers(1, kOk) + headers(1, field(name, "x"), kLast), {kHead});
    }
    expectMalformed(headers(1, kOk + field("te", "gzip")));
    expectAnswer(headers(1, kOk + field("te", "trailers"), kLast),
                 {kHead + " te=trailers", "end 1 complete"}, {});
}

TEST(SessionAnswer, IsMalformedWhenContentLengthLies) {
    const auto length = [](const std::string& n) { return field("content-length", n); };
    const std::string head = kHead + " content-length=";
    expectAnswer(headers(1, kOk + length("3")) + data(1, "ab") + data(1, "c", kEndStream),
                 {head + "3", "data 1 abc", "end 1 complete"}, {});
    expectAnswer(headers(1, kOk + length("3")) + data(1, "abc") + headers(1, "", kLast),
                 {head + "3", "data 1 abc", "trailers 1", "end 1 complete"}, {});
    expectAnswer(headers(1, kOk + length("0"), kLast), {head + "0", "end 1 complete"}, {});
    expectAnswer(headers(1, kOk + length("003") + length("3")) + data(1, "abc", kEndStream),
                 {head + "003 content-length=3", "data 1 abc", "end 1 complete"}, {});

    expectMalformed(headers(1, kOk + length("3"), kLast), {head + "3"});
    expectMalformed(headers(1, kOk + length("3")) + data(1, "ab", kEndStream),
                    {head + "3", "data 1 ab"});
    expectMalformed(headers(1, kOk + length("3")) + data(1, "ab") + headers(1, "", kLast),
                    {head + "3", "data 1 ab"});
    // Nothing of the frame that is too much is delivered.
    expectMalformed(headers(1, kOk + length("3")) + data(1, "ab") + data(1, "cd", kEndStream),
                    {head + "3", "data 1 ab"});
    expectMalformed(headers(1, kOk + length("3")) + data(1, "ab") + dataPadded(1, "cd", 2),
                    {head + "3", "data 1 ab"});
    expectMalformed(headers(1, kOk + length("0")) + data(1, "a"), {head + "0"});
    expectMalformed(headers(1, kOk + length("18446744073709551616")));
    expectMalformed(headers(1, kOk + length("3") + length("4")));
    for (const std::string wrong : {"", "-1", "+1", "1.0", "0x1", "3, 4", "a"}) {
        expectMalformed(headers(1, kOk + length(wrong)));
    }
}

TEST(SessionAnswer, MustNotHaveContentBeforeItsHeaders) {
    expectMalformed(headers(1, status("103")) + data(1, "x"), {"interim 1 103 :status=103"});
    play([](Peer& peer) {
        peer.start();
        peer.sentGet();
        EXPECT_EQ(peer.answer(data(1, "x", kEndStream)), Lines{"end 1 malformed 1"});
        EXPECT_EQ(peer.sent(), Lines{"RST_STREAM 1 1"});
    });
}

TEST(SessionAnswer, MustNotHaveASecondFinalHeaderSection) {
    expectMalformed(headers(1, kOk) + headers(1, kOk), {kHead});
    expectMalformed(headers(1, kOk) + headers(1, field("a", "b")), {kHead});
    expectMalformed(headers(1, kOk) + data(1, "x") + headers(1, status("103")),
                    {kHead, "data 1 x"});
}

TEST(SessionAnswer, MustNotHaveBadTrailers) {
    expectMalformed(headers(1, kOk) + headers(1, kOk, kLast), {kHead});
    expectMalformed(headers(1, kOk) + headers(1, field(":x", "1"), kLast), {kHead});
    expectMalformed(headers(1, kOk) + headers(1, field("t", "1\r"), kLast), {kHead});
    expectMalformed(headers(1, kOk) + headers(1, field("T", "1"), kLast), {kHead});
}

TEST(SessionAnswer, MustNotEndOrSwitchByAnInterimAnswer) {
    expectMalformed(headers(1, status("100"), kLast));
    expectMalformed(headers(1, status("101")));
    expectMalformed(headers(1, status("101"), kLast));
}

TEST(SessionAnswer, ThatCannotBeDecodedEndsTheConnection) {
    const std::string broken[] = {hex("80"), hex("ff ff ff ff ff ff"), hex("be"), hex("82 40"),
                                  hex("3f e2 1f")};
    for (const std::string& block : broken) {
        play([&](Peer& peer) {
            peer.start();
            peer.get();
            peer.get();
            peer.sent();
            EXPECT_EQ(peer.answer(headers(3, block)),
                      (Lines{"end 3 malformed 9 begun", "end 1 lost 9"}));
            EXPECT_EQ(peer.sent(), Lines{"GOAWAY 0 9"});
        });
    }
}

TEST(SessionAnswer, MayComeInAnyMixOfStreams) {
    play([](Peer& peer) {
        peer.start();
        peer.get();
        peer.get();
        peer.sent();
        EXPECT_EQ(peer.answer(headers(3, kOk) + headers(1, kOk) + data(1, "a") + data(3, "b") +
                              data(1, "c") + data(3, "", kEndStream) + data(1, "d", kEndStream)),
                  (Lines{"headers 3 200 :status=200", kHead, "data 1 a", "data 3 b", "data 1 c",
                         "end 3 complete", "data 1 d", "end 1 complete"}));
    });
}

TEST(SessionReset, EndsTheRequestWithItsCode) {
    for (const uint32_t code : {0u, 1u, 8u, 13u, 0xdeadbeefu}) {
        expectAnswer(rstStream(1, code), {"end 1 reset " + std::to_string(code)}, {});
    }
    expectAnswer(headers(1, kOk) + data(1, "x") + rstStream(1, 0),
                 {kHead, "data 1 x", "end 1 reset 0 begun"}, {});
}

TEST(SessionReset, WithRefusedStreamMeansNotProcessed) {
    expectAnswer(rstStream(1, 7), {"end 1 refused 7"}, {});
    // A server that has begun to answer has processed the request, whatever it says.
    expectAnswer(headers(1, status("103")) + rstStream(1, 7),
                 {"interim 1 103 :status=103", "end 1 reset 7 begun"}, {});
}

TEST(SessionReset, BehindAWholeAnswerIsPassedOver) {
    expectAnswer(headers(1, kOk, kLast) + rstStream(1, 0) + rstStream(1, 8) + rstStream(1, 8),
                 {kHead, "end 1 complete"}, {});
}

TEST(SessionClosedStream, PassesOverWindowUpdatesPrioritiesAndResets) {
    expectAnswer(headers(1, kOk, kLast) + windowUpdate(1, 100) + windowUpdate(1, 0) +
                     frame(kPriority, 0, 1, "12345") + rstStream(1, 5),
                 {kHead, "end 1 complete"}, {});
}

TEST(SessionClosedStream, AnswersDataAndHeadersWithStreamClosed) {
    expectAnswer(headers(1, kOk, kLast) + data(1, "x"), {kHead, "end 1 complete"},
                 {"RST_STREAM 1 5"});
    expectAnswer(headers(1, kOk, kLast) + headers(1, kOk, kLast), {kHead, "end 1 complete"},
                 {"RST_STREAM 1 5"});
    // Once is enough: from then on it is a stream that we have reset.
    expectAnswer(rstStream(1, 8) + data(1, "x") + data(1, "y") + headers(1, kOk), {"end 1 reset 8"},
                 {"RST_STREAM 1 5"});
}

TEST(SessionClosedStream, MayStillGetFramesAfterOurReset) {
    play([](Peer& peer) {
        peer.start();
        peer.sentGet();
        peer.session().cancel(1);
        EXPECT_EQ(peer.sent(), Lines{"RST_STREAM 1 8"});
        peer.now += 1'000'000'000;  // however late: no time is looked at
        // The block is decoded: it puts a field into the table that the next answer uses.
        const std::string block = kOk + hpackLiteral("new", "entry", Literal::kIncremental);
        EXPECT_EQ(peer.answer(headers(1, block) + data(1, "late") + headers(1, "", kLast) +
                              rstStream(1, 5) + windowUpdate(1, 1)),
                  Lines{});
        EXPECT_EQ(peer.sent(), Lines{});
        peer.sentGet();
        EXPECT_EQ(peer.answer(headers(3, kOk + hpackIndexed(62), kLast)),
                  (Lines{"headers 3 200 :status=200 new=entry", "end 3 complete"}));
    });
}

TEST(SessionIdleStream, TakesNothingButPriority) {
    const auto promise = frame(kPushPromise, kEndHeaders, 3, hex("00000002") + kOk);
    for (const std::string& bytes :
         {data(3, "x"), headers(3, kOk), rstStream(3, 8), windowUpdate(3, 1), promise,
          headers(2, kOk), data(2, "x"), rstStream(2, 8), windowUpdate(2, 1)}) {
        play([&](Peer& peer) {
            peer.start({{3, 1}});
            peer.sentGet();
            peer.get("/waits");  // as stream 3, which the server does not know yet
            EXPECT_EQ(peer.answer(bytes), (Lines{"end 1 lost 1", "end 3 not processed 1"}));
            EXPECT_EQ(peer.sent(), Lines{"GOAWAY 0 1"});
        });
        play([&](Peer& peer) {
            peer.start();
            peer.sentGet();
            peer.get("/queued");
            EXPECT_EQ(peer.answer(bytes), (Lines{"end 1 lost 1", "end 3 not processed 1"}));
            EXPECT_EQ(peer.sent(), Lines{"GOAWAY 0 1"});
        });
    }
    play([](Peer& peer) {
        peer.start();
        EXPECT_EQ(peer.answer(frame(kPriority, 0, 3, "12345") + frame(kPriority, 0, 2, "12345")),
                  Lines{});
        EXPECT_EQ(peer.error(), "");
    });
}

TEST(SessionPush, IsRefusedUntilOurSettingsAreAcknowledged) {
    play([](Peer& peer) {
        peer.sentGet();
        const std::string table = hpackLiteral("pushed", "entry", Literal::kIncremental);
        EXPECT_EQ(peer.answer(settings({}) +
                              frame(kPushPromise, kEndHeaders, 1, hex("00000002") + table) +
                              frame(kPushPromise, 0, 1, hex("80000008")) + continuation(1, "") +
                              headers(2, kOk) + data(2, "pushed", kEndStream) +
                              headers(1, kOk + hpackIndexed(62), kLast)),
                  (Lines{"settings", "headers 1 200 :status=200 pushed=entry", "end 1 complete"}));
        EXPECT_EQ(peer.sent(), (Lines{"SETTINGS ack", "RST_STREAM 2 7", "RST_STREAM 8 7"}));
    });
}

TEST(SessionPush, OfAStreamThatIsNotIdleEndsTheConnection) {
    for (const uint32_t promised : {0u, 1u, 3u, 2u, 4u}) {
        play([&](Peer& peer) {
            peer.sentGet();
            const std::string first = frame(kPushPromise, kEndHeaders, 1, hex("00000004") + kOk);
            EXPECT_EQ(peer.answer(settings({}) + first +
                                  frame(kPushPromise, kEndHeaders, 1, be32(promised) + kOk)),
                      (Lines{"settings", "end 1 malformed 1"}));
            EXPECT_EQ(peer.error(), "1");
        });
    }
}

TEST(SessionPush, OnAClosedStreamEndsTheConnectionUnlessWeResetIt) {
    const std::string promise = frame(kPushPromise, kEndHeaders, 1, hex("00000002") + kOk);
    play([&](Peer& peer) {
        peer.sentGet();
        peer.server(settings({}) + headers(1, kOk, kLast) + promise);
        EXPECT_EQ(peer.error(), "1");
    });
    play([&](Peer& peer) {
        peer.sentGet();
        peer.session().cancel(1);
        peer.server(settings({}) + promise);
        EXPECT_EQ(peer.error(), "");
        EXPECT_EQ(peer.sent(), (Lines{"RST_STREAM 1 8", "SETTINGS ack", "RST_STREAM 2 7"}));
    });
}

TEST(SessionPush, EndsTheConnectionOnceOurSettingsAreAcknowledged) {
    play([](Peer& peer) {
        peer.start();
        peer.sentGet();
        EXPECT_EQ(peer.answer(frame(kPushPromise, kEndHeaders, 1, hex("00000002") + kOk)),
                  Lines{"end 1 malformed 1"});
        EXPECT_EQ(peer.sent(), Lines{"GOAWAY 0 1"});
    });
}

}  // namespace
}  // namespace h2test
