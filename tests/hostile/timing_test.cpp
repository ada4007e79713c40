// Servers that are slow, that stop half way, or that go away at any moment.
#include "hostile_support.h"

namespace h2test {
namespace {

class HostileTiming : public HostileTest, public testing::WithParamInterface<bool> {
protected:
    HostileTiming() : HostileTest(serverOptions(GetParam())) {}

    size_t m_used = 0;  // connections used up

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

// As above, but with a RST: what came whole before it has been heard.
TEST_P(HostileTiming, ResetAtEveryByteOfAnExchangeIsHeardOnce) {
    const std::vector<Piece> pieces = exchange();
    const std::string all = allOf(pieces);
    for (size_t size = 0; size < all.size(); size += 1 + size / 16) {
        const size_t index = kVictim + 1 + m_used++;
        RecordingClient client;
        start(client, index);
        m_server.send(index, all.substr(0, size));
        const Callbacks expected = heardOf(pieces, size);
        ASSERT_TRUE(client.waitCallbacks(expected.size() - 1)) << size;
        m_server.reset(index);
        ASSERT_TRUE(client.waitClosed()) << size;
        ASSERT_EQ(client.callbacks(), expected) << size;
        ASSERT_EQ(client.startRequest(nullptr), 2) << size;
    }
}

// The client's own side of the exchange: nothing, the preface, and then the SETTINGS frame and the
// request are there before the server goes.
TEST_P(HostileTiming, CloseAfterEachOfTheClientsPiecesIsHeardOnce) {
    const std::string request = opening() + getRequest(1, "/", GetParam());
    for (const size_t size : {size_t{0}, size_t{1}, kPreface.size(), kPreface.size() + 1,
                              opening().size(), opening().size() + 1, request.size()}) {
        const size_t index = kVictim + 1 + m_used++;
        RecordingClient client;
        ASSERT_EQ(connectTo(client, m_server, GetParam()), 0);
        ASSERT_EQ(client.setUri("/", HTTP_GET), 0);
        if (size == 0) m_server.close(index);
        ASSERT_EQ(client.startRequest(nullptr), 0);
        ASSERT_TRUE(m_server.waitReceived(index, size));
        if (size != 0) m_server.close(index);
        ASSERT_TRUE(client.waitClosed()) << size;
        ASSERT_TRUE(m_server.waitClosedByPeer(index)) << size;
        ASSERT_EQ(client.callbacks(), Callbacks{Callback::closed()}) << size;
        ASSERT_EQ(client.startRequest(nullptr), 2) << size;
        const std::string received = m_server.received(index);
        ASSERT_EQ(toHex(received), toHex(request.substr(0, received.size()))) << size;
    }
}

TEST_P(HostileTiming, HalfAFrameThenSilenceThenCloseIsHeardOnce) {
    const std::string all = allOf(exchange());
    m_server.sendCut(kVictim, all.substr(0, all.size() - 3), {all.size() - 20});
    ASSERT_TRUE(m_victim.waitContent());
    // The silence lasts for ten exchanges of another connection.
    for (size_t round = 0; round < 10; ++round) {
        expectOtherServed(kVictim + 1 + round);
    }
    const Callbacks before = {Callback::headers(200, {{":status", "200"}, {"a", "b"}}),
                              Callback::content("first", true)};
    EXPECT_EQ(m_victim.callbacks(), before);
    m_server.close(kVictim);
    expectDroppedNow(before + Callbacks{Callback::closed()});
}

// Each byte is sent when the client has read the one before.
TEST_P(HostileTiming, AByteAtATimeIsTolerated) {
    const std::vector<Piece> pieces = exchange();
    m_server.sendByteByByte(kVictim, allOf(pieces));
    expectHeard("", heardOf(pieces, allOf(pieces).size()));
}

// Between two bytes the poll loop makes many steps, and another connection gets its frames: the
// victim's half of a frame waits, and costs nobody else anything.
TEST_P(HostileTiming, AByteAfterALongPauseIsTolerated) {
    using Clock = std::chrono::steady_clock;
    constexpr std::chrono::milliseconds kPause{12};  // more than two steps of the poll loop
    const std::vector<Piece> pieces = exchange();
    const std::string all = allOf(pieces);
    RecordingClient other;
    start(other, kVictim + 1);
    m_server.send(kVictim + 1, headers(1, hpackIndexed(8)));
    size_t chunks = 0;
    for (size_t size = 1; size <= all.size(); ++size) {
        play(all.substr(size - 1, 1));
        const auto end = Clock::now() + kPause;
        do {
            m_server.send(kVictim + 1, data(1, "c"));
            ASSERT_TRUE(other.waitContent(++chunks));
        } while (Clock::now() < end);
    }
    expectHeard("", heardOf(pieces, all.size()));
    m_server.send(kVictim + 1, data(1, "", kEndStream));
    ASSERT_TRUE(other.waitEnd());
    EXPECT_EQ(other.callbacks(), Callbacks{okHeaders()} +
                                     Callbacks(chunks, Callback::content("c", true)) +
                                     Callbacks{Callback::content("", false)});
}

TEST_P(HostileTiming, ServerThatNeverReadsKeepsNobodyElseFromBeingServed) {
    m_server.stopReading(kVictim);
    play(repeated(data(9, ""), 50'000));  // each to be answered by a reset that is never read
    for (size_t round = 0; round < 5; ++round) {
        expectOtherServed(kVictim + 1 + round);
    }
    m_server.reset(kVictim);
    ASSERT_TRUE(m_victim.waitClosed(kLongLimit));
    EXPECT_EQ(m_victim.callbacks(), Callbacks{Callback::closed()});
}

}  // namespace
}  // namespace h2test
