#ifndef HTTP2CLIENTSTANDARD_BASE_BYTES_H
#define HTTP2CLIENTSTANDARD_BASE_BYTES_H

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

namespace h2 {

// A byte buffer: filled at its end, emptied from its front, and reused without a new allocation.
//
// Bytes may be written in place: room(n) hands out n bytes behind the end, commit(m) takes the
// first m of them in. A pointer into the buffer lives until the next room(), append() or release().
class Bytes {
public:
    Bytes() = default;
    Bytes(Bytes&& other) noexcept { swap(other); }
    Bytes& operator=(Bytes&& other) noexcept {
        Bytes taken(std::move(other));
        swap(taken);
        return *this;
    }

    const char* data() const { return m_memory.get() + m_begin; }
    char* data() { return m_memory.get() + m_begin; }
    size_t size() const { return m_end - m_begin; }
    bool empty() const { return m_begin == m_end; }
    size_t capacity() const { return m_capacity; }
    std::string_view view() const { return {data(), size()}; }

    // At least `size` writable bytes behind the end. Their content is undefined.
    char* room(size_t size) {
        if (m_capacity - m_end < size) makeRoom(size);
        return m_memory.get() + m_end;
    }
    // Takes in the first `size` bytes of what the last room() handed out.
    void commit(size_t size) { m_end += size; }

    // `bytes` must not lie in this buffer.
    void append(std::string_view bytes) {
        if (bytes.empty()) return;
        std::memcpy(room(bytes.size()), bytes.data(), bytes.size());
        commit(bytes.size());
    }
    void append(char byte) {
        *room(1) = byte;
        commit(1);
    }

    // Drops the first `size` bytes; size <= size().
    void consume(size_t size) {
        m_begin += size;
        if (m_begin == m_end) clear();
    }
    // Drops what is behind the first `size` bytes; size <= size().
    void truncate(size_t size) { m_end = m_begin + size; }
    // Drops everything and keeps the memory.
    void clear() { m_begin = m_end = 0; }
    // Drops everything, the memory too.
    void release() { Bytes().swap(*this); }

    void swap(Bytes& other) noexcept {
        std::swap(m_memory, other.m_memory);
        std::swap(m_capacity, other.m_capacity);
        std::swap(m_begin, other.m_begin);
        std::swap(m_end, other.m_end);
    }

private:
    static constexpr size_t kSmallest = 64;

    // Moves the bytes to the front when that frees at least half of the memory, else grows.
    void makeRoom(size_t size) {
        const size_t used = this->size();
        if (m_begin >= m_capacity / 2 && m_capacity - used >= size) {
            std::memmove(m_memory.get(), data(), used);
        } else {
            const size_t capacity = std::max({kSmallest, used + size, 2 * m_capacity});
            std::unique_ptr<char[]> memory(new char[capacity]);
            if (used != 0) std::memcpy(memory.get(), data(), used);
            m_memory = std::move(memory);
            m_capacity = capacity;
        }
        m_begin = 0;
        m_end = used;
    }

    std::unique_ptr<char[]> m_memory;
    size_t m_capacity = 0;
    size_t m_begin = 0;  // m_begin <= m_end <= m_capacity
    size_t m_end = 0;
};

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_BASE_BYTES_H
