#ifndef HTTP2CLIENT_TESTS_UNIT_GUARDED_BUFFER_H
#define HTTP2CLIENT_TESTS_UNIT_GUARDED_BUFFER_H

#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "Http2Client/buffer.h"
#include "tests/support/guarded.h"

// A buffer to read from whose bytes lie flush against an unreadable page: its capacity is its
// length, and a read of one byte too far crashes the test.
class GuardedBuffer {
public:
    explicit GuardedBuffer(std::string_view bytes) : m_bytes(bytes) {
        free(m_buffer.buffer);
        m_buffer.buffer = m_bytes.data();
        m_buffer.len = static_cast<uint32_t>(m_bytes.size());
        m_buffer.max_len = m_buffer.len;
    }
    ~GuardedBuffer() { m_buffer.buffer = nullptr; }
    GuardedBuffer(const GuardedBuffer&) = delete;
    GuardedBuffer& operator=(const GuardedBuffer&) = delete;

    const Buffer& get() const { return m_buffer; }  // lives as long as this object

private:
    h2test::GuardedBytes m_bytes;
    Buffer m_buffer;  // its block is m_bytes', never freed or grown
};

#endif  // HTTP2CLIENT_TESTS_UNIT_GUARDED_BUFFER_H
