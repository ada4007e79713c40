#include "Http2ClientStandard/hpack/field_rules.h"

#include <emmintrin.h>

#include <array>

#include "Http2ClientStandard/base/load.h"

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

constexpr bool isValueByte(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return (byte >= 0x20 || byte == '\t') && byte != 0x7F;
}

// isValueByte of 16 bytes at once: 0xFF for each that is not.
__m128i badValueBytes(__m128i bytes) {
    const __m128i control = _mm_cmpeq_epi8(_mm_min_epu8(bytes, _mm_set1_epi8(0x1F)), bytes);
    const __m128i tab = _mm_cmpeq_epi8(bytes, _mm_set1_epi8('\t'));
    const __m128i del = _mm_cmpeq_epi8(bytes, _mm_set1_epi8(0x7F));
    return _mm_or_si128(_mm_andnot_si128(tab, control), del);
}

__m128i load16(const char* bytes) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes));
}

bool hasBadValueByte(const char* bytes, size_t size) {
    __m128i bad;
    if (size < 16) {
        const size_t part = size < 8 ? size : 8;
        bad = badValueBytes(
            _mm_set_epi64x(static_cast<int64_t>(loadUpTo8(bytes, part)),
                           static_cast<int64_t>(loadUpTo8(bytes + size - part, part))));
    } else {
        bad = badValueBytes(load16(bytes + size - 16));
        for (size_t i = 0; i + 16 < size; i += 16) {
            bad = _mm_or_si128(bad, badValueBytes(load16(bytes + i)));
        }
    }
    return _mm_movemask_epi8(bad) != 0;
}

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
    if (value.size() >= 4) return !hasBadValueByte(value.data(), value.size());
    for (const char c : value) {
        if (!isValueByte(c)) return false;
    }
    return true;
}

}  // namespace h2::hpack
