#ifndef HTTP2CLIENTSTANDARD_HPACK_HUFFMAN_H
#define HTTP2CLIENTSTANDARD_HPACK_HUFFMAN_H

#include <cstddef>
#include <cstdint>
#include <string_view>

// The Huffman code of string literals (RFC 7541, 5.2 and Appendix B).
namespace h2::hpack {

// The room that decodeHuffman() needs: the shortest code has 5 bits, and the last step may write
// one byte more than it decodes.
constexpr size_t huffmanRoom(size_t codedSize) { return codedSize * 8 / 5 + 1; }

// Decodes `coded` to `out`, which has room for huffmanRoom(coded.size()) bytes. Returns the number
// of bytes decoded; -1 when the coding is wrong: padding of more than 7 bits or with a zero bit, or
// the EOS symbol.
ptrdiff_t decodeHuffman(std::string_view coded, char* out);

// What encodeHuffman() may write behind as many bytes as the text has.
constexpr size_t kHuffmanSlack = 24;

// Codes `text` if that makes it shorter, and returns where the coded bytes end; null if not. There
// must be room for text.size() + kHuffmanSlack bytes, whose content is undefined afterwards.
char* encodeHuffman(std::string_view text, char* out);

}  // namespace h2::hpack

#endif  // HTTP2CLIENTSTANDARD_HPACK_HUFFMAN_H
