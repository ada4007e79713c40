#include "tests/standard/session_support.h"

#include <sys/uio.h>

#include <algorithm>
#include <sstream>
#include <utility>

#include "tests/support/guarded.h"

namespace h2test {

namespace {

const char* name(h2::Outcome outcome) {
    switch (outcome) {
        case h2::Outcome::kComplete: return "complete";
        case h2::Outcome::kReset: return "reset";
        case h2::Outcome::kRefused: return "refused";
        case h2::Outcome::kNotProcessed: return "not processed";
        case h2::Outcome::kMalformed: return "malformed";
        case h2::Outcome::kConnectionLost: return "lost";
        case h2::Outcome::kBodyFailed: return "body failed";
    }
    return "?";
}

std::string text(const h2::hpack::FieldList& fields) {
    std::string all;
    for (size_t i = 0; i < fields.size(); ++i) {
        all.append(" ").append(fields.name(i)).append("=").append(fields.value(i));
    }
    return all;
}

uint32_t number(std::string_view bytes, size_t at) {
    uint32_t value = 0;
    for (size_t i = at; i < at + 4; ++i) value = value << 8 | static_cast<uint8_t>(bytes[i]);
    return value;
}

}  // namespace

h2::BodyPart TextBody::next(h2::BodyRoom room) {
    ++calls;
    const size_t size = std::min(room.size(), m_text.size() - m_given);
    const char* from = m_text.data() + m_given;
    if (!m_inBlock && size != 0) std::copy(from, from + size, room.get());
    m_given += size;
    const bool end = m_given == m_text.size();
    return {end ? h2::BodyPart::State::kEnd : h2::BodyPart::State::kMore,
            m_inBlock ? from : nullptr, size};
}

Peer::Peer(Cut cut, const h2::SessionOptions& options)
    : m_cut(cut), m_session(std::make_unique<h2::Session>(*this, options)) {}

void Peer::start(const std::vector<std::pair<uint16_t, uint32_t>>& values) {
    sent();
    server(settings(values) + settingsAck());
    EXPECT_EQ(events(), Lines{"settings"});
    EXPECT_EQ(sent(), Lines{"SETTINGS ack"});
}

uint32_t Peer::submit(const std::string& method, const std::string& path, h2::Body* body) {
    const h2::hpack::Field fields[] = {
        {":method", method}, {":scheme", "http"}, {":authority", "a"}, {":path", path}};
    h2::Request request;
    request.fields = fields;
    request.head = method == "HEAD";
    request.body = body;
    request.user = this;
    lastStream = m_session->submit(request);
    return lastStream;
}

uint32_t Peer::get(const std::string& path, const std::string& method) {
    return submit(method, path, nullptr);
}

uint32_t Peer::post(h2::Body& body, const std::string& path) { return submit("POST", path, &body); }

uint32_t Peer::sentGet() {
    const uint32_t stream = get();
    sent();
    return stream;
}

uint32_t Peer::sentPost(h2::Body& body) {
    const uint32_t stream = post(body);
    sent(0);
    return stream;
}

void Peer::feed(std::string_view bytes) {
    if (bytes.empty()) return;
    const GuardedBytes guarded(bytes);
    m_session->receive(guarded.data(), guarded.size(), now);
}

void Peer::server(std::string_view bytes) {
    const size_t from = received;
    received += bytes.size();
    if (m_cut.byteByByte) {
        GuardedBytes one("x");
        for (const char c : bytes) {
            *one.data() = c;
            m_session->receive(one.data(), 1, now);
        }
    } else if (m_cut.at != Cut::kNowhere && m_cut.at > from && m_cut.at < received) {
        feed(bytes.substr(0, m_cut.at - from));
        feed(bytes.substr(m_cut.at - from));
    } else {
        feed(bytes);
    }
}

Lines Peer::events() {
    m_openData = 0;
    return std::exchange(m_events, {});
}

std::string Peer::sentBytes(size_t limit) {
    h2::Output output;
    m_session->produce(output, limit, now);
    std::string bytes;
    while (!output.empty()) {
        iovec part;
        EXPECT_EQ(output.gather(&part, 1), 1u);
        bytes.append(static_cast<const char*>(part.iov_base), part.iov_len);
        output.consume(part.iov_len);
    }
    return bytes;
}

Lines Peer::sent(size_t limit) {
    const std::string bytes = sentBytes(limit);
    std::string_view rest = bytes;
    if (!m_prefaceTaken) rest = withoutPreface(rest);
    m_prefaceTaken = true;
    Lines lines;
    for (const WireFrame& frame : parseFrames(rest)) {
        const std::string line = describe(frame);
        if (!line.empty()) lines.push_back(line);
    }
    return lines;
}

std::string Peer::describe(const WireFrame& frame) {
    std::ostringstream line;
    const bool end = frame.hasFlags(kEndStream);
    switch (frame.type) {
        case kData:
            line << "DATA " << frame.streamId << " "
                 << (frame.payload.size() > 64 ? std::to_string(frame.payload.size())
                                               : frame.payload)
                 << (end ? " end" : "");
            break;
        case kHeaders:
        case kContinuation: {
            if (frame.type == kHeaders) m_block.clear();
            m_block += frame.payload;
            line << (frame.type == kHeaders ? "HEADERS " : "CONTINUATION ") << frame.streamId;
            if (frame.hasFlags(kEndHeaders)) {
                h2::hpack::FieldList fields;
                EXPECT_TRUE(m_decoder.decode(m_block, fields));
                for (size_t i = 0; i < fields.size(); ++i) {
                    if (fields.name(i) == ":path") line << " " << fields.value(i);
                }
            } else {
                line << " ...";
            }
            if (frame.type == kHeaders && end) line << " end";
            break;
        }
        case kRstStream:
            line << "RST_STREAM " << frame.streamId << " " << number(frame.payload, 0);
            break;
        case kSettings:
            line << "SETTINGS" << (end ? " ack" : "");
            if (!frame.payload.empty()) line << " " << toHex(frame.payload);
            break;
        case kPing: line << "PING " << (end ? "ack " : "") << toHex(frame.payload); break;
        case kGoaway:
            line << "GOAWAY " << number(frame.payload, 0) << " " << number(frame.payload, 4);
            break;
        case kWindowUpdate:
            line << "WINDOW_UPDATE " << frame.streamId << " " << number(frame.payload, 0);
            break;
        default: line << "type " << int(frame.type);
    }
    return line.str();
}

std::string Peer::error() const {
    const h2::SessionError* error = m_session->error();
    return error == nullptr ? "" : std::to_string(static_cast<uint32_t>(error->code));
}

void Peer::record(const std::string& event) {
    if (std::exchange(m_answered, 0) != 0) {
        EXPECT_TRUE(event.starts_with("end ") && event.ends_with(" complete")) << event;
    }
    m_openData = 0;
    m_events.push_back(event);
    if (reaction) reaction(event);
}

void Peer::onInterim(uint32_t stream, void* user, uint32_t code,
                     const h2::hpack::FieldList& fields) {
    EXPECT_EQ(user, this);
    record("interim " + std::to_string(stream) + " " + std::to_string(code) + text(fields));
}

void Peer::onHeaders(uint32_t stream, void* user, uint32_t code,
                     const h2::hpack::FieldList& fields) {
    EXPECT_EQ(user, this);
    EXPECT_EQ(fields.name(0), ":status");
    record("headers " + std::to_string(stream) + " " + std::to_string(code) + text(fields));
}

// Pieces of one stream that follow each other make one event: how they are cut is not fixed.
void Peer::onData(uint32_t stream, void* user, const char* data, size_t size, bool last) {
    EXPECT_EQ(user, this);
    EXPECT_NE(size, 0u);
    if (m_openData != stream) record("data " + std::to_string(stream) + " ");
    m_openData = stream;
    if (!m_events.empty()) m_events.back().append(data, size);
    if (last) m_answered = stream;
}

void Peer::onTrailers(uint32_t stream, void* user, const h2::hpack::FieldList& fields) {
    EXPECT_EQ(user, this);
    record("trailers " + std::to_string(stream) + text(fields));
}

void Peer::onEnd(uint32_t stream, void* user, const h2::StreamEnd& end) {
    EXPECT_EQ(user, this);
    EXPECT_EQ(end.reason[0] == '\0', end.outcome == h2::Outcome::kComplete);
    std::string event = "end " + std::to_string(stream) + " " + name(end.outcome);
    if (end.outcome != h2::Outcome::kComplete) event += " " + std::to_string(end.code);
    if (end.answerBegun && end.outcome != h2::Outcome::kComplete) event += " begun";
    record(event);
}

void Peer::onSettings() { record("settings"); }

void Peer::onGoAway(const h2::GoAway& goAway) {
    record("goaway " + std::to_string(goAway.lastStreamId) + " " + std::to_string(goAway.code) +
           (goAway.debugData.empty() ? "" : " " + std::string(goAway.debugData)));
}

namespace {

size_t playOnce(const std::function<void(Peer&)>& scene, const h2::SessionOptions& options,
                const Cut& cut) {
    SCOPED_TRACE(cut.byteByByte            ? "byte by byte"
                 : cut.at == Cut::kNowhere ? "whole"
                                           : "cut at " + std::to_string(cut.at));
    Peer peer(cut, options);
    scene(peer);
    return peer.received;
}

}  // namespace

void play(const std::function<void(Peer&)>& scene, const h2::SessionOptions& options) {
    const size_t total = playOnce(scene, options, {});
    playOnce(scene, options, {true, Cut::kNowhere});
    const size_t step = total / 300 + 1;
    for (size_t at = 1; at < total && !testing::Test::HasFailure(); at += step) {
        playOnce(scene, options, {false, at});
    }
}

void playWhole(const std::function<void(Peer&)>& scene, const h2::SessionOptions& options) {
    playOnce(scene, options, {});
}

std::string status(const std::string& code) { return hpackLiteral(":status", code); }

}  // namespace h2test
