#include "Http2ClientStandard/hpack/field_list.h"

#include <algorithm>

namespace h2::hpack {

void FieldList::clear() {
    m_texts.clear();
    m_size = 0;
    m_shared = SharedTexts();
    m_owned = 0;
    m_octets = 0;
    m_overflow = false;
    m_malformed = false;
}

void FieldList::release() {
    clear();
    m_texts.release();
    m_fields.reset();
    m_capacity = 0;
}

void FieldList::add(std::string_view name, std::string_view value, bool neverIndexed) {
    char* text = room(name.size() + value.size() + 2);
    text = std::copy(name.begin(), name.end(), text);
    *text++ = '\0';
    text = std::copy(value.begin(), value.end(), text);
    *text = '\0';
    FieldTraits traits{identify(name)};
    if (!isValidName(name)) traits.flaws |= kBadName;
    if (!isValidValue(value)) traits.flaws |= kBadValue;
    commit(static_cast<uint32_t>(name.size()), static_cast<uint32_t>(value.size()), traits,
           neverIndexed);
}

void FieldList::shareTexts(const SharedTexts& texts) {
    if (m_shared == texts) return;
    ownTexts();
    m_shared = texts;
}

void FieldList::ownTexts() {
    for (; m_owned < m_size; ++m_owned) {
        if (m_fields[m_owned].tag.source != ListTag::Source::kTable) continue;
        const size_t size = m_fields[m_owned].textSize();
        char* text = room(size);
        std::copy_n(m_fields[m_owned].text, size, text);
        m_texts.commit(size);
        m_fields[m_owned].text = text;
        m_fields[m_owned].tag.source = ListTag::Source::kList;
    }
    m_shared = SharedTexts();
}

void FieldList::growTexts(size_t size) {
    Bytes larger;
    larger.room(std::max(2 * m_texts.capacity(), m_texts.size() + size));
    larger.append(m_texts.view());
    for (size_t i = 0; i < m_size; ++i) {
        Stored& field = m_fields[i];
        if (field.tag.source == ListTag::Source::kList)
            field.text = larger.data() + (field.text - m_texts.data());
    }
    m_texts.swap(larger);
}

void FieldList::growFields(size_t count) {
    const size_t capacity = std::max(2 * m_capacity, m_size + count);
    std::unique_ptr<Stored[]> fields(new Stored[capacity]);
    std::copy_n(m_fields.get(), m_size, fields.get());
    m_fields = std::move(fields);
    m_capacity = capacity;
}

}  // namespace h2::hpack
