#ifndef HTTP2CLIENTSTANDARD_HPACK_FIELD_LIST_H
#define HTTP2CLIENTSTANDARD_HPACK_FIELD_LIST_H

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "Http2ClientStandard/base/bytes.h"
#include "Http2ClientStandard/hpack/dynamic_table.h"
#include "Http2ClientStandard/hpack/field_rules.h"

namespace h2::hpack {

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
    FieldList(FieldList&&) = default;
    FieldList& operator=(FieldList&&) = default;

    size_t size() const { return m_fields.size(); }
    bool empty() const { return m_fields.empty(); }

    // index < size(). The views live until the next add, decode, clear() or release() of the list.
    std::string_view name(size_t index) const {
        return {m_fields[index].text, m_fields[index].nameSize};
    }
    std::string_view value(size_t index) const {
        const Stored& field = m_fields[index];
        return {field.text + field.nameSize + 1, field.valueSize};
    }
    NameId id(size_t index) const { return m_fields[index].id; }
    bool neverIndexed(size_t index) const { return m_fields[index].neverIndexed; }

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

    enum class Source : uint8_t { kList, kTable, kStatic };
    struct Stored {
        const char* text;  // name, NUL, value, NUL
        uint32_t nameSize;
        uint32_t valueSize;
        NameId id;
        bool neverIndexed;
        Source source;
    };

    // Where the next field's texts belong, as name, NUL, value, NUL; it lives until the next
    // room().
    char* room(size_t size) {
        if (m_texts.capacity() - m_texts.size() < size) growTexts(size);
        return m_texts.room(size);
    }
    // Takes in a field whose texts were written there.
    void commit(uint32_t nameSize, uint32_t valueSize, FieldTraits traits, bool neverIndexed) {
        if (!count(nameSize, valueSize, traits)) return;
        m_fields.push_back({m_texts.data() + m_texts.size(), nameSize, valueSize, traits.id,
                            neverIndexed, Source::kList});
        m_texts.commit(size_t{nameSize} + valueSize + 2);
    }
    // Takes in a field without copying its texts, which lie in the static table or in what
    // shareTexts() was told of.
    void refer(const char* text, uint32_t nameSize, uint32_t valueSize, FieldTraits traits,
               Source source) {
        if (!count(nameSize, valueSize, traits)) return;
        m_fields.push_back({text, nameSize, valueSize, traits.id, false, source});
    }
    void shareTexts(const SharedTexts& texts);
    // Copies the texts that lie in shared memory, and gives that up.
    void ownTexts();

    // Whether there is room for a field in the limit.
    bool count(uint32_t nameSize, uint32_t valueSize, FieldTraits traits) {
        m_octets += uint64_t{nameSize} + valueSize + kFieldOverhead;
        m_overflow |= m_octets > m_limit;
        m_malformed |= traits.badName || traits.badValue;
        return !m_overflow;
    }
    void growTexts(size_t size);

    Bytes m_texts;
    SharedTexts m_shared;
    std::vector<Stored> m_fields;
    size_t m_owned = 0;  // none of the first m_owned fields has its texts in m_shared
    uint64_t m_octets = 0;
    uint32_t m_limit = 64 * 1024;
    bool m_overflow = false;
    bool m_malformed = false;
};

}  // namespace h2::hpack

#endif  // HTTP2CLIENTSTANDARD_HPACK_FIELD_LIST_H
