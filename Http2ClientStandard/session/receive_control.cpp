// RST_STREAM, SETTINGS, PING, GOAWAY and WINDOW_UPDATE.
#include <algorithm>

#include "Http2ClientStandard/frames/frame_writer.h"
#include "Http2ClientStandard/session/session.h"

namespace h2 {

// On a closed stream it is passed over: some servers reset streams that have long ended.
void Session::onRstStream(const FrameHeader& header, std::string_view payload) {
    if (!spend("too many RST_STREAM frames")) return;
    Stream* stream = m_streams.find(header.streamId);
    if (stream == nullptr) return;
    const uint32_t code = readErrorCode(payload);
    const bool refused = code == static_cast<uint32_t>(ErrorCode::kRefusedStream);
    // A server that has begun to answer has processed the request, whatever it says.
    const bool certain = refused && !stream->answerBegun;
    end(*stream, certain ? Outcome::kRefused : Outcome::kReset, code,
        "the server reset the stream");
}

void Session::onSettings(const FrameHeader& header, std::string_view payload) {
    if (!spend("too many SETTINGS frames")) return;
    if (header.has(flag::kAck)) {
        m_settingsAcked = true;
        return;
    }
    if (!m_settingsSeen) m_peer.maxConcurrentStreams = UINT32_MAX;
    m_settingsSeen = true;
    const int64_t formerWindow = m_peer.initialWindowSize;
    SettingsChange change;
    if (const Violation violation = applySettings(payload, m_peer, change)) {
        fail(violation, 0);
        return;
    }
    if (change.largestWindow != 0 || m_peer.initialWindowSize != formerWindow) {
        if (!moveSendWindows(formerWindow, change)) return;
    }
    if (change.tableSizeNamed) {
        m_encoder.setPeerTableSize(change.smallestTableSize);
        m_encoder.setPeerTableSize(m_peer.headerTableSize);
    }
    writeSettingsAck(m_out);
    replyQueued();
    if (m_over) return;
    openWaiting();
    m_visitor.onSettings();
}

// RFC 9113, 6.9.2: all streams' windows move by the difference, also below zero, and none above
// 2^31-1 at any of the frame's values.
bool Session::moveSendWindows(int64_t former, const SettingsChange& change) {
    const int64_t highest = int64_t{change.largestWindow} - former;
    const int64_t last = int64_t{m_peer.initialWindowSize} - former;
    for (Stream* stream = m_open.first(); stream != nullptr; stream = m_open.after(*stream)) {
        SendWindow probe = stream->sendWindow;
        if (!probe.move(highest)) {
            fail(connectionError(ErrorCode::kFlowControlError,
                                 "INITIAL_WINDOW_SIZE moves a window above 2^31-1"),
                 stream->id);
            return false;
        }
        stream->sendWindow.move(last);
        makeReady(*stream);
    }
    return true;
}

void Session::onPing(const FrameHeader& header, std::string_view payload) {
    if (!spend("too many PING frames")) return;
    if (header.has(flag::kAck)) return;  // receive() has taken note that the server is there
    writePing(m_pings, payload, true);
    replyQueued();
}

// A last stream that grows is against the rule; the smallest holds, since requests above it may
// have been sent elsewhere already.
void Session::onGoAway(std::string_view payload) {
    if (!spend("too many GOAWAY frames")) return;
    const GoAway goAway = readGoAway(payload);
    m_goAwaySeen = true;
    m_goAwayLast = std::min(m_goAwayLast, goAway.lastStreamId);
    for (Stream* stream = m_open.first(); stream != nullptr;) {
        Stream* next = m_open.after(*stream);
        if (stream->id > m_goAwayLast) m_ending.pushBack(*stream);
        stream = next;
    }
    while (Stream* stream = m_waiting.first()) m_ending.pushBack(*stream);
    m_visitor.onGoAway(goAway);
    endListed(Outcome::kNotProcessed, goAway.code, "the server is going away");
}

void Session::onWindowUpdate(const FrameHeader& header, std::string_view payload) {
    if (!spend("too many WINDOW_UPDATE frames")) return;
    const uint32_t increment = readIncrement(payload);
    Stream* stream = header.streamId == 0 ? nullptr : m_streams.find(header.streamId);
    if (header.streamId != 0 && stream == nullptr) return;  // closed (RFC 9113, 6.9)
    SendWindow& window = stream != nullptr ? stream->sendWindow : m_sendWindow;
    ErrorCode code = ErrorCode::kNoError;
    const char* rule = "";
    if (increment == 0) {
        code = ErrorCode::kProtocolError;
        rule = "WINDOW_UPDATE of 0";
    } else if (!window.move(increment)) {
        code = ErrorCode::kFlowControlError;
        rule = "WINDOW_UPDATE moves a window above 2^31-1";
    }
    if (code == ErrorCode::kNoError) {
        if (stream != nullptr) makeReady(*stream);
    } else if (stream != nullptr) {
        reset(*stream, code, Outcome::kMalformed, rule);
    } else {
        fail(connectionError(code, rule), 0);
    }
}

}  // namespace h2
