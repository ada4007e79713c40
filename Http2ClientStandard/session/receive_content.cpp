// DATA: delivered as it arrives. The whole payload counts against both windows at once, padding
// included, and that of frames for streams that are gone, too (RFC 9113, 6.1 and 6.9).
#include <algorithm>

#include "Http2ClientStandard/session/session.h"

namespace h2 {

void Session::startContent(const FrameHeader& header) {
    if (!m_receiveWindow.take(header.length)) {
        fail(connectionError(ErrorCode::kFlowControlError, "DATA beyond the connection's window"),
             header.streamId);
        return;
    }
    const bool padded = header.has(flag::kPadded);
    m_content = {header.streamId, header.length, 0, padded, header.has(flag::kEndStream), true};
    if (header.length == 0 && !m_content.endStream && !spend("too many empty DATA frames")) return;

    Stream* stream = m_streams.find(header.streamId);
    if (stream == nullptr) {
        onClosedStreamFrame(header.streamId);
    } else if (stream->phase != Stream::Phase::kContent) {
        reset(*stream, ErrorCode::kProtocolError, Outcome::kMalformed, "DATA before the headers");
    } else if (!stream->receiveWindow.take(header.length)) {
        reset(*stream, ErrorCode::kFlowControlError, Outcome::kMalformed,
              "DATA beyond the stream's window");
    } else {
        makeDue(*stream);
        if (!padded) acceptContent(*stream, header.length);
    }
    if (m_content.left == 0) finishContent();
}

// Takes what there is of the frame's payload.
size_t Session::receiveContent(const char* data, size_t size) {
    if (m_content.padLengthMissing) {
        --m_content.left;
        readPadLength(static_cast<uint8_t>(*data));
        if (m_content.left == 0 && !m_over) finishContent();
        return 1;
    }
    const size_t used = std::min<size_t>(size, m_content.left);
    const size_t content = m_content.left - m_content.padding;
    m_content.left -= static_cast<uint32_t>(used);
    m_content.padding = std::min(m_content.padding, m_content.left);
    const size_t delivered = std::min(used, content);
    Stream* stream = m_streams.find(m_content.stream);
    if (stream != nullptr && delivered != 0) {
        const bool last = m_content.left == 0 && m_content.endStream && isWhole(*stream);
        m_visitor.onData(stream->id, stream->user, data, delivered, last);
    }
    if (m_content.left == 0) finishContent();
    return used;
}

void Session::readPadLength(uint8_t padding) {
    m_content.padLengthMissing = false;
    if (padding > m_content.left) {
        fail(connectionError(ErrorCode::kProtocolError, "padding is longer than its frame"),
             m_content.stream);
        return;
    }
    m_content.padding = padding;
    if (padding == m_content.left && !m_content.endStream && !spend("too many empty DATA frames")) {
        return;
    }
    Stream* stream = m_streams.find(m_content.stream);
    if (stream != nullptr) acceptContent(*stream, m_content.left - padding);
}

// Compares with content-length (RFC 9113, 8.1.1) before anything of the frame is delivered.
bool Session::acceptContent(Stream& stream, uint32_t octets) {
    if (octets > stream.contentLeft) {
        reset(stream, ErrorCode::kProtocolError, Outcome::kMalformed,
              "more content than the headers allow");
        return false;
    }
    stream.contentLeft -= octets;
    return true;
}

void Session::finishContent() {
    m_content.active = false;
    if (!m_content.endStream) return;
    if (Stream* stream = m_streams.find(m_content.stream)) completeAnswer(*stream);
}

// The server has ended the stream.
void Session::completeAnswer(Stream& stream) {
    if (!isWhole(stream)) {
        reset(stream, ErrorCode::kProtocolError, Outcome::kMalformed,
              "less content than content-length says");
        return;
    }
    m_budget.earn(FrameBudget::kPerAnswer);
    // The answer is whole, so the rest of the request is of no use (RFC 9113, 8.1).
    if (stream.body != nullptr) sendReset(stream.id, ErrorCode::kCancel);
    end(stream, Outcome::kComplete, 0, "");
}

}  // namespace h2
