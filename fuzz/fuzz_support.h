#ifndef HTTP2CLIENT_FUZZ_FUZZ_SUPPORT_H
#define HTTP2CLIENT_FUZZ_FUZZ_SUPPORT_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <streambuf>
#include <string>
#include <string_view>

#include "Http2Client/frame.h"

// What a harness has: int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size).
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace h2fuzz {

// Ends the process, which makes the input a finding, when a promise of the library is broken.
inline void require(bool kept, const char* promise) {
    if (kept) return;
    std::fprintf(stderr, "broken promise: %s\n", promise);
    std::abort();
}

// Takes an input apart from its front; a value that is not there any more is zero or empty.
class Input {
public:
    Input(const uint8_t* data, size_t size) : m_rest(reinterpret_cast<const char*>(data), size) {}

    bool empty() const { return m_rest.empty(); }
    std::string_view bytes(size_t count) {
        const std::string_view taken = m_rest.substr(0, count);
        m_rest.remove_prefix(taken.size());
        return taken;
    }
    std::string_view rest() { return bytes(m_rest.size()); }
    uint8_t byte() { return static_cast<uint8_t>(number(1)); }
    uint16_t word() { return static_cast<uint16_t>(number(2)); }
    uint32_t dword() { return number(4); }
    bool flag() { return (byte() & 1) != 0; }

private:
    uint32_t number(size_t width) {
        uint32_t value = 0;
        for (const char c : bytes(width)) value = value << 8 | static_cast<uint8_t>(c);
        return value;
    }

    std::string_view m_rest;
};

// Keeps the library's console lines off the fuzzer's output: one of these stands in each harness.
class QuietCout {
public:
    QuietCout() : m_former(std::cout.rdbuf(&m_sink)) {}
    ~QuietCout() { std::cout.rdbuf(m_former); }  // cout is flushed once more, after this
    QuietCout(const QuietCout&) = delete;
    QuietCout& operator=(const QuietCout&) = delete;

private:
    class Sink : public std::streambuf {
        int_type overflow(int_type c) override { return traits_type::not_eof(c); }
        std::streamsize xsputn(const char*, std::streamsize size) override { return size; }
    };
    Sink m_sink;
    std::streambuf* m_former;
};

inline std::string textOf(const Buffer& buffer) { return std::string(buffer.buffer, buffer.len); }

// Bytes in a block of just their size, so that AddressSanitizer sees a read of one byte too far.
class ExactBytes {
public:
    explicit ExactBytes(std::string_view bytes)
        : m_data(new char[bytes.size()]), m_size(bytes.size()) {
        std::copy(bytes.begin(), bytes.end(), m_data.get());
    }
    char* data() const { return m_data.get(); }
    size_t size() const { return m_size; }

private:
    std::unique_ptr<char[]> m_data;
    size_t m_size;
};

// A buffer whose capacity is its length.
class ExactBuffer {
public:
    explicit ExactBuffer(std::string_view bytes) {
        std::free(m_buffer.buffer);
        m_buffer.buffer = static_cast<char*>(std::malloc(bytes.size()));
        require(m_buffer.buffer != nullptr, "memory for the input");
        std::copy(bytes.begin(), bytes.end(), m_buffer.buffer);
        m_buffer.len = static_cast<uint32_t>(bytes.size());
        m_buffer.max_len = m_buffer.len;
    }
    const Buffer& get() const { return m_buffer; }

private:
    Buffer m_buffer;
};

// All that a frame holds, as text; equal frames give equal texts.
std::string describe(const tiny::Frame& frame);
// The same of a header list.
std::string describe(const tiny::HeadersFrame::HeaderList& list);

}  // namespace h2fuzz

#endif  // HTTP2CLIENT_FUZZ_FUZZ_SUPPORT_H
