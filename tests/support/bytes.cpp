#include "bytes.h"

#include <cstdio>
#include <cstdlib>
#include <ostream>
#include <stdexcept>

namespace h2test {

namespace {

constexpr size_t kFrameHeaderSize = 9;

[[noreturn]] void badHex(std::string_view text, size_t position) {
    std::fprintf(stderr, "h2test::hex: bad text at position %zu of \"%.*s\"\n", position,
                 static_cast<int>(text.size()), text.data());
    std::abort();
}

bool isSeparator(char c) { return c == ' ' || c == '\n' || c == '|' || c == ':'; }

// -1: no hexadecimal digit.
int digitValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::string bigEndian(uint64_t value, int size) {
    std::string out;
    for (int shift = 8 * (size - 1); shift >= 0; shift -= 8) {
        out.push_back(static_cast<char>(value >> shift & 0xFF));
    }
    return out;
}

uint32_t readBigEndian(std::string_view bytes) {
    uint32_t value = 0;
    for (const char c : bytes) value = value << 8 | static_cast<unsigned char>(c);
    return value;
}

WireFrame readFrameHeader(std::string_view bytes) {
    const uint32_t streamWord = readBigEndian(bytes.substr(5, 4));
    WireFrame out;
    out.length = readBigEndian(bytes.substr(0, 3));
    out.type = static_cast<uint8_t>(bytes[3]);
    out.flags = static_cast<uint8_t>(bytes[4]);
    out.streamId = streamWord & ~kReservedBit;
    out.reserved = (streamWord & kReservedBit) != 0;
    return out;
}

std::string literalStart(uint64_t nameIndex, Literal form) {
    switch (form) {
        case Literal::kIncremental: return hpackInteger(nameIndex, 6, 0x40);
        case Literal::kNeverIndexed: return hpackInteger(nameIndex, 4, 0x10);
        case Literal::kWithoutIndexing: break;
    }
    return hpackInteger(nameIndex, 4, 0x00);
}

}  // namespace

std::string hex(std::string_view text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (isSeparator(text[i])) continue;
        const int high = digitValue(text[i]);
        if (high < 0 || i + 1 == text.size()) badHex(text, i);
        const int low = digitValue(text[++i]);
        if (low < 0) badHex(text, i);
        out.push_back(static_cast<char>(high << 4 | low));
    }
    return out;
}

std::string toHex(std::string_view bytes) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string out;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (!out.empty()) out.push_back(' ');
        out.push_back(kDigits[byte >> 4]);
        out.push_back(kDigits[byte & 0x0F]);
    }
    return out;
}

std::string be8(uint32_t value) { return bigEndian(value, 1); }
std::string be16(uint32_t value) { return bigEndian(value, 2); }
std::string be24(uint32_t value) { return bigEndian(value, 3); }
std::string be32(uint32_t value) { return bigEndian(value, 4); }
std::string be64(uint64_t value) { return bigEndian(value, 8); }

std::string frameHeader(uint32_t length, uint8_t type, uint8_t flags, uint32_t streamId) {
    return be24(length) + be8(type) + be8(flags) + be32(streamId);
}

std::string frame(uint8_t type, uint8_t flags, uint32_t streamId, std::string_view payload) {
    return frameWithLength(static_cast<uint32_t>(payload.size()), type, flags, streamId, payload);
}

std::string frameWithLength(uint32_t length, uint8_t type, uint8_t flags, uint32_t streamId,
                            std::string_view payload) {
    return frameHeader(length, type, flags, streamId).append(payload);
}

std::string settings(const std::vector<std::pair<uint16_t, uint32_t>>& values) {
    std::string payload;
    for (const auto& [id, value] : values) payload += be16(id) + be32(value);
    return frame(kSettings, 0, 0, payload);
}

std::string settingsAck() { return frame(kSettings, kAck, 0, {}); }

std::string ping(uint64_t opaque, uint8_t flags) { return frame(kPing, flags, 0, be64(opaque)); }

std::string goaway(uint32_t lastStreamId, uint32_t errorCode, std::string_view debugData) {
    return frame(kGoaway, 0, 0, (be32(lastStreamId) + be32(errorCode)).append(debugData));
}

std::string windowUpdate(uint32_t streamId, uint32_t increment) {
    return frame(kWindowUpdate, 0, streamId, be32(increment));
}

std::string rstStream(uint32_t streamId, uint32_t errorCode) {
    return frame(kRstStream, 0, streamId, be32(errorCode));
}

std::string data(uint32_t streamId, std::string_view body, uint8_t flags) {
    return frame(kData, flags, streamId, body);
}

std::string dataPadded(uint32_t streamId, std::string_view body, uint8_t padding, uint8_t flags) {
    std::string payload = be8(padding).append(body).append(padding, '\0');
    return frame(kData, flags | kPadded, streamId, payload);
}

std::string headers(uint32_t streamId, std::string_view block, uint8_t flags) {
    return frame(kHeaders, flags, streamId, block);
}

std::string continuation(uint32_t streamId, std::string_view block, uint8_t flags) {
    return frame(kContinuation, flags, streamId, block);
}

std::string hpackInteger(uint64_t value, int prefixBits, uint8_t pattern) {
    const uint64_t prefixMax = (1u << prefixBits) - 1;
    if (value < prefixMax) return be8(pattern | static_cast<uint32_t>(value));
    std::string out = be8(pattern | static_cast<uint32_t>(prefixMax));
    value -= prefixMax;
    for (; value >= 0x80; value >>= 7) out += be8(0x80 | static_cast<uint32_t>(value & 0x7F));
    return out + be8(static_cast<uint32_t>(value));
}

std::string hpackString(std::string_view text) { return hpackInteger(text.size(), 7).append(text); }

std::string hpackHuffmanString(std::string_view coded) {
    return hpackInteger(coded.size(), 7, 0x80).append(coded);
}

std::string hpackLiteral(std::string_view name, std::string_view value, Literal form) {
    return literalStart(0, form) + hpackString(name) + hpackString(value);
}

std::string hpackLiteral(uint64_t nameIndex, std::string_view value, Literal form) {
    return literalStart(nameIndex, form) + hpackString(value);
}

std::string hpackIndexed(uint64_t index) { return hpackInteger(index, 7, 0x80); }

void PrintTo(const WireFrame& frame, std::ostream* out) {
    *out << "frame type " << int{frame.type} << " flags " << int{frame.flags} << " stream "
         << frame.streamId << (frame.reserved ? " R" : "") << " length " << frame.length
         << " payload [" << toHex(std::string_view(frame.payload).substr(0, 64))
         << (frame.payload.size() > 64 ? " ...]" : "]");
}

std::vector<WireFrame> parseWholeFrames(std::string_view bytes, size_t& rest) {
    std::vector<WireFrame> out;
    size_t position = 0;
    while (bytes.size() - position >= kFrameHeaderSize) {
        WireFrame next = readFrameHeader(bytes.substr(position, kFrameHeaderSize));
        if (bytes.size() - position - kFrameHeaderSize < next.length) break;
        next.payload = bytes.substr(position + kFrameHeaderSize, next.length);
        position += kFrameHeaderSize + next.length;
        out.push_back(std::move(next));
    }
    rest = position;
    return out;
}

std::vector<WireFrame> parseFrames(std::string_view bytes) {
    size_t rest = 0;
    std::vector<WireFrame> out = parseWholeFrames(bytes, rest);
    if (rest != bytes.size()) {
        throw std::runtime_error("h2test::parseFrames: no whole frame at position " +
                                 std::to_string(rest) + ": [" +
                                 toHex(bytes.substr(rest).substr(0, 64)) + "]");
    }
    return out;
}

std::string_view withoutPreface(std::string_view bytes) {
    if (bytes.substr(0, kPreface.size()) != kPreface) {
        throw std::runtime_error("h2test::withoutPreface: no connection preface: [" +
                                 toHex(bytes.substr(0, kPreface.size())) + "]");
    }
    return bytes.substr(kPreface.size());
}

}  // namespace h2test
