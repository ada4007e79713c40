// Requests, updates and content on their way out.
#include <algorithm>

#include "Http2ClientStandard/frames/frame_writer.h"
#include "Http2ClientStandard/session/session.h"

namespace h2 {

namespace {

// Larger frames, where the server allows them, would only delay other streams and PING answers.
constexpr uint32_t kMaxContentFrame = kDefaultMaxFrameSize;

}  // namespace

// Starts requests that wait, as the server's limit allows.
void Session::openWaiting() {
    while (!m_over && m_openStreams < m_peer.maxConcurrentStreams) {
        Stream* stream = m_waiting.first();
        if (stream == nullptr) return;
        stream->stored.view(m_storedFields);
        Request request;
        request.fields = m_storedFields;
        sendHeaders(*stream, request);
        stream->stored.clear();
    }
}

// Queues the request's HEADERS: the stream is open from now on.
void Session::sendHeaders(Stream& stream, const Request& request) {
    const size_t start = m_out.size();
    if (m_lastQueued == m_lastSent) m_firstHeaders = start;
    m_out.room(kFrameHeaderSize);
    m_out.commit(kFrameHeaderSize);
    m_encoder.begin(m_out);
    if (request.kept == nullptr) {
        m_encoder.add(m_out, request.fields);
    } else {
        m_encoder.add(m_out, request.fields.first(request.keptFrom));
        m_encoder.add(m_out, *request.kept, request.fields.subspan(request.keptFrom));
    }
    frameFieldBlock(m_out, start, stream.id, stream.body == nullptr, m_peer.maxFrameSize);
    m_lastQueued = stream.id;
    m_open.pushBack(stream);
    stream.sent = true;
    if (m_openStreams++ == 0) m_startQuiet = true;
    stream.sendWindow = SendWindow(m_peer.initialWindowSize);
    makeReady(stream);
}

void Session::sendReset(uint32_t stream, ErrorCode code) {
    writeRstStream(m_out, stream, code);
    m_resets.add(stream);
}

void Session::makeReady(Stream& stream) {
    ReadyLink& link = stream;
    const bool ready = stream.sent && stream.body != nullptr && stream.sendWindow.open();
    if (ready == link.linked()) return;
    if (ready) {
        m_ready.pushBack(stream);
    } else {
        link.unlink();
    }
}

void Session::queueUpdate(Stream& stream) {
    const DueLink& link = stream;
    if (!stream.paused && !link.linked()) m_due.pushBack(stream);
}

bool Session::wantsToSend() const {
    if (!m_pings.empty() || !m_out.empty()) return true;
    if (m_over) return false;
    return m_receiveWindow.due() || !m_due.empty() || (m_sendWindow.open() && !m_ready.empty());
}

void Session::produce(Output& out, size_t limit, Time now) {
    m_now = now;
    if (m_startQuiet) {
        m_startQuiet = m_pingSent = false;
        m_quietSince = std::max(m_quietSince, now);
    }
    produceControl(out.own());
    if (m_over) return;
    produceUpdates(out.own());
    produceContent(out, limit);
}

// All that is no content.
void Session::produceControl(Bytes& out) {
    // The preface goes before everything, a PING answer included.
    if (m_prefaceSent) out.append(m_pings.view());
    out.append(m_out.view());
    if (!m_prefaceSent) out.append(m_pings.view());
    m_prefaceSent = true;
    m_pings.clear();
    m_out.clear();
    m_replies = 0;
    m_lastSent = m_lastQueued;
}

void Session::produceUpdates(Bytes& out) {
    if (m_receiveWindow.due()) {
        writeWindowUpdate(out, 0, m_receiveWindow.giveBack());
        m_budget.refill();
    }
    while (Stream* stream = m_due.first()) {
        static_cast<DueLink&>(*stream).unlink();
        if (!stream->paused) writeWindowUpdate(out, stream->id, stream->receiveWindow.giveBack());
    }
}

// One frame of each stream in turn. A body, or the visitor when a body fails, may have started
// requests: their HEADERS go before their content.
void Session::produceContent(Output& out, size_t limit) {
    const int64_t largest = std::min(kMaxContentFrame, m_peer.maxFrameSize);
    while (out.size() < limit && m_sendWindow.open()) {
        Stream* stream = m_ready.first();
        if (stream == nullptr) return;
        const int64_t size = std::min({largest, m_sendWindow.left(), stream->sendWindow.left()});
        m_ready.pushBack(*stream);
        produceControl(out.own());
        produceContentFrame(out, *stream, static_cast<size_t>(size));
    }
}

void Session::produceContentFrame(Output& out, Stream& stream, size_t size) {
    Bytes& own = out.own();
    const size_t start = own.size();
    own.room(kFrameHeaderSize);
    own.commit(kFrameHeaderSize);
    const uint32_t id = stream.id;
    const BodyPart part = stream.body->next({own, size});

    const bool gone = m_streams.find(id) != &stream;  // the body may have cancelled its request
    const bool failed = part.state == BodyPart::State::kFailed || part.size > size;
    const bool last = part.state == BodyPart::State::kEnd;
    if (gone || failed || (part.size == 0 && !last)) {
        own.truncate(start);
        if (gone) return;
        static_cast<ReadyLink&>(stream).unlink();
        if (failed) {
            reset(stream, ErrorCode::kCancel, Outcome::kBodyFailed, "the request's body failed");
        }
        return;
    }
    const uint8_t flags = last ? flag::kEndStream : 0;
    writeFrameHeader(own.data() + start,
                     {static_cast<uint32_t>(part.size), FrameType::kData, flags, id});
    if (part.block == nullptr) {
        own.room(part.size);  // is there already, when the body has used its own
        own.commit(part.size);
    } else {
        out.refer(part.block, part.size);
    }
    m_sendWindow.take(part.size);
    stream.sendWindow.take(part.size);
    m_budget.earnForSending(part.size);
    if (last) stream.body = nullptr;
    makeReady(stream);
}

}  // namespace h2
