#ifndef HTTP2CLIENTSTANDARD_TRACE_FRAME_TRACE_H
#define HTTP2CLIENTSTANDARD_TRACE_FRAME_TRACE_H

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "Http2ClientStandard/frames/frame_reader.h"
#include "Http2ClientStandard/hpack/decoder.h"

namespace h2 {

// Where the text goes: a line for a frame, and further ones for what is in it, without a line end
// behind the last.
struct TraceSink {
    void (*trace)(const char* text, void* opaque) = nullptr;
    void* opaque = nullptr;

    explicit operator bool() const { return trace != nullptr; }
};

// Describes the frames of one direction of a connection to people. It sees the bytes that go over
// the wire, all of them from the first on, and has a header decoder of its own: the session does
// not know of it. It judges nothing; what it cannot read it shows by its header alone.
class FrameTrace {
public:
    // `start` begins each frame's text.
    FrameTrace(std::string start, bool isSent, TraceSink sink);

    void add(std::string_view bytes);

private:
    bool takeHeader(std::string_view& bytes);
    void finishFrame();
    std::string describePayload();
    std::string describeSettings() const;
    std::string describeBlock();

    const std::string m_start;
    const TraceSink m_sink;
    size_t m_prefaceLeft;  // bytes of the connection preface that come before the first frame
    bool m_haveHeader = false;
    FrameHeader m_header;
    size_t m_payloadLeft = 0;
    std::string m_kept;        // of the header, or of a payload that is not DATA
    std::string m_block;       // a field block, as far as it has come
    bool m_blockLost = false;  // it cannot be decoded, and so none behind it
    hpack::Decoder m_decoder;
};

// Both directions of a connection.
class ConnectionTrace {
public:
    explicit ConnectionTrace(TraceSink sink);

    void received(std::string_view bytes) { m_received.add(bytes); }
    // The first `size` bytes of the parts.
    void sent(std::span<const iovec> parts, size_t size);

private:
    ConnectionTrace(const std::string& number, TraceSink sink);

    FrameTrace m_sent;
    FrameTrace m_received;
};

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_TRACE_FRAME_TRACE_H
