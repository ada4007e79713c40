#ifndef HTTP2CLIENT_TESTS_SUPPORT_BYTES_H
#define HTTP2CLIENT_TESTS_SUPPORT_BYTES_H

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Wire bytes written by hand, for both sides of a test: what a server sends (legal or not), and
// what the client is expected to have sent.
//
// Nothing here uses the library's own codecs, so an error in them cannot hide itself.
namespace h2test {

// Bytes from their hexadecimal text: two digits a byte; spaces, line ends, '|' and ':' between
// bytes are for the reader only. Anything else ends the process: the test itself is wrong.
std::string hex(std::string_view text);

// "00 0a ff": lower case, one space between bytes.
std::string toHex(std::string_view bytes);

// `value` in 1, 2, 3, 4 or 8 bytes, the highest first. Higher bits are cut off.
std::string be8(uint32_t value);
std::string be16(uint32_t value);
std::string be24(uint32_t value);
std::string be32(uint32_t value);
std::string be64(uint64_t value);

// Frame types (RFC 9113, 6).
constexpr uint8_t kData = 0;
constexpr uint8_t kHeaders = 1;
constexpr uint8_t kPriority = 2;
constexpr uint8_t kRstStream = 3;
constexpr uint8_t kSettings = 4;
constexpr uint8_t kPushPromise = 5;
constexpr uint8_t kPing = 6;
constexpr uint8_t kGoaway = 7;
constexpr uint8_t kWindowUpdate = 8;
constexpr uint8_t kContinuation = 9;

// Flags. ACK and END_STREAM share a value.
constexpr uint8_t kAck = 0x01;
constexpr uint8_t kEndStream = 0x01;
constexpr uint8_t kEndHeaders = 0x04;
constexpr uint8_t kPadded = 0x08;
constexpr uint8_t kPriorityFlag = 0x20;

// Put into a stream identifier to set the frame header's R bit.
constexpr uint32_t kReservedBit = 0x80000000u;

// The client's connection preface (RFC 9113, 3.4): 24 bytes.
constexpr std::string_view kPreface = "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n";

// The 9 bytes of a frame header. All 32 bits of `streamId` are written.
std::string frameHeader(uint32_t length, uint8_t type, uint8_t flags, uint32_t streamId);

// A whole frame; the declared length is the payload's.
std::string frame(uint8_t type, uint8_t flags, uint32_t streamId, std::string_view payload);

// A frame whose header declares `length`, independent of the payload's size.
std::string frameWithLength(uint32_t length, uint8_t type, uint8_t flags, uint32_t streamId,
                            std::string_view payload);

std::string settings(const std::vector<std::pair<uint16_t, uint32_t>>& values);
std::string settingsAck();
std::string ping(uint64_t opaque, uint8_t flags = 0);
std::string goaway(uint32_t lastStreamId, uint32_t errorCode, std::string_view debugData = {});
std::string windowUpdate(uint32_t streamId, uint32_t increment);
std::string rstStream(uint32_t streamId, uint32_t errorCode);
std::string data(uint32_t streamId, std::string_view body, uint8_t flags = 0);
// PADDED is set besides `flags`; `padding` zero bytes follow the body.
std::string dataPadded(uint32_t streamId, std::string_view body, uint8_t padding,
                       uint8_t flags = 0);
std::string headers(uint32_t streamId, std::string_view block, uint8_t flags = kEndHeaders);
std::string continuation(uint32_t streamId, std::string_view block, uint8_t flags = kEndHeaders);

// First-byte patterns of a literal header field (RFC 7541, 6.2).
enum class Literal { kWithoutIndexing, kNeverIndexed, kIncremental };

// An integer with a prefix of `prefixBits` bits below `pattern` (RFC 7541, 5.1), in its shortest
// form.
std::string hpackInteger(uint64_t value, int prefixBits, uint8_t pattern = 0);

// A string literal (RFC 7541, 5.2): plain, or with the H bit in front of bytes that the caller has
// coded already.
std::string hpackString(std::string_view text);
std::string hpackHuffmanString(std::string_view coded);

// A literal field with a new name, without Huffman coding.
std::string hpackLiteral(std::string_view name, std::string_view value,
                         Literal form = Literal::kWithoutIndexing);
// A literal field whose name is that of table entry `nameIndex`.
std::string hpackLiteral(uint64_t nameIndex, std::string_view value,
                         Literal form = Literal::kWithoutIndexing);
// An indexed field: the table entry `index`.
std::string hpackIndexed(uint64_t index);

// A frame as sent on the wire.
struct WireFrame {
    uint32_t length = 0;  // as declared
    uint8_t type = 0;
    uint8_t flags = 0;
    uint32_t streamId = 0;  // 31 bits
    bool reserved = false;  // the R bit
    std::string payload;    // `length` bytes

    bool hasFlags(uint8_t wanted) const { return (flags & wanted) == wanted; }
    bool operator==(const WireFrame& other) const = default;
};

// Readable form for failure messages: gtest finds it by its name.
void PrintTo(const WireFrame& frame, std::ostream* out);

// Cuts `bytes` into frames. Throws std::runtime_error when bytes are left over that are no whole
// frame, so that the test fails. The connection preface is not skipped: see withoutPreface.
std::vector<WireFrame> parseFrames(std::string_view bytes);

// The same, but an incomplete frame at the end is left alone: `rest` is where it starts.
std::vector<WireFrame> parseWholeFrames(std::string_view bytes, size_t& rest);

// What follows the connection preface. Throws std::runtime_error when `bytes` do not start with it.
std::string_view withoutPreface(std::string_view bytes);

}  // namespace h2test

#endif  // HTTP2CLIENT_TESTS_SUPPORT_BYTES_H
