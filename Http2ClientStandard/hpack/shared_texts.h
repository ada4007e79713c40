#ifndef HTTP2CLIENTSTANDARD_HPACK_SHARED_TEXTS_H
#define HTTP2CLIENTSTANDARD_HPACK_SHARED_TEXTS_H

#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>

namespace h2::hpack {

// Memory that a table fills with texts, and that lists refer to instead of copying them. It goes
// when its last user does. Counted without atomics: the users belong to one connection, and so to
// one thread at a time.
class SharedTexts {
public:
    SharedTexts() = default;
    static SharedTexts allocate(size_t size) {
        void* memory = ::operator new(sizeof(Head) + size);
        SharedTexts texts;
        texts.m_head = new (memory) Head{1};
        return texts;
    }
    SharedTexts(const SharedTexts& other) : m_head(other.m_head) {
        if (m_head != nullptr) ++m_head->users;
    }
    SharedTexts(SharedTexts&& other) noexcept : m_head(std::exchange(other.m_head, nullptr)) {}
    SharedTexts& operator=(SharedTexts other) noexcept {
        std::swap(m_head, other.m_head);
        return *this;
    }
    // clang-analyzer does not follow the count.
    ~SharedTexts() {
        // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDelete)
        if (m_head != nullptr && --m_head->users == 0) ::operator delete(m_head);
    }

    // The memory, or null when there is none.
    char* bytes() const {
        // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDelete)
        return m_head == nullptr ? nullptr : reinterpret_cast<char*>(m_head + 1);
    }
    bool unique() const { return m_head != nullptr && m_head->users == 1; }
    bool operator==(const SharedTexts& other) const = default;

private:
    struct Head {
        size_t users;
    };
    Head* m_head = nullptr;
};

}  // namespace h2::hpack

#endif  // HTTP2CLIENTSTANDARD_HPACK_SHARED_TEXTS_H
