#include "Http2ClientStandard/session/response_rules.h"

#include <string_view>

namespace h2 {

namespace {

using hpack::NameId;

// Three digits, the first not 0 (RFC 9110, 15).
bool readStatus(std::string_view text, uint32_t& status) {
    if (text.size() != 3 || text[0] == '0') return false;
    status = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') return false;
        status = 10 * status + static_cast<uint32_t>(c - '0');
    }
    return true;
}

// Digits only; at most 18 of them behind leading zeros, so that nothing overflows.
bool readLength(std::string_view text, uint64_t& length) {
    if (text.empty()) return false;
    length = 0;
    for (const char c : text) {
        if (c < '0' || c > '9' || length >= 100'000'000'000'000'000) return false;
        length = 10 * length + static_cast<uint64_t>(c - '0');
    }
    return true;
}

// Takes one content-length; the same one may come again (RFC 9110, 8.6).
const char* addLength(std::string_view text, ResponseHead& head) {
    uint64_t length = 0;
    if (!readLength(text, length)) return "content-length is not a number";
    if (head.contentLength.has_value() && *head.contentLength != length) {
        return "two content-lengths differ";
    }
    head.contentLength = length;
    return nullptr;
}

// The rules of RFC 9113, 8.2.2 for a field that is no pseudo-header.
const char* checkRegularField(NameId id, std::string_view value) {
    if (id == NameId::kConnectionSpecific) return "a connection-specific field";
    if (id == NameId::kTe && value != "trailers") return "te is not \"trailers\"";
    return nullptr;
}

bool isPseudo(NameId id) { return id == NameId::kStatus || id == NameId::kOtherPseudo; }

}  // namespace

const char* readResponseHead(const hpack::FieldList& fields, ResponseHead& head) {
    if (fields.malformed()) return "a field's name or value has a forbidden character";
    // ":status" is the only pseudo-header of a response, and pseudo-headers come first.
    if (fields.empty() || fields.id(0) != NameId::kStatus) {
        return "the first field is not :status";
    }
    if (!readStatus(fields.value(0), head.status)) return ":status is not a status code";
    for (size_t i = 1; i < fields.size(); ++i) {
        const NameId id = fields.id(i);
        if (id == NameId::kOther) continue;
        if (isPseudo(id)) return "a second or unknown pseudo-header, or one behind a field";
        if (const char* rule = checkRegularField(id, fields.value(i))) return rule;
        if (id != NameId::kContentLength) continue;
        if (const char* rule = addLength(fields.value(i), head)) return rule;
    }
    return nullptr;
}

const char* checkTrailers(const hpack::FieldList& fields) {
    if (fields.malformed()) return "a trailer's name or value has a forbidden character";
    for (size_t i = 0; i < fields.size(); ++i) {
        if (isPseudo(fields.id(i))) return "a pseudo-header among the trailers";
        if (const char* rule = checkRegularField(fields.id(i), fields.value(i))) return rule;
    }
    return nullptr;
}

}  // namespace h2
