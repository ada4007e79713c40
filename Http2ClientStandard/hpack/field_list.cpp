#include "Http2ClientStandard/hpack/field_list.h"

#include <algorithm>

namespace h2::hpack {

void FieldList::clear() {
    m_texts.clear();
    m_fields.clear();
    m_shared = SharedTexts();
    m_owned = 0;
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

void FieldList::shareTexts(const SharedTexts& texts) {
    if (m_shared == texts) return;
    ownTexts();
    m_shared = texts;
}

void FieldList::ownTexts() {
    for (; m_owned < m_fields.size(); ++m_owned) {
        if (m_fields[m_owned].source != Source::kTable) continue;
        const size_t size = size_t{m_fields[m_owned].nameSize} + m_fields[m_owned].valueSize + 2;
        char* text = room(size);
        std::copy_n(m_fields[m_owned].text, size, text);
        m_texts.commit(size);
        m_fields[m_owned].text = text;
        m_fields[m_owned].source = Source::kList;
    }
    m_shared = SharedTexts();
}

void FieldList::growTexts(size_t size) {
    Bytes larger;
    larger.room(std::max(2 * m_texts.capacity(), m_texts.size() + size));
    larger.append(m_texts.view());
    for (Stored& field : m_fields) {
        if (field.source != Source::kList) continue;
        field.text = larger.data() + (field.text - m_texts.data());
    }
    m_texts.swap(larger);
}

}  // namespace h2::hpack
