#include "Http2ClientStandard/frames/frame_reader.h"

namespace h2 {

namespace {

constexpr uint32_t kPriorityFields = 5;
constexpr uint32_t kPromisedStreamField = 4;

bool belongsToConnection(FrameType type) {
    return type == FrameType::kSettings || type == FrameType::kPing || type == FrameType::kGoAway;
}

Violation checkStream(const FrameHeader& header) {
    if (header.type == FrameType::kWindowUpdate || header.type > FrameType::kContinuation) {
        return {};
    }
    if (belongsToConnection(header.type) == (header.streamId == 0)) return {};
    return connectionError(ErrorCode::kProtocolError,
                           header.streamId == 0 ? "a frame of a stream came on stream 0"
                                                : "a frame of the connection came on a stream");
}

// Bytes in front of what has no fixed length.
uint32_t fixedPart(const FrameHeader& header) {
    const uint32_t padLength = header.has(flag::kPadded) ? 1 : 0;
    switch (header.type) {
        case FrameType::kData: return padLength;
        case FrameType::kHeaders:
            return padLength + (header.has(flag::kPriority) ? kPriorityFields : 0);
        case FrameType::kPushPromise: return padLength + kPromisedStreamField;
        case FrameType::kGoAway: return 8;
        default: return 0;
    }
}

bool lengthFits(const FrameHeader& header) {
    switch (header.type) {
        case FrameType::kPriority: return header.length == kPriorityFields;
        case FrameType::kRstStream:
        case FrameType::kWindowUpdate: return header.length == 4;
        case FrameType::kPing: return header.length == kPingSize;
        case FrameType::kSettings:
            return header.has(flag::kAck) ? header.length == 0 : header.length % kSettingSize == 0;
        default: return header.length >= fixedPart(header);
    }
}

}  // namespace

Violation checkFrameHeader(const FrameHeader& header, uint32_t maxFrameSize) {
    if (header.length > maxFrameSize) {
        return connectionError(ErrorCode::kFrameSizeError, "a frame is larger than allowed");
    }
    if (const Violation violation = checkStream(header)) return violation;
    if (lengthFits(header)) return {};
    // RFC 9113, 6.3: the one wrong length that leaves the connection in order.
    if (header.type == FrameType::kPriority) {
        return streamError(ErrorCode::kFrameSizeError, "a PRIORITY frame has a wrong length");
    }
    return connectionError(ErrorCode::kFrameSizeError, "a frame has a wrong length");
}

std::optional<std::string_view> readFragment(const FrameHeader& header, std::string_view payload) {
    const bool mayBePadded = header.type != FrameType::kContinuation;
    if (!mayBePadded) return payload;
    // A pad length that reaches into the fixed fields does not fit either.
    const size_t padding =
        header.has(flag::kPadded) ? static_cast<uint8_t>(payload.front()) : size_t{0};
    payload.remove_prefix(fixedPart(header));
    if (padding > payload.size()) return std::nullopt;
    payload.remove_suffix(padding);
    return payload;
}

uint32_t readPromisedStream(const FrameHeader& header, std::string_view payload) {
    return loadBigEndian32(payload.data() + (header.has(flag::kPadded) ? 1 : 0)) & kMaxStreamId;
}

Setting readSetting(std::string_view payload, size_t index) {
    const char* entry = payload.data() + index * kSettingSize;
    const auto high = static_cast<uint8_t>(entry[0]);
    const auto low = static_cast<uint8_t>(entry[1]);
    return {static_cast<uint16_t>(high << 8 | low), loadBigEndian32(entry + 2)};
}

GoAway readGoAway(std::string_view payload) {
    return {loadBigEndian32(payload.data()) & kMaxStreamId, loadBigEndian32(payload.data() + 4),
            payload.substr(8)};
}

Priority readPriority(std::string_view payload) {
    const uint32_t dependency = loadBigEndian32(payload.data());
    return {dependency & kMaxStreamId, static_cast<uint8_t>(payload[4]), dependency >> 31 != 0};
}

}  // namespace h2
