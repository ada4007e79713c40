#include "frame.h"

#include <algorithm>
#include <iostream>
#include <utility>

namespace tiny {

namespace {

constexpr int kFrameHeaderLength = 9;
constexpr uint32_t kMaxPendingLength = 0x1000000;
constexpr uint32_t kNoLength = 0xFFFFFFFF;
constexpr size_t kMustReadFrames = 4;

// How far a PUSH_PROMISE decoder reads past its payload.
constexpr size_t kReadableTail = 4;
// A reassembly buffer above this is given back when it is empty.
constexpr size_t kKeptCapacity = size_t{64} * 1024;

constexpr uint32_t kStreamIdMask = 0x7FFFFFFF;
constexpr uint32_t kTopByteOf31Bits = 0x7F000000;
constexpr uint32_t kMisplacedFlag = 0x80;
constexpr uint32_t kTopBit = 0x80000000;

constexpr int kWordLength = 4;
constexpr int kSettingsEntryLength = 6;

// The protocol's initial values (RFC 9113, 6.5.2), which need not be sent.
constexpr uint32_t kInitialHeaderTableSize = 4096;
constexpr uint32_t kUnlimited = 0xFFFFFFFF;
constexpr uint32_t kInitialWindowSize = 65535;
constexpr uint32_t kMinMaxFrameSize = 16384;
constexpr uint32_t kMaxMaxFrameSize = 16777215;

// A payload as the decoders read it: bytes that are not there are zero.
class Payload {
public:
    Payload(const char* data, int length) : m_data(data), m_length(length) {}

    uint32_t unsignedByte(int at) const { return static_cast<uint8_t>(byte(at)); }
    uint64_t signedByte(int at) const {
        return static_cast<uint64_t>(int64_t{static_cast<signed char>(byte(at))});
    }
    bool topBit(int at) const { return (unsignedByte(at) & 0x80) != 0; }
    // `bytes` bytes from `at` on, each with its sign.
    uint64_t assemble(int at, int bytes) const {
        uint64_t value = 0;
        for (int i = 0; i < bytes; ++i) value |= signedByte(at + i) << (8 * (bytes - 1 - i));
        return value;
    }
    uint32_t word(int at) const { return static_cast<uint32_t>(assemble(at, kWordLength)); }
    // Four bytes of which the flag's bit, but no other, is dropped from the first.
    uint32_t wordBelowFlag(int at) const {
        const auto top = static_cast<uint32_t>(signedByte(at) << 24);
        return (top & kTopByteOf31Bits) | static_cast<uint32_t>(assemble(at + 1, kWordLength - 1));
    }
    uint32_t unsignedWord(int at) const {
        return unsignedByte(at) << 24 | unsignedByte(at + 1) << 16 | unsignedByte(at + 2) << 8 |
               unsignedByte(at + 3);
    }

private:
    char byte(int at) const { return at < m_length ? m_data[at] : '\0'; }

    const char* m_data;
    int m_length;
};

// Replaces `target` by `length` bytes from offset `at` on; a length below zero counts as zero.
void copyInto(Buffer& target, const char* data, int at, int length) {
    target.Clear();
    if (length > 0) target.Append(data + at, static_cast<unsigned int>(length));
}

// A 31-bit value and the flag that shares its word.
uint32_t wordWithFlag(uint32_t value, bool flag) {
    return (value & kStreamIdMask) | (flag ? kMisplacedFlag : 0);
}

// The identifiers and values that have to be sent: those that differ from the protocol's.
std::vector<std::pair<uint32_t, uint32_t>> entriesOf(const Settings& settings) {
    std::vector<std::pair<uint32_t, uint32_t>> entries;
    const auto add = [&entries](bool differs, uint32_t identifier, uint32_t value) {
        if (differs) entries.emplace_back(identifier, value);
    };
    const uint32_t tableSize = settings.getHeaderTableSize();
    const uint32_t streams = settings.getMaxConcurrentStream();
    const uint32_t windowSize = settings.getInitialWindowSize();
    const uint32_t frameSize = settings.getMaxFrameSize();
    const uint32_t listSize = settings.getMaxHeaderListSize();
    add(tableSize != kInitialHeaderTableSize, SettingsFrame::SETTINGS_HEADER_TABLE_SIZE, tableSize);
    add(!settings.enablePush(), SettingsFrame::SETTINGS_ENABLE_PUSH, 0);
    add(streams < kUnlimited, SettingsFrame::SETTINGS_MAX_CONCURRENT_STREAMS, streams);
    add(windowSize != kInitialWindowSize, SettingsFrame::SETTINGS_INITIAL_WINDOW_SIZE, windowSize);
    add(frameSize != kMinMaxFrameSize, SettingsFrame::SETTINGS_MAX_FRAME_SIZE, frameSize);
    add(listSize < kUnlimited, SettingsFrame::SETTINGS_MAX_HEADER_LIST_SIZE, listSize);
    return entries;
}

}  // namespace

Frame::~Frame() = default;

std::string Frame::getFrameTypeName() const {
    static const char* const names[] = {"DATA",          "HEADERS",      "PRIORITY", "RST_STREAM",
                                        "SETTINGS",      "PUSH_PROMISE", "PING",     "GOAWAY",
                                        "WINDOW_UPDATE", "CONTINUATION"};
    return m_type <= TYPE_LAST_TYPE ? names[m_type] : "UNKNOWN";
}

Buffer* Frame::encodeFrame(hpack::Table* table) {
    Buffer* frame = encodeFramePayload(table);
    const unsigned int length = frame->Length();
    frame->UpdateBufferSize(length + kFrameHeaderLength);
    frame->Copy(*frame, kFrameHeaderLength);  // makes room for the header
    frame->SetValue(length, 3, 0);
    frame->SetValue(m_type, 1, 3);
    frame->SetValue(m_flags, 1, 4);
    frame->SetValue(wordWithFlag(m_streamId, m_reserved), kWordLength, 5);
    return frame;
}

std::shared_ptr<BaseFrame> Frame::decodeBaseFrame(const char* p) {
    auto header = std::make_shared<BaseFrame>();
    const Payload bytes(p, kFrameHeaderLength);
    header->m_length = bytes.unsignedWord(0) >> 8;
    header->m_type = static_cast<uint8_t>(bytes.unsignedByte(3));
    header->m_flags = static_cast<uint8_t>(bytes.unsignedByte(4));
    header->m_reserved = bytes.topBit(5);
    header->m_streamId = bytes.unsignedWord(5) & kStreamIdMask;
    return header;
}

Frame* Frame::createFrame(std::shared_ptr<BaseFrame> header) {
    if (!header) return nullptr;
    Frame* frame = nullptr;
    switch (header->m_type) {
        case TYPE_DATA_FRAME: frame = new DataFrame; break;
        case TYPE_HEADERS_FRAME: frame = new HeadersFrame; break;
        case TYPE_PRIORITY_FRAME: frame = new PriorityFrame; break;
        case TYPE_RST_STREAM_FRAME: frame = new RSTStreamFrame; break;
        case TYPE_SETTINGS_FRAME: frame = new SettingsFrame; break;
        case TYPE_PUSH_PROMISE_FRAME: frame = new PushPromisFrame; break;
        case TYPE_PING_FRAME: frame = new PingFrame; break;
        case TYPE_GOAWAY_FRAME: frame = new GoawayFrame; break;
        case TYPE_WINDOW_UPDATE_FRAME: frame = new WindowUpdateFrame; break;
        case TYPE_CONTINUATION_FRAME: frame = new ContinuationFrame; break;
        default: return nullptr;
    }
    frame->m_type = static_cast<FRAME_TYPE>(header->m_type);
    frame->m_flags = header->m_flags;
    frame->m_streamId = header->m_streamId;
    frame->m_reserved = header->m_reserved;
    frame->m_length = header->m_length;
    return frame;
}

std::shared_ptr<Buffer> Frame::serializeFrame(Frame* frame, hpack::Table* table, bool print) {
    std::shared_ptr<Buffer> bytes(frame->encodeFrame(table));
    if (print) bytes->Print();
    return bytes;
}

// SETTINGS (RFC 9113, 6.5)

SettingsFrame::SettingsFrame(const Settings& settings) : m_settings(settings) {
    SettingsFrame::updateLength();
}

void SettingsFrame::updateLength() {
    m_length = hasAckFlag()
                   ? 0
                   : static_cast<uint32_t>(entriesOf(m_settings).size() * kSettingsEntryLength);
}

Buffer* SettingsFrame::encodeFramePayload(hpack::Table* /*table*/) {
    auto* payload = new Buffer(m_length);
    if (hasAckFlag() || m_length == 0) return payload;
    for (const auto& [identifier, value] : entriesOf(m_settings)) {
        payload->SetValue(identifier, 2, payload->Length());
        payload->SetValue(value, kWordLength, payload->Length());
    }
    return payload;
}

bool SettingsFrame::decodeFramePayload(const char* data, int length, hpack::Table& /*table*/) {
    if (length % kSettingsEntryLength != 0) return false;
    const Payload payload(data, length);
    Settings settings;
    for (int at = 0; at < length; at += kSettingsEntryLength) {
        const uint32_t value = payload.word(at + 2);
        switch (payload.assemble(at, 2)) {
            case SETTINGS_HEADER_TABLE_SIZE: settings.setHeaderTableSize(value); break;
            case SETTINGS_ENABLE_PUSH: settings.setEnablePush(value != 0); break;
            case SETTINGS_MAX_CONCURRENT_STREAMS: settings.setMaxConcurrentStream(value); break;
            case SETTINGS_INITIAL_WINDOW_SIZE: settings.setInitialWindowSize(value); break;
            case SETTINGS_MAX_FRAME_SIZE:
                settings.setMaxFrameSize(std::clamp(value, kMinMaxFrameSize, kMaxMaxFrameSize));
                break;
            case SETTINGS_MAX_HEADER_LIST_SIZE: settings.setMaxHeaderListSize(value); break;
            default: break;  // unknown settings are ignored (RFC 9113, 6.5.2)
        }
    }
    m_settings = settings;
    updateLength();
    return true;
}

// PING (RFC 9113, 6.7)

Buffer* PingFrame::encodeFramePayload(hpack::Table* /*table*/) {
    auto* payload = new Buffer;
    payload->SetValue(m_opaqueData, kLength, 0);
    return payload;
}

bool PingFrame::decodeFramePayload(const char* data, int length, hpack::Table& /*table*/) {
    m_opaqueData = Payload(data, length).assemble(0, kLength);
    updateLength();
    return true;
}

// GOAWAY (RFC 9113, 6.8)

GoawayFrame::GoawayFrame(uint32_t lastStreamId, uint32_t errorCode, Buffer debugData)
    : m_lastStreamId(lastStreamId), m_errorCode(errorCode), m_additionalDebugData(debugData) {
    GoawayFrame::updateLength();
}

Buffer* GoawayFrame::encodeFramePayload(hpack::Table* /*table*/) {
    auto* payload = new Buffer(m_additionalDebugData.Length() + kFixedLength);
    payload->SetValue(wordWithFlag(m_lastStreamId, m_reserved), kWordLength, 0);
    payload->SetValue(m_errorCode, kWordLength, kWordLength);
    payload->Append(m_additionalDebugData);
    return payload;
}

bool GoawayFrame::decodeFramePayload(const char* data, int length, hpack::Table& /*table*/) {
    const Payload payload(data, length);
    m_reserved = payload.topBit(0);
    m_lastStreamId = payload.wordBelowFlag(0);
    m_errorCode = payload.wordBelowFlag(kWordLength);
    copyInto(m_additionalDebugData, data, kFixedLength, length - kFixedLength);
    updateLength();
    return true;
}

// WINDOW_UPDATE (RFC 9113, 6.9)

Buffer* WindowUpdateFrame::encodeFramePayload(hpack::Table* /*table*/) {
    auto* payload = new Buffer;
    const uint32_t increment = m_windowSizeIncrement & kStreamIdMask;
    payload->SetValue(increment | (m_reserved ? kTopBit : 0), kWordLength, 0);
    return payload;
}

bool WindowUpdateFrame::decodeFramePayload(const char* data, int length, hpack::Table& /*table*/) {
    const Payload payload(data, length);
    m_reserved = payload.topBit(0);
    m_windowSizeIncrement = payload.unsignedWord(0) & kStreamIdMask;
    updateLength();
    return true;
}

// RST_STREAM (RFC 9113, 6.4)

Buffer* RSTStreamFrame::encodeFramePayload(hpack::Table* /*table*/) {
    auto* payload = new Buffer(32U);
    payload->SetValue(m_errorCode, kWordLength, 0);
    updateLength();
    return payload;
}

bool RSTStreamFrame::decodeFramePayload(const char* data, int length, hpack::Table& /*table*/) {
    if (length != kLength) return false;
    m_errorCode = Payload(data, length).word(0);
    return true;
}

// PRIORITY (RFC 7540, 6.3)

Buffer* PriorityFrame::encodeFramePayload(hpack::Table* /*table*/) {
    auto* payload = new Buffer(40U);
    payload->SetValue(wordWithFlag(m_streamDependency, m_exclusive), kWordLength, 0);
    payload->Set(static_cast<char>(m_weight), kWordLength);
    return payload;
}

bool PriorityFrame::decodeFramePayload(const char* data, int length, hpack::Table& /*table*/) {
    if (length != kLength) return false;
    const Payload payload(data, length);
    m_exclusive = payload.topBit(0);
    m_streamDependency = payload.wordBelowFlag(0);
    m_weight = static_cast<uint8_t>(payload.unsignedByte(kWordLength));
    updateLength();
    return true;
}

// Padding (RFC 9113, 6.1)

unsigned int PaddedFrame::writePadLength(Buffer& payload) const {
    if (!hasPadFlag()) return 0;
    payload.Set(static_cast<char>(m_padLength), 0);
    return 1;
}

int PaddedFrame::readPadLength(const char* data, int length) {
    if (!hasPadFlag()) return 0;
    m_padLength = static_cast<uint8_t>(Payload(data, length).unsignedByte(0));
    return 1;
}

// HEADERS (RFC 9113, 6.2)

HeadersFrame::HeadersFrame(const HeaderList& list, hpack::Table& table, uint8_t padLength)
    : PaddedFrame(padLength), m_headerList(list) {
    updateHeaderBlockFragment(table);
}

HeadersFrame::HeadersFrame(const HeaderList& list, hpack::Table& table, bool exclusive,
                           uint32_t streamDependency, uint8_t weight, uint8_t padLength)
    : PaddedFrame(padLength),
      m_exclusive(exclusive),
      m_streamDependency(streamDependency),
      m_weight(weight),
      m_headerList(list) {
    setFlags(FLAG_PRIORITY);
    updateHeaderBlockFragment(table);
}

void HeadersFrame::updateLength() {
    m_length = m_header.Length() + paddingLength() + (hasPriorityFlag() ? kPriorityLength : 0);
}

void HeadersFrame::updateHeaderBlockFragment(hpack::Table& table) {
    table.Encode(m_header, m_headerList, false);
    HeadersFrame::updateLength();
}

void HeadersFrame::appendPlainTextHead() {
    std::string head;
    for (const hpack::HeaderFieldRepresentation& header : m_headerList) {
        const std::string& name = header.constField().Name();
        const std::string& value = header.constField().Value();
        if (name == ":method") {
            head.append(value).append(" ");
        } else if (name == ":path") {
            head.append(value).append("\r\n");
        } else if (name != ":scheme") {
            head.append(name).append(": ").append(value).append("\r\n");
        }
    }
    head += "\r\n";
    m_header.Append(head.data(), static_cast<unsigned int>(head.size()));
    updateLength();
}

Buffer* HeadersFrame::encodeFramePayload(hpack::Table* table) {
    if (table != nullptr) {
        updateHeaderBlockFragment(*table);
    } else {
        appendPlainTextHead();
    }
    auto* payload = new Buffer(m_length);
    const unsigned int offset = writePadLength(*payload);
    if (hasPriorityFlag()) {
        payload->SetValue(wordWithFlag(m_streamDependency, m_exclusive), kWordLength, offset);
        payload->Set(static_cast<char>(m_weight), offset + kWordLength);
    }
    payload->Append(m_header);
    return payload;
}

bool HeadersFrame::decodeFramePayload(const char* data, int length, hpack::Table& table) {
    const Payload payload(data, length);
    int offset = readPadLength(data, length);
    if (hasPriorityFlag()) {
        m_exclusive = payload.topBit(offset);
        m_streamDependency = payload.wordBelowFlag(offset);
        m_weight = static_cast<uint8_t>(payload.unsignedByte(offset + kWordLength));
        offset += kPriorityLength;
    }
    copyInto(m_header, data, offset, length - m_padLength - offset);
    if (!table.Decode(m_headerList, m_header, true)) return false;
    updateLength();
    return true;
}

// CONTINUATION (RFC 9113, 6.10)

ContinuationFrame::ContinuationFrame(Buffer& fragment) : m_headerBlockFragment(fragment) {
    ContinuationFrame::updateLength();
}

Buffer* ContinuationFrame::encodeFramePayload(hpack::Table* /*table*/) {
    return new Buffer(m_headerBlockFragment);
}

bool ContinuationFrame::decodeFramePayload(const char* data, int length, hpack::Table& /*table*/) {
    copyInto(m_headerBlockFragment, data, 0, length);
    updateLength();
    return true;
}

// PUSH_PROMISE (RFC 9113, 6.6)

PushPromisFrame::PushPromisFrame(uint32_t promisedStreamId, Buffer fragment, uint8_t padLength)
    : PaddedFrame(padLength),
      m_promisedStreamId(promisedStreamId),
      m_headerBlockFragment(fragment) {
    PushPromisFrame::updateLength();
}

void PushPromisFrame::updateLength() {
    m_length = m_headerBlockFragment.Length() + kStreamIdLength + paddingLength();
}

Buffer* PushPromisFrame::encodeFramePayload(hpack::Table* /*table*/) {
    auto* payload = new Buffer(m_padLength + m_headerBlockFragment.Length());
    const unsigned int offset = writePadLength(*payload);
    payload->SetValue(wordWithFlag(m_promisedStreamId, m_reserved), kWordLength, offset);
    payload->Append(m_headerBlockFragment);
    return payload;
}

bool PushPromisFrame::decodeFramePayload(const char* data, int length, hpack::Table& /*table*/) {
    const Payload payload(data, length);
    const int offset = readPadLength(data, length);
    m_reserved = payload.topBit(offset);
    m_promisedStreamId = payload.wordBelowFlag(offset);
    copyInto(m_headerBlockFragment, data, offset + kStreamIdLength, length - m_padLength - offset);
    updateLength();
    return true;
}

// DATA (RFC 9113, 6.1)

DataFrame::DataFrame(Buffer data, uint8_t padLength) : PaddedFrame(padLength), m_data(data) {
    DataFrame::updateLength();
}

Buffer* DataFrame::encodeFramePayload(hpack::Table* /*table*/) {
    auto* payload = new Buffer(m_length);
    writePadLength(*payload);
    payload->Append(m_data);
    return payload;
}

bool DataFrame::decodeFramePayload(const char* data, int length, hpack::Table& /*table*/) {
    const int offset = readPadLength(data, length);
    copyInto(m_data, data, offset, length - m_padLength - offset);
    if (m_length != kNoLength) updateLength();
    return true;
}

void DataFrame::setData(const char* data, unsigned int length) {
    m_data.Clear();
    m_data.Append(data, length);
    updateLength();
}

// Reassembly

FrameCtx::~FrameCtx() {
    m_decodedFrameList.clear();
    delete m_frame;
}

// What the call has used is erased only once, at its end: frame by frame, a chunk of thousands of
// tiny frames would be moved thousands of times. The zeros behind the received bytes are what a
// PUSH_PROMISE decoder finds when it reads past the last payload.
FrameCtx::CONTEXT_STATE FrameCtx::sendPacket(const char* data, size_t length, hpack::Table table,
                                             bool /*flag*/) {
    if (data == nullptr) return queueState();
    if (m_frame != nullptr && m_frame->length() > kMaxPendingLength) return CTX_FETAL_ERROR;
    m_stackedData.append(data, length).append(kReadableTail, '\0');
    size_t used = 0;
    const CONTEXT_STATE state = cutFrames(table, used);
    m_stackedData.resize(m_stackedData.size() - kReadableTail);
    m_stackedData.erase(0, used);
    if (m_stackedData.empty() && m_stackedData.capacity() > kKeptCapacity) {
        std::string().swap(m_stackedData);
    }
    return state;
}

// Queues the frames that are whole. `used` counts the stacked bytes they took.
FrameCtx::CONTEXT_STATE FrameCtx::cutFrames(hpack::Table& table, size_t& used) {
    const size_t end = m_stackedData.size() - kReadableTail;
    if (m_frame != nullptr) {
        if (m_baseFrame->m_length > end) return queueState();
        queuePendingFrame(table, used);
    }
    while (m_frame == nullptr) {
        if (end - used < kFrameHeaderLength) return queueState();
        const std::shared_ptr<BaseFrame> header = Frame::decodeBaseFrame(&m_stackedData[used]);
        if (header->m_type > Frame::TYPE_LAST_TYPE) {
            // The header stays in front, so that every later call fails the same way.
            std::cout << "fetal error" << std::endl;
            return CTX_FETAL_ERROR;
        }
        used += kFrameHeaderLength;
        m_frame = Frame::createFrame(header);
        m_baseFrame = header;
        std::cout << m_frame->getFrameTypeName() << std::endl;
        if (m_baseFrame->m_length > end - used) return queueState();
        queuePendingFrame(table, used);
    }
    // Every round of the loop returns or leaves no frame pending, so this is not reached.
    // GCOVR_EXCL_START
    std::cout << "******* ########### @@@@@@@@@@@ total stacked size = " << end - used << std::endl;
    return m_decodedFrameList.size() > kMustReadFrames ? CTX_MUST_READ : CTX_DONE;
    // GCOVR_EXCL_STOP
}

// The decoder's result does not matter here: the engine looks at what the frame holds.
void FrameCtx::queuePendingFrame(hpack::Table& table, size_t& used) {
    const uint32_t length = m_baseFrame->m_length;
    m_frame->decodeFramePayload(&m_stackedData[used], static_cast<int>(length), table);
    m_decodedFrameList.emplace_back(m_frame);
    used += length;
    m_frame = nullptr;
    m_baseFrame.reset();
}

std::shared_ptr<Frame> FrameCtx::getFrame() {
    if (m_decodedFrameList.empty()) return nullptr;
    std::shared_ptr<Frame> frame = m_decodedFrameList.front();
    m_decodedFrameList.pop_front();
    return frame;
}

}  // namespace tiny
