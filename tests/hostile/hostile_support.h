#ifndef HTTP2CLIENT_TESTS_HOSTILE_HOSTILE_SUPPORT_H
#define HTTP2CLIENT_TESTS_HOSTILE_HOSTILE_SUPPORT_H

#include <algorithm>
#include <chrono>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "tests/wire/wire_support.h"

namespace h2test {

inline std::string repeated(const std::string& bytes, size_t count) {
    std::string out;
    out.reserve(bytes.size() * count);
    for (size_t i = 0; i < count; ++i) out += bytes;
    return out;
}

inline Callbacks operator+(Callbacks left, const Callbacks& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

// A victim, whose request the server answers with an attack, and a bystander on a connection of its
// own, whose response is half way meanwhile.
class HostileTest : public testing::Test {
protected:
    explicit HostileTest(const ServerOptions& options = {})
        : m_tls(options.tls), m_server(options) {
        start(m_bystander, kBystander);
        m_server.send(kBystander, headers(1, hpackIndexed(8)) + data(1, "by"));
        EXPECT_TRUE(m_bystander.waitContent());
        start(m_victim, kVictim);
    }

    void TearDown() override {
        m_server.send(kBystander, data(1, "stander", kEndStream));
        EXPECT_TRUE(m_bystander.waitEnd());
        EXPECT_EQ(m_bystander.callbacks(), (Callbacks{okHeaders(), Callback::content("by", true),
                                                      Callback::content("stander", false)}));
        EXPECT_FALSE(m_server.closedByPeer(kBystander));
    }

    void play(const std::string& bytes) { m_server.send(kVictim, bytes); }

    // The connection survives the attack: the answer that follows it arrives as ever, and so does
    // that of a second request. `heard` is what the attack itself leads to; `sent` are the frames
    // that it makes the client send, without the WINDOW_UPDATE frames.
    void expectTolerated(const std::string& bytes, const Callbacks& heard = {},
                         const std::vector<WireFrame>& sent = {}) {
        expectHeard(bytes + okResponse(1), heard + okCallbacks(), sent);
    }
    // The same, with an answer that is a part of the attack.
    void expectHeard(const std::string& bytes, const Callbacks& heard,
                     const std::vector<WireFrame>& sent = {}) {
        play(bytes);
        ASSERT_TRUE(m_victim.waitEnd(kLongLimit));
        EXPECT_TRUE(m_victim.callbacks() == heard) << testing::PrintToString(m_victim.callbacks());
        expectUsable();
        expectSent(sent);
    }

    // The connection is dropped; the victim hears `heard` and no more, and the client says nothing
    // more on it: what it has queued goes down with it. The victim may connect again.
    void expectDropped(const std::string& bytes, const Callbacks& heard) {
        play(bytes);
        expectDroppedNow(heard);
    }
    void expectDroppedNow(const Callbacks& heard) {
        ASSERT_TRUE(m_server.waitClosedByPeer(kVictim, kLongLimit));
        EXPECT_EQ(m_victim.callbacks(), heard);
        EXPECT_EQ(toHex(m_server.received(kVictim)), toHex(opening() + getRequest(1, "/", m_tls)));
        expectGone();
    }
    // Nothing starts on the victim's connection, until it connects again.
    void expectGone() {
        EXPECT_EQ(m_victim.startRequest(nullptr), 2);
        EXPECT_EQ(m_victim.parseHttpClientStatus(nullptr), 0);  // no request counts as running
        m_victim.clear();
        const size_t next = m_server.connections();
        start(m_victim, next);
        m_server.send(next, okResponse(1));
        ASSERT_TRUE(m_victim.waitEnd());
        EXPECT_EQ(m_victim.callbacks(), okCallbacks());
    }

    // Another request on the victim's connection is answered.
    void expectUsable() {
        const uint32_t stream = m_nextStream;
        m_nextStream += 2;
        m_victim.clear();
        ASSERT_EQ(m_victim.startRequest(nullptr), 0);
        ASSERT_TRUE(m_server.waitFramesThat(kVictim, [&](const std::vector<WireFrame>& frames) {
            return std::any_of(frames.begin(), frames.end(), [&](const WireFrame& frame) {
                return frame.type == kHeaders && frame.streamId == stream;
            });
        }));
        m_server.send(kVictim, okResponse(stream, "again"));
        ASSERT_TRUE(m_victim.waitEnd());
        EXPECT_EQ(m_victim.callbacks(), okCallbacks("again"));
    }

    // Between the victim's first HEADERS frame and its second, the client has sent these frames and
    // the RST_STREAM that every finished stream gets. (One RST_STREAM a stream: they are collected
    // per step, so that a stream's may come more than once.)
    void expectSent(const std::vector<WireFrame>& expected) {
        std::vector<WireFrame> sent;
        std::set<uint32_t> reset;
        size_t requests = 0;
        for (const WireFrame& frame : m_server.frames(kVictim)) {
            if (frame.type == kHeaders && ++requests == 2) break;
            if (frame.type == kHeaders || frame.type == kSettings || frame.type == kWindowUpdate) {
                continue;
            }
            if (frame.type == kRstStream) {
                EXPECT_EQ(frame.payload, be32(kCancel));
                if (!reset.insert(frame.streamId).second) continue;
            }
            sent.push_back(frame);
        }
        std::vector<WireFrame> all = expected;
        all.push_back(resetOf(1));
        EXPECT_EQ(sorted(sent), sorted(all));
    }

    static WireFrame resetOf(uint32_t streamId) {
        return parseFrames(rstStream(streamId, kCancel)).at(0);
    }

    void start(RecordingClient& client, size_t index) { startGet(client, m_server, index, m_tls); }
    // Another client's request is answered on a connection of its own.
    void expectOtherServed(size_t index) {
        RecordingClient other;
        start(other, index);
        m_server.send(index, okResponse(1));
        ASSERT_TRUE(other.waitEnd());
        EXPECT_EQ(other.callbacks(), okCallbacks());
    }

    static constexpr size_t kBystander = 0;
    static constexpr size_t kVictim = 1;
    static constexpr std::chrono::milliseconds kLongLimit{120000};

    const bool m_tls;
    RunningLibrary m_library;
    ScriptedServer m_server;
    RecordingClient m_bystander;
    RecordingClient m_victim;

private:
    static std::vector<WireFrame> sorted(std::vector<WireFrame> frames) {
        std::sort(frames.begin(), frames.end(), [](const WireFrame& a, const WireFrame& b) {
            return std::tie(a.streamId, a.type) < std::tie(b.streamId, b.type);
        });
        return frames;
    }

    uint32_t m_nextStream = 3;
};

}  // namespace h2test

#endif  // HTTP2CLIENT_TESTS_HOSTILE_HOSTILE_SUPPORT_H
