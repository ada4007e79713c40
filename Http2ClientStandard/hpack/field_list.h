#ifndef HTTP2CLIENTSTANDARD_HPACK_FIELD_LIST_H
#define HTTP2CLIENTSTANDARD_HPACK_FIELD_LIST_H

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "Http2ClientStandard/base/bytes.h"
#include "Http2ClientStandard/hpack/field_rules.h"

namespace h2::hpack {

// The fields of header blocks in the order they came.
//
// The texts lie in memory that is reused: a list that is cleared and filled again allocates
// nothing. A NUL follows each text. Beyond its limit (SETTINGS_MAX_HEADER_LIST_SIZE, RFC 9113,
// 6.5.2: name, value and 32 octets a field) a list counts fields, but stores none.
class FieldList {
public:
    static constexpr uint32_t kFieldOverhead = 32;  // RFC 7541, 4.1

    size_t size() const { return m_fields.size(); }
    bool empty() const { return m_fields.empty(); }

    // index < size(). The views live until the next add, decode, clear() or release().
    std::string_view name(size_t index) const {
        const Stored& field = m_fields[index];
        return {m_texts.data() + field.offset, field.nameSize};
    }
    std::string_view value(size_t index) const {
        const Stored& field = m_fields[index];
        return {m_texts.data() + field.offset + field.nameSize + 1, field.valueSize};
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

    // For the decoder, which writes texts in place. room(): where the next field's texts belong, as
    // name, NUL, value, NUL; the pointer lives until the next room(). commit(): takes them in.
    char* room(size_t size) { return m_texts.room(size); }
    void commit(uint32_t nameSize, uint32_t valueSize, FieldTraits traits, bool neverIndexed) {
        m_octets += uint64_t{nameSize} + valueSize + kFieldOverhead;
        m_overflow |= m_octets > m_limit;
        m_malformed |= traits.badName || traits.badValue;
        if (m_overflow) return;
        m_fields.push_back(
            {static_cast<uint32_t>(m_texts.size()), nameSize, valueSize, traits.id, neverIndexed});
        m_texts.commit(size_t{nameSize} + valueSize + 2);
    }

private:
    struct Stored {
        uint32_t offset;  // into m_texts
        uint32_t nameSize;
        uint32_t valueSize;
        NameId id;
        bool neverIndexed;
    };

    Bytes m_texts;
    std::vector<Stored> m_fields;
    uint64_t m_octets = 0;
    uint32_t m_limit = 64 * 1024;
    bool m_overflow = false;
    bool m_malformed = false;
};

}  // namespace h2::hpack

#endif  // HTTP2CLIENTSTANDARD_HPACK_FIELD_LIST_H
