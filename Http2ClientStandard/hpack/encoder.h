#ifndef HTTP2CLIENTSTANDARD_HPACK_ENCODER_H
#define HTTP2CLIENTSTANDARD_HPACK_ENCODER_H

#include <cstdint>
#include <span>
#include <string_view>

#include "Http2ClientStandard/base/bytes.h"

namespace h2::hpack {

// One field to be encoded. The texts need only live during the call.
struct Field {
    std::string_view name;  // lower case
    std::string_view value;
    bool neverIndexed = false;
};

// Fields whose encoding is kept for as long as the encoder's table does not change. Belongs to
// whoever has the fields, who calls clear() when they become others.
class KeptFields {
public:
    void clear() { m_tableState = 0; }

private:
    friend class Encoder;
    Bytes m_bytes;
    uint64_t m_tableState = 0;  // of the encoder that wrote m_bytes; 0: nothing is kept
};

// Encodes the header blocks of one connection (RFC 7541).
//
// Each block must reach the peer, and in the order in which it was encoded: the peer's table follows
// ours block by block.
class Encoder {
public:
    // `maxTableSize` is what we are willing to use at most.
    explicit Encoder(uint32_t maxTableSize = 4096);

    // The SETTINGS_HEADER_TABLE_SIZE that applies from the next block on. A change of the table's
    // size is announced there: the smallest since the last block, then the last.
    void setPeerTableSize(uint32_t octets);

    // Appends one block.
    void encode(Bytes& out, std::span<const Field> fields);

    // Appends one block of `kept` fields, which are `head`, and then of `fields`.
    void encode(Bytes& out, KeptFields& kept, std::span<const Field> head,
                std::span<const Field> fields);
};

}  // namespace h2::hpack

#endif  // HTTP2CLIENTSTANDARD_HPACK_ENCODER_H
