// A byte stream cut at any points into the reassembler. What comes out is compared with frames
// that are found in the whole stream and decoded one by one, as the call that completes them
// has to: all header blocks of one call against one new table, and a PUSH_PROMISE with the four
// bytes behind it as far as they had arrived.
#include "Http2Client/frame.h"

#include <deque>

#include "fuzz_support.h"

namespace {

const h2fuzz::QuietCout quiet;

constexpr size_t kFrameHeaderLength = 9;
constexpr size_t kReadableBehind = 4;

class Oracle {
public:
    explicit Oracle(std::string_view stream) : m_stream(stream) {}

    // The stream up to `arrived` bytes is known now. Queues what this completes.
    tiny::FrameCtx::CONTEXT_STATE advance(size_t arrived, std::deque<std::string>& queue) {
        hpack::Table table;
        while (true) {
            if (!m_header) {
                if (arrived - m_used < kFrameHeaderLength) break;
                m_header = tiny::Frame::decodeBaseFrame(m_stream.data() + m_used);
                if (m_header->m_type > tiny::Frame::TYPE_LAST_TYPE) {
                    m_header.reset();
                    return tiny::FrameCtx::CTX_FETAL_ERROR;
                }
                m_used += kFrameHeaderLength;
            }
            if (m_header->m_length > arrived - m_used) break;
            queue.push_back(decodeOne(arrived, table));
        }
        return queue.empty() ? tiny::FrameCtx::CTX_MORE_DATA : tiny::FrameCtx::CTX_DONE;
    }

    size_t used() const { return m_used; }

private:
    std::string decodeOne(size_t arrived, hpack::Table& table) {
        const std::unique_ptr<tiny::Frame> frame(tiny::Frame::createFrame(m_header));
        const size_t end = m_used + m_header->m_length;
        std::string payload(m_stream.substr(m_used, m_header->m_length));
        payload += m_stream.substr(end, std::min(arrived - end, kReadableBehind));
        payload.resize(m_header->m_length + kReadableBehind);
        const h2fuzz::ExactBytes exact(payload);
        frame->decodeFramePayload(exact.data(), static_cast<int>(m_header->m_length), table);
        m_used = end;
        m_header.reset();
        return h2fuzz::describe(*frame);
    }

    std::string_view m_stream;
    size_t m_used = 0;
    std::shared_ptr<tiny::BaseFrame> m_header;  // read, its payload awaited
};

void drain(tiny::FrameCtx& context, std::deque<std::string>& expected) {
    while (context.hasFrame()) {
        h2fuzz::require(!expected.empty(), "no frame comes out that is not in the stream");
        h2fuzz::require(h2fuzz::describe(*context.getFrame()) == expected.front(),
                        "frames come out in order, each decoded exactly");
        expected.pop_front();
    }
    h2fuzz::require(expected.empty(), "every complete frame comes out");
    h2fuzz::require(context.getFrame() == nullptr, "an empty queue gives nothing");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    h2fuzz::Input input(data, size);
    const std::string_view cuts = input.bytes(input.byte());
    const std::string_view stream = input.rest();

    tiny::FrameCtx context;
    Oracle oracle(stream);
    std::deque<std::string> expected;
    const hpack::Table table;
    size_t arrived = 0;
    size_t cut = 0;
    while (arrived < stream.size()) {
        const uint8_t control = cut < cuts.size() ? static_cast<uint8_t>(cuts[cut++]) : 0xFF;
        size_t count = control & 0x3F;
        if ((control & 0x40) != 0) count *= 64;
        if (cut >= cuts.size()) count = stream.size();
        count = std::min(count, stream.size() - arrived);
        const h2fuzz::ExactBytes chunk(stream.substr(arrived, count));
        const auto state = context.sendPacket(chunk.data(), chunk.size(), table, true);
        arrived += count;
        h2fuzz::require(state == oracle.advance(arrived, expected),
                        "the state tells what the stream holds");
        h2fuzz::require(
            context.m_stackedData == stream.substr(oracle.used(), arrived - oracle.used()),
            "what is not consumed is kept, and nothing else");
        if ((control & 0x80) != 0) drain(context, expected);
    }
    drain(context, expected);
    return 0;
}
