// What a hostile server may send at any time: each type of frame in each state of a stream, and
// floods with the bounds on what they cost.
#include <algorithm>

#include "tests/standard/session_support.h"

namespace h2test {
namespace {

constexpr uint8_t kLast = kEndHeaders | kEndStream;
constexpr uint8_t kUnknown = 0x77;
const std::string kOk = status("200");

// A frame of each type that is in order by itself.
std::string frameOf(uint8_t type, uint32_t stream) {
    switch (type) {
        case kData: return data(stream, "x");
        case kHeaders: return headers(stream, kOk);
        case kPriority: return frame(kPriority, 0, stream, "12345");
        case kSettings: return frame(kSettings, 0, stream, "");
        case kPushPromise: return frame(kPushPromise, kEndHeaders, stream, be32(8) + kOk);
        case kPing: return frame(kPing, 0, stream, "12345678");
        case kGoaway: return frame(kGoaway, 0, stream, be32(0x7fffffff) + be32(0));
        case kContinuation: return continuation(stream, kOk);
        case kRstStream:
        case kWindowUpdate: return frame(type, 0, stream, be32(8));
        default: return frame(type, 0, stream, "?");
    }
}

// The states in which a stream may be, in the columns' order below. Settings are not acknowledged,
// so that a push is still allowed.
struct State {
    const char* name;
    uint32_t stream;
    std::function<void(Peer&)> setUp;
};

std::vector<State> allStates() {
    return {
        {"stream 0", 0, [](Peer&) {}},
        {"idle", 99, [](Peer&) {}},
        {"idle, the server's", 98, [](Peer&) {}},
        {"half-closed (local)", 1, [](Peer&) {}},
        {"closed by both", 1, [](Peer& peer) { peer.server(headers(1, kOk, kLast)); }},
        {"closed by our reset", 1, [](Peer& peer) { peer.session().cancel(1); }},
        {"closed by the server's reset", 1, [](Peer& peer) { peer.server(rstStream(1, 8)); }},
        {"promised and refused", 2,
         [](Peer& peer) { peer.server(frame(kPushPromise, kEndHeaders, 1, be32(2) + kOk)); }},
    };
}

// What is sent in answer: "C1" GOAWAY with code 1, "R5" RST_STREAM with code 5 for the stream, "P"
// RST_STREAM for the stream promised, "A" an acknowledgement, "-" nothing.
std::string outcomeOf(Peer& peer, uint32_t stream) {
    const Lines sent = peer.sent();
    if (sent.empty()) return "-";
    EXPECT_EQ(sent.size(), 1u);
    const std::string reset = "RST_STREAM " + std::to_string(stream) + " ";
    if (sent[0].starts_with("GOAWAY 0 ")) return "C" + sent[0].substr(9);
    if (sent[0].starts_with(reset)) return "R" + sent[0].substr(reset.size());
    if (sent[0] == "RST_STREAM 8 7") return "P";
    return sent[0].find(" ack") != std::string::npos ? "A" : sent[0];
}

TEST(SessionStates, TakeEachTypeOfFrameByTheRules) {
    const struct {
        uint8_t type;
        std::vector<std::string> outcomes;  // by state
    } rows[] = {
        {kData, {"C1", "C1", "C1", "R1", "R5", "-", "R5", "-"}},
        {kHeaders, {"C1", "C1", "C1", "-", "R5", "-", "R5", "-"}},
        {kPriority, {"C1", "-", "-", "-", "-", "-", "-", "-"}},
        {kRstStream, {"C1", "C1", "C1", "-", "-", "-", "-", "-"}},
        {kSettings, {"A", "C1", "C1", "C1", "C1", "C1", "C1", "C1"}},
        {kPushPromise, {"C1", "C1", "C1", "P", "C1", "P", "C1", "C1"}},
        {kPing, {"A", "C1", "C1", "C1", "C1", "C1", "C1", "C1"}},
        {kGoaway, {"-", "C1", "C1", "C1", "C1", "C1", "C1", "C1"}},
        {kWindowUpdate, {"-", "C1", "C1", "-", "-", "-", "-", "-"}},
        {kContinuation, {"C1", "C1", "C1", "C1", "C1", "C1", "C1", "C1"}},
        {kUnknown, {"-", "-", "-", "-", "-", "-", "-", "-"}},
    };
    const std::vector<State> states = allStates();
    for (const auto& row : rows) {
        ASSERT_EQ(row.outcomes.size(), states.size());
        for (size_t i = 0; i < states.size(); ++i) {
            SCOPED_TRACE("type " + std::to_string(row.type) + ", " + states[i].name);
            play([&](Peer& peer) {
                peer.sentGet();
                peer.server(settings({}));
                states[i].setUp(peer);
                peer.sent();
                peer.server(frameOf(row.type, states[i].stream));
                EXPECT_EQ(outcomeOf(peer, states[i].stream), row.outcomes[i]);
                const bool over = row.outcomes[i][0] == 'C';
                EXPECT_EQ(peer.error(), over ? row.outcomes[i].substr(1) : "");
                // Whatever it was, it ends the request at most once; and the connection goes on.
                if (over) return;
                peer.server(ping(1));
                EXPECT_EQ(peer.sent(), Lines{"PING ack 00 00 00 00 00 00 00 01"});
            });
        }
    }
}

// What a session has allocated for what the server sends.
size_t memoryOf(const h2::Session& session) {
    return session.m_out.capacity() + session.m_pings.capacity() + session.m_partial.capacity() +
           session.m_block.capacity() + session.m_fields.m_texts.capacity() +
           session.m_decoder.m_table.m_textsCapacity;
}

constexpr size_t kMemory = 512 << 10;

// Sends `flood` until the connection ends. It must end with ENHANCE_YOUR_CALM within `most` frames,
// never send more than it has got, and keep its memory.
void expectBound(const std::string& before, const std::function<std::string(uint32_t)>& flood,
                 uint32_t most, bool acknowledged = true) {
    playWhole([&](Peer& peer) {
        if (acknowledged) {
            peer.start();
        } else {
            peer.server(settings({}));
        }
        peer.sentGet();
        peer.server(before);
        peer.sent();
        const size_t receivedBefore = peer.received;
        size_t sent = 0;
        uint32_t frames = 0;
        while (peer.error().empty() && frames < most) {
            std::string bytes;
            for (const uint32_t end = std::min(frames + 100, most); frames < end; ++frames) {
                bytes += flood(frames);
            }
            peer.server(bytes);
            sent += peer.sentBytes().size();
            ASSERT_LE(sent, peer.received - receivedBefore + 17);  // 17: GOAWAY
            ASSERT_LE(memoryOf(peer.session()), kMemory);
            peer.events();
        }
        EXPECT_EQ(peer.error(), "11") << frames;
        peer.server(flood(frames));
        EXPECT_EQ(peer.sentBytes(), "");
    });
}

void expectBound(const std::string& before, const std::string& flood, uint32_t most) {
    expectBound(
        before, [&](uint32_t) { return flood; }, most);
}

TEST(SessionFlood, CostsNoMoreThanItBrings) {
    constexpr uint32_t kBudget = 20'000;
    expectBound("", ping(1), kBudget);
    expectBound("", settings({}), kBudget);
    expectBound("", settings({{1, 0}, {1, 4096}, {4, 0}, {4, 0x7fffffff}}), kBudget);
    expectBound("", settingsAck(), kBudget);
    expectBound("", windowUpdate(0, 1), kBudget);
    expectBound("", windowUpdate(1, 1), kBudget);
    expectBound("", rstStream(1, 8), kBudget);
    expectBound("", frame(kPriority, 0, 1, "12345"), kBudget);
    expectBound("", frame(kUnknown, 0xff, 77, ""), kBudget);
    expectBound("", goaway(0x7fffffff, 0, "debug data"), kBudget);
    expectBound(headers(1, kOk), data(1, ""), kBudget);
    expectBound(headers(1, kOk), dataPadded(1, "", 255), kBudget);
    expectBound("", headers(1, ""), kBudget);
    expectBound("", headers(1, kOk, kLast), kBudget + 16);  // an answer earns 16 frames
    expectBound("", data(1, "x"), kBudget);
    expectBound(
        "", [](uint32_t i) { return frame(kPushPromise, kEndHeaders, 1, be32(2 * i + 2)); },
        kBudget, false);
}

TEST(SessionFieldBlock, WithoutEndIsBounded) {
    expectBound(headers(1, kOk, 0), continuation(1, "", 0), 1001);
    expectBound(headers(1, kOk, 0), continuation(1, "\x82", 0), 1001);
    expectBound(headers(1, kOk, 0), continuation(1, std::string(16384, '\x82'), 0), 9);
    // A string that is said to be 2^28 long: nothing is allocated before it is there.
    expectBound(headers(1, hex("00 7f 81 ff ff 7f"), 0),
                continuation(1, std::string(16384, 'a'), 0), 9);
}

// A stream at a time: each is reset, with bounds on what it costs, and the connection goes on.
TEST(SessionHeaderList, BombsResetTheirStreamOnly) {
    const std::string entry = hpackLiteral("n", std::string(4000, 'v'), Literal::kIncremental);
    const std::string bombs[] = {
        kOk + entry + std::string(12000, '\xbe'),  // 48 MB of references
        kOk + hpackLiteral("n", std::string(10000, 'v')) + entry + std::string(16, '\xbe') +
            std::string(1000, '\xbe'),
    };
    for (const std::string& bomb : bombs) {
        playWhole([&](Peer& peer) {
            peer.start();
            for (int i = 0; i < 50; ++i) {
                const uint32_t stream = peer.sentGet();
                const std::string id = std::to_string(stream);
                EXPECT_EQ(peer.answer(headers(stream, bomb)),
                          Lines{"end " + id + " malformed 11 begun"});
                EXPECT_EQ(peer.sent(), Lines{"RST_STREAM " + id + " 11"});
                ASSERT_LE(memoryOf(peer.session()), kMemory);
            }
            const uint32_t stream = peer.sentGet();
            const std::string id = std::to_string(stream);
            EXPECT_EQ(peer.answer(headers(stream, kOk, kLast)),
                      (Lines{"headers " + id + " 200 :status=200", "end " + id + " complete"}));
        });
    }
}

// Exactly what both windows allow goes out, however often SETTINGS move the stream's.
TEST(SessionSendWindow, HoldsUnderSettingsThatNeverRest) {
    playWhole([](Peer& peer) {
        peer.start({{4, 1000}});
        TextBody body(std::string(100'000, 'x'));
        peer.sentPost(body);
        int64_t initial = 1000;
        int64_t given = 0;  // by WINDOW_UPDATE
        int64_t sent = 0;
        for (uint32_t i = 0; i < 2000; ++i) {
            initial = i * 7919 % 3000;
            given += 10;
            peer.server(settings({{4, static_cast<uint32_t>(initial)}}) + windowUpdate(1, 10));
            const int64_t allowed = std::min(initial + given - sent, 65535 - sent);
            int64_t now = 0;
            for (const WireFrame& frame : parseFrames(peer.sentBytes())) {
                if (frame.type == kData) now += frame.length;
            }
            ASSERT_EQ(now, std::max<int64_t>(allowed, 0)) << i;
            sent += now;
        }
        EXPECT_EQ(peer.error(), "");
        EXPECT_GT(sent, 20'000);
    });
}

}  // namespace
}  // namespace h2test
