#ifndef HTTP2CLIENT_TESTS_SUPPORT_REQUEST_BODY_H
#define HTTP2CLIENT_TESTS_SUPPORT_REQUEST_BODY_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "bytes.h"

namespace h2test {

// `size` bytes in which no two stretches of four bytes at a multiple of four are the same.
inline std::string distinctBytes(size_t size) {
    std::string out;
    for (uint32_t i = 0; out.size() < size; ++i) out += be32(i);
    out.resize(size);
    return out;
}

// A request body handed out by a reader; `read` goes to setContent with this object as `opaque`.
struct BodySource {
    std::string bytes;
    size_t at = 0;
    std::vector<size_t> asked;  // the `len` of each call

    explicit BodySource(std::string body = {}) : bytes(std::move(body)) {}
    static int read(char* buf, size_t len, void* opaque) {
        auto* self = static_cast<BodySource*>(opaque);
        self->asked.push_back(len);
        const size_t count = std::min(len, self->bytes.size() - self->at);
        std::copy_n(self->bytes.data() + self->at, count, buf);
        self->at += count;
        return static_cast<int>(count);
    }
};

}  // namespace h2test

#endif  // HTTP2CLIENT_TESTS_SUPPORT_REQUEST_BODY_H
