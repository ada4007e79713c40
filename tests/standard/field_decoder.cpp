#include "tests/standard/field_decoder.h"

#include <nghttp2/nghttp2.h>

#include <stdexcept>

namespace h2test {

FieldDecoder::FieldDecoder() {
    if (nghttp2_hd_inflate_new(&m_inflater) != 0) throw std::runtime_error("inflater");
}

FieldDecoder::~FieldDecoder() { nghttp2_hd_inflate_del(m_inflater); }

FieldLines FieldDecoder::decode(std::string_view block) {
    FieldLines lines;
    const auto* data = reinterpret_cast<const uint8_t*>(block.data());
    size_t left = block.size();
    while (true) {
        nghttp2_nv field;
        int flags = 0;
        const ssize_t used = nghttp2_hd_inflate_hd2(m_inflater, &field, &flags, data, left, 1);
        if (used < 0) throw std::runtime_error("the header block cannot be decoded");
        data += used;
        left -= static_cast<size_t>(used);
        if ((flags & NGHTTP2_HD_INFLATE_EMIT) != 0) {
            lines.emplace_back(std::string(reinterpret_cast<char*>(field.name), field.namelen),
                               std::string(reinterpret_cast<char*>(field.value), field.valuelen));
        }
        if ((flags & NGHTTP2_HD_INFLATE_FINAL) != 0) break;
    }
    nghttp2_hd_inflate_end_headers(m_inflater);
    return lines;
}

}  // namespace h2test
