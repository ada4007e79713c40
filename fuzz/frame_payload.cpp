// Any payload, flags and lengths into the decoder of each frame type.
#include "Http2Client/frame.h"

#include "fuzz_support.h"
#include "tests/support/guarded.h"

namespace {

const h2fuzz::QuietCout quiet;

constexpr size_t kReadableBehind = 4;  // what a PUSH_PROMISE decoder may read past its payload
constexpr uint32_t kFrameHeaderLength = 9;

std::shared_ptr<tiny::BaseFrame> readHeader(h2fuzz::Input& input, uint32_t payloadLength) {
    auto header = std::make_shared<tiny::BaseFrame>();
    header->m_type = input.byte() % (tiny::Frame::TYPE_LAST_TYPE + 1);
    header->m_flags = input.byte();
    header->m_streamId = input.dword() & 0x7FFFFFFF;
    header->m_reserved = input.flag();
    header->m_length = input.flag() ? payloadLength : input.dword() & 0xFFFFFF;
    return header;
}

void checkEncoded(tiny::Frame& frame) {
    hpack::Table table;
    const std::shared_ptr<Buffer> bytes = tiny::Frame::serializeFrame(&frame, &table, false);
    h2fuzz::require(bytes->Length() >= kFrameHeaderLength, "a frame has a header");
    const auto header = tiny::Frame::decodeBaseFrame(bytes->Address(0));
    h2fuzz::require(header->m_length == ((bytes->Length() - kFrameHeaderLength) & 0xFFFFFF),
                    "a frame's header tells its payload's length");
    h2fuzz::require(header->m_type == frame.getType(), "a frame keeps its type");
    h2fuzz::require(header->m_flags == frame.getFlags(), "a frame keeps its flags");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    h2fuzz::Input input(data, size);
    const uint8_t control = input.byte();
    const auto tail = std::string(input.bytes(kReadableBehind)).append(kReadableBehind, '\0');
    h2fuzz::Input rest = input;
    rest.bytes(10);
    const std::string_view payload = rest.rest();
    const auto header = readHeader(input, static_cast<uint32_t>(payload.size()));

    const std::unique_ptr<tiny::Frame> frame(tiny::Frame::createFrame(header));
    h2fuzz::require(frame != nullptr, "every known type has a frame");
    const bool readsBehind = frame->getType() == tiny::Frame::TYPE_PUSH_PROMISE_FRAME;
    const h2test::GuardedBytes bytes(
        payload, std::string_view(tail).substr(0, readsBehind ? kReadableBehind : 0));

    hpack::Table table;
    int length = static_cast<int>(bytes.size());
    if ((control & 3) == 3) length = -length;
    const std::string before = h2fuzz::describe(*frame);
    const bool decoded = frame->decodeFramePayload(bytes.data(), length, table);
    if (!decoded && frame->getType() != tiny::Frame::TYPE_HEADERS_FRAME) {
        h2fuzz::require(h2fuzz::describe(*frame) == before, "a failed decoder changes nothing");
    }
    if ((control & 4) != 0) frame->decodeFramePayload(bytes.data(), length, table);
    checkEncoded(*frame);
    frame->updateLength();
    checkEncoded(*frame);
    return 0;
}
