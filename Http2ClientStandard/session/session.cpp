// Lives and ends: of requests, and of the session itself.
#include "Http2ClientStandard/session/session.h"

#include <algorithm>

#include "Http2ClientStandard/frames/frame_writer.h"

namespace h2 {

namespace {

constexpr uint64_t kUnknownLength = uint64_t{1} << 62;

}  // namespace

Session::Session(Visitor& visitor, const SessionOptions& options)
    : m_options(options),
      m_visitor(visitor),
      m_receiveWindow(std::max(options.connectionWindow, kDefaultWindow)),
      m_budget(options.frameBudget, options.frameBudgetPerSecond) {
    m_fields.setLimit(options.maxHeaderList);
    const Setting settings[] = {
        {static_cast<uint16_t>(SettingId::kEnablePush), 0},
        {static_cast<uint16_t>(SettingId::kInitialWindowSize), options.streamWindow},
        {static_cast<uint16_t>(SettingId::kMaxHeaderListSize), options.maxHeaderList},
    };
    m_out.append(kClientPreface);
    writeSettings(m_out, settings);
    if (options.connectionWindow > kDefaultWindow) {
        writeWindowUpdate(m_out, 0, options.connectionWindow - kDefaultWindow);
    }
}

bool Session::takesRequests() const {
    return !m_over && !m_closing && !m_goAwaySeen && m_nextStream <= kMaxStreamId;
}

uint32_t Session::submit(const Request& request) {
    if (!takesRequests()) return 0;
    Stream& stream = m_streams.add(m_nextStream);
    m_nextStream += 2;
    stream.phase = Stream::Phase::kHeaders;
    stream.sent = stream.answerBegun = stream.paused = stream.lengthKnown = false;
    stream.head = request.head;
    stream.interimCount = 0;
    stream.receiveWindow = ReceiveWindow(m_options.streamWindow);
    stream.contentLeft = kUnknownLength;
    stream.user = request.user;
    stream.body = request.body;
    // Whoever waits already goes first.
    if (m_waiting.empty() && m_openStreams < m_peer.maxConcurrentStreams) {
        sendHeaders(stream, request);
    } else {
        stream.stored.store(request.fields);
        m_waiting.pushBack(stream);
    }
    return stream.id;
}

void Session::cancel(uint32_t id) {
    Stream* stream = m_streams.find(id);
    if (stream == nullptr) return;
    const bool open = stream->sent && !m_over && id <= m_goAwayLast;
    if (open) sendReset(id, ErrorCode::kCancel);
    leaveOpen(*stream);
    m_streams.remove(*stream);
    openWaiting();
}

void Session::pause(uint32_t id) {
    if (Stream* stream = m_streams.find(id)) stream->paused = true;
}

void Session::resume(uint32_t id) {
    Stream* stream = m_streams.find(id);
    if (stream == nullptr) return;
    stream->paused = false;
    makeDue(*stream);
}

void Session::bodyReady(uint32_t id) {
    if (Stream* stream = m_streams.find(id)) makeReady(*stream);
}

void Session::close() {
    if (m_over || m_closing) return;
    m_closing = true;
    // No stream of the server's has been accepted.
    writeGoAway(m_out, 0, ErrorCode::kNoError, {});
}

void Session::connectionLost(const char* reason) {
    if (m_over) return;
    m_over = true;
    m_error = {ErrorCode::kNoError, reason};
    m_pings.clear();
    m_out.clear();
    while (Stream* stream = m_open.first()) m_ending.pushBack(*stream);
    while (Stream* stream = m_waiting.first()) m_ending.pushBack(*stream);
    endListed(Outcome::kConnectionLost, 0, reason);
}

void Session::trim() {
    if (m_streams.size() != 0) return;
    m_streams.trim();
    m_fields.release();
    m_block.release();
    if (m_partial.empty()) m_partial.release();
    if (m_out.empty()) m_out.release();
    if (m_pings.empty()) m_pings.release();
    std::vector<hpack::Field>().swap(m_storedFields);
}

// Takes the stream out of what counts as open.
void Session::leaveOpen(Stream& stream) {
    if (!stream.sent) return;
    stream.sent = false;
    --m_openStreams;
}

// The stream is gone when the visitor hears of it: whatever the visitor does, the end comes once.
void Session::end(Stream& stream, Outcome outcome, uint32_t code, const char* reason) {
    const uint32_t id = stream.id;
    void* user = stream.user;
    const StreamEnd end{outcome, code, reason, stream.answerBegun};
    leaveOpen(stream);
    m_streams.remove(stream);
    openWaiting();
    m_visitor.onEnd(id, user, end);
}

void Session::reset(Stream& stream, ErrorCode code, Outcome outcome, const char* reason) {
    sendReset(stream.id, code);
    end(stream, outcome, static_cast<uint32_t>(code), reason);
}

// Ends the streams in m_ending, in their order. Those whose HEADERS have not been given away, and
// those above GOAWAY's last stream, have certainly not been processed.
void Session::endListed(Outcome forSent, uint32_t code, const char* reason) {
    while (Stream* stream = m_ending.first()) {
        const bool processed = stream->id <= m_lastSent && stream->id <= m_goAwayLast;
        end(*stream, processed ? forSent : Outcome::kNotProcessed, code, reason);
    }
}

// A connection error: `stream` caused it, when there is one.
void Session::fail(const Violation& violation, uint32_t stream) {
    if (m_over) return;
    m_over = true;
    m_error = {violation.code, violation.rule};
    // Requests that have not been given away are not sent any more.
    if (m_lastQueued != m_lastSent) m_out.truncate(m_firstHeaders);
    writeGoAway(m_out, 0, violation.code, {});

    const auto code = static_cast<uint32_t>(violation.code);
    while (Stream* open = m_open.first()) m_ending.pushBack(*open);
    while (Stream* waiting = m_waiting.first()) m_ending.pushBack(*waiting);
    Stream* culprit = m_streams.find(stream);
    if (culprit != nullptr && stream <= m_lastSent) {
        end(*culprit, Outcome::kMalformed, code, violation.rule);
    }
    endListed(Outcome::kConnectionLost, code, violation.rule);
}

void Session::failCalm(const char* reason, uint32_t stream) {
    fail(connectionError(ErrorCode::kEnhanceYourCalm, reason), stream);
}

// Takes one frame from the budget; false when the session has failed.
bool Session::spend(const char* reason) {
    if (m_budget.spend(m_now)) return true;
    failCalm(reason);
    return false;
}

// Counts a reply to a frame of the server's.
void Session::replyQueued() {
    if (++m_replies > m_options.maxReplies) {
        failCalm("too many replies wait to be sent");
    }
}

Time Session::nextDeadline() const {
    if (m_over || m_openStreams == 0 || m_startQuiet || m_options.pingAfter == 0) return kNever;
    return m_pingSent ? m_pingSentAt + m_options.pingTimeout : m_quietSince + m_options.pingAfter;
}

void Session::onTime(Time now) {
    if (now < nextDeadline()) return;
    if (m_pingSent) {
        connectionLost("the server does not answer a PING");
        return;
    }
    m_pingSent = true;
    m_pingSentAt = now;
    char opaque[kPingSize] = {};
    storeBigEndian32(opaque + 4, ++m_pingNumber);
    writePing(m_pings, {opaque, sizeof(opaque)}, false);
}

}  // namespace h2
