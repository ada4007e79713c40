#ifndef HTTP2CLIENTSTANDARD_FRAMES_FRAME_READER_H
#define HTTP2CLIENTSTANDARD_FRAMES_FRAME_READER_H

#include <optional>
#include <string_view>

#include "Http2ClientStandard/frames/frame.h"

namespace h2 {

enum class ErrorLevel : uint8_t { kNone, kStream, kConnection };

// What a frame breaks, and how that is to be answered: by RST_STREAM or by GOAWAY.
struct Violation {
    ErrorLevel level = ErrorLevel::kNone;
    ErrorCode code = ErrorCode::kNoError;
    const char* rule = "";  // for people; a string that lives for ever

    explicit operator bool() const { return level != ErrorLevel::kNone; }
};

constexpr Violation connectionError(ErrorCode code, const char* rule) {
    return {ErrorLevel::kConnection, code, rule};
}
constexpr Violation streamError(ErrorCode code, const char* rule) {
    return {ErrorLevel::kStream, code, rule};
}

// Checks all that a frame's header tells by itself: the size allowed, stream 0 or not, and the
// lengths of the type's fixed parts. Unknown types need only be small enough.
Violation checkFrameHeader(const FrameHeader& header, uint32_t maxFrameSize);

// The readers below take the whole payload of a frame whose header has passed checkFrameHeader, and
// return views into it.

// The field block fragment of HEADERS, CONTINUATION or PUSH_PROMISE: without padding, priority
// fields and the promised stream's identifier. Nothing when the padding does not fit, which is a
// connection error PROTOCOL_ERROR (RFC 9113, 6.2 and 6.6).
std::optional<std::string_view> readFragment(const FrameHeader& header, std::string_view payload);

// The identifier that PUSH_PROMISE promises.
uint32_t readPromisedStream(const FrameHeader& header, std::string_view payload);

// The code of RST_STREAM.
inline uint32_t readErrorCode(std::string_view payload) { return loadBigEndian32(payload.data()); }

// The increment of WINDOW_UPDATE.
inline uint32_t readIncrement(std::string_view payload) {
    return loadBigEndian32(payload.data()) & kMaxWindow;
}

// How many entries SETTINGS has, and one of them; index < settingCount(payload).
inline size_t settingCount(std::string_view payload) { return payload.size() / kSettingSize; }
Setting readSetting(std::string_view payload, size_t index);

struct GoAway {
    uint32_t lastStreamId = 0;
    uint32_t code = 0;
    std::string_view debugData;
};
GoAway readGoAway(std::string_view payload);

// The deprecated fields of PRIORITY (RFC 9113, 5.3.2).
struct Priority {
    uint32_t dependency = 0;
    uint8_t weight = 0;
    bool exclusive = false;
};
Priority readPriority(std::string_view payload);

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_FRAMES_FRAME_READER_H
