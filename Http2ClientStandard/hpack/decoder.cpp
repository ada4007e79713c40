#include "Http2ClientStandard/hpack/decoder.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "Http2ClientStandard/hpack/huffman.h"
#include "Http2ClientStandard/hpack/static_table.h"

namespace h2::hpack {

// A string literal as it stands in a block (RFC 7541, 5.2).
struct StringLiteral {
    std::string_view bytes;
    bool huffman = false;

    // What decode() may write.
    size_t room() const { return huffman ? huffmanRoom(bytes.size()) : bytes.size(); }

    // Returns the length of the text written to `out`; -1 when the coding is wrong.
    ptrdiff_t decode(char* out) const {
        if (huffman) return decodeHuffman(bytes, out);
        if (!bytes.empty()) std::memcpy(out, bytes.data(), bytes.size());
        return static_cast<ptrdiff_t>(bytes.size());
    }
};

// Takes a block apart from its front. Each read is bounded by the block.
class BlockReader {
public:
    explicit BlockReader(std::string_view block)
        : m_at(block.data()), m_end(block.data() + block.size()) {}

    bool empty() const { return m_at == m_end; }
    // The next byte; the block must not be empty.
    uint8_t first() const { return static_cast<uint8_t>(*m_at); }
    void skip() { ++m_at; }
    // The next byte is a whole indexed field, with an index from 1 to 126.
    bool isShortIndex() const { return static_cast<uint8_t>(first() - 0x81) < 0x7E; }

    // RFC 7541, 5.1, with a prefix of `prefixBits`. False when it is cut off, has more than five
    // bytes behind the prefix, or is greater than 2^32 - 1. The block must not be empty.
    bool integer(unsigned prefixBits, uint32_t& value) {
        const uint32_t prefixMax = (1U << prefixBits) - 1;
        value = static_cast<uint8_t>(*m_at++) & prefixMax;
        return value < prefixMax || continuation(value);
    }

    bool string(StringLiteral& literal) {
        if (empty()) return false;
        literal.huffman = (first() & 0x80) != 0;
        uint32_t size = 0;
        if (!integer(7, size) || size > static_cast<size_t>(m_end - m_at)) return false;
        literal.bytes = {m_at, size};
        m_at += size;
        return true;
    }

private:
    bool continuation(uint32_t& value) {
        uint64_t sum = value;
        for (unsigned shift = 0; shift <= 28; shift += 7) {
            if (empty()) return false;
            const auto byte = static_cast<uint8_t>(*m_at++);
            sum += uint64_t{byte & 0x7FU} << shift;
            if ((byte & 0x80) != 0) continue;
            value = static_cast<uint32_t>(sum);
            return sum <= std::numeric_limits<uint32_t>::max();
        }
        return false;
    }

    const char* m_at;
    const char* m_end;
};

// The static table with its texts laid out as a dynamic table's.
struct Decoder::StaticFields {
    static constexpr size_t kTextSize = [] {
        size_t size = Table::kReadableBehind;
        for (const StaticField& field : kStaticTable) {
            size += field.name.size() + field.value.size() + 2;
        }
        return size;
    }();

    static constexpr std::array<char, kTextSize> kTexts = [] {
        std::array<char, kTextSize> texts{};
        char* at = texts.data();
        for (const StaticField& field : kStaticTable) {
            at = std::copy(field.name.begin(), field.name.end(), at) + 1;
            at = std::copy(field.value.begin(), field.value.end(), at) + 1;
        }
        return texts;
    }();

    static constexpr std::array<Table::Entry, kStaticFields> kFields = [] {
        std::array<Table::Entry, kStaticFields> fields{};
        const char* at = kTexts.data();
        for (uint32_t i = 0; i < kStaticFields; ++i) {
            const auto& [name, value] = kStaticTable[i];
            fields[i] = {at,
                         static_cast<uint32_t>(name.size()),
                         static_cast<uint32_t>(value.size()),
                         {FieldTraits{identify(name)}, false, ListTag::Source::kStatic}};
            at += fields[i].textSize();
        }
        return fields;
    }();
};

namespace {

// Up to this size, whatever a string decodes to has a length of 32 bits. What calls us accepts far
// smaller blocks only.
constexpr size_t kMaxBlockSize = size_t{1} << 30;

constexpr size_t kCopyStep = 16;
static_assert(kCopyStep <= DynamicTable<ListTag>::kReadableBehind);

// Copies `size` bytes in whole steps: from and to must have kCopyStep bytes to spare. A call of
// memcpy with a size known only now costs several times as much for the few bytes of a field.
void copyInSteps(char* to, const char* from, size_t size) {
    for (size_t i = 0; i < size; i += kCopyStep) std::memcpy(to + i, from + i, kCopyStep);
}

}  // namespace

Decoder::Decoder(uint32_t maxTableSize)
    : m_table(std::min(maxTableSize, kInitialTableSize)), m_limit(maxTableSize) {}

void Decoder::setMaxTableSize(uint32_t octets) {
    m_limit = octets;
    m_updateDue = std::min(m_updateDue, octets);
}

bool Decoder::decode(std::string_view block, FieldList& list) {
    if (block.size() > kMaxBlockSize) return false;
    BlockReader in(block);
    if (!readSizeUpdates(in)) return false;
    list.shareTexts(m_table.texts());
    while (!in.empty()) {
        readShortIndexed(in, list);
        if (in.empty()) break;
        const bool read = (in.first() & 0x80) != 0 ? readIndexed(in, list) : readLiteral(in, list);
        if (!read) return false;
    }
    return true;
}

// The field of either table; null when there is none.
inline const Decoder::Table::Entry* Decoder::find(const Table::Ages& table, uint32_t index) {
    if (index - 1 < kStaticFields) return &StaticFields::kFields[index - 1];
    return table.find(uint64_t{index} - kStaticFields);
}

bool Decoder::readSizeUpdates(BlockReader& in) {
    bool due = m_updateDue < m_table.maxSize();
    while (!in.empty() && (in.first() & 0xE0) == 0x20) {
        uint32_t size = 0;
        if (!in.integer(5, size) || size > m_limit) return false;
        if (due && size > m_updateDue) return false;
        due = false;
        m_table.setMaxSize(size);
    }
    m_updateDue = kNoUpdateDue;
    return !due;
}

// Indexed fields of one byte each, as long as they are good and the list has room: the common case,
// with all that it counts in registers. Leaves the rest to readIndexed().
inline void Decoder::readShortIndexed(BlockReader& in, FieldList& list) {
    constexpr size_t kFields = 16;
    const Table::Ages table(m_table);
    const uint64_t limit = list.m_limit;
    uint64_t octets = list.m_octets;
    uint8_t flaws = kNoFlaw;
    FieldList::Stored* to = list.fieldRoom(kFields);
    FieldList::Stored* const begin = to;
    for (; to != begin + kFields && !in.empty() && in.isShortIndex(); in.skip()) {
        const Table::Entry* field = find(table, in.first() & 0x7F);
        if (field == nullptr || octets + field->octets() > limit) break;
        octets += field->octets();
        flaws |= field->tag.traits.flaws;
        *to++ = *field;
    }
    list.m_size += static_cast<size_t>(to - begin);
    list.m_octets = octets;
    list.m_malformed |= flaws != kNoFlaw;
}

inline bool Decoder::readIndexed(BlockReader& in, FieldList& list) {
    uint32_t index = 0;
    if (!in.integer(7, index)) return false;
    const Table::Entry* field = find(Table::Ages(m_table), index);
    if (field == nullptr) return false;
    list.refer(*field);
    return true;
}

// Literals of all three kinds (RFC 7541, 6.2). The texts are decoded into the list first and copied
// into the table from there, so that a name may come from an entry that its own insertion evicts.
bool Decoder::readLiteral(BlockReader& in, FieldList& list) {
    const bool incremental = (in.first() & 0xC0) == 0x40;
    const bool neverIndexed = (in.first() & 0xF0) == 0x10;
    if ((in.first() & 0xE0) == 0x20) return false;  // a size update behind a field

    uint32_t index = 0;
    const Table::Entry* known = nullptr;
    StringLiteral nameLiteral;
    StringLiteral valueLiteral;
    if (!in.integer(incremental ? 6 : 4, index)) return false;
    if (index == 0) {
        if (!in.string(nameLiteral)) return false;
    } else {
        known = find(Table::Ages(m_table), index);
        if (known == nullptr) return false;
    }
    if (!in.string(valueLiteral)) return false;

    const size_t nameRoom = index == 0 ? nameLiteral.room() : known->nameSize + kCopyStep;
    const size_t room = nameRoom + valueLiteral.room() + 2;
    // The table can move its texts in place only while the list does not refer to them.
    if (incremental && !m_table.hasRoom(room)) list.ownTexts();
    char* const text = list.room(room);
    ptrdiff_t nameSize = 0;
    FieldTraits traits;
    if (index != 0) {
        nameSize = known->nameSize;
        traits = known->tag.traits;
        traits.flaws &= kBadName;
        copyInSteps(text, known->text, known->nameSize);
    } else {
        nameSize = nameLiteral.decode(text);
        if (nameSize < 0) return false;
        const std::string_view name(text, static_cast<size_t>(nameSize));
        traits.id = identify(name);
        if (!isValidName(name)) traits.flaws = kBadName;
    }
    text[nameSize] = '\0';
    char* const valueText = text + nameSize + 1;
    const ptrdiff_t valueSize = valueLiteral.decode(valueText);
    if (valueSize < 0) return false;
    valueText[valueSize] = '\0';

    const std::string_view name(text, static_cast<size_t>(nameSize));
    const std::string_view value(valueText, static_cast<size_t>(valueSize));
    if (!isValidValue(value)) traits.flaws |= kBadValue;
    list.commit(static_cast<uint32_t>(nameSize), static_cast<uint32_t>(valueSize), traits,
                neverIndexed);
    if (incremental) {
        m_table.insert(name, value, {traits, false, ListTag::Source::kTable});
        list.shareTexts(m_table.texts());
    }
    return true;
}

}  // namespace h2::hpack
