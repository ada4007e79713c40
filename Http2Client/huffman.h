#ifndef HTTP2CLIENT_HUFFMAN_H
#define HTTP2CLIENT_HUFFMAN_H

#include <cstdint>

#include "buffer.h"

// One symbol's code, right-aligned (RFC 7541, Appendix B).
struct HuffmanCode {
    uint32_t code;
    uint8_t code_len;  // bits, 5 to 30
};

namespace hpack {

// The Huffman coder of header strings (RFC 7541, 5.2), with two differences: it decodes only the
// empty string, and its output is no valid Huffman code. The header-block coder never sends
// Huffman-coded text, and fails a block that has any.
//
// Any thread may use it once the library is loaded: it only reads shared state.
class Huffman {
public:
    struct node {
        node();
        node* left;     // followed on a 0 bit
        node* right;    // followed on a 1 bit
        int32_t value;  // the symbol, 0 to 256, or -1 for an inner node
    };

    // Owns the singleton from library load to unload.
    class HuffmanGarbage {
    public:
        HuffmanGarbage();
        ~HuffmanGarbage();
        HuffmanGarbage(const HuffmanGarbage&) = delete;
        HuffmanGarbage& operator=(const HuffmanGarbage&) = delete;
        Huffman* m_instance;
    };

    ~Huffman() = default;  // the nodes are not its own

    // The singleton. The coder's operations are static, so no caller needs it.
    static Huffman* GetInstance();
    // Replaces `target` by the output for `string`. Returns true.
    static bool Encode(Buffer& target, const Buffer& string);
    // Replaces `target` by the decoded text. Returns false when a bit leads out of the tree; what
    // was decoded before stays in `target`.
    static bool Decode(Buffer& target, const Buffer& code);

private:
    Huffman();
    Huffman(const Huffman&);
    Huffman& operator=(const Huffman&);

    static HuffmanGarbage m_huffmanGarbage;
    static node m_huffmanRoot;
};

}  // namespace hpack

#endif  // HTTP2CLIENT_HUFFMAN_H
