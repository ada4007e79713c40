#ifndef HTTP2CLIENTSTANDARD_SESSION_RESPONSE_RULES_H
#define HTTP2CLIENTSTANDARD_SESSION_RESPONSE_RULES_H

#include <cstdint>
#include <optional>

#include "Http2ClientStandard/hpack/field_list.h"

namespace h2 {

struct ResponseHead {
    uint32_t status = 0;  // 100 to 999
    std::optional<uint64_t> contentLength;

    bool interim() const { return status < 200; }
};

// Reads a response's header section by the rules of RFC 9113, 8.1 to 8.3. Returns null, or the rule
// that makes it malformed. (8.2.1, syntax of names and values, has been checked by HPACK.)
const char* readResponseHead(const hpack::FieldList& fields, ResponseHead& head);

// The same for a trailer section, of which nothing is read.
const char* checkTrailers(const hpack::FieldList& fields);

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_SESSION_RESPONSE_RULES_H
