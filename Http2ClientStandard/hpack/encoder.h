#ifndef HTTP2CLIENTSTANDARD_HPACK_ENCODER_H
#define HTTP2CLIENTSTANDARD_HPACK_ENCODER_H

#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

#include "Http2ClientStandard/base/bytes.h"
#include "Http2ClientStandard/hpack/dynamic_table.h"

namespace h2::hpack {

// One field to be encoded. The texts need only live during the call.
struct Field {
    std::string_view name;  // lower case
    std::string_view value;
    bool neverIndexed = false;
};

// Fields in their encoded form, kept for as long as the encoder's table does not change. Belongs to
// whoever has the fields, who calls clear() when they become others.
class KeptFields {
public:
    void clear() { m_tableState = 0; }

private:
    friend class Encoder;
    Bytes m_bytes;
    uint64_t m_tableState = 0;  // when m_bytes were encoded; 0: nothing is kept
};

// Encodes the header blocks of one connection (RFC 7541).
//
// Fields enter the table unless their values are likely to differ from request to request, and
// strings are Huffman-coded when that makes them shorter. Values worth guessing (RFC 7541, 7.1.3)
// are sent as never-indexed literals.
//
// Each block must reach the peer, in the order in which it was encoded: the peer's table follows
// ours block by block.
class Encoder {
public:
    // `maxTableSize` is what we are willing to use at most.
    explicit Encoder(uint32_t maxTableSize = kInitialTableSize);

    // The SETTINGS_HEADER_TABLE_SIZE that applies from the next block on. A change of the table's
    // size is announced there: the smallest since the last block, then the last.
    void setPeerTableSize(uint32_t octets);

    // Appends one block.
    void encode(Bytes& out, std::span<const Field> fields);

    // The same in parts: a block is what one begin() and the calls of add() after it append.
    void begin(Bytes& out);
    void add(Bytes& out, std::span<const Field> fields);
    // Adds `fields`, from `kept` when nothing has changed since they were encoded there.
    void add(Bytes& out, KeptFields& kept, std::span<const Field> fields);

private:
    static constexpr uint32_t kInitialTableSize = 4096;  // RFC 9113, 6.5.2

    // What entries are looked up by.
    enum Key : uint8_t { kName, kNameAndValue, kKeys };
    struct Hashes {
        uint32_t by[kKeys];
    };
    // Entries that share a bucket are chained, the newest first. Evicted entries stay in the chain:
    // it ends at the first number that the table does not contain.
    struct Links {
        Hashes hashes;
        uint64_t older[kKeys];
    };
    using Table = DynamicTable<Links>;

    void encodeField(Bytes& out, const Field& field);
    void encodeLiteral(Bytes& out, const Field& field, const Hashes& hashes);
    uint32_t findEntry(Key key, const Hashes& hashes, const Field& field);
    void insert(const Field& field, const Hashes& hashes);
    void growBuckets();
    void setTableSize(Bytes& out, uint32_t octets);
    void changeState();

    Table m_table;
    // The number of the newest entry of each bucket, kKeys times m_bucketCount. 0: none.
    std::unique_ptr<uint64_t[]> m_buckets;
    uint64_t m_bucketCount = 0;  // 0 or a power of two
    uint32_t m_ownLimit;         // what we are willing to use
    uint32_t m_size;             // the table's size that is to be announced, if it is not yet
    uint32_t m_smallestSize;     // the smallest of m_size since the last block
    uint64_t m_state = 0;        // another one after each change of the table; see changeState()
};

}  // namespace h2::hpack

#endif  // HTTP2CLIENTSTANDARD_HPACK_ENCODER_H
