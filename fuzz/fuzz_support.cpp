#include "fuzz_support.h"

#include <sstream>

namespace h2fuzz {

namespace {

void put(std::ostream& out, const Buffer& buffer) { out << buffer.len << ":" << textOf(buffer); }

void putPayload(std::ostream& out, const tiny::DataFrame& frame) {
    out << +frame.m_padLength << " ";
    put(out, frame.getData());
}

void putPayload(std::ostream& out, const tiny::HeadersFrame& frame) {
    out << +frame.getPadLength() << " " << frame.hasExclusive() << " "
        << frame.getStreamDependency() << " " << +frame.getWeight() << " ";
    put(out, frame.getHeaderBlockFragment());
    out << describe(frame.getHeaderList());
}

void putPayload(std::ostream& out, const tiny::PriorityFrame& frame) {
    out << frame.hasExclusive() << " " << frame.getStreamDependency() << " " << +frame.getWeight();
}

void putPayload(std::ostream& out, const tiny::SettingsFrame& frame) {
    const tiny::Settings& settings = frame.getSettings();
    out << settings.getHeaderTableSize() << " " << settings.enablePush() << " "
        << settings.getMaxConcurrentStream() << " " << settings.getInitialWindowSize() << " "
        << settings.getMaxFrameSize() << " " << settings.getMaxHeaderListSize();
}

void putPayload(std::ostream& out, const tiny::GoawayFrame& frame) {
    out << frame.hasReserved() << " " << frame.getLastStreamId() << " " << frame.getErrorCode()
        << " ";
    put(out, frame.getAdditionalDebugData());
}

void putPayload(std::ostream& out, const tiny::RSTStreamFrame& frame) {
    out << frame.getErrorCode();
}

void putPayload(std::ostream& out, const tiny::PingFrame& frame) { out << frame.getOpaqueData(); }

void putPayload(std::ostream& out, const tiny::WindowUpdateFrame& frame) {
    out << frame.hasReserved() << " " << frame.getWindowSizeIncrement();
}

void putPayload(std::ostream& out, const tiny::ContinuationFrame& frame) {
    put(out, frame.getHeaderBlockFragment());
}

void putPayload(std::ostream& out, const tiny::PushPromisFrame& frame) {
    out << +frame.getPadLength() << " " << frame.hasReserved() << " " << frame.getPromisedStreamId()
        << " ";
    put(out, frame.getHeaderBlockFragment());
}

template <typename Type>
void putAs(std::ostream& out, const tiny::Frame& frame) {
    putPayload(out, static_cast<const Type&>(frame));
}

}  // namespace

std::string describe(const tiny::HeadersFrame::HeaderList& list) {
    std::ostringstream out;
    for (const hpack::HeaderFieldRepresentation& entry : list) {
        const hpack::HeaderField& field = entry.constField();
        out << "\n"
            << entry.constType() << field.NameUseHuffman() << field.ValueUseHuffman()
            << field.Name().size() << ":" << field.Name() << "=" << field.Value().size() << ":"
            << field.Value();
    }
    return out.str();
}

std::string describe(const tiny::Frame& frame) {
    std::ostringstream out;
    out << frame.getFrameTypeName() << " " << frame.length() << " " << +frame.getFlags() << " "
        << frame.getStreamId() << " " << frame.tiny::Frame::hasReserved() << " ";
    switch (frame.getType()) {
        case tiny::Frame::TYPE_DATA_FRAME: putAs<tiny::DataFrame>(out, frame); break;
        case tiny::Frame::TYPE_HEADERS_FRAME: putAs<tiny::HeadersFrame>(out, frame); break;
        case tiny::Frame::TYPE_PRIORITY_FRAME: putAs<tiny::PriorityFrame>(out, frame); break;
        case tiny::Frame::TYPE_RST_STREAM_FRAME: putAs<tiny::RSTStreamFrame>(out, frame); break;
        case tiny::Frame::TYPE_SETTINGS_FRAME: putAs<tiny::SettingsFrame>(out, frame); break;
        case tiny::Frame::TYPE_PUSH_PROMISE_FRAME: putAs<tiny::PushPromisFrame>(out, frame); break;
        case tiny::Frame::TYPE_PING_FRAME: putAs<tiny::PingFrame>(out, frame); break;
        case tiny::Frame::TYPE_GOAWAY_FRAME: putAs<tiny::GoawayFrame>(out, frame); break;
        case tiny::Frame::TYPE_WINDOW_UPDATE_FRAME:
            putAs<tiny::WindowUpdateFrame>(out, frame);
            break;
        case tiny::Frame::TYPE_CONTINUATION_FRAME:
            putAs<tiny::ContinuationFrame>(out, frame);
            break;
    }
    return out.str();
}

}  // namespace h2fuzz
