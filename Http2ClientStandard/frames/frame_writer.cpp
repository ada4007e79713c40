#include "Http2ClientStandard/frames/frame_writer.h"

#include <algorithm>
#include <string>

namespace h2 {

namespace {

// Appends a header and `extra` bytes of room; returns the room.
char* beginFrame(Bytes& out, FrameType type, uint8_t flags, uint32_t streamId, size_t length,
                 size_t extra) {
    char* header = out.room(kFrameHeaderSize + extra);
    writeFrameHeader(header, {static_cast<uint32_t>(length), type, flags, streamId});
    out.commit(kFrameHeaderSize + extra);
    return header + kFrameHeaderSize;
}

}  // namespace

void writeFrame(Bytes& out, const FrameHeader& header, std::string_view payload) {
    beginFrame(out, header.type, header.flags, header.streamId, payload.size(), 0);
    out.append(payload);
}

void writeData(Bytes& out, uint32_t streamId, std::string_view data, bool endStream) {
    const uint8_t flags = endStream ? flag::kEndStream : 0;
    writeFrame(out, {0, FrameType::kData, flags, streamId}, data);
}

void writeHeaders(Bytes& out, uint32_t streamId, std::string_view fragment, uint8_t flags) {
    writeFrame(out, {0, FrameType::kHeaders, flags, streamId}, fragment);
}

void writeContinuation(Bytes& out, uint32_t streamId, std::string_view fragment, bool endHeaders) {
    const uint8_t flags = endHeaders ? flag::kEndHeaders : 0;
    writeFrame(out, {0, FrameType::kContinuation, flags, streamId}, fragment);
}

void writePriority(Bytes& out, uint32_t streamId, const Priority& priority) {
    char* payload = beginFrame(out, FrameType::kPriority, 0, streamId, 5, 5);
    const uint32_t exclusive = priority.exclusive ? 0x80000000 : 0;
    storeBigEndian32(payload, priority.dependency | exclusive);
    payload[4] = static_cast<char>(priority.weight);
}

void writeRstStream(Bytes& out, uint32_t streamId, ErrorCode code) {
    char* payload = beginFrame(out, FrameType::kRstStream, 0, streamId, 4, 4);
    storeBigEndian32(payload, static_cast<uint32_t>(code));
}

void writeSettings(Bytes& out, std::span<const Setting> settings) {
    const size_t length = settings.size() * kSettingSize;
    char* entry = beginFrame(out, FrameType::kSettings, 0, 0, length, length);
    for (const Setting& setting : settings) {
        entry[0] = static_cast<char>(setting.id >> 8);
        entry[1] = static_cast<char>(setting.id & 0xff);
        storeBigEndian32(entry + 2, setting.value);
        entry += kSettingSize;
    }
}

void writeSettingsAck(Bytes& out) { beginFrame(out, FrameType::kSettings, flag::kAck, 0, 0, 0); }

void writePushPromise(Bytes& out, uint32_t streamId, uint32_t promisedStreamId,
                      std::string_view fragment, bool endHeaders) {
    const uint8_t flags = endHeaders ? flag::kEndHeaders : 0;
    char* payload =
        beginFrame(out, FrameType::kPushPromise, flags, streamId, 4 + fragment.size(), 4);
    storeBigEndian32(payload, promisedStreamId);
    out.append(fragment);
}

void writePing(Bytes& out, std::string_view opaque, bool ack) {
    writeFrame(out, {0, FrameType::kPing, ack ? flag::kAck : uint8_t{0}, 0}, opaque);
}

void writeGoAway(Bytes& out, uint32_t lastStreamId, ErrorCode code, std::string_view debugData) {
    char* payload = beginFrame(out, FrameType::kGoAway, 0, 0, 8 + debugData.size(), 8);
    storeBigEndian32(payload, lastStreamId);
    storeBigEndian32(payload + 4, static_cast<uint32_t>(code));
    out.append(debugData);
}

void writeWindowUpdate(Bytes& out, uint32_t streamId, uint32_t increment) {
    char* payload = beginFrame(out, FrameType::kWindowUpdate, 0, streamId, 4, 4);
    storeBigEndian32(payload, increment);
}

void frameFieldBlock(Bytes& out, size_t start, uint32_t streamId, bool endStream,
                     uint32_t maxFrameSize) {
    const uint8_t flags = endStream ? flag::kEndStream : 0;
    const size_t blockStart = start + kFrameHeaderSize;
    const size_t length = out.size() - blockStart;
    if (length <= maxFrameSize) {
        const uint8_t whole = flags | flag::kEndHeaders;
        writeFrameHeader(out.data() + start,
                         {static_cast<uint32_t>(length), FrameType::kHeaders, whole, streamId});
        return;
    }
    const std::string block(out.view().substr(blockStart));
    out.truncate(start);
    std::string_view rest = block;
    writeHeaders(out, streamId, rest.substr(0, maxFrameSize), flags);
    rest.remove_prefix(maxFrameSize);
    while (!rest.empty()) {
        const std::string_view fragment = rest.substr(0, maxFrameSize);
        rest.remove_prefix(fragment.size());
        writeContinuation(out, streamId, fragment, rest.empty());
    }
}

}  // namespace h2
