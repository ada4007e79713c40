#ifndef HTTP2CLIENT_TESTS_SUPPORT_GUARDED_H
#define HTTP2CLIENT_TESTS_SUPPORT_GUARDED_H

#include <cstddef>
#include <string_view>

namespace h2test {

// A copy of some bytes, flush against an unreadable page: a read or write past the end
// crashes the test, with every compiler and without a sanitizer.
//
// The memory before the bytes is readable: reading backwards is not detected.
class GuardedBytes {
public:
    explicit GuardedBytes(std::string_view bytes) : GuardedBytes(bytes, {}) {}

    // `after` is readable and stands between the bytes and the unreadable page; size() does not
    // count it.
    GuardedBytes(std::string_view bytes, std::string_view after);

    ~GuardedBytes();
    GuardedBytes(const GuardedBytes&) = delete;
    GuardedBytes& operator=(const GuardedBytes&) = delete;

    char* data() { return m_data; }
    const char* data() const { return m_data; }
    size_t size() const { return m_size; }
    std::string_view view() const { return {m_data, m_size}; }

private:
    void* m_region;       // mmap'ed, m_regionSize bytes, the last page of them unreadable
    size_t m_regionSize;  // a multiple of the page size
    char* m_data;         // inside m_region, never null, also for no bytes at all
    size_t m_size;
};

}  // namespace h2test

#endif  // HTTP2CLIENT_TESTS_SUPPORT_GUARDED_H
