#ifndef HTTP2CLIENTSTANDARD_HPACK_DYNAMIC_TABLE_H
#define HTTP2CLIENTSTANDARD_HPACK_DYNAMIC_TABLE_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>

#include "Http2ClientStandard/hpack/shared_texts.h"

namespace h2::hpack {

constexpr uint32_t kFieldOverhead = 32;  // octets, besides name and value (RFC 7541, 4.1)

// A field whose texts lie somewhere else, one after the other: name, NUL, value, NUL.
template <class Tag>
struct KnownField {
    const char* text;
    uint32_t nameSize;
    uint32_t valueSize;
    Tag tag;  // what the owner keeps with it

    std::string_view name() const { return {text, nameSize}; }
    std::string_view value() const { return {text + nameSize + 1, valueSize}; }
    constexpr size_t textSize() const { return size_t{nameSize} + valueSize + 2; }
    uint64_t octets() const { return uint64_t{nameSize} + valueSize + kFieldOverhead; }
};

// A dynamic table, of the decoder or the encoder (RFC 7541, 2.3.2 and 4).
//
// Entries are numbered in the order of their insertion; those from oldest() to end() - 1 are in the
// table. They lie in a ring, their texts one after another in one piece of memory. When the
// memory's end is reached, the texts move to its front or, unless they are less than half of it, to
// a larger piece: on average each byte moves once. Memory grows with what the table has held, and
// is bounded by twice its maximum size. A piece that others use as well is left to them as it is.
template <class Tag>
class DynamicTable {
public:
    // So many bytes behind an entry's texts may be read, whatever they are.
    static constexpr size_t kReadableBehind = 16;

    using Entry = KnownField<Tag>;

    // The entries by their age, which is 1 for the newest. Lives until the next change of the
    // table.
    class Ages {
    public:
        explicit Ages(const DynamicTable& table)
            : m_entries(table.m_entries.get()),
              m_mask(table.m_capacity - 1),
              m_end(table.m_end),
              m_count(table.count()) {}
        // Null when there is no such entry.
        const Entry* find(uint64_t age) const {
            return age - 1 < m_count ? &m_entries[(m_end - age) & m_mask] : nullptr;
        }

    private:
        const Entry* m_entries;
        uint64_t m_mask;
        uint64_t m_end;
        uint64_t m_count;
    };

    explicit DynamicTable(uint32_t maxSize) : m_maxSize(maxSize) {}
    DynamicTable(const DynamicTable&) = delete;
    DynamicTable& operator=(const DynamicTable&) = delete;

    uint32_t maxSize() const { return m_maxSize; }
    uint32_t size() const { return m_size; }  // RFC 7541, 4.1; <= maxSize()
    uint64_t count() const { return m_end - m_oldest; }
    uint64_t oldest() const { return m_oldest; }
    uint64_t end() const { return m_end; }
    bool contains(uint64_t number) const { return number - m_oldest < count(); }

    // The number must be in the table. What is returned lives until the next insert().
    Entry& entry(uint64_t number) { return m_entries[number & (m_capacity - 1)]; }

    // Where the texts lie, until an insert() of `size` bytes of text, NULs included, without room.
    const SharedTexts& texts() const { return m_texts; }
    bool hasRoom(size_t size) const { return m_textsCapacity - m_textsEnd >= size; }

    static uint64_t entrySize(std::string_view name, std::string_view value) {
        return uint64_t{name.size()} + value.size() + kFieldOverhead;
    }

    void setMaxSize(uint32_t octets) {
        m_maxSize = octets;
        evictDownTo(octets);
    }

    // Evicts what the new entry needs to give way, and inserts it if it fits at all: else the table
    // is empty, and the result false. The texts must not lie in the table: the entry that they come
    // from may be the one to be evicted.
    bool insert(std::string_view name, std::string_view value, const Tag& tag) {
        const uint64_t size = entrySize(name, value);
        if (size > m_maxSize) {
            evictDownTo(0);
            return false;
        }
        evictDownTo(m_maxSize - size);
        if (count() == m_capacity) growRing();
        char* text = roomForTexts(name.size() + value.size() + 2);
        entry(m_end++) = {text, static_cast<uint32_t>(name.size()),
                          static_cast<uint32_t>(value.size()), tag};
        m_size += static_cast<uint32_t>(size);
        if (!name.empty()) std::memcpy(text, name.data(), name.size());
        text[name.size()] = '\0';
        text += name.size() + 1;
        if (!value.empty()) std::memcpy(text, value.data(), value.size());
        text[value.size()] = '\0';
        return true;
    }

private:
    static constexpr uint64_t kSmallestRing = 8;
    static constexpr size_t kSmallestTexts = 480;

    void evictDownTo(uint64_t octets) {
        while (m_size > octets) {
            m_size -= static_cast<uint32_t>(entry(m_oldest++).octets());
        }
    }

    void growRing() {
        const uint64_t capacity = m_capacity == 0 ? kSmallestRing : 2 * m_capacity;
        std::unique_ptr<Entry[]> entries(new Entry[capacity]);
        for (uint64_t i = m_oldest; i != m_end; ++i) entries[i & (capacity - 1)] = entry(i);
        m_entries = std::move(entries);
        m_capacity = capacity;
    }

    char* roomForTexts(size_t size) {
        if (!hasRoom(size)) makeRoomForTexts(size);
        char* text = m_texts.bytes() + m_textsEnd;
        m_textsEnd += size;
        return text;
    }

    void makeRoomForTexts(size_t size) {
        const size_t begin = count() == 0 ? m_textsEnd : entry(m_oldest).text - m_texts.bytes();
        const size_t used = m_textsEnd - begin;
        const bool inPlace = used + size <= m_textsCapacity / 2 && m_texts.unique();
        const SharedTexts former = m_texts;
        if (!inPlace) {
            m_textsCapacity = std::max(kSmallestTexts, 2 * (used + size));
            m_texts = SharedTexts::allocate(m_textsCapacity + kReadableBehind);
        }
        m_textsEnd = used;
        if (used == 0) return;
        const char* const from = former.bytes() + begin;
        std::memmove(m_texts.bytes(), from, used);
        for (uint64_t i = m_oldest; i != m_end; ++i) {
            entry(i).text = m_texts.bytes() + (entry(i).text - from);
        }
    }

    uint32_t m_maxSize;
    uint32_t m_size = 0;
    uint64_t m_oldest = 1;
    uint64_t m_end = 1;
    std::unique_ptr<Entry[]> m_entries;  // m_capacity of them; entry n at n modulo m_capacity
    uint64_t m_capacity = 0;             // 0 or a power of two
    SharedTexts m_texts;                 // m_textsCapacity + kReadableBehind bytes
    size_t m_textsCapacity = 0;
    size_t m_textsEnd = 0;  // <= m_textsCapacity
};

}  // namespace h2::hpack

#endif  // HTTP2CLIENTSTANDARD_HPACK_DYNAMIC_TABLE_H
