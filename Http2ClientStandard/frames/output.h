#ifndef HTTP2CLIENTSTANDARD_FRAMES_OUTPUT_H
#define HTTP2CLIENTSTANDARD_FRAMES_OUTPUT_H

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "Http2ClientStandard/base/bytes.h"

namespace h2 {

// Bytes on their way to the socket, in order: bytes of our own (frame headers, control frames) and
// references to blocks of the application, which are not copied.
//
// Own bytes are appended to own(). A block referred to must stay where it is until it has been
// consumed, or until copyBlocks() has been called.
class Output {
public:
    bool empty() const { return size() == 0; }
    size_t size() const { return m_own.size() + m_referredBytes; }

    // Append only: what lies there already may be in the middle of being sent.
    Bytes& own() { return m_own; }
    // Appends a reference. An empty block is nothing.
    void refer(const char* block, size_t size);

    // Writes the first parts, at most `max`, as sendmsg() takes them; returns how many.
    size_t gather(iovec* parts, size_t max) const;
    // Drops the first `size` bytes, which have been sent; size <= this->size().
    void consume(size_t size);

    // Copies what is referred to: the blocks may go away then.
    void copyBlocks();
    void clear();
    // Drops everything, the memory too.
    void release();

private:
    struct Reference {
        uint64_t at;  // own bytes that go before it, counted from the beginning
        const char* block;
        size_t size;  // never 0
    };

    // Own bytes in front of reference `index`, or of the end, from own byte number `from` on.
    size_t ownBefore(size_t index, uint64_t from) const;

    Bytes m_own;
    uint64_t m_ownConsumed = 0;  // number of the first byte in m_own
    std::vector<Reference> m_references;
    size_t m_first = 0;          // the first reference not yet consumed
    size_t m_referredBytes = 0;  // sum of the sizes from m_first on
};

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_FRAMES_OUTPUT_H
