#ifndef HTTP2CLIENTSTANDARD_BASE_LOAD_H
#define HTTP2CLIENTSTANDARD_BASE_LOAD_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>

// Integers read from and written to bytes that need not be aligned. None of these touches a byte
// beyond those it is given.
namespace h2 {

namespace detail {

template <class Integer>
constexpr Integer load(const char* bytes) {
    Integer value = 0;
    if (std::is_constant_evaluated()) {
        for (size_t i = 0; i < sizeof(Integer); ++i) {
            value |= Integer{static_cast<unsigned char>(bytes[i])} << (8 * i);
        }
    } else {
        std::memcpy(&value, bytes, sizeof value);
    }
    return value;
}

}  // namespace detail

// The machine's order: the first byte is the lowest.
constexpr uint32_t load32(const char* bytes) { return detail::load<uint32_t>(bytes); }
constexpr uint64_t load64(const char* bytes) { return detail::load<uint64_t>(bytes); }

// The network's order: the first byte is the highest.
inline uint64_t loadBig64(const char* bytes) { return __builtin_bswap64(load64(bytes)); }
inline void storeBig64(char* bytes, uint64_t value) {
    value = __builtin_bswap64(value);
    std::memcpy(bytes, &value, sizeof value);
}

// A number that depends on each of `size` bytes, size <= 8. From 4 bytes on it consists of them
// alone, some of them twice.
constexpr uint64_t loadUpTo8(const char* bytes, size_t size) {
    if (size == 8) return load64(bytes);
    if (size >= 4) return load32(bytes) | uint64_t{load32(bytes + size - 4)} << 32;
    if (size == 0) return 0;
    const auto byte = [&](size_t i) { return uint64_t{static_cast<unsigned char>(bytes[i])}; };
    return byte(0) | byte(size / 2) << 8 | byte(size - 1) << 16;
}

// Whether two texts of `size` bytes are equal. Short ones cost no call.
inline bool sameBytes(const char* a, const char* b, size_t size) {
    if (size <= 8) return loadUpTo8(a, size) == loadUpTo8(b, size);
    if (size > 16) return std::memcmp(a, b, size) == 0;
    return load64(a) == load64(b) && load64(a + size - 8) == load64(b + size - 8);
}

inline bool sameText(std::string_view a, std::string_view b) {
    return a.size() == b.size() && sameBytes(a.data(), b.data(), a.size());
}

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_BASE_LOAD_H
