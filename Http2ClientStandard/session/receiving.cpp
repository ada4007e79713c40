// From bytes to frames: whole ones where they lie, cut ones put together aside.
#include <algorithm>

#include "Http2ClientStandard/session/session.h"

namespace h2 {

namespace {

bool isKnown(FrameType type) { return type <= FrameType::kContinuation; }

}  // namespace

void Session::receive(const char* data, size_t size, Time now) {
    if (size == 0 || m_over) return;
    m_now = now;
    m_quietSince = now;
    m_pingSent = false;  // any byte shows that the server is there
    while (size != 0 && !m_over) {
        size_t used;
        if (m_content.active) {
            used = receiveContent(data, size);
        } else if (m_haveHeader || !m_partial.empty()) {
            used = receivePart(data, size);
        } else {
            used = receiveFrames(data, size);
        }
        data += used;
        size -= used;
    }
}

// Takes frames while they are whole, and puts the beginning of a cut one aside.
size_t Session::receiveFrames(const char* data, size_t size) {
    size_t used = 0;
    while (size - used >= kFrameHeaderSize && !m_over) {
        const FrameHeader header = readFrameHeader(data + used);
        const char* payload = data + used + kFrameHeaderSize;
        const size_t available = size - used - kFrameHeaderSize;
        if (header.length <= available && receivePlainData(header, payload)) {
            used += kFrameHeaderSize + header.length;
            continue;
        }
        used += kFrameHeaderSize;
        startFrame(header);
        if (!m_haveHeader) return used;
        if (header.length > available) return used;  // receivePart() goes on
        m_haveHeader = false;
        handleFrame(header, {payload, header.length});
        used += header.length;
    }
    if (m_over) return size;
    m_partial.append({data + used, size - used});
    return size;
}

// Completes a frame header, or the payload of m_header.
size_t Session::receivePart(const char* data, size_t size) {
    const size_t whole = m_haveHeader ? m_header.length : kFrameHeaderSize;
    const size_t used = std::min(size, whole - m_partial.size());
    m_partial.append({data, used});
    if (m_partial.size() < whole) return used;
    if (m_haveHeader) {
        m_haveHeader = false;
        handleFrame(m_header, m_partial.view());
        m_partial.clear();
        return used;
    }
    const FrameHeader header = readFrameHeader(m_partial.data());
    m_partial.clear();
    startFrame(header);
    if (m_haveHeader && header.length == 0) {
        m_haveHeader = false;
        handleFrame(header, {});
    }
    return used;
}

// The common case of DATA in one step: unpadded, whole, within all windows, on a stream whose final
// header section has come. Anything else is left, untouched, to startFrame().
inline bool Session::receivePlainData(const FrameHeader& header, const char* payload) {
    if (header.type != FrameType::kData || header.has(flag::kPadded) || header.length == 0 ||
        header.length > kDefaultMaxFrameSize || m_blockOpen) {
        return false;
    }
    Stream* stream = m_streams.find(header.streamId);
    if (stream == nullptr || stream->phase != Stream::Phase::kContent ||
        header.length > stream->contentLeft || !stream->receiveWindow.fits(header.length) ||
        !m_receiveWindow.take(header.length)) {
        return false;
    }
    stream->receiveWindow.take(header.length);
    stream->contentLeft -= header.length;
    makeDue(*stream);
    const bool endStream = header.has(flag::kEndStream);
    m_visitor.onData(stream->id, stream->user, payload, header.length,
                     endStream && isWhole(*stream));
    if (!endStream) return true;
    stream = m_streams.find(header.streamId);  // the visitor may have cancelled it
    if (stream != nullptr) completeAnswer(*stream);
    return true;
}

// Judges a frame by its header alone, before anything of its payload is kept. For DATA the content
// is awaited then; for other frames, when they are in order, m_header is.
void Session::startFrame(const FrameHeader& header) {
    // RFC 9113, 3.4: anything but SETTINGS comes from a server that does not speak HTTP/2.
    if (!m_settingsSeen &&
        (header.type != FrameType::kSettings || header.has(flag::kAck) || header.streamId != 0)) {
        fail(connectionError(ErrorCode::kProtocolError, "the server does not start with SETTINGS"),
             0);
        return;
    }
    Violation violation = checkFrameHeader(header, kDefaultMaxFrameSize);
    if (violation.level != ErrorLevel::kConnection) {
        if (const Violation sequence = checkSequence(header)) violation = sequence;
    }
    if (violation.level == ErrorLevel::kConnection) {
        fail(violation, header.streamId);
        return;
    }
    if (header.type == FrameType::kData) {
        startContent(header);
        return;
    }
    m_header = header;
    m_haveHeader = true;
    if (violation.level != ErrorLevel::kStream) return;
    if (Stream* stream = m_streams.find(header.streamId)) {
        reset(*stream, violation.code, Outcome::kMalformed, violation.rule);
    }
}

// Rules about what may follow what: RFC 9113, 5.1 (idle streams), 6.2 and 6.10 (field blocks).
Violation Session::checkSequence(const FrameHeader& header) const {
    const bool continues = header.type == FrameType::kContinuation;
    if (m_blockOpen && (!continues || header.streamId != m_blockHeader.streamId)) {
        return connectionError(ErrorCode::kProtocolError, "a field block is interrupted");
    }
    if (!m_blockOpen && continues) {
        return connectionError(ErrorCode::kProtocolError, "CONTINUATION continues nothing");
    }
    if (!isKnown(header.type) || !isIdle(header.streamId)) return {};
    // A PRIORITY frame may name an idle stream. With a wrong length it is an error of a stream that
    // cannot be reset, since it is idle.
    if (header.type == FrameType::kPriority) {
        const Violation wrongLength = checkFrameHeader(header, kDefaultMaxFrameSize);
        return {wrongLength ? ErrorLevel::kConnection : ErrorLevel::kNone, wrongLength.code,
                wrongLength.rule};
    }
    return connectionError(ErrorCode::kProtocolError, "a frame came on an idle stream");
}

// Stream 0 is no stream. A stream is idle to the server until its HEADERS have left.
bool Session::isIdle(uint32_t stream) const {
    return stream > (stream % 2 == 0 ? m_lastPromised : m_lastSent);
}

// A whole frame that has passed startFrame(), and is not DATA.
void Session::handleFrame(const FrameHeader& header, std::string_view payload) {
    switch (header.type) {
        case FrameType::kHeaders:
        case FrameType::kPushPromise:
        case FrameType::kContinuation: onFieldBlockFrame(header, payload); return;
        case FrameType::kRstStream: onRstStream(header, payload); return;
        case FrameType::kSettings: onSettings(header, payload); return;
        case FrameType::kPing: onPing(header, payload); return;
        case FrameType::kGoAway: onGoAway(payload); return;
        case FrameType::kWindowUpdate: onWindowUpdate(header, payload); return;
        default:  // PRIORITY, and types that we do not know: passed over (RFC 9113, 5.3.2 and 5.5)
            spend("too many PRIORITY or unknown frames");
    }
}

}  // namespace h2
