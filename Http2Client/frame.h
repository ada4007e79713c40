#ifndef HTTP2CLIENT_FRAME_H
#define HTTP2CLIENT_FRAME_H

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "buffer.h"
#include "hpack.h"
#include "settings.h"

namespace tiny {

// Error codes of RST_STREAM and GOAWAY frames (RFC 9113, 7).
enum HTTP2_ERROR_CODE {
    HTTP2_ERROR_NO_ERROR = 0,
    HTTP2_ERROR_PROTOCOL_ERROR = 1,
    HTTP2_ERROR_INTERNAL_ERROR = 2,
    HTTP2_ERROR_FLOW_CONTROL_ERROR = 3,
    HTTP2_ERROR_SETTINGS_TIMEOUT = 4,
    HTTP2_ERROR_STREAM_CLOSED = 5,
    HTTP2_ERROR_FRAME_SIZE_ERROR = 6,
    HTTP2_ERROR_REFUSED_STREAM = 7,
    HTTP2_ERROR_CANCEL = 8,
    HTTP2_ERROR_COMPRESSION_ERROR = 9,
    HTTP2_ERROR_CONNECT_ERROR = 10,
    HTTP2_ERROR_ENHANCE_YOUR_CALM = 11,
    HTTP2_ERROR_INADEQUATE_SECURITY = 12,
    HTTP2_ERROR_HTTP_1_1_REQUIRED = 13
};

// A decoded 9-byte frame header (RFC 9113, 4.1).
struct BaseFrame {
    uint32_t m_length = 0;  // payload bytes
    uint8_t m_type = 0;
    uint8_t m_flags = 0;
    uint32_t m_streamId = 0;  // 31 bits
    bool m_reserved = false;
};

// What all frames share: the header's fields, flags, and the conversion to bytes and back.
//
// A frame to be sent is made with a default constructor, filled by setters and serialised. A
// frame received is made by createFrame from its header and filled by decodeFramePayload. No frame
// checks its own fields or other frames; each belongs to one thread at a time.
//
// A default constructor gives the frame its own type and length. A constructor that takes values
// leaves the type at SETTINGS, and the length at 0 unless it says otherwise (PriorityFrame sets
// both).
//
// Two rules of all payload codecs differ from RFC 9113, and servers see both:
// - A one-bit flag that shares a word with a 31-bit value is written as 0x80 in the word's last
//   byte, not as its top bit (WINDOW_UPDATE alone writes the top bit). Read, it is the top bit.
// - Integers are read byte by byte with each byte's sign: a byte of 0x80 or more sets all bits
//   above it. Of a 31-bit value only the top byte is masked, so lower bytes may set bit 31. Frame
//   headers and WINDOW_UPDATE are read exactly.
// Padding is declared, and counted in the length that updateLength computes, but never written.
class Frame {
public:
    enum FRAME_TYPE : uint32_t {
        TYPE_DATA_FRAME = 0,
        TYPE_HEADERS_FRAME = 1,
        TYPE_PRIORITY_FRAME = 2,
        TYPE_RST_STREAM_FRAME = 3,
        TYPE_SETTINGS_FRAME = 4,
        TYPE_PUSH_PROMISE_FRAME = 5,
        TYPE_PING_FRAME = 6,
        TYPE_GOAWAY_FRAME = 7,
        TYPE_WINDOW_UPDATE_FRAME = 8,
        TYPE_CONTINUATION_FRAME = 9,
        TYPE_LAST_TYPE = 9
    };

    // 1 means ACK on SETTINGS and PING frames, END_STREAM on DATA and HEADERS frames.
    enum FRAME_FLAG : uint8_t {
        FLAG_ACK = 1,
        FLAG_END_STREAM = 1,
        FLAG_END_HEADERS = 4,
        FLAG_PADDED = 8,
        FLAG_PRIORITY = 32
    };

    Frame() = default;
    Frame(const Frame&) = default;
    Frame& operator=(const Frame&) = default;
    virtual ~Frame() = 0;

    // Returns the payload in a new Buffer, which the caller owns. Only HEADERS uses `table`.
    virtual Buffer* encodeFramePayload(hpack::Table* table) = 0;

    // Fills the frame from `length` payload bytes at `data`. Bytes that a field lacks are zero, and
    // a variable part whose length comes out below zero is empty. Returns false, and leaves the
    // frame unchanged, for a SETTINGS, RST_STREAM or PRIORITY payload of a wrong length. Returns
    // false for a HEADERS block that does not decode.
    virtual bool decodeFramePayload(const char* data, int length, hpack::Table& table) = 0;

    // Recomputes the payload length from the frame's fields.
    virtual void updateLength() = 0;

    uint32_t length() const { return m_length; }
    FRAME_TYPE getType() const { return m_type; }
    uint8_t getFlags() const { return m_flags; }
    uint32_t getStreamId() const { return m_streamId; }
    bool hasReserved() const { return m_reserved; }
    void setFlags(uint8_t f) { m_flags |= f; }
    void clearFlags(uint8_t f) { m_flags &= static_cast<uint8_t>(~f); }
    bool hasFlags(uint8_t f) const { return (m_flags & f) == f; }
    void setStreamId(uint32_t streamId) { m_streamId = streamId; }
    void setLength(uint32_t length) { m_length = length; }
    // "UNKNOWN" for a type code above 9.
    std::string getFrameTypeName() const;

    // Returns header and payload in a new Buffer, which the caller owns. The header's length is
    // that of the payload just encoded.
    Buffer* encodeFrame(hpack::Table* table);

    // Reads the 9 header bytes at `p`. Checks nothing.
    static std::shared_ptr<BaseFrame> decodeBaseFrame(const char* p);
    // Returns an empty frame of the header's type with the header's fields, owned by the caller;
    // null for an empty pointer and for a type code above 9.
    static Frame* createFrame(std::shared_ptr<BaseFrame> header);
    // encodeFrame with the result in shared ownership; prints the bytes first if told to.
    static std::shared_ptr<Buffer> serializeFrame(Frame* frame, hpack::Table* table, bool print);

protected:
    Frame(FRAME_TYPE type, uint32_t length) : m_length(length), m_type(type) {}

    uint32_t m_length = 0;
    FRAME_TYPE m_type = TYPE_SETTINGS_FRAME;
    uint8_t m_flags = 0;
    uint32_t m_streamId = 0;
    bool m_reserved = false;
};

class SettingsFrame : public Frame {
public:
    enum _SETTINGS_PARAMETERS {
        SETTINGS_HEADER_TABLE_SIZE = 1,
        SETTINGS_ENABLE_PUSH = 2,
        SETTINGS_MAX_CONCURRENT_STREAMS = 3,
        SETTINGS_INITIAL_WINDOW_SIZE = 4,
        SETTINGS_MAX_FRAME_SIZE = 5,
        SETTINGS_MAX_HEADER_LIST_SIZE = 6
    };

    // The length stays 0, and such a frame encodes nothing, until setSettings or updateLength.
    SettingsFrame() = default;
    explicit SettingsFrame(const Settings& settings);  // computes its length

    // Writes the values that differ from the protocol's initial ones, in ascending order.
    Buffer* encodeFramePayload(hpack::Table* table) override;
    // Values the peer does not send become the defaults of Settings.
    bool decodeFramePayload(const char* data, int length, hpack::Table& table) override;
    void updateLength() override;

    void setSettings(Settings& settings) {
        m_settings = settings;
        updateLength();
    }
    const Settings& getSettings() const { return m_settings; }
    void setAckFlag() {
        setFlags(FLAG_ACK);
        updateLength();
    }
    void clearAckFlag() {
        clearFlags(FLAG_ACK);
        updateLength();
    }
    bool hasAckFlag() const { return hasFlags(FLAG_ACK); }

private:
    Settings m_settings;
};

class PingFrame : public Frame {
public:
    static constexpr int kLength = 8;

    PingFrame() : Frame(TYPE_PING_FRAME, kLength) {}
    explicit PingFrame(uint64_t opaqueData) : m_opaqueData(opaqueData) {}

    Buffer* encodeFramePayload(hpack::Table* table) override;
    bool decodeFramePayload(const char* data, int length, hpack::Table& table) override;
    void updateLength() override { m_length = kLength; }

    void setOpaqueData(uint64_t opaqueData) { m_opaqueData = opaqueData; }
    uint64_t getOpaqueData() const { return m_opaqueData; }
    void setAckFlag() { setFlags(FLAG_ACK); }
    void clearAckFlag() { clearFlags(FLAG_ACK); }
    bool hasAckFlag() const { return hasFlags(FLAG_ACK); }

private:
    uint64_t m_opaqueData = 0;
};

class GoawayFrame : public Frame {
public:
    static constexpr int kFixedLength = 8;

    GoawayFrame() : Frame(TYPE_GOAWAY_FRAME, kFixedLength) {}
    GoawayFrame(uint32_t lastStreamId, uint32_t errorCode,
                Buffer debugData);  // computes its length

    Buffer* encodeFramePayload(hpack::Table* table) override;
    // The error code is read like the stream identifier: its top bit is dropped.
    bool decodeFramePayload(const char* data, int length, hpack::Table& table) override;
    void updateLength() override { m_length = m_additionalDebugData.Length() + kFixedLength; }

    // The reserved bit of the payload, not the header's.
    void setReserved(bool reserved) { m_reserved = reserved; }
    bool hasReserved() const { return m_reserved; }
    void setLastStreamId(uint32_t lastStreamId) { m_lastStreamId = lastStreamId; }
    uint32_t getLastStreamId() const { return m_lastStreamId; }
    void setErrorEode(uint32_t errorCode) { m_errorCode = errorCode; }
    uint32_t getErrorCode() const { return m_errorCode; }
    void setAdditionalDebugData(Buffer& debugData) {
        m_additionalDebugData = debugData;
        updateLength();
    }
    const Buffer& getAdditionalDebugData() const { return m_additionalDebugData; }

private:
    // Not the header's bit, which has the same name in the base class.
    // cppcheck-suppress duplInheritedMember
    bool m_reserved = false;
    uint32_t m_lastStreamId = 0;
    uint32_t m_errorCode = 0;
    Buffer m_additionalDebugData;
};

class WindowUpdateFrame : public Frame {
public:
    static constexpr int kLength = 4;

    WindowUpdateFrame() : Frame(TYPE_WINDOW_UPDATE_FRAME, kLength) {}
    explicit WindowUpdateFrame(uint32_t windowSizeIncrement)
        : m_windowSizeIncrement(windowSizeIncrement) {}

    Buffer* encodeFramePayload(hpack::Table* table) override;
    bool decodeFramePayload(const char* data, int length, hpack::Table& table) override;
    void updateLength() override { m_length = kLength; }

    // The reserved bit of the payload, not the header's.
    void setReserved(bool reserved) { m_reserved = reserved; }
    bool hasReserved() const { return m_reserved; }
    void setWindowSizeIncrement(int increment) {
        m_windowSizeIncrement = static_cast<uint32_t>(increment);
    }
    uint32_t getWindowSizeIncrement() const { return m_windowSizeIncrement; }

private:
    // Not the header's bit, which has the same name in the base class.
    // cppcheck-suppress duplInheritedMember
    bool m_reserved = false;
    uint32_t m_windowSizeIncrement = 0;
};

class RSTStreamFrame : public Frame {
public:
    static constexpr int kLength = 4;

    RSTStreamFrame() : Frame(TYPE_RST_STREAM_FRAME, kLength) {}
    explicit RSTStreamFrame(uint32_t errorCode) : m_errorCode(errorCode) {}

    Buffer* encodeFramePayload(hpack::Table* table) override;
    bool decodeFramePayload(const char* data, int length, hpack::Table& table) override;
    void updateLength() override { m_length = kLength; }

    uint32_t getErrorCode() const { return m_errorCode; }
    void setErrorEode(uint32_t errorCode) { m_errorCode = errorCode; }

private:
    uint32_t m_errorCode = 0;
};

class PriorityFrame : public Frame {
public:
    static constexpr int kLength = 5;

    PriorityFrame() : Frame(TYPE_PRIORITY_FRAME, kLength) {}
    PriorityFrame(bool exclusive, uint32_t streamDependency, uint8_t weight)
        : Frame(TYPE_PRIORITY_FRAME, kLength),
          m_exclusive(exclusive),
          m_streamDependency(streamDependency),
          m_weight(weight) {}

    // The weight goes out as stored, without the offset of one that RFC 7540, 6.3 gives it.
    Buffer* encodeFramePayload(hpack::Table* table) override;
    bool decodeFramePayload(const char* data, int length, hpack::Table& table) override;
    void updateLength() override { m_length = kLength; }

    void setExclusive(bool exclusive) { m_exclusive = exclusive; }
    bool hasExclusive() const { return m_exclusive; }
    void setStreamDependency(uint32_t streamDependency) { m_streamDependency = streamDependency; }
    uint32_t getStreamDependency() const { return m_streamDependency; }
    void setWeight(uint8_t weight) { m_weight = weight; }
    uint8_t getWeight() const { return m_weight; }

private:
    bool m_exclusive = false;
    uint32_t m_streamDependency = 0;
    uint8_t m_weight = 0;
    Buffer m_header;  // carried, used by nothing
};

// What DATA, HEADERS and PUSH_PROMISE frames share.
class PaddedFrame : public Frame {
public:
    void setPadLength(uint8_t padLength) { m_padLength = padLength; }
    uint8_t getPadLength() const { return m_padLength; }
    void setPadFlag() {
        setFlags(FLAG_PADDED);
        updateLength();
    }
    void clearPadFlag() {
        clearFlags(FLAG_PADDED);
        updateLength();
    }
    bool hasPadFlag() const { return hasFlags(FLAG_PADDED); }

protected:
    using Frame::Frame;
    // Sets PADDED when `padLength` is not 0.
    explicit PaddedFrame(uint8_t padLength) : m_padLength(padLength) {
        if (padLength != 0) setFlags(FLAG_PADDED);
    }

    // What PADDED adds to the frame's length.
    uint32_t paddingLength() const { return hasPadFlag() ? uint32_t{m_padLength} + 1 : 0; }
    // Writes and reads the pad length of a frame with PADDED; return the offset behind it. The
    // readers subtract m_padLength whether or not this payload has set it.
    unsigned int writePadLength(Buffer& payload) const;
    int readPadLength(const char* data, int length);

    uint8_t m_padLength = 0;
};

class HeadersFrame : public PaddedFrame {
public:
    static constexpr int kPriorityLength = 5;

    using HeaderList = std::vector<hpack::HeaderFieldRepresentation>;

    HeadersFrame() : PaddedFrame(TYPE_HEADERS_FRAME, 0) {}
    // The block is encoded at once. PRIORITY is set by the second form only.
    HeadersFrame(const HeaderList& list, hpack::Table& table, uint8_t padLength);
    HeadersFrame(const HeaderList& list, hpack::Table& table, bool exclusive,
                 uint32_t streamDependency, uint8_t weight, uint8_t padLength);

    // Encodes the header list with `table`, once more if setHeaderList has done so before. With a
    // null table appends a plain-text request head to the block instead.
    Buffer* encodeFramePayload(hpack::Table* table) override;
    // Appends the block's fields to the header list.
    bool decodeFramePayload(const char* data, int length, hpack::Table& table) override;
    void updateLength() override;

    void setExclusive(bool exclusive) { m_exclusive = exclusive; }
    bool hasExclusive() const { return m_exclusive; }
    void setStreamDependency(uint32_t streamDependency) { m_streamDependency = streamDependency; }
    uint32_t getStreamDependency() const { return m_streamDependency; }
    void setWeight(uint8_t weight) { m_weight = weight; }
    uint8_t getWeight() const { return m_weight; }
    void setHeaderList(const HeaderList& list, hpack::Table& table) {
        m_headerList = list;
        updateHeaderBlockFragment(table);
    }
    const HeaderList& getHeaderList() const { return m_headerList; }
    // Replaces the block by the encoded header list.
    void updateHeaderBlockFragment(hpack::Table& table);
    const Buffer& getHeaderBlockFragment() const { return m_header; }

    void setEndStreamFlag() { setFlags(FLAG_END_STREAM); }
    bool hasEndStreamFlag() const { return hasFlags(FLAG_END_STREAM); }
    void clearEndStreamFlag() { clearFlags(FLAG_END_STREAM); }
    void setEndHeadersFlag() { setFlags(FLAG_END_HEADERS); }
    bool hasEndHeadersFlag() const { return hasFlags(FLAG_END_HEADERS); }
    void clearEndHeadersFlag() { clearFlags(FLAG_END_HEADERS); }
    void setPriorityFlag() {
        setFlags(FLAG_PRIORITY);
        updateLength();
    }
    void clearPriorityFlag() {
        clearFlags(FLAG_PRIORITY);
        updateLength();
    }
    bool hasPriorityFlag() const { return hasFlags(FLAG_PRIORITY); }

private:
    void appendPlainTextHead();

    bool m_exclusive = false;
    uint32_t m_streamDependency = 0;
    uint8_t m_weight = 0;
    Buffer m_header;  // the encoded header block fragment
    HeaderList m_headerList;
};

// Carried but never interpreted: fragments are not decoded.
class ContinuationFrame : public Frame {
public:
    ContinuationFrame() : Frame(TYPE_CONTINUATION_FRAME, 0) {}
    explicit ContinuationFrame(Buffer& fragment);  // computes its length

    Buffer* encodeFramePayload(hpack::Table* table) override;
    bool decodeFramePayload(const char* data, int length, hpack::Table& table) override;
    void updateLength() override { m_length = m_headerBlockFragment.Length(); }

    void setHeaderBlockFragment(Buffer& fragment) {
        m_headerBlockFragment = fragment;
        updateLength();
    }
    const Buffer& getHeaderBlockFragment() const { return m_headerBlockFragment; }
    void setEndHeadersFlag() { setFlags(FLAG_END_HEADERS); }
    bool hasEndHeadersFlag() const { return hasFlags(FLAG_END_HEADERS); }
    void clearEndHeadersFlag() { clearFlags(FLAG_END_HEADERS); }

private:
    Buffer m_headerBlockFragment;
};

// Carried but never interpreted: fragments are not decoded.
class PushPromisFrame : public PaddedFrame {
public:
    static constexpr int kStreamIdLength = 4;

    PushPromisFrame() : PaddedFrame(TYPE_PUSH_PROMISE_FRAME, kStreamIdLength) {}
    PushPromisFrame(uint32_t promisedStreamId, Buffer fragment,
                    uint8_t padLength);  // computes its length

    Buffer* encodeFramePayload(hpack::Table* table) override;
    // The fragment's count does not deduct the identifier, so it takes 4 bytes more than RFC
    // 9113, 6.6 gives it. Precondition: 4 more bytes can be read behind the `length` at `data`.
    bool decodeFramePayload(const char* data, int length, hpack::Table& table) override;
    void updateLength() override;

    // The reserved bit of the promised stream's word, not the header's.
    void setReserved(bool reserved) { m_reserved = reserved; }
    bool hasReserved() const { return m_reserved; }
    void setPromisedStreamId(uint32_t streamId) { m_promisedStreamId = streamId; }
    uint32_t getPromisedStreamId() const { return m_promisedStreamId; }
    void setHeaderBlockFragment(Buffer& fragment) {
        m_headerBlockFragment = fragment;
        updateLength();
    }
    const Buffer& getHeaderBlockFragment() const { return m_headerBlockFragment; }
    void setEndHeadersFlag() { setFlags(FLAG_END_HEADERS); }
    bool hasEndHeadersFlag() const { return hasFlags(FLAG_END_HEADERS); }
    void clearEndHeadersFlag() { clearFlags(FLAG_END_HEADERS); }

private:
    uint32_t m_promisedStreamId = 0;
    Buffer m_headerBlockFragment;
    // Not the header's bit, which has the same name in the base class.
    // cppcheck-suppress duplInheritedMember
    bool m_reserved = false;
};

class DataFrame : public PaddedFrame {
public:
    DataFrame() : PaddedFrame(TYPE_DATA_FRAME, 0) {}
    DataFrame(Buffer data, uint8_t padLength);  // computes its length

    Buffer* encodeFramePayload(hpack::Table* table) override;
    bool decodeFramePayload(const char* data, int length, hpack::Table& table) override;
    void updateLength() override { m_length = m_data.Length() + paddingLength(); }

    void setData(Buffer& data) {
        m_data = data;
        updateLength();
    }
    void setData(const char* data, unsigned int length);
    const Buffer& getData() const { return m_data; }
    void setEndStreamFlag() { setFlags(FLAG_END_STREAM); }
    bool hasEndStreamFlag() const { return hasFlags(FLAG_END_STREAM); }
    void clearEndStreamFlag() { clearFlags(FLAG_END_STREAM); }

private:
    Buffer m_data;
};

// Cuts the byte stream received from the server into whole frames.
//
// Frames come out in wire order, each decoded once, in the call that completes it. A frame whose
// payload does not decode is queued all the same; the engine deals with what it holds. The context
// does not check stream states, frame sequences or sizes. It never recovers from a frame type it
// does not know: RFC 9113, 5.5 wants those ignored, this client gives up the connection.
//
// Writes the type name of every frame header to standard output. Poll thread only.
class FrameCtx {
public:
    enum CONTEXT_STATE {
        CTX_DONE = 0,          // at least one frame is queued
        CTX_MORE_DATA = 1,     // none is queued, more bytes are needed
        CTX_MUST_READ = 2,     // more than 4 frames are queued
        CTX_FETAL_ERROR = -1,  // the stream cannot be parsed; drop the connection
        CTX_NEED_CLOSE = -2    // for callers; never returned here
    };

    FrameCtx() = default;
    ~FrameCtx();
    FrameCtx(const FrameCtx&) = delete;
    FrameCtx& operator=(const FrameCtx&) = delete;

    // Takes `length` more bytes of the stream; a null `data` only asks for the state. All header
    // blocks completed by this call are decoded against its copy of the table: what they add is
    // gone with the call. RFC 7541, 2.2 has the table live as long as the connection; a server's
    // later reference to such an entry does not resolve here. `flag` is not used.
    CONTEXT_STATE sendPacket(const char* data, size_t length, hpack::Table table, bool flag);

    bool hasFrame() { return !m_decodedFrameList.empty(); }
    // Removes and returns the oldest queued frame; an empty pointer when there is none.
    std::shared_ptr<Frame> getFrame();

private:
    CONTEXT_STATE queueState() { return hasFrame() ? CTX_DONE : CTX_MORE_DATA; }
    CONTEXT_STATE cutFrames(hpack::Table& table, size_t& used);
    void queuePendingFrame(hpack::Table& table, size_t& used);

    // m_baseFrame and m_frame are both set, while a payload is awaited, or both empty.
    std::shared_ptr<BaseFrame> m_baseFrame;
    Frame* m_frame = nullptr;  // owned until it is queued
    // Bytes not yet consumed: begins at a frame boundary, or, while a payload is awaited, with it.
    std::string m_stackedData;
    std::list<std::shared_ptr<Frame>> m_decodedFrameList;  // oldest first
};

}  // namespace tiny

#endif  // HTTP2CLIENT_FRAME_H
