#ifndef HTTP2CLIENTSTANDARD_HPACK_DECODER_H
#define HTTP2CLIENTSTANDARD_HPACK_DECODER_H

#include <cstdint>
#include <limits>
#include <string_view>

#include "Http2ClientStandard/hpack/dynamic_table.h"
#include "Http2ClientStandard/hpack/field_list.h"

namespace h2::hpack {

class BlockReader;

// Decodes the header blocks of one connection (RFC 7541).
//
// It checks the coding, and the syntax of names and values as they come in; what a field means, and
// whether it may stand where it stands, is for the layers above. Its memory is bounded by the
// table's size and by the length of a block, whatever the lengths in the block say.
class Decoder {
public:
    // `maxTableSize` is the SETTINGS_HEADER_TABLE_SIZE that the peer knows from its first block on.
    // The table's size starts there, but not above 4096, from where only the peer may raise it.
    explicit Decoder(uint32_t maxTableSize = kInitialTableSize);

    // The peer has acknowledged another SETTINGS_HEADER_TABLE_SIZE. When that is less than the
    // table's size, the next block must start with a size update (RFC 9113, 4.3.1).
    void setMaxTableSize(uint32_t octets);

    // Decodes a whole block and appends its fields to `list`.
    // False: a COMPRESSION_ERROR; the table is in no defined state then, and the connection must
    // end. When the list goes beyond its limit, the table is kept right nevertheless.
    bool decode(std::string_view block, FieldList& list);

private:
    static constexpr uint32_t kInitialTableSize = 4096;  // RFC 9113, 6.5.2
    static constexpr uint32_t kNoUpdateDue = std::numeric_limits<uint32_t>::max();

    using Table = DynamicTable<ListTag>;
    struct StaticFields;

    static const Table::Entry* find(const Table::Ages& table, uint32_t index);
    bool readSizeUpdates(BlockReader& in);
    void readShortIndexed(BlockReader& in, FieldList& list);
    bool readIndexed(BlockReader& in, FieldList& list);
    bool readLiteral(BlockReader& in, FieldList& list);

    Table m_table;
    uint32_t m_limit;                     // of the table's size, as the peer knows it
    uint32_t m_updateDue = kNoUpdateDue;  // the smallest limit since the last block
};

}  // namespace h2::hpack

#endif  // HTTP2CLIENTSTANDARD_HPACK_DECODER_H
