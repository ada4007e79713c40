#include "frame.h"

#include <algorithm>
#include <iostream>
#include <string_view>
#include <utility>

namespace tiny {

namespace {

constexpr size_t kFrameHeaderLength = 9;
constexpr uint32_t kMaxPendingLength = 0x1000000;
constexpr uint32_t kNoLength = 0xFFFFFFFF;
constexpr size_t kMustReadFrames = 4;

// How far a PUSH_PROMISE decoder reads past its payload.
constexpr size_t kReadableTail = 4;
// A reassembly buffer above this is given back when it is empty.
constexpr size_t kKeptCapacity = size_t{64} * 1024;

constexpr uint32_t kStreamIdMask = 0x7FFFFFFF;
constexpr uint32_t kTopByteOf31Bits = 0x7F000000;
constexpr uint32_t kTopByteOf32Bits = 0xFF000000;
constexpr uint32_t kMisplacedFlag = 0x80;
constexpr uint32_t kTopBit = 0x80000000;

constexpr int kWordLength = 4;
constexpr int kPadLengthLength = 1;
constexpr int kPriorityLength = 5;
constexpr int kPingLength = 8;
constexpr int kGoawayFixedLength = 8;
constexpr int kSettingsEntryLength = 6;

// The protocol's initial values (RFC 9113, 6.5.2), which need not be sent.
constexpr uint32_t kInitialHeaderTableSize = 4096;
constexpr uint32_t kUnlimited = 0xFFFFFFFF;
constexpr uint32_t kInitialWindowSize = 65535;
constexpr uint32_t kMinMaxFrameSize = 16384;
constexpr uint32_t kMaxMaxFrameSize = 16777215;

uint32_t unsignedByte(const char* p) { return static_cast<uint8_t>(*p); }

uint32_t signedByte(const char* p) {
    return static_cast<uint32_t>(int32_t{static_cast<signed char>(*p)});
}

bool topBit(const char* p) { return (unsignedByte(p) & 0x80) != 0; }

// Four bytes, each with its sign; `topByteMask` applies to the first one only.
uint32_t assembleWord(const char* p, uint32_t topByteMask) {
    return ((signedByte(p) << 24) & topByteMask) | (signedByte(p + 1) << 16) |
           (signedByte(p + 2) << 8) | signedByte(p + 3);
}

// Writes the low `bytes` bytes of `value`, most significant first.
void putInteger(char* p, uint64_t value, int bytes) {
    for (int i = bytes; i > 0; --i) *p++ = static_cast<char>(value >> (8 * (i - 1)));
}

std::string_view bytesOf(const Buffer& buffer) { return {buffer.Address(0), buffer.Length()}; }

// A 31-bit value and the flag that shares its word.
uint32_t wordWithFlag(uint32_t value, bool flag) {
    return (value & kStreamIdMask) | (flag ? kMisplacedFlag : 0);
}

// How a PADDED payload begins.
struct Padding {
    uint8_t padLength = 0;
    int offset = 0;  // of what follows the pad length
};

// Reads the pad length, if there is one, and tells whether it and `fixedLength` bytes fit.
bool readPadding(const Frame& frame, const char* data, int length, int fixedLength, Padding& out) {
    if (frame.hasFlags(Frame::FLAG_PADDED)) {
        if (length < kPadLengthLength) return false;
        out.padLength = static_cast<uint8_t>(unsignedByte(data));
        out.offset = kPadLengthLength;
    }
    return length >= out.offset + fixedLength + out.padLength;
}

void copyInto(Buffer& target, const char* data, int length) {
    target.Clear();
    target.Append(data, static_cast<unsigned int>(length));
}

// Writes what stands before the variable part of a PADDED frame; returns where the rest begins.
unsigned int writePadLength(Buffer& payload, const Frame& frame, uint8_t padLength) {
    if (!frame.hasFlags(Frame::FLAG_PADDED)) return 0;
    payload.Set(static_cast<char>(padLength), 0);
    return kPadLengthLength;
}

uint32_t paddingLength(const Frame& frame, uint8_t padLength) {
    return frame.hasFlags(Frame::FLAG_PADDED) ? uint32_t{padLength} + kPadLengthLength : 0;
}

void markPadded(Frame& frame, uint8_t padLength) {
    if (padLength != 0) {
        frame.setFlags(Frame::FLAG_PADDED);
    } else {
        frame.clearFlags(Frame::FLAG_PADDED);
    }
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
    const std::unique_ptr<Buffer> payload(encodeFramePayload(table));
    auto* frame = new Buffer(static_cast<unsigned int>(payload->Length() + kFrameHeaderLength));
    frame->SetValue(payload->Length(), 3, 0);
    frame->SetValue(m_type, 1, 3);
    frame->SetValue(m_flags, 1, 4);
    frame->SetValue(wordWithFlag(m_streamId, m_reserved), kWordLength, 5);
    frame->Append(*payload);
    return frame;
}

void Frame::appendTo(std::string& bytes, hpack::Table* table) {
    const size_t start = bytes.size();
    bytes.append(kFrameHeaderLength, '\0');
    appendPayload(bytes, table);
    char* header = &bytes[start];
    putInteger(header, bytes.size() - start - kFrameHeaderLength, 3);
    putInteger(header + 3, m_type, 1);
    putInteger(header + 4, m_flags, 1);
    putInteger(header + 5, wordWithFlag(m_streamId, m_reserved), kWordLength);
}

void Frame::appendPayload(std::string& bytes, hpack::Table* table) {
    const std::unique_ptr<Buffer> payload(encodeFramePayload(table));
    bytes.append(bytesOf(*payload));
}

std::shared_ptr<BaseFrame> Frame::decodeBaseFrame(const char* p) {
    auto header = std::make_shared<BaseFrame>();
    header->m_length = unsignedByte(p) << 16 | unsignedByte(p + 1) << 8 | unsignedByte(p + 2);
    header->m_type = static_cast<uint8_t>(unsignedByte(p + 3));
    header->m_flags = static_cast<uint8_t>(unsignedByte(p + 4));
    header->m_reserved = topBit(p + 5);
    header->m_streamId = (unsignedByte(p + 5) & 0x7F) << 24 | unsignedByte(p + 6) << 16 |
                         unsignedByte(p + 7) << 8 | unsignedByte(p + 8);
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

SettingsFrame::SettingsFrame() = default;

SettingsFrame::SettingsFrame(const Settings& settings) : m_settings(settings) {
    SettingsFrame::updateLength();
}

void SettingsFrame::updateLength() {
    m_length = 0;
    if (hasAckFlag()) return;
    const int count = (m_settings.getHeaderTableSize() != kInitialHeaderTableSize ? 1 : 0) +
                      (!m_settings.enablePush() ? 1 : 0) +
                      (m_settings.getMaxConcurrentStream() < kUnlimited ? 1 : 0) +
                      (m_settings.getInitialWindowSize() != kInitialWindowSize ? 1 : 0) +
                      (m_settings.getMaxFrameSize() != kMinMaxFrameSize ? 1 : 0) +
                      (m_settings.getMaxHeaderListSize() < kUnlimited ? 1 : 0);
    m_length = static_cast<uint32_t>(count * kSettingsEntryLength);
}

Buffer* SettingsFrame::encodeFramePayload(hpack::Table* /*table*/) {
    auto* payload = new Buffer(m_length);
    if (hasAckFlag() || m_length == 0) return payload;
    const auto put = [payload](_SETTINGS_PARAMETERS identifier, uint32_t value) {
        const unsigned int offset = payload->Length();
        payload->SetValue(identifier, 2, offset);
        payload->SetValue(value, kWordLength, offset + 2);
    };
    if (m_settings.getHeaderTableSize() != kInitialHeaderTableSize) {
        put(SETTINGS_HEADER_TABLE_SIZE, m_settings.getHeaderTableSize());
    }
    if (!m_settings.enablePush()) put(SETTINGS_ENABLE_PUSH, 0);
    if (m_settings.getMaxConcurrentStream() < kUnlimited) {
        put(SETTINGS_MAX_CONCURRENT_STREAMS, m_settings.getMaxConcurrentStream());
    }
    if (m_settings.getInitialWindowSize() != kInitialWindowSize) {
        put(SETTINGS_INITIAL_WINDOW_SIZE, m_settings.getInitialWindowSize());
    }
    if (m_settings.getMaxFrameSize() != kMinMaxFrameSize) {
        put(SETTINGS_MAX_FRAME_SIZE, m_settings.getMaxFrameSize());
    }
    if (m_settings.getMaxHeaderListSize() < kUnlimited) {
        put(SETTINGS_MAX_HEADER_LIST_SIZE, m_settings.getMaxHeaderListSize());
    }
    return payload;
}

bool SettingsFrame::decodeFramePayload(const char* data, int length, hpack::Table& /*table*/) {
    if (length < 0 || length % kSettingsEntryLength != 0) return false;
    Settings settings;
    for (const char* entry = data; entry != data + length; entry += kSettingsEntryLength) {
        const uint32_t identifier = (signedByte(entry) << 8) | signedByte(entry + 1);
        const uint32_t value = assembleWord(entry + 2, kTopByteOf32Bits);
        switch (identifier) {
            case SETTINGS_HEADER_TABLE_SIZE: settings.setHeaderTableSize(value); break;
            case SETTINGS_ENABLE_PUSH: settings.setEnablePush(value != 0); break;
            case SETTINGS_MAX_CONCURRENT_STREAMS: settings.setMaxConcurrentStream(value); break;
            case SETTINGS_INITIAL_WINDOW_SIZE: settings.setInitialWindowSize(value); break;
            case SETTINGS_MAX_FRAME_SIZE:
                settings.setMaxFrameSize(value < kMinMaxFrameSize   ? kMinMaxFrameSize
                                         : value > kMaxMaxFrameSize ? kMaxMaxFrameSize
                                                                    : value);
                break;
            case SETTINGS_MAX_HEADER_LIST_SIZE: settings.setMaxHeaderListSize(value); break;
            default: break;  // unknown settings are ignored (RFC 9113, 6.5.2)
        }
    }
    m_settings = settings;
    updateLength();
    return true;
}

void SettingsFrame::setSettings(Settings& settings) {
    m_settings = settings;
    updateLength();
}

void SettingsFrame::setAckFlag() {
    setFlags(FLAG_ACK);
    updateLength();
}

void SettingsFrame::clearAckFlag() {
    clearFlags(FLAG_ACK);
    updateLength();
}

// PING (RFC 9113, 6.7)

PingFrame::PingFrame() {
    m_type = TYPE_PING_FRAME;
    m_length = kPingLength;
}

PingFrame::PingFrame(uint64_t opaqueData) : m_opaqueData(opaqueData) {}

void PingFrame::updateLength() { m_length = kPingLength; }

Buffer* PingFrame::encodeFramePayload(hpack::Table* /*table*/) {
    auto* payload = new Buffer(static_cast<unsigned int>(kPingLength));
    payload->SetValue(m_opaqueData, kPingLength, 0);
    return payload;
}

bool PingFrame::decodeFramePayload(const char* data, int length, hpack::Table& /*table*/) {
    if (length < kPingLength) return false;
    m_opaqueData = 0;
    for (int i = 0; i < kPingLength; ++i) {
        const auto byte = static_cast<uint64_t>(int64_t{static_cast<signed char>(data[i])});
        m_opaqueData |= byte << (8 * (kPingLength - 1 - i));
    }
    updateLength();
    return true;
}

// GOAWAY (RFC 9113, 6.8)

GoawayFrame::GoawayFrame() {
    m_type = TYPE_GOAWAY_FRAME;
    m_length = kGoawayFixedLength;
}

GoawayFrame::GoawayFrame(uint32_t lastStreamId, uint32_t errorCode, Buffer debugData)
    : m_lastStreamId(lastStreamId), m_errorCode(errorCode), m_additionalDebugData(debugData) {
    GoawayFrame::updateLength();
}

void GoawayFrame::updateLength() { m_length = m_additionalDebugData.Length() + kGoawayFixedLength; }

Buffer* GoawayFrame::encodeFramePayload(hpack::Table* /*table*/) {
    auto* payload = new Buffer(m_additionalDebugData.Length() + kGoawayFixedLength);
    payload->SetValue(wordWithFlag(m_lastStreamId, m_reserved), kWordLength, 0);
    payload->SetValue(m_errorCode, kWordLength, kWordLength);
    payload->Append(m_additionalDebugData);
    return payload;
}

bool GoawayFrame::decodeFramePayload(const char* data, int length, hpack::Table& /*table*/) {
    if (length < kGoawayFixedLength) return false;
    m_reserved = topBit(data);
    m_lastStreamId = assembleWord(data, kTopByteOf31Bits);
    m_errorCode = assembleWord(data + kWordLength, kTopByteOf31Bits);
    copyInto(m_additionalDebugData, data + kGoawayFixedLength, length - kGoawayFixedLength);
    updateLength();
    return true;
}

void GoawayFrame::setAdditionalDebugData(Buffer& debugData) {
    m_additionalDebugData = debugData;
    updateLength();
}

// WINDOW_UPDATE (RFC 9113, 6.9)

WindowUpdateFrame::WindowUpdateFrame() {
    m_type = TYPE_WINDOW_UPDATE_FRAME;
    m_length = kWordLength;
}

WindowUpdateFrame::WindowUpdateFrame(uint32_t windowSizeIncrement)
    : m_windowSizeIncrement(windowSizeIncrement) {}

void WindowUpdateFrame::updateLength() { m_length = kWordLength; }

uint32_t WindowUpdateFrame::word() const {
    return (m_windowSizeIncrement & kStreamIdMask) | (m_reserved ? kTopBit : 0);
}

Buffer* WindowUpdateFrame::encodeFramePayload(hpack::Table* /*table*/) {
    auto* payload = new Buffer(static_cast<unsigned int>(kWordLength));
    payload->SetValue(word(), kWordLength, 0);
    return payload;
}

void WindowUpdateFrame::appendPayload(std::string& bytes, hpack::Table* /*table*/) {
    const size_t start = bytes.size();
    bytes.append(kWordLength, '\0');
    putInteger(&bytes[start], word(), kWordLength);
}

bool WindowUpdateFrame::decodeFramePayload(const char* data, int length, hpack::Table& /*table*/) {
    if (length < kWordLength) return false;
    m_reserved = topBit(data);
    m_windowSizeIncrement = (unsignedByte(data) & 0x7F) << 24 | unsignedByte(data + 1) << 16 |
                            unsignedByte(data + 2) << 8 | unsignedByte(data + 3);
    updateLength();
    return true;
}

// RST_STREAM (RFC 9113, 6.4)

RSTStreamFrame::RSTStreamFrame() {
    m_type = TYPE_RST_STREAM_FRAME;
    m_length = kWordLength;
}

RSTStreamFrame::RSTStreamFrame(uint32_t errorCode) : m_errorCode(errorCode) {}

void RSTStreamFrame::updateLength() { m_length = kWordLength; }

Buffer* RSTStreamFrame::encodeFramePayload(hpack::Table* /*table*/) {
    auto* payload = new Buffer(32U);
    payload->SetValue(m_errorCode, kWordLength, 0);
    updateLength();
    return payload;
}

bool RSTStreamFrame::decodeFramePayload(const char* data, int length, hpack::Table& /*table*/) {
    if (length != kWordLength) return false;
    m_errorCode = assembleWord(data, kTopByteOf32Bits);
    return true;
}

// PRIORITY (RFC 7540, 6.3)

PriorityFrame::PriorityFrame() {
    m_type = TYPE_PRIORITY_FRAME;
    m_length = kPriorityLength;
}

PriorityFrame::PriorityFrame(bool exclusive, uint32_t streamDependency, uint8_t weight)
    : m_exclusive(exclusive), m_streamDependency(streamDependency), m_weight(weight) {
    m_type = TYPE_PRIORITY_FRAME;
    m_length = kPriorityLength;
}

void PriorityFrame::updateLength() { m_length = kPriorityLength; }

Buffer* PriorityFrame::encodeFramePayload(hpack::Table* /*table*/) {
    auto* payload = new Buffer(40U);
    payload->SetValue(wordWithFlag(m_streamDependency, m_exclusive), kWordLength, 0);
    payload->Set(static_cast<char>(m_weight), kWordLength);
    return payload;
}

bool PriorityFrame::decodeFramePayload(const char* data, int length, hpack::Table& /*table*/) {
    if (length != kPriorityLength) return false;
    m_exclusive = topBit(data);
    m_streamDependency = assembleWord(data, kTopByteOf31Bits);
    m_weight = static_cast<uint8_t>(unsignedByte(data + kWordLength));
    updateLength();
    return true;
}

// HEADERS (RFC 9113, 6.2)

HeadersFrame::HeadersFrame() { m_type = TYPE_HEADERS_FRAME; }

HeadersFrame::HeadersFrame(const HeaderList& list, hpack::Table& table, uint8_t padLength)
    : m_padLength(padLength), m_headerList(list) {
    markPadded(*this, padLength);
    clearFlags(FLAG_PRIORITY);
    updateHeaderBlockFragment(table);
}

HeadersFrame::HeadersFrame(const HeaderList& list, hpack::Table& table, bool exclusive,
                           uint32_t streamDependency, uint8_t weight, uint8_t padLength)
    : m_padLength(padLength),
      m_exclusive(exclusive),
      m_streamDependency(streamDependency),
      m_weight(weight),
      m_headerList(list) {
    markPadded(*this, padLength);
    setFlags(FLAG_PRIORITY);
    updateHeaderBlockFragment(table);
}

void HeadersFrame::updateLength() {
    m_length = m_header.Length() + paddingLength(*this, m_padLength) +
               (hasPriorityFlag() ? kPriorityLength : 0);
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
    const unsigned int offset = writePadLength(*payload, *this, m_padLength);
    if (hasPriorityFlag()) {
        payload->SetValue(wordWithFlag(m_streamDependency, m_exclusive), kWordLength, offset);
        payload->Set(static_cast<char>(m_weight), offset + kWordLength);
    }
    payload->Append(m_header);
    return payload;
}

bool HeadersFrame::decodeFramePayload(const char* data, int length, hpack::Table& table) {
    Padding padding;
    const int fixedLength = hasPriorityFlag() ? kPriorityLength : 0;
    if (!readPadding(*this, data, length, fixedLength, padding)) return false;
    int offset = padding.offset;
    if (hasPadFlag()) m_padLength = padding.padLength;
    if (hasPriorityFlag()) {
        m_exclusive = topBit(data + offset);
        m_streamDependency = assembleWord(data + offset, kTopByteOf31Bits);
        m_weight = static_cast<uint8_t>(unsignedByte(data + offset + kWordLength));
        offset += kPriorityLength;
    }
    copyInto(m_header, data + offset, length - padding.padLength - offset);
    if (!table.Decode(m_headerList, m_header, true)) return false;
    updateLength();
    return true;
}

void HeadersFrame::setHeaderList(HeaderList list, hpack::Table& table) {
    m_headerList = std::move(list);
    updateHeaderBlockFragment(table);
}

void HeadersFrame::setPadFlag() {
    setFlags(FLAG_PADDED);
    updateLength();
}

void HeadersFrame::clearPadFlag() {
    clearFlags(FLAG_PADDED);
    updateLength();
}

void HeadersFrame::setPriorityFlag() {
    setFlags(FLAG_PRIORITY);
    updateLength();
}

void HeadersFrame::clearPriorityFlag() {
    clearFlags(FLAG_PRIORITY);
    updateLength();
}

// CONTINUATION (RFC 9113, 6.10)

ContinuationFrame::ContinuationFrame() { m_type = TYPE_CONTINUATION_FRAME; }

ContinuationFrame::ContinuationFrame(Buffer& fragment) : m_headerBlockFragment(fragment) {
    ContinuationFrame::updateLength();
}

void ContinuationFrame::updateLength() { m_length = m_headerBlockFragment.Length(); }

Buffer* ContinuationFrame::encodeFramePayload(hpack::Table* /*table*/) {
    return new Buffer(m_headerBlockFragment);
}

bool ContinuationFrame::decodeFramePayload(const char* data, int length, hpack::Table& /*table*/) {
    if (length < 0) return false;
    copyInto(m_headerBlockFragment, data, length);
    updateLength();
    return true;
}

void ContinuationFrame::setHeaderBlockFragment(Buffer& fragment) {
    m_headerBlockFragment = fragment;
    updateLength();
}

// PUSH_PROMISE (RFC 9113, 6.6)

PushPromisFrame::PushPromisFrame() {
    m_type = TYPE_PUSH_PROMISE_FRAME;
    m_length = kWordLength;
}

PushPromisFrame::PushPromisFrame(uint32_t promisedStreamId, Buffer fragment, uint8_t padLength)
    : m_padLength(padLength),
      m_promisedStreamId(promisedStreamId),
      m_headerBlockFragment(fragment) {
    markPadded(*this, padLength);
    PushPromisFrame::updateLength();
}

void PushPromisFrame::updateLength() {
    m_length = m_headerBlockFragment.Length() + kWordLength + paddingLength(*this, m_padLength);
}

Buffer* PushPromisFrame::encodeFramePayload(hpack::Table* /*table*/) {
    auto* payload = new Buffer(m_padLength + m_headerBlockFragment.Length());
    const unsigned int offset = writePadLength(*payload, *this, m_padLength);
    payload->SetValue(wordWithFlag(m_promisedStreamId, m_reserved), kWordLength, offset);
    payload->Append(m_headerBlockFragment);
    return payload;
}

bool PushPromisFrame::decodeFramePayload(const char* data, int length, hpack::Table& /*table*/) {
    Padding padding;
    if (!readPadding(*this, data, length, kWordLength, padding)) return false;
    const int offset = padding.offset;
    if (hasPadFlag()) m_padLength = padding.padLength;
    m_reserved = topBit(data + offset);
    m_promisedStreamId = assembleWord(data + offset, kTopByteOf31Bits);
    copyInto(m_headerBlockFragment, data + offset + kWordLength,
             length - padding.padLength - offset);
    updateLength();
    return true;
}

void PushPromisFrame::setHeaderBlockFragment(Buffer& fragment) {
    m_headerBlockFragment = fragment;
    updateLength();
}

void PushPromisFrame::setPadFlag() {
    setFlags(FLAG_PADDED);
    updateLength();
}

void PushPromisFrame::clearPadFlag() {
    clearFlags(FLAG_PADDED);
    updateLength();
}

// DATA (RFC 9113, 6.1)

DataFrame::DataFrame() { m_type = TYPE_DATA_FRAME; }

DataFrame::DataFrame(Buffer data, uint8_t padLength) : m_padLength(padLength), m_data(data) {
    markPadded(*this, padLength);
    DataFrame::updateLength();
}

void DataFrame::updateLength() { m_length = m_data.Length() + paddingLength(*this, m_padLength); }

Buffer* DataFrame::encodeFramePayload(hpack::Table* /*table*/) {
    auto* payload = new Buffer(m_length);
    writePadLength(*payload, *this, m_padLength);
    payload->Append(m_data);
    return payload;
}

bool DataFrame::decodeFramePayload(const char* data, int length, hpack::Table& /*table*/) {
    Padding padding;
    if (length < 0 || !readPadding(*this, data, length, 0, padding)) return false;
    if (hasPadFlag()) m_padLength = padding.padLength;
    copyInto(m_data, data + padding.offset, length - padding.padLength - padding.offset);
    if (m_length != kNoLength) updateLength();
    return true;
}

void DataFrame::appendPayload(std::string& bytes, hpack::Table* /*table*/) {
    if (hasPadFlag()) bytes.push_back(static_cast<char>(m_padLength));
    bytes.append(bytesOf(m_data));
}

void DataFrame::setData(Buffer& data) {
    m_data = data;
    updateLength();
}

void DataFrame::setData(const char* data, unsigned int length) {
    m_data.Clear();
    m_data.Append(data, length);
    updateLength();
}

void DataFrame::setPadFlag() {
    setFlags(FLAG_PADDED);
    updateLength();
}

void DataFrame::clearPadFlag() {
    clearFlags(FLAG_PADDED);
    updateLength();
}

// Reassembly

FrameCtx::~FrameCtx() {
    m_decodedFrameList.clear();
    delete m_frame;
}

// Bytes are stacked only while they wait for the rest of a header or of a payload; what arrived
// whole is decoded where it lies.
FrameCtx::CONTEXT_STATE FrameCtx::sendPacket(const char* data, size_t length,
                                             const hpack::Table& table, bool /*flag*/) {
    if (data == nullptr) return queueState();
    if (m_frame != nullptr && m_frame->length() > kMaxPendingLength) return CTX_FETAL_ERROR;
    Input input{data, length, &table, std::nullopt};
    const CONTEXT_STATE state = cutFrames(input);
    m_stackedData.append(input.data, input.length);
    if (m_stackedData.empty() && m_stackedData.capacity() > kKeptCapacity) {
        std::string().swap(m_stackedData);
    }
    return state;
}

// Takes from the input what it uses; the rest is to be stacked.
FrameCtx::CONTEXT_STATE FrameCtx::cutFrames(Input& input) {
    if (m_frame != nullptr) {
        if (!takePendingPayload(input)) return queueState();
        if (input.length == 0) return CTX_DONE;
    }
    while (m_frame == nullptr) {
        const char* bytes = headerBytes(input);
        if (bytes == nullptr) return queueState();
        const std::shared_ptr<BaseFrame> header = Frame::decodeBaseFrame(bytes);
        if (header->m_type > Frame::TYPE_LAST_TYPE) {
            // The header stays in front, so that every later call fails the same way.
            std::cout << "fetal error" << std::endl;
            return CTX_FETAL_ERROR;
        }
        if (m_stackedData.empty()) input.skip(kFrameHeaderLength);
        m_stackedData.clear();
        m_frame = Frame::createFrame(header);
        m_baseFrame = header;
        std::cout << m_frame->getFrameTypeName() << std::endl;
        if (!takePendingPayload(input)) return queueState();
    }
    // Every round of the loop returns or leaves no frame pending, so this is not reached.
    std::cout << "******* ########### @@@@@@@@@@@ total stacked size = "
              << m_stackedData.size() + input.length << std::endl;
    return m_decodedFrameList.size() > kMustReadFrames ? CTX_MUST_READ : CTX_DONE;
}

// The next 9 bytes, wherever they lie; null when they are not all there. Completes a stacked
// header from the input.
const char* FrameCtx::headerBytes(Input& input) {
    if (m_stackedData.empty()) {
        return input.length < kFrameHeaderLength ? nullptr : input.data;
    }
    if (m_stackedData.size() < kFrameHeaderLength) {
        const size_t missing = kFrameHeaderLength - m_stackedData.size();
        if (input.length < missing) return nullptr;
        m_stackedData.append(input.data, missing);
        input.skip(missing);
    }
    return m_stackedData.data();
}

// Decodes and queues the pending frame and returns true, or returns false when its payload is not
// all there. The zeros behind the received bytes are what a decoder finds when it reads past the
// last payload.
bool FrameCtx::takePendingPayload(Input& input) {
    const size_t payload = m_baseFrame->m_length;
    const size_t missing = payload - m_stackedData.size();
    if (input.length < missing) return false;
    const size_t behind = std::min(input.length - missing, kReadableTail);
    if (m_stackedData.empty() && behind == kReadableTail) {
        queuePendingFrame(input.data, input);
    } else {
        m_stackedData.append(input.data, missing + behind);
        m_stackedData.append(kReadableTail - behind, '\0');
        queuePendingFrame(m_stackedData.data(), input);
        m_stackedData.clear();
    }
    input.skip(missing);
    return true;
}

// The decoder's result is of no interest here: the engine judges what the frame holds.
void FrameCtx::queuePendingFrame(const char* payload, Input& input) {
    const bool hasBlock = m_frame->getType() == Frame::TYPE_HEADERS_FRAME;
    if (hasBlock && !input.ownTable) input.ownTable.emplace(*input.table);
    m_frame->decodeFramePayload(payload, static_cast<int>(m_baseFrame->m_length),
                                hasBlock ? *input.ownTable : m_noTable);
    m_decodedFrameList.emplace_back(m_frame);
    m_frame = nullptr;
    m_baseFrame.reset();
}

std::shared_ptr<Frame> FrameCtx::getFrame() {
    if (m_decodedFrameList.empty()) return nullptr;
    std::shared_ptr<Frame> frame = std::move(m_decodedFrameList.front());
    m_decodedFrameList.pop_front();
    return frame;
}

}  // namespace tiny
