#ifndef HTTP2CLIENTSTANDARD_HPACK_FIELD_RULES_H
#define HTTP2CLIENTSTANDARD_HPACK_FIELD_RULES_H

#include <cstdint>
#include <string_view>

// What can be said of one field by itself.
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

constexpr NameId identify(std::string_view name) {
    if (name.starts_with(':')) return name == ":status" ? NameId::kStatus : NameId::kOtherPseudo;
    const auto is = [name](std::string_view other, NameId id) {
        return name == other ? id : NameId::kOther;
    };
    switch (name.size()) {
        case 2: return is("te", NameId::kTe);
        case 6: return is("cookie", NameId::kCookie);
        case 7: return is("upgrade", NameId::kConnectionSpecific);
        case 10:
            if (name == "set-cookie") return NameId::kSetCookie;
            if (name == "connection") return NameId::kConnectionSpecific;
            return is("keep-alive", NameId::kConnectionSpecific);
        case 14: return is("content-length", NameId::kContentLength);
        case 16: return is("proxy-connection", NameId::kConnectionSpecific);
        case 17: return is("transfer-encoding", NameId::kConnectionSpecific);
        default: return NameId::kOther;
    }
}

// RFC 9113, 8.2.1, with RFC 9110, 5.1 and 5.5. A name is a token without upper-case letters; a
// pseudo-header field's has a colon before it. A value has no control bytes but tabs, and neither
// starts nor ends with a blank or a tab.
bool isValidName(std::string_view name);
bool isValidValue(std::string_view value);

// What a field breaks of these rules.
enum Flaw : uint8_t { kNoFlaw = 0, kBadName = 1, kBadValue = 2 };

// What a table keeps of the fields in it, so that each is looked at only once.
struct FieldTraits {
    NameId id = NameId::kOther;
    uint8_t flaws = kNoFlaw;  // any Flaws
};

}  // namespace h2::hpack

#endif  // HTTP2CLIENTSTANDARD_HPACK_FIELD_RULES_H
