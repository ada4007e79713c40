#ifndef HTTP2CLIENTSTANDARD_HPACK_FIELD_LIST_H
#define HTTP2CLIENTSTANDARD_HPACK_FIELD_LIST_H

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "Http2ClientStandard/base/bytes.h"

namespace h2::hpack {

// What the layers above look at in a name, without comparing texts.
enum class NameId : uint8_t {
    kOther,
    kStatus,
    kOtherPseudo,         // any other name that starts with a colon
    kConnectionSpecific,  // connection, keep-alive, proxy-connection, transfer-encoding, upgrade
    kTe,
    kContentLength,
    kCookie,
    kSetCookie,
};

NameId identify(std::string_view name);

// RFC 9113, 8.2.1, and RFC 9110, 5.1 and 5.5. A name is a token without upper-case letters, a
// pseudo-header's has a colon before it. A value has no control bytes but tabs, and neither starts
// nor ends with a blank or a tab.
bool isValidName(std::string_view name);
bool isValidValue(std::string_view value);

// What is known of a field's texts once they have been looked at.
struct FieldTraits {
    NameId id = NameId::kOther;
    bool malformed = false;  // name or value breaks isValidName or isValidValue
};

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

    // For the decoder, which writes texts in place: name, NUL, value, NUL at the start of the room.
    // A pointer into the room lives until the next call of room().
    char* room(size_t size) { return m_texts.room(size); }
    void commit(uint32_t nameSize, uint32_t valueSize, FieldTraits traits, bool neverIndexed);

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
