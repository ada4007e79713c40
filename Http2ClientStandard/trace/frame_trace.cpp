#include "Http2ClientStandard/trace/frame_trace.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <limits>

#include "Http2ClientStandard/frames/names.h"

namespace h2 {

namespace {

// Bytes kept of a payload, and of a field block. A larger one is an error in either direction.
constexpr size_t kMostKept = size_t{1} << 20;
// Octets of a field block that are shown: references to a large entry cost a server a byte each.
constexpr uint32_t kMostShown = 256 << 10;

constexpr std::array<std::string_view, 4> kSecrets = {"authorization", "proxy-authorization",
                                                      "cookie", "set-cookie"};

bool isSecret(std::string_view name) {
    return std::find(kSecrets.begin(), kSecrets.end(), name) != kSecrets.end();
}

std::string hexOf(std::string_view bytes) {
    std::string text;
    for (const char byte : bytes) {
        for (const int digit : {static_cast<uint8_t>(byte) >> 4, byte & 15}) {
            text += "0123456789abcdef"[digit];
        }
    }
    return text;
}

std::string nextNumber() {
    static std::atomic<unsigned> last{0};
    return "#" + std::to_string(++last);
}

}  // namespace

FrameTrace::FrameTrace(std::string start, bool isSent, TraceSink sink)
    : m_start(std::move(start)),
      m_sink(sink),
      m_prefaceLeft(isSent ? kClientPreface.size() : 0),
      m_decoder(std::numeric_limits<uint32_t>::max()) {}

void FrameTrace::add(std::string_view bytes) {
    if (m_prefaceLeft != 0) {
        const size_t taken = std::min(m_prefaceLeft, bytes.size());
        bytes.remove_prefix(taken);
        m_prefaceLeft -= taken;
        if (m_prefaceLeft == 0)
            m_sink.trace((m_start + "connection preface").c_str(), m_sink.opaque);
    }
    while (!bytes.empty()) {
        if (!m_haveHeader && !takeHeader(bytes)) return;
        const std::string_view part = bytes.substr(0, m_payloadLeft);
        if (m_header.type != FrameType::kData && m_kept.size() + part.size() <= kMostKept) {
            m_kept.append(part);
        }
        bytes.remove_prefix(part.size());
        m_payloadLeft -= part.size();
        if (m_payloadLeft == 0) finishFrame();
    }
}

// False: the header has not come whole.
bool FrameTrace::takeHeader(std::string_view& bytes) {
    const std::string_view part = bytes.substr(0, kFrameHeaderSize - m_kept.size());
    m_kept.append(part);
    bytes.remove_prefix(part.size());
    if (m_kept.size() < kFrameHeaderSize) return false;
    m_header = readFrameHeader(m_kept.data());
    m_payloadLeft = m_header.length;
    m_haveHeader = true;
    m_kept.clear();
    return true;
}

void FrameTrace::finishFrame() {
    std::string text = m_start + frameTypeName(m_header.type) + " stream " +
                       std::to_string(m_header.streamId) + ", " + std::to_string(m_header.length) +
                       " bytes" + flagNames(m_header);
    const bool isWhole = m_kept.size() == m_header.length;
    if (isWhole && !checkFrameHeader(m_header, kLargestMaxFrameSize)) text += describePayload();
    m_haveHeader = false;
    m_kept.clear();
    m_sink.trace(text.c_str(), m_sink.opaque);
}

// What a payload says, if it is not DATA.
std::string FrameTrace::describePayload() {
    switch (m_header.type) {
        case FrameType::kHeaders:
        case FrameType::kPushPromise:
        case FrameType::kContinuation: return describeBlock();
        case FrameType::kSettings: return describeSettings();
        case FrameType::kRstStream: return ": " + errorName(readErrorCode(m_kept));
        case FrameType::kPing: return ": " + hexOf(m_kept);
        case FrameType::kWindowUpdate: return ": " + std::to_string(readIncrement(m_kept));
        case FrameType::kGoAway: {
            const GoAway goAway = readGoAway(m_kept);
            const std::string text = goAway.debugData.empty()
                                         ? std::string()
                                         : ", \"" + printable(goAway.debugData) + "\"";
            return ": " + errorName(goAway.code) + ", last stream " +
                   std::to_string(goAway.lastStreamId) + text;
        }
        default: return {};
    }
}

std::string FrameTrace::describeSettings() const {
    std::string text;
    for (size_t i = 0; i < settingCount(m_kept); ++i) {
        const Setting setting = readSetting(m_kept, i);
        text += "\n    " + settingName(setting.id) + ": " + std::to_string(setting.value);
    }
    return text;
}

std::string FrameTrace::describeBlock() {
    const std::optional<std::string_view> fragment = readFragment(m_header, m_kept);
    std::string text;
    if (m_header.type == FrameType::kPushPromise) {
        text = ": stream " + std::to_string(readPromisedStream(m_header, m_kept));
    }
    if (m_header.type != FrameType::kContinuation) m_block.clear();
    if (fragment && !m_blockLost) m_block.append(*fragment);
    m_blockLost |= !fragment || m_block.size() > kMostKept;
    if (!m_header.has(flag::kEndHeaders)) return text;
    hpack::FieldList fields;
    fields.setLimit(kMostShown);
    m_blockLost = m_blockLost || !m_decoder.decode(m_block, fields);
    if (m_blockLost) return text + "\n    (fields that cannot be decoded)";
    for (size_t i = 0; i < fields.size(); ++i) {
        text += "\n    " + printable(fields.name(i)) + ": ";
        text += isSecret(fields.name(i)) ? "***" : printable(fields.value(i));
    }
    if (fields.overflow()) text += "\n    (further fields are left out)";
    return text;
}

ConnectionTrace::ConnectionTrace(TraceSink sink) : ConnectionTrace(nextNumber(), sink) {}

ConnectionTrace::ConnectionTrace(const std::string& number, TraceSink sink)
    : m_sent(number + " > ", true, sink), m_received(number + " < ", false, sink) {}

void ConnectionTrace::sent(std::span<const iovec> parts, size_t size) {
    for (const iovec& part : parts) {
        const size_t taken = std::min(size, part.iov_len);
        m_sent.add({static_cast<const char*>(part.iov_base), taken});
        size -= taken;
    }
}

}  // namespace h2
