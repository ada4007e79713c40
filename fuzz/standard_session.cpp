// A session of the standard edition between bytes of a server and calls of an application, both
// taken from the input. Each input is played twice, the second time with the server's bytes cut
// differently: events and bytes out must be the same. A judge reads both directions on its own, and
// keeps count of windows, streams and ends.
#include <sys/uio.h>

#include <map>
#include <set>
#include <sstream>
#include <vector>

#include "Http2ClientStandard/session/session.h"
#include "fuzz_support.h"
#include "tests/support/bytes.h"

namespace {

using h2fuzz::require;
using h2test::WireFrame;

constexpr size_t kMaxRequests = 200;
constexpr size_t kMaxMemory = 1 << 20;  // of one input's session, its requests' fields included

uint32_t number(std::string_view bytes, size_t at) {
    uint32_t value = 0;
    for (size_t i = at; i < at + 4; ++i) value = value << 8 | static_cast<uint8_t>(bytes[i]);
    return value;
}

// Reads what goes over the connection, by the frame headers alone, and requires that the client
// keeps to the windows that it was given, and gives no more than it said.
class Judge {
public:
    explicit Judge(const h2::SessionOptions& options)
        : m_connectionWindow(options.connectionWindow) {}

    // A DATA frame counts as soon as its header has come, other frames once they are whole.
    void onServerBytes(std::string_view bytes) {
        m_fromServer.append(bytes);
        while (!m_blind && m_fromServer.size() >= m_skip + 9) {
            m_fromServer.erase(0, m_skip);
            m_skip = 0;
            const uint32_t length = number(m_fromServer, 0) >> 8;
            const auto type = static_cast<uint8_t>(m_fromServer[3]);
            m_blind = length > 16384;  // a connection error
            if (type != h2test::kData && m_fromServer.size() < 9 + length) return;
            m_skip = 9 + length;
            const uint32_t stream = number(m_fromServer, 5) & 0x7fffffff;
            if (type == h2test::kData) {
                m_received += length;
                m_receivedOn[stream] += length;
            } else if (!m_blind) {
                const auto flags = static_cast<uint8_t>(m_fromServer[4]);
                onServerFrame({length, type, flags, stream, false, m_fromServer.substr(9, length)});
            }
        }
    }

    void onClientBytes(std::string_view bytes) {
        m_fromClient.append(bytes);
        if (!m_prefaceSeen && m_fromClient.size() >= h2test::kPreface.size()) {
            m_fromClient = h2test::withoutPreface(m_fromClient);
            m_prefaceSeen = true;
        }
        if (!m_prefaceSeen) return;
        for (const WireFrame& frame : h2test::parseFrames(m_fromClient)) onClientFrame(frame);
        m_fromClient.clear();
    }

private:
    void onServerFrame(const WireFrame& frame) {
        switch (frame.type) {
            case h2test::kSettings:
                if (!frame.hasFlags(h2test::kAck)) onSettings(frame.payload);
                break;
            case h2test::kWindowUpdate:
                if (frame.length == 4) {
                    const uint32_t increment = number(frame.payload, 0) & 0x7fffffff;
                    (frame.streamId == 0 ? m_sendWindow : m_sendWindows[frame.streamId]) +=
                        increment;
                }
                break;
            default: break;
        }
    }
    void onSettings(std::string_view payload) {
        for (size_t at = 0; at + 6 <= payload.size(); at += 6) {
            if (payload[at] != 0 || payload[at + 1] != 4) continue;
            m_initialWindow = number(payload, at + 2);
        }
    }

    void onClientFrame(const WireFrame& frame) {
        require(!m_goAwayByError, "nothing follows the GOAWAY of an error");
        require(!frame.reserved, "the reserved bit is 0");
        require(frame.length <= 16384 || frame.type == h2test::kHeaders ||
                    frame.type == h2test::kContinuation,
                "frames are not larger than a server must take");
        if (m_first) require(frame.type == h2test::kSettings, "SETTINGS follow the preface");
        m_first = false;
        switch (frame.type) {
            case h2test::kHeaders:
                require(frame.streamId > m_lastStream && frame.streamId % 2 == 1,
                        "streams are odd and grow");
                m_lastStream = frame.streamId;
                if (frame.hasFlags(h2test::kEndStream)) m_ended.insert(frame.streamId);
                break;
            case h2test::kData: onClientData(frame); break;
            case h2test::kRstStream:
                require(frame.streamId % 2 == 0 || frame.streamId <= m_lastStream,
                        "no idle stream is reset");
                m_ended.insert(frame.streamId);
                break;
            case h2test::kWindowUpdate: onClientUpdate(frame); break;
            case h2test::kGoaway: m_goAwayByError = number(frame.payload, 4) != 0; break;
            case h2test::kSettings:
            case h2test::kPing:
            case h2test::kContinuation: break;
            default: require(false, "a client sends no such frame");
        }
    }
    void onClientData(const WireFrame& frame) {
        require(frame.streamId <= m_lastStream, "DATA follow HEADERS");
        require(m_ended.count(frame.streamId) == 0, "no DATA on a stream that has ended");
        if (frame.hasFlags(h2test::kEndStream)) m_ended.insert(frame.streamId);
        if (m_blind) return;
        m_sendWindow -= frame.length;
        int64_t& window = m_sendWindows[frame.streamId];
        window -= frame.length;
        require(frame.length == 0 || m_sendWindow >= 0, "DATA keep to the connection's window");
        require(frame.length == 0 || m_initialWindow + window >= 0,
                "DATA keep to the stream's window");
    }
    // The server may never send more than the window: no byte is given back twice.
    void onClientUpdate(const WireFrame& frame) {
        const uint32_t increment = number(frame.payload, 0);
        require(increment >= 1 && increment <= 0x7fffffff, "an update is 1 to 2^31-1");
        if (m_blind) return;
        if (frame.streamId == 0) {
            // The first one raises the window to what the options say.
            m_given += increment;
            require(65535 + m_given - m_received <= m_connectionWindow,
                    "the connection's window keeps to its size");
        } else {
            m_givenOn[frame.streamId] += increment;
            require(m_givenOn[frame.streamId] <= m_receivedOn[frame.streamId],
                    "a stream's window keeps to its size");
        }
    }

    const int64_t m_connectionWindow;
    std::string m_fromServer;
    size_t m_skip = 0;  // bytes at the front of m_fromServer that have been read, if they are there
    std::string m_fromClient;
    bool m_blind = false;  // the server's stream of frames is broken
    bool m_prefaceSeen = false;
    bool m_first = true;
    bool m_goAwayByError = false;
    uint32_t m_lastStream = 0;
    std::set<uint32_t> m_ended;  // by the client
    int64_t m_initialWindow = 65535;
    int64_t m_sendWindow = 65535;
    std::map<uint32_t, int64_t> m_sendWindows;  // beyond the initial one
    int64_t m_received = 0;
    int64_t m_given = 0;
    std::map<uint32_t, int64_t> m_receivedOn;
    std::map<uint32_t, int64_t> m_givenOn;
};

// A body as the input wants it: some bytes, in blocks or in the room, with pauses and failures.
class FuzzBody final : public h2::Body {
public:
    FuzzBody(uint8_t kind, size_t size) : m_kind(kind), m_left(size) {}
    h2::BodyPart next(h2::BodyRoom room) override {
        static const std::string block(16384, 'b');
        require(room.size() >= 1 && room.size() <= block.size(), "a body gets 1 to 16384 bytes");
        using State = h2::BodyPart::State;
        if (++m_calls == 3 && (m_kind & 1) != 0) return {State::kMore, nullptr, 0};
        if (m_calls == 4 && (m_kind & 2) != 0) return {State::kFailed, nullptr, 0};
        const size_t size = std::min(m_left, (m_kind & 4) != 0 ? room.size() / 2 + 1 : room.size());
        m_left -= size;
        const State state = m_left == 0 ? State::kEnd : State::kMore;
        if ((m_kind & 8) != 0) return {state, block.data(), size};
        std::fill_n(room.get(), size, 'r');
        return {state, nullptr, size};
    }

private:
    const uint8_t m_kind;
    size_t m_left;
    int m_calls = 0;
};

// What may come for a request.
struct Exchange {
    bool headers = false;
    bool trailers = false;
    bool whole = false;  // its last content has come
    bool over = false;
    std::unique_ptr<FuzzBody> body;
};

class Player final : public h2::Visitor {
public:
    Player(const h2::SessionOptions& options, uint8_t reactions, bool cutBytes)
        : m_session(*this, options),
          m_options(options),
          m_judge(options),
          m_reactions(reactions),
          m_cutBytes(cutBytes) {}

    void play(h2fuzz::Input input) {
        while (!input.empty()) step(input);
        produce(SIZE_MAX);
        m_session.connectionLost("the end");
        for (const auto& [id, exchange] : m_exchanges) {
            require(exchange.over, "each request ends, or is cancelled");
        }
        require(m_session.requests() == 0, "no request is left");
    }
    std::string log() const { return m_log.str(); }

    void onInterim(uint32_t id, void* user, uint32_t status,
                   const h2::hpack::FieldList& fields) override {
        require(!at(id, user).headers && status >= 100 && status < 200, "1xx comes first");
        write("interim", id, fields);
        react(id);
    }
    void onHeaders(uint32_t id, void* user, uint32_t status,
                   const h2::hpack::FieldList& fields) override {
        require(!at(id, user).headers && status >= 200 && status < 1000, "headers come once");
        at(id, user).headers = true;
        write("headers", id, fields);
        react(id);
    }
    // Pieces are joined in the log: how DATA are cut is not fixed.
    void onData(uint32_t id, void* user, const char* data, size_t size, bool last) override {
        Exchange& exchange = at(id, user);
        require(exchange.headers && !exchange.trailers, "content follows headers");
        require(!exchange.whole, "nothing follows the last content");
        exchange.whole = last;
        require(size != 0, "no empty content");
        if (m_dataOf != id) m_log << "\ndata " << id << " ";
        m_dataOf = id;
        m_log.write(data, static_cast<std::streamsize>(size));
    }
    void onTrailers(uint32_t id, void* user, const h2::hpack::FieldList& fields) override {
        require(at(id, user).headers && !at(id, user).trailers, "trailers follow headers, once");
        at(id, user).trailers = true;
        write("trailers", id, fields);
        react(id);
    }
    void onEnd(uint32_t id, void* user, const h2::StreamEnd& end) override {
        Exchange& exchange = at(id, user);
        require(end.outcome != h2::Outcome::kComplete || exchange.headers,
                "a whole answer has headers");
        require(end.outcome == h2::Outcome::kComplete || !exchange.whole,
                "the last content ends a whole answer");
        exchange.over = true;
        m_dataOf = 0;
        m_log << "\nend " << id << " " << static_cast<int>(end.outcome) << " " << end.code << " "
              << end.reason << " " << end.answerBegun;
        react(id);
    }
    void onSettings() override { react(0); }
    void onGoAway(const h2::GoAway& goAway) override {
        m_dataOf = 0;
        m_log << "\ngoaway " << goAway.lastStreamId << " " << goAway.code << goAway.debugData;
        react(0);
    }

private:
    Exchange& at(uint32_t id, void* user) {
        const auto found = m_exchanges.find(id);
        require(found != m_exchanges.end() && !found->second.over, "events are of live requests");
        require(user == this, "the user's pointer comes back");
        return found->second;
    }
    void write(const char* event, uint32_t id, const h2::hpack::FieldList& fields) {
        require(!fields.malformed() && !fields.overflow(), "only good fields are told");
        m_dataOf = 0;
        m_log << "\n" << event << " " << id;
        for (size_t i = 0; i < fields.size(); ++i) {
            m_log << " " << fields.name(i) << "=" << fields.value(i);
        }
    }
    // Calls from inside of events.
    void react(uint32_t id) {
        if ((m_reactions & 1) != 0) submit(0, 0);
        if ((m_reactions & 2) != 0 && id % 4 == 3) cancel(id);
        if ((m_reactions & 4) != 0) cancel(id + 2);
        if ((m_reactions & 8) != 0 && id % 8 == 5) submit(8, 100);
        if ((m_reactions & 16) != 0 && id % 8 == 7) m_session.pause(id);
    }

    void submit(uint8_t kind, size_t bodySize) {
        if (m_exchanges.size() >= kMaxRequests) return;
        const std::string path = "/" + std::to_string(m_exchanges.size());
        const h2::hpack::Field fields[] = {
            {":method", "GET"}, {":scheme", "http"}, {":authority", "a"}, {":path", path}};
        Exchange exchange;
        if (bodySize != 0) exchange.body = std::make_unique<FuzzBody>(kind, bodySize);
        const bool taken = m_session.takesRequests();
        const uint32_t id = m_session.submit({fields, (kind & 16) != 0, exchange.body.get(), this});
        require(taken == (id != 0), "a session tells whether it takes requests");
        if (id != 0) m_exchanges.emplace(id, std::move(exchange));
    }
    void cancel(uint32_t id) {
        m_session.cancel(id);
        const auto found = m_exchanges.find(id);
        if (found != m_exchanges.end()) found->second.over = true;
    }

    void step(h2fuzz::Input& input) {
        const uint8_t op = input.byte();
        switch (op % 12) {
            case 0: serverBytes(std::string(input.bytes(input.byte()))); break;
            case 1:
            case 2:
            case 3: serverFrame(input); break;
            case 4: submit(0, 0); break;
            case 5: {
                const uint8_t kind = input.byte();
                submit(kind, input.word());
                break;
            }
            case 6: cancel(input.byte()); break;
            case 7: m_session.pause(input.byte()); break;
            case 8: {
                const uint8_t id = input.byte();
                m_session.resume(id);
                m_session.bodyReady(id);
                break;
            }
            case 9: produce(input.word()); break;
            case 10: onTime(input.word()); break;
            default:
                if (op < 16) m_session.close();
                if (op > 240) m_session.trim();
        }
        bounded();
    }
    // A frame whose length is right: the fuzzer need not find that out.
    void serverFrame(h2fuzz::Input& input) {
        const uint8_t type = input.byte() % 12;
        const uint8_t flags = input.byte();
        const uint32_t stream = input.byte();
        serverBytes(h2test::frame(type, flags, stream, input.bytes(input.byte())));
    }
    void serverBytes(const std::string& bytes) {
        m_judge.onServerBytes(bytes);
        for (size_t at = 0; at < bytes.size();) {
            const size_t size = m_cutBytes ? 1 + at % 3 : bytes.size();
            const h2fuzz::ExactBytes piece(std::string_view(bytes).substr(at, size));
            m_session.receive(piece.data(), piece.size(), m_now);
            at += piece.size();
        }
    }
    void onTime(uint32_t elapsed) {
        m_now += elapsed;
        if (m_session.nextDeadline() <= m_now) m_session.onTime(m_now);
        require(m_session.nextDeadline() > m_now, "time that has been told is no deadline");
    }
    void produce(size_t limit) {
        const bool wanted = m_session.wantsToSend();
        h2::Output output;
        m_session.produce(output, limit, m_now);
        require(wanted || output.empty(), "wantsToSend() tells of bytes");
        output.copyBlocks();
        m_judge.onClientBytes(output.own().view());
        m_dataOf = 0;
        m_log << "\nsent " << output.own().view();
    }
    void bounded() {
        require(m_session.m_replies <= m_options.maxReplies + 1, "replies are bounded");
        require(m_session.m_block.size() <= m_options.maxHeaderBlock + 16384,
                "field blocks are bounded");
        require(m_session.m_partial.size() <= 16384, "cut frames are bounded");
        const size_t memory = m_session.m_out.capacity() + m_session.m_pings.capacity() +
                              m_session.m_block.capacity() + m_session.m_partial.capacity();
        require(memory <= kMaxMemory, "memory is bounded");
        require(m_session.openStreams() <= m_session.requests(), "open streams are requests");
    }

    h2::Session m_session;
    const h2::SessionOptions m_options;
    Judge m_judge;
    const uint8_t m_reactions;
    const bool m_cutBytes;
    std::map<uint32_t, Exchange> m_exchanges;
    std::ostringstream m_log;
    uint32_t m_dataOf = 0;
    h2::Time m_now = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    h2fuzz::Input input(data, size);
    h2::SessionOptions options;
    const uint8_t choice = input.byte();
    if ((choice & 1) != 0) options.streamWindow = 100;
    if ((choice & 2) != 0) options.connectionWindow = 65535;
    if ((choice & 4) != 0) options.maxHeaderList = 300;
    if ((choice & 8) != 0) options.maxHeaderBlock = 200;
    if ((choice & 16) != 0) options.frameBudget = 20;
    if ((choice & 32) != 0) options.maxReplies = 5;
    if ((choice & 64) != 0) options.maxInterim = options.maxContinuations = 3;
    const uint8_t reactions = input.byte();

    Player whole(options, reactions, false);
    whole.play(input);
    Player cut(options, reactions, true);
    cut.play(input);
    require(whole.log() == cut.log(), "events and bytes do not depend on how the input is cut");
    return 0;
}
