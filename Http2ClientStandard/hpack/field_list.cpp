#include "Http2ClientStandard/hpack/field_list.h"

#include <array>
#include <cstring>

namespace h2::hpack {

namespace {

// RFC 9110, 5.6.2, without the upper-case letters.
constexpr std::array<bool, 256> kNameBytes = [] {
    std::array<bool, 256> allowed{};
    for (const char c : std::string_view("!#$%&'*+-.^_`|~0123456789abcdefghijklmnopqrstuvwxyz")) {
        allowed[static_cast<unsigned char>(c)] = true;
    }
    return allowed;
}();

constexpr bool isBlank(char c) { return c == ' ' || c == '\t'; }

}  // namespace

bool isValidName(std::string_view name) {
    if (!name.empty() && name.front() == ':') name.remove_prefix(1);
    if (name.empty()) return false;
    bool valid = true;
    for (const char c : name) valid &= kNameBytes[static_cast<unsigned char>(c)];
    return valid;
}

bool isValidValue(std::string_view value) {
    if (value.empty()) return true;
    if (isBlank(value.front()) || isBlank(value.back())) return false;
    bool valid = true;
    for (const char c : value) {
        const auto byte = static_cast<unsigned char>(c);
        valid &= (byte >= 0x20 || byte == '\t') && byte != 0x7F;
    }
    return valid;
}

NameId identify(std::string_view name) {
    if (name.starts_with(':')) return name == ":status" ? NameId::kStatus : NameId::kOtherPseudo;
    switch (name.size()) {
        case 2: return name == "te" ? NameId::kTe : NameId::kOther;
        case 6: return name == "cookie" ? NameId::kCookie : NameId::kOther;
        case 7: return name == "upgrade" ? NameId::kConnectionSpecific : NameId::kOther;
        case 10:
            if (name == "connection" || name == "keep-alive") return NameId::kConnectionSpecific;
            return name == "set-cookie" ? NameId::kSetCookie : NameId::kOther;
        case 14: return name == "content-length" ? NameId::kContentLength : NameId::kOther;
        case 16: return name == "proxy-connection" ? NameId::kConnectionSpecific : NameId::kOther;
        case 17: return name == "transfer-encoding" ? NameId::kConnectionSpecific : NameId::kOther;
        default: return NameId::kOther;
    }
}

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
    const FieldTraits traits{identify(name), !isValidName(name) || !isValidValue(value)};
    commit(static_cast<uint32_t>(name.size()), static_cast<uint32_t>(value.size()), traits,
           neverIndexed);
}

void FieldList::commit(uint32_t nameSize, uint32_t valueSize, FieldTraits traits,
                       bool neverIndexed) {
    m_octets += uint64_t{nameSize} + valueSize + kFieldOverhead;
    m_overflow |= m_octets > m_limit;
    m_malformed |= traits.malformed;
    if (m_overflow) return;
    m_fields.push_back(
        {static_cast<uint32_t>(m_texts.size()), nameSize, valueSize, traits.id, neverIndexed});
    m_texts.commit(size_t{nameSize} + valueSize + 2);
}

}  // namespace h2::hpack
