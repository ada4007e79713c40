#include "Http2ClientStandard/hpack/field_list.h"

#include <algorithm>

namespace h2::hpack {

void FieldList::clear() {
    m_texts.clear();
    m_fields.clear();
    m_octets = 0;
    m_overflow = false;
    m_malformed = false;
}

void FieldList::release() {
    clear();
    m_texts.release();
    std::vector<Stored>().swap(m_fields);
}

void FieldList::add(std::string_view name, std::string_view value, bool neverIndexed) {
    char* text = room(name.size() + value.size() + 2);
    text = std::copy(name.begin(), name.end(), text);
    *text++ = '\0';
    text = std::copy(value.begin(), value.end(), text);
    *text = '\0';
    const FieldTraits traits{identify(name), !isValidName(name), !isValidValue(value)};
    commit(static_cast<uint32_t>(name.size()), static_cast<uint32_t>(value.size()), traits,
           neverIndexed);
}

}  // namespace h2::hpack
