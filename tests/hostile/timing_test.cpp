// Servers that are slow, that stop half way, or that go away at any moment.
#include "hostile_support.h"

namespace h2test {
namespace {

class HostileTiming : public HostileTest, public testing::WithParamInterface<bool> {
protected:
    HostileTiming() : HostileTest(serverOptions(GetParam())) {}

    // All that a server sends in one exchange, with what the client hears of each frame.
    struct Piece {
        std::string bytes;
        Callbacks heard;
    };
    static std::vector<Piece> exchange() {
        return {{settings({{3, 100}}), {}},
                {settingsAck(), {}},
                {headers(1, hpackIndexed(8) + hpackLiteral("a", "b")),
                 {Callback::headers(200, {{":status", "200"}, {"a", "b"}})}},
                {ping(1), {}},
                {data(1, "first"), {Callback::content("first", true)}},
                {windowUpdate(0, 1), {}},
                {dataPadded(1, "last", 2, kEndStream), {Callback::content("last", false)}}};
    }
    static std::string allOf(const std::vector<Piece>& pieces) {
        std::string out;
        for (const Piece& piece : pieces) out += piece.bytes;
        return out;
    }
    // What the client hears of the first `size` bytes, and then of the connection's end.
    static Callbacks heardOf(const std::vector<Piece>& pieces, size_t size) {
        Callbacks out;
        for (const Piece& piece : pieces) {
            if (piece.bytes.size() > size) return out + Callbacks{Callback::closed()};
            size -= piece.bytes.size();
            out = out + piece.heard;
        }
        return out;
    }
};

INSTANTIATE_TEST_SUITE_P(Transport, HostileTiming, testing::Bool(),
                         [](const auto& info) { return info.param ? "Tls" : "Plain"; });

TEST_P(HostileTiming, CloseAtEveryByteOfAnExchangeIsHeardOnce) {
    const std::vector<Piece> pieces = exchange();
    const std::string all = allOf(pieces);
    for (size_t size = 0; size <= all.size(); ++size) {
        const size_t index = kVictim + 1 + size;
        RecordingClient client;
        start(client, index);
        m_server.send(index, all.substr(0, size));
        m_server.close(index);
        ASSERT_TRUE(m_server.waitClosedByPeer(index)) << size;
        const Callbacks expected = heardOf(pieces, size);
        ASSERT_TRUE(client.waitCallbacks(expected.size())) << size;
        ASSERT_EQ(client.callbacks(), expected) << size;
        ASSERT_EQ(client.startRequest(nullptr), 2) << size;
    }
}

TEST_P(HostileTiming, HalfAFrameThenSilenceThenCloseIsHeardOnce) {
    const std::string all = allOf(exchange());
    m_server.sendCut(kVictim, all.substr(0, all.size() - 3), {all.size() - 20});
    ASSERT_TRUE(m_victim.waitContent());
    // The silence lasts for ten exchanges of another connection.
    for (size_t round = 0; round < 10; ++round) {
        RecordingClient other;
        start(other, kVictim + 1 + round);
        m_server.send(kVictim + 1 + round, okResponse(1));
        ASSERT_TRUE(other.waitEnd());
    }
    const Callbacks before = {Callback::headers(200, {{":status", "200"}, {"a", "b"}}),
                              Callback::content("first", true)};
    EXPECT_EQ(m_victim.callbacks(), before);
    m_server.close(kVictim);
    expectDroppedNow(before + Callbacks{Callback::closed()});
}

// Each byte is sent when the client has read the one before.
TEST_P(HostileTiming, AByteAtATimeIsBorne) {
    const std::vector<Piece> pieces = exchange();
    m_server.sendByteByByte(kVictim, allOf(pieces));
    ASSERT_TRUE(m_victim.waitEnd(kLongLimit));
    EXPECT_EQ(m_victim.callbacks(), heardOf(pieces, allOf(pieces).size()));
    expectUsable();
}

TEST_P(HostileTiming, ServerThatNeverReadsKeepsNobodyElseFromBeingServed) {
    m_server.stopReading(kVictim);
    play(repeated(data(9, ""), 50'000));  // each to be answered by a reset that is never read
    for (size_t round = 0; round < 5; ++round) {
        RecordingClient other;
        start(other, kVictim + 1 + round);
        m_server.send(kVictim + 1 + round, okResponse(1));
        ASSERT_TRUE(other.waitEnd());
        EXPECT_EQ(other.callbacks(), okCallbacks());
    }
    m_server.reset(kVictim);
    ASSERT_TRUE(m_victim.waitClosed(kLongLimit));
    EXPECT_EQ(m_victim.callbacks(), Callbacks{Callback::closed()});
}

}  // namespace
}  // namespace h2test
