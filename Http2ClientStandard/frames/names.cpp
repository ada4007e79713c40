#include "Http2ClientStandard/frames/names.h"

#include <array>

namespace h2 {

namespace {

constexpr std::array<std::string_view, 10> kFrameTypes = {
    "DATA",         "HEADERS", "PRIORITY", "RST_STREAM",    "SETTINGS",
    "PUSH_PROMISE", "PING",    "GOAWAY",   "WINDOW_UPDATE", "CONTINUATION"};

constexpr std::array<std::string_view, 14> kErrors = {"NO_ERROR",
                                                      "PROTOCOL_ERROR",
                                                      "INTERNAL_ERROR",
                                                      "FLOW_CONTROL_ERROR",
                                                      "SETTINGS_TIMEOUT",
                                                      "STREAM_CLOSED",
                                                      "FRAME_SIZE_ERROR",
                                                      "REFUSED_STREAM",
                                                      "CANCEL",
                                                      "COMPRESSION_ERROR",
                                                      "CONNECT_ERROR",
                                                      "ENHANCE_YOUR_CALM",
                                                      "INADEQUATE_SECURITY",
                                                      "HTTP_1_1_REQUIRED"};

constexpr std::array<std::string_view, 7> kSettings = {"",
                                                       "HEADER_TABLE_SIZE",
                                                       "ENABLE_PUSH",
                                                       "MAX_CONCURRENT_STREAMS",
                                                       "INITIAL_WINDOW_SIZE",
                                                       "MAX_FRAME_SIZE",
                                                       "MAX_HEADER_LIST_SIZE"};

template <size_t size>
std::string nameOf(const std::array<std::string_view, size>& names, size_t number,
                   const char* what) {
    if (number < size && !names[number].empty()) return std::string(names[number]);
    return what + std::to_string(number);
}

}  // namespace

std::string frameTypeName(FrameType type) {
    return nameOf(kFrameTypes, static_cast<size_t>(type), "type ");
}

std::string errorName(uint32_t code) { return nameOf(kErrors, code, "error "); }

std::string settingName(uint16_t id) { return nameOf(kSettings, id, "setting "); }

std::string flagNames(const FrameHeader& header) {
    const FrameType type = header.type;
    const bool opensBlock = type == FrameType::kHeaders || type == FrameType::kPushPromise;
    std::string names;
    const auto add = [&](uint8_t flag, bool hasMeaning, const char* name) {
        if (hasMeaning && header.has(flag)) names += name;
    };
    add(flag::kAck, type == FrameType::kSettings || type == FrameType::kPing, " ACK");
    add(flag::kEndStream, type == FrameType::kData || type == FrameType::kHeaders, " END_STREAM");
    add(flag::kEndHeaders, opensBlock || type == FrameType::kContinuation, " END_HEADERS");
    add(flag::kPadded, opensBlock || type == FrameType::kData, " PADDED");
    add(flag::kPriority, type == FrameType::kHeaders, " PRIORITY");
    return names;
}

std::string printable(std::string_view bytes, size_t most) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::string text;
    for (const char c : bytes.substr(0, most)) {
        const auto byte = static_cast<uint8_t>(c);
        if (byte >= ' ' && byte <= '~') {
            text += c;
        } else {
            text += {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 15]};
        }
    }
    return bytes.size() > most ? text + "..." : text;
}

}  // namespace h2
