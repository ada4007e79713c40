// Field blocks: HEADERS, PUSH_PROMISE and CONTINUATION. Each block is decoded, also one of a stream
// that is gone, since it may change the decoder's table (RFC 9113, 4.3).
#include "Http2ClientStandard/session/response_rules.h"
#include "Http2ClientStandard/session/session.h"

namespace h2 {

void Session::onFieldBlockFrame(const FrameHeader& header, std::string_view payload) {
    const std::optional<std::string_view> fragment = readFragment(header, payload);
    if (!fragment.has_value()) {
        fail(connectionError(ErrorCode::kProtocolError, "padding is longer than its frame"),
             header.streamId);
        return;
    }
    const bool whole = header.has(flag::kEndHeaders);
    if (header.type == FrameType::kContinuation) {
        appendToBlock(header, *fragment);
        if (whole && !m_over) finishBlock(m_block.view());
        return;
    }
    m_blockHeader = header;
    if (header.type == FrameType::kPushPromise) m_promised = readPromisedStream(header, payload);
    if (header.type == FrameType::kHeaders) {
        if (Stream* stream = m_streams.find(header.streamId)) stream->answerBegun = true;
    }
    if (whole) {
        finishBlock(*fragment);
        return;
    }
    m_blockOpen = true;
    m_continuations = 0;
    m_block.clear();
    m_block.append(*fragment);
}

// A block is bounded by its bytes; the number of frames only keeps empty ones in check.
void Session::appendToBlock(const FrameHeader& header, std::string_view fragment) {
    if (m_block.size() + fragment.size() > m_options.maxHeaderBlock) {
        failCalm("a field block is too large", header.streamId);
    } else if (++m_continuations > m_options.maxContinuations) {
        failCalm("a field block has too many frames", header.streamId);
    } else if (!fragment.empty() || spend("too many empty CONTINUATION frames")) {
        m_block.append(fragment);
    }
}

void Session::finishBlock(std::string_view block) {
    m_blockOpen = false;
    const FrameHeader header = m_blockHeader;
    m_fields.clear();
    if (!m_decoder.decode(block, m_fields)) {
        fail(connectionError(ErrorCode::kCompressionError, "a field block cannot be decoded"),
             header.streamId);
        return;
    }
    if (header.type == FrameType::kPushPromise) {
        onPushPromise(header.streamId, m_promised);
    } else if (Stream* stream = m_streams.find(header.streamId)) {
        onAnswerBlock(*stream, header.has(flag::kEndStream));
    } else {
        onClosedStreamFrame(header.streamId);
    }
}

// We have said ENABLE_PUSH 0. Until the server has acknowledged that, it may promise, and is
// refused (RFC 9113, 6.6 and 8.4.2).
void Session::onPushPromise(uint32_t id, uint32_t promised) {
    const char* rule = nullptr;
    if (m_settingsAcked) {
        rule = "PUSH_PROMISE, though push is disabled";
    } else if (promised % 2 != 0 || promised <= m_lastPromised) {
        rule = "PUSH_PROMISE of a stream that is not idle";
    } else if (id % 2 == 0) {
        rule = "PUSH_PROMISE on a stream of the server's own";
    } else if (m_streams.find(id) == nullptr && !m_resets.contains(id)) {
        rule = "PUSH_PROMISE on a closed stream";
    }
    if (rule != nullptr) {
        fail(connectionError(ErrorCode::kProtocolError, rule), id);
        return;
    }
    m_lastPromised = promised;
    if (!spend("too many PUSH_PROMISE frames")) return;
    sendReset(promised, ErrorCode::kRefusedStream);
    replyQueued();
}

void Session::onAnswerBlock(Stream& stream, bool endStream) {
    if (m_fields.overflow()) {
        reset(stream, ErrorCode::kEnhanceYourCalm, Outcome::kMalformed,
              "the header list is too large");
        return;
    }
    if (stream.phase == Stream::Phase::kContent) {
        onTrailers(stream, endStream);
        return;
    }
    ResponseHead head;
    if (const char* rule = readResponseHead(m_fields, head)) {
        reset(stream, ErrorCode::kProtocolError, Outcome::kMalformed, rule);
    } else if (head.interim()) {
        onInterimAnswer(stream, head, endStream);
    } else {
        onFinalAnswer(stream, head, endStream);
    }
}

void Session::onInterimAnswer(Stream& stream, const ResponseHead& head, bool endStream) {
    if (endStream || head.status == 101) {  // RFC 9113, 8.1 and 8.6
        reset(stream, ErrorCode::kProtocolError, Outcome::kMalformed,
              endStream ? "an interim answer ends the stream" : "status 101");
        return;
    }
    if (++stream.interimCount > m_options.maxInterim) {
        reset(stream, ErrorCode::kEnhanceYourCalm, Outcome::kMalformed, "too many interim answers");
        return;
    }
    if (!spend("too many interim answers")) return;
    m_visitor.onInterim(stream.id, stream.user, head.status, m_fields);
}

void Session::onFinalAnswer(Stream& stream, const ResponseHead& head, bool endStream) {
    stream.phase = Stream::Phase::kContent;
    if (stream.head || head.status == 204 || head.status == 304) {
        stream.contentLeft = 0;  // whatever content-length says (RFC 9113, 8.1.1)
    } else if (head.contentLength.has_value()) {
        stream.contentLeft = *head.contentLength;
        stream.lengthKnown = true;
    }
    const uint32_t id = stream.id;
    m_visitor.onHeaders(id, stream.user, head.status, m_fields);
    if (!endStream) return;
    // The visitor may have cancelled the request.
    if (Stream* still = m_streams.find(id)) completeAnswer(*still);
}

void Session::onTrailers(Stream& stream, bool endStream) {
    const char* rule = endStream ? checkTrailers(m_fields) : "a second final header section";
    if (rule == nullptr && stream.lengthKnown && stream.contentLeft != 0) {
        rule = "less content than content-length says";
    }
    if (rule != nullptr) {
        reset(stream, ErrorCode::kProtocolError, Outcome::kMalformed, rule);
        return;
    }
    const uint32_t id = stream.id;
    m_visitor.onTrailers(id, stream.user, m_fields);
    if (Stream* still = m_streams.find(id)) completeAnswer(*still);
}

// DATA or HEADERS on a stream that is closed. One that we reset lately may still get frames; on any
// other it is an error of the stream (RFC 9113, 5.1 and 6.1).
void Session::onClosedStreamFrame(uint32_t id) {
    if (!spend("too many frames on closed streams")) return;
    if (m_resets.contains(id)) return;
    sendReset(id, ErrorCode::kStreamClosed);
    replyQueued();
}

}  // namespace h2
