#ifndef HTTP2CLIENTSTANDARD_HPACK_FIELD_LIST_H
#define HTTP2CLIENTSTANDARD_HPACK_FIELD_LIST_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "Http2ClientStandard/base/bytes.h"
#include "Http2ClientStandard/hpack/dynamic_table.h"
#include "Http2ClientStandard/hpack/field_rules.h"

namespace h2::hpack {

// What a list keeps with a field, and a decoder's table too, so that a field goes from there to a
// list as it is.
struct ListTag {
    enum class Source : uint8_t { kList, kTable, kStatic };

    FieldTraits traits;
    bool neverIndexed = false;
    Source source = Source::kTable;
};

// The fields of header blocks in the order they came.
//
// A NUL follows each text. Texts lie in memory of the list that is reused, so that a list that is
// cleared and filled again allocates nothing; or, when they came out of a decoder's table, where
// that has them, in memory that it shares with the list. Beyond its limit
// (SETTINGS_MAX_HEADER_LIST_SIZE, RFC 9113, 6.5.2: name, value and 32 octets a field) a list counts
// fields, but stores none.
class FieldList {
public:
    FieldList() = default;
    FieldList(const FieldList&) = delete;
    FieldList& operator=(const FieldList&) = delete;

    size_t size() const { return m_size; }
    bool empty() const { return m_size == 0; }

    // index < size(). The views live until the next add, decode, clear() or release() of the list.
    std::string_view name(size_t index) const { return m_fields[index].name(); }
    std::string_view value(size_t index) const { return m_fields[index].value(); }
    NameId id(size_t index) const { return m_fields[index].tag.traits.id; }
    bool neverIndexed(size_t index) const { return m_fields[index].tag.neverIndexed; }

    uint64_t octets() const { return m_octets; }    // of all fields, stored or not
    bool overflow() const { return m_overflow; }    // octets() went beyond the limit
    bool malformed() const { return m_malformed; }  // any field breaks RFC 9113, 8.2.1

    // Holds for fields added from now on.
    void setLimit(uint32_t octets) { m_limit = octets; }
    // Drops the fields and keeps the memory.
    void clear();
    // Drops the fields, the memory too.
    void release();

    void add(std::string_view name, std::string_view value, bool neverIndexed = false);

private:
    friend class Decoder;

    using Stored = KnownField<ListTag>;

    // Where the next field's texts belong, as name, NUL, value, NUL; it lives until the next
    // room().
    char* room(size_t size) {
        if (m_texts.capacity() - m_texts.size() < size) growTexts(size);
        return m_texts.room(size);
    }
    // Takes in a field whose texts were written there.
    void commit(uint32_t nameSize, uint32_t valueSize, FieldTraits traits, bool neverIndexed) {
        const Stored field{m_texts.data() + m_texts.size(),
                           nameSize,
                           valueSize,
                           {traits, neverIndexed, ListTag::Source::kList}};
        if (refer(field)) m_texts.commit(field.textSize());
    }
    // Takes in a field without copying its texts, which lie in the static table or in what
    // shareTexts() was told of. False: it goes beyond the limit.
    bool refer(const Stored& field) {
        m_octets += field.octets();
        m_overflow |= m_octets > m_limit;
        m_malformed |= field.tag.traits.flaws != kNoFlaw;
        if (m_overflow) return false;
        *fieldRoom(1) = field;
        ++m_size;
        return true;
    }
    // Where the next `count` fields belong.
    Stored* fieldRoom(size_t count) {
        if (m_capacity - m_size < count) growFields(count);
        return m_fields.get() + m_size;
    }
    void shareTexts(const SharedTexts& texts);
    // Copies the texts that lie in shared memory, and gives that up.
    void ownTexts();

    void growTexts(size_t size);
    void growFields(size_t count);

    Bytes m_texts;
    SharedTexts m_shared;
    std::unique_ptr<Stored[]> m_fields;  // m_capacity, of which m_size are in use
    size_t m_size = 0;
    size_t m_capacity = 0;
    size_t m_owned = 0;  // none of the first m_owned fields has its texts in m_shared
    uint64_t m_octets = 0;
    uint32_t m_limit = 64 * 1024;
    bool m_overflow = false;
    bool m_malformed = false;
};

}  // namespace h2::hpack

#endif  // HTTP2CLIENTSTANDARD_HPACK_FIELD_LIST_H
