#ifndef HTTP2CLIENTSTANDARD_SESSION_SESSION_H
#define HTTP2CLIENTSTANDARD_SESSION_SESSION_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "Http2ClientStandard/base/bytes.h"
#include "Http2ClientStandard/frames/frame_reader.h"
#include "Http2ClientStandard/frames/output.h"
#include "Http2ClientStandard/hpack/decoder.h"
#include "Http2ClientStandard/hpack/encoder.h"
#include "Http2ClientStandard/session/body.h"
#include "Http2ClientStandard/session/frame_budget.h"
#include "Http2ClientStandard/session/options.h"
#include "Http2ClientStandard/session/peer_settings.h"
#include "Http2ClientStandard/session/response_rules.h"
#include "Http2ClientStandard/session/stream_table.h"
#include "Http2ClientStandard/session/visitor.h"

namespace h2 {

struct Request {
    // Pseudo-headers first. What they say is the caller's business: nothing is checked here.
    // CONNECT is not served (its tunnel has rules of its own, RFC 9113, 8.5).
    std::span<const hpack::Field> fields;
    bool head = false;     // the method is HEAD: the answer has no content
    Body* body = nullptr;  // lives until the request's end or cancel(); null: no content
    void* user = nullptr;  // for the visitor
    // When set: `fields` from `keptFrom` on, in their encoded form. Whoever changes those fields
    // calls clear() on it.
    hpack::KeptFields* kept = nullptr;
    size_t keptFrom = 0;
};

// Why a session takes nothing any more.
struct SessionError {
    ErrorCode code = ErrorCode::kNoError;  // of our GOAWAY
    const char* reason = "";               // for people; a string that lives for ever
};

// The client's side of one HTTP/2 connection (RFC 9113): bytes in, events out; requests in, bytes
// out. No socket, no thread, no clock: the same calls have the same outcome. README.md shows the
// way of a byte through the files.
//
// An exception (std::bad_alloc is the only one, of our own) leaves a session that is good for
// connectionLost() only.
//
// One thread at a time. receive(), produce(), onTime() and connectionLost() are for the owner of
// the connection; the others may be called by the visitor and by bodies, too. Not copyable.
class Session {
public:
    // The visitor lives longer than the session. The connection preface is ready to be sent at
    // once.
    explicit Session(Visitor& visitor, const SessionOptions& options = {});
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Starts a request, or lets it wait while the server's limit of concurrent streams is reached:
    // requests start in their order. Returns its stream, or 0 when the session takes no further
    // requests.
    uint32_t submit(const Request& request);
    bool takesRequests() const;
    // Forgets the request: no event comes any more, its body is not called again.
    void cancel(uint32_t stream);
    // While a response is paused, its receive window is not given back: the server stops when it is
    // used up. What has been received is delivered nevertheless.
    void pause(uint32_t stream);
    void resume(uint32_t stream);
    // The stream's Body, which had nothing, may be asked again.
    void bodyReady(uint32_t stream);
    // Says GOAWAY, and takes no further requests. Those that run go on.
    void close();

    // Takes what the server has sent.
    void receive(const char* data, size_t size, Time now);
    // Appends what is ready to be sent: all control frames and HEADERS, then content, a frame of
    // each stream in turn, until `out` has `limit` bytes or more. Call it when what it gave before
    // has been sent, so that as little as possible waits outside of the session.
    void produce(Output& out, size_t limit, Time now);
    bool wantsToSend() const;
    // When onTime() wants to be called at the latest; kNever: not at all. Changes with every call.
    Time nextDeadline() const;
    void onTime(Time now);
    // The connection is over: ends all requests.
    void connectionLost(const char* reason);

    // Null while the connection is in order. Then send what is there to be sent, and close it.
    const SessionError* error() const { return m_over ? &m_error : nullptr; }
    size_t openStreams() const { return m_openStreams; }
    size_t requests() const { return m_streams.size(); }  // waiting ones included
    uint32_t lastSent() const { return m_lastSent; }  // highest stream that produce() has started
    const PeerSettings& peerSettings() const { return m_peer; }
    // Gives memory back that an idle connection does not need. Nothing happens while requests run.
    void trim();

private:
    // The DATA frame that is being received.
    struct Content {
        uint32_t stream = 0;
        uint32_t left = 0;  // octets of the payload that have not come yet
        uint32_t padding = 0;
        bool padLengthMissing = false;
        bool endStream = false;
        bool active = false;
    };

    // receiving.cpp: from bytes to frames
    size_t receiveFrames(const char* data, size_t size);
    size_t receivePart(const char* data, size_t size);
    bool receivePlainData(const FrameHeader& header, const char* payload);
    void startFrame(const FrameHeader& header);
    Violation checkSequence(const FrameHeader& header) const;
    bool isIdle(uint32_t stream) const;
    void handleFrame(const FrameHeader& header, std::string_view payload);

    // receive_content.cpp: DATA
    void startContent(const FrameHeader& header);
    size_t receiveContent(const char* data, size_t size);
    void readPadLength(uint8_t padding);
    bool acceptContent(Stream& stream, uint32_t octets);
    void finishContent();
    // Whether the answer has as much content as content-length says.
    static bool isWhole(const Stream& stream) {
        return !stream.lengthKnown || stream.contentLeft == 0;
    }
    void completeAnswer(Stream& stream);

    // receive_headers.cpp: HEADERS, PUSH_PROMISE and CONTINUATION
    void onFieldBlockFrame(const FrameHeader& header, std::string_view payload);
    void appendToBlock(const FrameHeader& header, std::string_view fragment);
    void finishBlock(std::string_view block);
    void onPushPromise(uint32_t stream, uint32_t promised);
    void onAnswerBlock(Stream& stream, bool endStream);
    void onInterimAnswer(Stream& stream, const ResponseHead& head, bool endStream);
    void onFinalAnswer(Stream& stream, const ResponseHead& head, bool endStream);
    void onTrailers(Stream& stream, bool endStream);
    void onClosedStreamFrame(uint32_t id);

    // receive_control.cpp: the other types
    void onRstStream(const FrameHeader& header, std::string_view payload);
    void onSettings(const FrameHeader& header, std::string_view payload);
    bool moveSendWindows(int64_t former, const SettingsChange& change);
    void onPing(const FrameHeader& header, std::string_view payload);
    void onGoAway(std::string_view payload);
    void onWindowUpdate(const FrameHeader& header, std::string_view payload);

    // sending.cpp
    void openWaiting();
    void sendHeaders(Stream& stream, const Request& request);
    void sendReset(uint32_t stream, ErrorCode code);
    void produceControl(Bytes& out);
    void produceUpdates(Bytes& out);
    void produceContent(Output& out, size_t limit);
    void produceContentFrame(Output& out, Stream& stream, size_t size);
    void makeReady(Stream& stream);
    void makeDue(Stream& stream) {
        if (stream.receiveWindow.due()) queueUpdate(stream);
    }
    void queueUpdate(Stream& stream);

    // session.cpp: lives and ends of streams and of the session
    void end(Stream& stream, Outcome outcome, uint32_t code, const char* reason);
    void reset(Stream& stream, ErrorCode code, Outcome outcome, const char* reason);
    void leaveOpen(Stream& stream);
    void endListed(Outcome forSent, uint32_t code, const char* reason);
    void fail(const Violation& violation, uint32_t stream);
    void failCalm(const char* reason, uint32_t stream = 0);
    bool spend(const char* reason);
    void replyQueued();

    const SessionOptions m_options;
    Visitor& m_visitor;
    bool m_over = false;
    bool m_closing = false;  // close() has been called
    SessionError m_error;

    // Streams. Every stream is in exactly one of the life lists; identifiers grow in each.
    StreamTable m_streams;
    StreamList<LifeLink> m_waiting;  // not yet sent
    StreamList<LifeLink> m_open;
    StreamList<LifeLink> m_ending;  // about to get their ends
    StreamList<ReadyLink> m_ready;
    StreamList<DueLink> m_due;
    size_t m_openStreams = 0;
    uint32_t m_nextStream = 1;  // above kMaxStreamId: used up
    uint32_t m_lastQueued = 0;  // highest stream whose HEADERS are in m_out
    uint32_t m_lastSent = 0;    // highest stream whose HEADERS produce() has given away
    RecentResets m_resets;

    // The server.
    PeerSettings m_peer;
    bool m_settingsSeen = false;   // the server's preface
    bool m_settingsAcked = false;  // it has applied ours
    bool m_goAwaySeen = false;
    uint32_t m_goAwayLast = kMaxStreamId;
    uint32_t m_lastPromised = 0;

    // Receiving.
    Time m_now = 0;
    Bytes m_partial;       // of a frame header, or of the payload of m_header
    FrameHeader m_header;  // its payload has not come whole
    bool m_haveHeader = false;
    Content m_content;
    FrameHeader m_blockHeader;  // of the HEADERS or PUSH_PROMISE whose block is open
    bool m_blockOpen = false;
    uint32_t m_promised = 0;  // by that PUSH_PROMISE
    uint32_t m_continuations = 0;
    Bytes m_block;
    hpack::Decoder m_decoder;
    hpack::FieldList m_fields;
    ReceiveWindow m_receiveWindow;
    FrameBudget m_budget;

    // Sending. PING answers go first; all other frames but DATA keep their order in m_out, since a
    // field block belongs to the settings that were acknowledged before it.
    hpack::Encoder m_encoder;
    Bytes m_pings;
    Bytes m_out;
    size_t m_firstHeaders = 0;  // where HEADERS start in m_out, when m_lastQueued != m_lastSent
    uint32_t m_replies = 0;     // in m_pings and m_out
    bool m_prefaceSent = false;
    SendWindow m_sendWindow;
    std::vector<hpack::Field> m_storedFields;  // of a request that has waited; scratch

    // Liveness.
    Time m_quietSince = 0;      // last bytes received, or the first request after idleness
    bool m_startQuiet = false;  // the next produce() sets m_quietSince
    bool m_pingSent = false;    // since then, nothing has come
    Time m_pingSentAt = 0;
    uint32_t m_pingNumber = 0;
};

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_SESSION_SESSION_H
