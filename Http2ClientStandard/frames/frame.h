#ifndef HTTP2CLIENTSTANDARD_FRAMES_FRAME_H
#define HTTP2CLIENTSTANDARD_FRAMES_FRAME_H

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace h2 {

// RFC 9113, 6. Other values are types of extensions, which are passed over.
enum class FrameType : uint8_t {
    kData = 0x00,
    kHeaders = 0x01,
    kPriority = 0x02,
    kRstStream = 0x03,
    kSettings = 0x04,
    kPushPromise = 0x05,
    kPing = 0x06,
    kGoAway = 0x07,
    kWindowUpdate = 0x08,
    kContinuation = 0x09,
};

namespace flag {
constexpr uint8_t kEndStream = 0x01;   // DATA, HEADERS
constexpr uint8_t kAck = 0x01;         // SETTINGS, PING
constexpr uint8_t kEndHeaders = 0x04;  // HEADERS, PUSH_PROMISE, CONTINUATION
constexpr uint8_t kPadded = 0x08;      // DATA, HEADERS, PUSH_PROMISE
constexpr uint8_t kPriority = 0x20;    // HEADERS
}  // namespace flag

// RFC 9113, 7. A peer may send other values.
enum class ErrorCode : uint32_t {
    kNoError = 0x00,
    kProtocolError = 0x01,
    kInternalError = 0x02,
    kFlowControlError = 0x03,
    kSettingsTimeout = 0x04,
    kStreamClosed = 0x05,
    kFrameSizeError = 0x06,
    kRefusedStream = 0x07,
    kCancel = 0x08,
    kCompressionError = 0x09,
    kConnectError = 0x0a,
    kEnhanceYourCalm = 0x0b,
    kInadequateSecurity = 0x0c,
    kHttp11Required = 0x0d,
};

// RFC 9113, 6.5.2. A peer may send other identifiers.
enum class SettingId : uint16_t {
    kHeaderTableSize = 0x01,
    kEnablePush = 0x02,
    kMaxConcurrentStreams = 0x03,
    kInitialWindowSize = 0x04,
    kMaxFrameSize = 0x05,
    kMaxHeaderListSize = 0x06,
};

struct Setting {
    uint16_t id = 0;
    uint32_t value = 0;
};

constexpr std::string_view kClientPreface = "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n";  // RFC 9113, 3.4

constexpr size_t kFrameHeaderSize = 9;
constexpr size_t kSettingSize = 6;
constexpr size_t kPingSize = 8;
constexpr uint32_t kDefaultWindow = 65535;
constexpr uint32_t kMaxWindow = 0x7fffffff;
constexpr uint32_t kMaxStreamId = 0x7fffffff;
constexpr uint32_t kDefaultMaxFrameSize = 1 << 14;
constexpr uint32_t kLargestMaxFrameSize = (1 << 24) - 1;

inline uint32_t loadBigEndian32(const char* from) {
    static_assert(std::endian::native == std::endian::little);
    uint32_t value;
    std::memcpy(&value, from, sizeof(value));
    return __builtin_bswap32(value);
}

inline void storeBigEndian32(char* to, uint32_t value) {
    value = __builtin_bswap32(value);
    std::memcpy(to, &value, sizeof(value));
}

struct FrameHeader {
    uint32_t length = 0;  // of the payload, at most 2^24-1
    FrameType type = FrameType::kData;
    uint8_t flags = 0;
    uint32_t streamId = 0;  // at most 2^31-1

    bool has(uint8_t flag) const { return (flags & flag) != 0; }
};

// Reads kFrameHeaderSize bytes. The reserved bit is ignored (RFC 9113, 4.1).
inline FrameHeader readFrameHeader(const char* from) {
    const uint32_t lengthAndType = loadBigEndian32(from);
    return {lengthAndType >> 8, static_cast<FrameType>(lengthAndType & 0xff),
            static_cast<uint8_t>(from[4]), loadBigEndian32(from + 5) & kMaxStreamId};
}

// Writes kFrameHeaderSize bytes.
inline void writeFrameHeader(char* to, const FrameHeader& header) {
    storeBigEndian32(to, header.length << 8 | static_cast<uint32_t>(header.type));
    to[4] = static_cast<char>(header.flags);
    storeBigEndian32(to + 5, header.streamId);
}

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_FRAMES_FRAME_H
