#ifndef HTTP2CLIENT_TESTS_STANDARD_HPACK_SUPPORT_H
#define HTTP2CLIENT_TESTS_STANDARD_HPACK_SUPPORT_H

#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "Http2ClientStandard/hpack/decoder.h"
#include "Http2ClientStandard/hpack/encoder.h"
#include "tests/support/guarded.h"

namespace h2test {

struct TestField {
    std::string name;
    std::string value;
    bool neverIndexed = false;

    bool operator==(const TestField&) const = default;
};
using TestFields = std::vector<TestField>;

inline void PrintTo(const TestField& field, std::ostream* out) {
    *out << field.name << ": " << field.value << (field.neverIndexed ? " (never indexed)" : "");
}

// What a list has stored. Each text must be followed by a NUL.
inline TestFields fieldsOf(const h2::hpack::FieldList& list) {
    TestFields fields;
    for (size_t i = 0; i < list.size(); ++i) {
        const std::string_view name = list.name(i);
        const std::string_view value = list.value(i);
        const bool ended = name.data()[name.size()] == '\0' && value.data()[value.size()] == '\0';
        fields.push_back({std::string(name), ended ? std::string(value) : "no NUL behind a text",
                          list.neverIndexed(i)});
    }
    return fields;
}

// The fields of a block that lies flush against an unreadable page; none when it is an error.
inline std::optional<TestFields> decodeBlock(h2::hpack::Decoder& decoder, std::string_view block) {
    const GuardedBytes guarded(block);
    h2::hpack::FieldList list;
    list.setLimit(1 << 24);
    if (!decoder.decode(guarded.view(), list)) return std::nullopt;
    return fieldsOf(list);
}

inline std::vector<h2::hpack::Field> toFields(const TestFields& fields) {
    std::vector<h2::hpack::Field> out;
    for (const TestField& field : fields) {
        out.push_back({field.name, field.value, field.neverIndexed});
    }
    return out;
}

inline std::string encodeBlock(h2::hpack::Encoder& encoder, const TestFields& fields) {
    h2::Bytes out;
    encoder.encode(out, toFields(fields));
    return std::string(out.view());
}

}  // namespace h2test

#endif  // HTTP2CLIENT_TESTS_STANDARD_HPACK_SUPPORT_H
