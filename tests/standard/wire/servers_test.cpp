// What real servers do that may surprise a client.
#include <atomic>

#include "tests/standard/wire/wire_support.h"

namespace {

using namespace h2test;

constexpr uint8_t kWhole = kEndHeaders | kEndStream;

class Servers : public LibraryTest {
protected:
    // Another request of `client`, which succeeds.
    static void expectNext(RecordingClient& client) {
        client.clear();
        client.clearClient();
        ASSERT_EQ(client.setUri("/next", HTTP_GET), 0);
        ASSERT_EQ(client.startRequest(nullptr), 0);
        ASSERT_TRUE(client.waitEnd());
        EXPECT_EQ(client.callbacks(), answered());
    }
};

// Some end a connection on which many streams are reset.
TEST_F(Servers, ThatCountResetsSeeNoneAfterAnswers) {
    Http2Server server([](const Request& request) {
        switch (request.stream / 2 % 4) {
            case 0: return answer(request.stream);
            case 1: return answerHead(request.stream, 204, {}, kWhole);
            case 2: return answer(request.stream, "") + rstStream(request.stream, kNoErrorCode);
            default:
                return answerHead(request.stream) + data(request.stream, "x") +
                       headers(request.stream, hpackLiteral("t", "1"), kWhole);
        }
    });
    RecordingClient client;
    prepareGet(client, server);
    for (int i = 0; i < 100; ++i) {
        client.clear();
        ASSERT_EQ(client.startRequest(nullptr), 0);
        ASSERT_TRUE(client.waitEnd());
    }
    EXPECT_TRUE(server.wire().frames(0, kRstStream).empty());
    EXPECT_EQ(server.wire().connections(), 1u);
}

// Some end a connection with many small WINDOW_UPDATEs, or send ever smaller frames.
TEST_F(Servers, ThatCountWindowUpdatesSeeFew) {
    Http2Server server([](const Request& request) {
        std::string reply = answerHead(request.stream);
        for (int i = 0; i < 5000; ++i) reply += data(request.stream, std::string(100, 'x'));
        return reply + data(request.stream, "", kEndStream);
    });
    RecordingClient client;
    ASSERT_EQ(setHttp2Option(&client, HTTP2_STREAM_WINDOW, 500000), 0);
    ASSERT_EQ(setHttp2Option(&client, HTTP2_CONNECTION_WINDOW, 500000), 0);
    prepareGet(client, server);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(client.waitEnd());
    EXPECT_EQ(client.body().size(), 500000u);
    server.wire().send(0, ping(1));
    ASSERT_TRUE(server.wire().waitFramesOf(0, kPing));
    // The first is the connection's window at its start; then two for half a window each.
    const std::vector<WireFrame> updates = server.wire().frames(0, kWindowUpdate);
    EXPECT_LE(updates.size(), 5u);
    for (const WireFrame& update : updates) {
        EXPECT_GE(update.payload, be32(250000)) << toHex(update.payload);
    }
}

// Some never go on after an initial window of 0; some push unless told not to.
TEST_F(Servers, AreToldAWindowAndNotToPush) {
    Http2Server server(answerAll());
    RecordingClient client;
    prepareGet(client, server);
    ASSERT_TRUE(server.wire().waitFramesOf(0, kSettings));
    EXPECT_EQ(server.wire().frames(0, kSettings)[0],
              parseFrames(settings({{2, 0}, {4, 32 << 20}, {6, 128 << 10}}))[0]);
}

// GOAWAY with the last answer that it allows for, then end of file.
TEST_F(Servers, ThatEndAfterANumberOfRequestsLoseNone) {
    ScriptedServer* wire = nullptr;
    Http2Server server([&](const Request& request) {
        if (request.stream < 5) return answer(request.stream);
        wire->send(request.connection, goaway(5, kNoErrorCode) + answer(request.stream));
        wire->close(request.connection);
        return std::string();
    });
    wire = &server.wire();
    RecordingClient client;
    prepareGet(client, server);
    for (int i = 0; i < 30; ++i) {
        client.clear();
        ASSERT_EQ(client.startRequest(nullptr), 0);
        ASSERT_TRUE(client.waitCallbacks(2));
        ASSERT_EQ(client.callbacks(), answered());
    }
    EXPECT_EQ(server.wire().connections(), 10u);
}

// How servers stop: the running request gets its answer, the next one another connection.
TEST_F(Servers, ThatStopLetTheRunningRequestFinish) {
    constexpr uint32_t kHighest = 0x7fffffff;
    struct Way {
        std::string before, with, after;
    };
    const std::vector<Way> ways = {
        {goaway(kHighest, 0) + goaway(1, 0), "", ""},
        {goaway(kHighest, 0), goaway(1, 0), ""},
        {goaway(kHighest, 0), "", ""},
        {goaway(1, 0), "", ""},
        {"", goaway(1, 0), goaway(1, kProtocolErrorCode)},
        {"", "", goaway(1, 0)},
        {"", "", ""},
    };
    for (size_t i = 0; i < ways.size(); ++i) {
        SCOPED_TRACE(i);
        const Way& way = ways[i];
        Http2Server server([](const Request& request) {
            return request.connection == 0 ? std::string() : answer(request.stream);
        });
        RecordingClient client;
        prepareGet(client, server);
        ASSERT_EQ(client.startRequest(nullptr), 0);
        ASSERT_TRUE(server.waitRequests(1));
        server.wire().send(0, way.before + answerHead(1) + data(1, "o"));
        ASSERT_TRUE(client.waitContent());
        server.wire().send(0, way.with + data(1, "k", kEndStream) + way.after);
        server.wire().close(0);
        ASSERT_TRUE(client.waitEnd());
        EXPECT_EQ(
            client.callbacks(),
            (std::vector<Callback>{Callback::headers(200, {{":status", "200"}}),
                                   Callback::content("o", true), Callback::content("k", false)}));
        ASSERT_TRUE(server.wire().waitClosedByPeer(0));
        expectNext(client);
        EXPECT_EQ(server.wire().connections(), 2u);
    }
}

// An idle connection ends without GOAWAY; over TLS some do not even say goodbye.
TEST_F(Servers, ThatCloseAnIdleConnectionAreConnectedToAgain) {
    for (const bool tls : {false, true}) {
        Http2Options options;
        options.server.tls = tls;
        options.reply = answerAll();
        Http2Server server(std::move(options));
        RecordingClient client;
        ASSERT_EQ(setHttp2Option(&client, HTTP2_VERIFY, 0), 0);
        ASSERT_EQ(client.connectToServer(tls ? HTTPS_2 : HTTP_2, "127.0.0.1", server.port()), 0);
        for (size_t i = 0; i < 4; ++i) {
            expectNext(client);
            if (i % 2 == 0) {
                server.wire().closeWithoutCloseNotify(i);
            } else {
                server.wire().close(i);
            }
            if (i >= 2) continue;  // the next request may find out
            ASSERT_TRUE(server.wire().waitClosedByPeer(i));
        }
    }
}

TEST_F(Servers, ThatSayWhatNobodyKnowsAreUnderstood) {
    Http2Options options;
    options.greeting = settings({{0xfe03, 1}, {4, 65535}}) + frame(0x77, 0xff, 0, "?");
    options.reply = [](const Request& request) {
        return request.connection == 0 ? goaway(request.stream, 0xfffffc7a) + answer(request.stream)
                                       : answer(request.stream);
    };
    Http2Server server(std::move(options));
    RecordingClient client;
    prepareGet(client, server);
    expectNext(client);
    expectNext(client);
    EXPECT_EQ(server.wire().connections(), 2u);
}

TEST_F(Servers, ThatResetStreamsLongClosedAreIgnored) {
    Http2Server server([](const Request& request) {
        std::string reply = answer(request.stream);
        for (uint32_t id = 1; id < request.stream; id += 2) reply += rstStream(id, 5);
        return reply;
    });
    RecordingClient client;
    prepareGet(client, server);
    for (int i = 0; i < 5; ++i) expectNext(client);
    EXPECT_EQ(server.wire().connections(), 1u);
}

// Bytes that a stopping server loses are no answer.
TEST_F(Servers, ThatEndInTheMiddleOfAnAnswerHaveNotAnswered) {
    for (const char* said : {"", "goaway"}) {
        Http2Server server([](const Request& request) {
            return request.connection == 0 && request.field(":path") == "/"
                       ? std::string()
                       : answer(request.stream);
        });
        RecordingClient client;
        prepareGet(client, server);
        expectNext(client);  // a connection that has answered
        ASSERT_EQ(client.setUri("/", HTTP_GET), 0);
        client.clear();
        ASSERT_EQ(client.startRequest(nullptr), 0);
        ASSERT_TRUE(server.waitRequests(2));
        server.wire().send(0,
                           (*said == '\0' ? "" : goaway(3, 0)) + answerHead(3) + data(3, "part"));
        server.wire().close(0);
        ASSERT_TRUE(client.waitClosed());
        EXPECT_EQ(client.callbacks(),
                  (std::vector<Callback>{Callback::headers(200, {{":status", "200"}}),
                                         Callback::content("part", true), Callback::closed()}));
        EXPECT_EQ(server.requests().size(), 2u);
    }
}

TEST_F(Servers, MayEndAnyAnswerWithAnEmptyDataFrame) {
    Http2Server server([](const Request& request) {
        const std::string path = request.field(":path");
        if (path == "/next") return answer(request.stream);
        const int status = path == "/" ? 200 : std::stoi(path.substr(1));
        return answerHead(request.stream, status, hpackLiteral("content-length", "5")) +
               data(request.stream, "", kEndStream);
    });
    RecordingClient client;
    prepareGet(client, server);
    ASSERT_EQ(setHttp2TextOption(&client, HTTP2_METHOD, "HEAD"), 0);
    for (const char* status : {"200", "304"}) {
        client.clear();
        ASSERT_EQ(client.startRequest(nullptr), 0);
        ASSERT_TRUE(client.waitCallbacks(2));
        EXPECT_EQ(
            client.callbacks(),
            (std::vector<Callback>{Callback::headers(std::stoi(status), {{":status", status},
                                                                         {"content-length", "5"}}),
                                   Callback::content("", false)}));
        ASSERT_EQ(client.setUri("/304", HTTP_GET), 0);
    }
    expectNext(client);
}

// 16 KB of headers in CONTINUATION frames of 760 bytes.
TEST_F(Servers, MaySendManyContinuations) {
    std::string block = statusBlock(200);
    for (int i = 0; i < 16; ++i) block += hpackLiteral("name", std::string(1000, 'v'));
    Http2Server server([&](const Request& request) {
        if (request.field(":path") == "/next") return answer(request.stream);
        std::string reply = headers(request.stream, block.substr(0, 760), kEndStream);
        for (size_t at = 760; at < block.size(); at += 760) {
            const bool last = at + 760 >= block.size();
            reply += continuation(request.stream, block.substr(at, 760), last ? kEndHeaders : 0);
        }
        return reply;
    });
    RecordingClient client;
    prepareGet(client, server);
    ASSERT_EQ(client.startRequest(nullptr), 0);
    ASSERT_TRUE(client.waitCallbacks(2));
    ASSERT_EQ(client.callbacks()[0].headerList.size(), 17u);
    for (size_t i = 1; i < 17; ++i) {
        EXPECT_EQ(client.callbacks()[0].headerList[i].second, std::string(1000, 'v'));
    }
    expectNext(client);
}

// An early answer to an upload, and what servers do besides.
TEST_F(Servers, ThatAnswerAnUploadEarlyHaveAnswered) {
    const std::string tooLarge = answer(1, "too large");
    const std::string manyResets = rstStream(1, 5) + rstStream(1, 5) + rstStream(1, 5);
    const std::string credit = windowUpdate(1, 1 << 20) + windowUpdate(0, 1 << 20);
    for (const bool reader : {false, true}) {
        for (const std::string& besides : {rstStream(1, kNoErrorCode), rstStream(1, kCancelCode),
                                           credit, manyResets, std::string()}) {
            SCOPED_TRACE(toHex(besides));
            Http2Options options;
            options.greeting = settings({});
            options.reply = answerAll();
            Http2Server server(std::move(options));
            RecordingClient client;
            prepareGet(client, server);
            ASSERT_EQ(client.setUri("/", HTTP_POST), 0);
            BodySource source(std::string(8 << 20, 'x'));  // more than the windows ever take
            if (reader) {
                ASSERT_EQ(client.setContent(&BodySource::read, &source), 0);
            } else {
                ASSERT_EQ(client.setContent(source.bytes.data(), source.bytes.size()), 0);
            }
            ASSERT_EQ(client.startRequest(nullptr), 0);
            ASSERT_TRUE(server.wire().waitFramesOf(0, kData));
            server.wire().send(0, tooLarge + besides);
            const bool ends = besides.empty();
            if (ends) server.wire().close(0);
            ASSERT_TRUE(client.waitEnd());
            EXPECT_EQ(client.callbacks(), answered("too large"));
            if (ends) {
                ASSERT_TRUE(server.wire().waitClosedByPeer(0));
            }
            expectNext(client);
            EXPECT_EQ(server.wire().connections(), ends ? 2u : 1u);
        }
    }
}

// 60 kB of request headers. More than 64 KiB are refused at the call.
TEST_F(Servers, MayRefuseLargeHeaders) {
    constexpr uint32_t kEnhanceYourCalm = 11, kInternalError = 2;
    const std::vector<std::pair<std::string, Callback>> ways = {
        {answerHead(1, 431, {}, kWhole), Callback::content("", false)},
        {rstStream(1, kProtocolErrorCode), Callback::failed(ERR_RECV_ERR)},
        {goaway(0, kEnhanceYourCalm), Callback::failed(ERR_SOCKET_CLOSED)},
        {goaway(1, kInternalError), Callback::closed()},
    };
    for (const auto& [way, end] : ways) {
        SCOPED_TRACE(toHex(way));
        ScriptedServer* wire = nullptr;
        Http2Server server([&, way = way](const Request& request) {
            if (request.field(":path") == "/next") return answer(request.stream);
            wire->send(request.connection, way);
            if (parseFrames(way)[0].type == kGoaway) wire->close(request.connection);
            return std::string();
        });
        wire = &server.wire();
        RecordingClient client;
        prepareGet(client, server);
        ASSERT_NE(client.addHeader("large", std::string(60000, 'x').c_str(), false), nullptr);
        ASSERT_EQ(client.startRequest(nullptr), 0);
        const bool answers = end.kind == Callback::Kind::kContent;
        ASSERT_TRUE(client.waitCallbacks(answers ? 2 : 1));
        EXPECT_EQ(client.callbacks().back(), end);
        expectNext(client);
    }
}

TEST_F(Servers, ThatBreakTheRulesFailTheirRequestAlone) {
    const std::string ok = statusBlock(200);
    const std::vector<std::string> ways = {
        // An interim answer with content and the end of the stream.
        answerHead(1, 103, hpackLiteral("link", "x")) + data(1, "early", kEndStream),
        answerHead(1, 103, hpackLiteral("link", "x"), kWhole),
        answerHead(1, 103, hpackLiteral("Link", "x")) + answer(1),
        // Trailers whose value ends in CR.
        headers(1, ok) + headers(1, hpackLiteral("t", "1\r"), kWhole),
    };
    for (const std::string& way : ways) {
        SCOPED_TRACE(toHex(way));
        Http2Server server([&](const Request& request) {
            return request.stream == 1 ? way : answer(request.stream);
        });
        RecordingClient client;
        prepareGet(client, server);
        ASSERT_EQ(client.startRequest(nullptr), 0);
        ASSERT_TRUE(client.waitFailed());
        EXPECT_EQ(client.callbacks().back(), Callback::failed(ERR_FETAL));
        EXPECT_EQ(client.count(Callback::Kind::kContent), 0u);
        expectNext(client);
        EXPECT_EQ(server.wire().connections(), 1u);
        EXPECT_EQ(server.wire().frames(0, kRstStream),
                  parseFrames(rstStream(1, kProtocolErrorCode)));
    }
}

}  // namespace
