#ifndef HTTP2CLIENT_TESTS_STANDARD_FIELD_DECODER_H
#define HTTP2CLIENT_TESTS_STANDARD_FIELD_DECODER_H

#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct nghttp2_hd_inflater;

namespace h2test {

using FieldLines = std::vector<std::pair<std::string, std::string>>;

// Decodes the header blocks of one connection in their order, with libnghttp2.
class FieldDecoder {
public:
    FieldDecoder();
    ~FieldDecoder();
    FieldDecoder(const FieldDecoder&) = delete;
    FieldDecoder& operator=(const FieldDecoder&) = delete;

    // Throws std::runtime_error when the block cannot be decoded.
    FieldLines decode(std::string_view block);

private:
    nghttp2_hd_inflater* m_inflater = nullptr;
};

}  // namespace h2test

#endif  // HTTP2CLIENT_TESTS_STANDARD_FIELD_DECODER_H
