#ifndef HTTP2CLIENTSTANDARD_FRAMES_FRAME_WRITER_H
#define HTTP2CLIENTSTANDARD_FRAMES_FRAME_WRITER_H

#include <span>
#include <string_view>

#include "Http2ClientStandard/base/bytes.h"
#include "Http2ClientStandard/frames/frame.h"
#include "Http2ClientStandard/frames/frame_reader.h"

namespace h2 {

// Each appends one whole frame, unpadded, with the flags given and no others. Lengths and
// identifiers must be ones that the frame can have: the writers check nothing.

void writeFrame(Bytes& out, const FrameHeader& header, std::string_view payload);

void writeData(Bytes& out, uint32_t streamId, std::string_view data, bool endStream);
void writeHeaders(Bytes& out, uint32_t streamId, std::string_view fragment, uint8_t flags);
void writeContinuation(Bytes& out, uint32_t streamId, std::string_view fragment, bool endHeaders);
void writePriority(Bytes& out, uint32_t streamId, const Priority& priority);
void writeRstStream(Bytes& out, uint32_t streamId, ErrorCode code);
void writeSettings(Bytes& out, std::span<const Setting> settings);
void writeSettingsAck(Bytes& out);
void writePushPromise(Bytes& out, uint32_t streamId, uint32_t promisedStreamId,
                      std::string_view fragment, bool endHeaders);
// `opaque` has kPingSize bytes.
void writePing(Bytes& out, std::string_view opaque, bool ack);
void writeGoAway(Bytes& out, uint32_t lastStreamId, ErrorCode code, std::string_view debugData);
void writeWindowUpdate(Bytes& out, uint32_t streamId, uint32_t increment);

// Turns the bytes of `out` from `start` on into HEADERS, and CONTINUATION as needed. There stand
// kFrameHeaderSize bytes of room and then the whole field block. No frame has more than
// `maxFrameSize` bytes. (The block is encoded in place, and moves only when one frame is too
// small.)
void frameFieldBlock(Bytes& out, size_t start, uint32_t streamId, bool endStream,
                     uint32_t maxFrameSize);

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_FRAMES_FRAME_WRITER_H
