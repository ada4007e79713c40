#ifndef HTTP2CLIENTSTANDARD_SESSION_STREAM_TABLE_H
#define HTTP2CLIENTSTANDARD_SESSION_STREAM_TABLE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

#include "Http2ClientStandard/session/stream.h"

namespace h2 {

// The streams of a session by identifier. Memory of streams is reused, so that a request allocates
// nothing in a steady state. A stream's address holds until remove().
//
// The index is an open-addressing table: identifiers are odd and grow, so that those of a window of
// streams fall into slots of their own.
class StreamTable {
public:
    size_t size() const { return m_size; }

    // Null when there is none. Finding the same stream again costs one comparison.
    Stream* find(uint32_t id) {
        if (id == m_lastId) return m_last;
        return lookUp(id);
    }
    // `id` is odd and not in the table.
    Stream& add(uint32_t id);
    // Unlinks the stream from all lists, and takes it back into the pool.
    void remove(Stream& stream);
    // Gives back the memory when there is no stream.
    void trim();

private:
    Stream* lookUp(uint32_t id);
    size_t home(uint32_t id) const { return (id >> 1) & (m_slots.size() - 1); }
    size_t distance(size_t slot, const Stream& stream) const {
        return (slot - home(stream.id)) & (m_slots.size() - 1);
    }
    void grow();
    void insert(Stream* stream);
    void erase(uint32_t id);

    std::vector<Stream*> m_slots;  // a power of two; at most half of them used
    std::deque<Stream> m_pool;
    std::vector<Stream*> m_free;
    size_t m_size = 0;
    uint32_t m_lastId = 0;  // found last
    Stream* m_last = nullptr;
};

// The streams that we reset last. The server may have sent frames for them before it knew (RFC
// 9113, 5.1): those are passed over. Older ones are answered like any frame on a closed stream.
class RecentResets {
public:
    void add(uint32_t id) {
        m_ids[m_next] = id;
        m_next = (m_next + 1) % m_ids.size();
    }
    bool contains(uint32_t id) const {
        for (const uint32_t known : m_ids) {
            if (known == id) return true;
        }
        return false;
    }

private:
    std::array<uint32_t, 128> m_ids{};
    size_t m_next = 0;
};

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_SESSION_STREAM_TABLE_H
