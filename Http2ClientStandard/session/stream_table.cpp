#include "Http2ClientStandard/session/stream_table.h"

#include <utility>

namespace h2 {

void StoredFields::store(std::span<const hpack::Field> fields) {
    clear();
    for (const hpack::Field& field : fields) {
        m_texts.append(field.name).append(field.value);
        m_sizes.push_back({field.name.size(), field.value.size(), field.neverIndexed});
    }
}

void StoredFields::view(std::vector<hpack::Field>& fields) const {
    fields.clear();
    std::string_view rest = m_texts;
    for (const Sizes& sizes : m_sizes) {
        const std::string_view name = rest.substr(0, sizes.name);
        const std::string_view value = rest.substr(sizes.name, sizes.value);
        rest.remove_prefix(sizes.name + sizes.value);
        fields.push_back({name, value, sizes.neverIndexed});
    }
}

void StoredFields::clear() {
    m_texts.clear();
    m_sizes.clear();
}

Stream& StreamTable::add(uint32_t id) {
    if (2 * (m_size + 1) > m_slots.size()) grow();
    if (m_free.empty()) {
        m_free.reserve(m_pool.size() + 1);  // remove() must not fail
        m_pool.emplace_back();
        m_free.push_back(&m_pool.back());
    }
    Stream& stream = *m_free.back();
    m_free.pop_back();
    stream.id = id;
    insert(&stream);
    ++m_size;
    m_lastId = id;
    m_last = &stream;
    return stream;
}

void StreamTable::remove(Stream& stream) {
    static_cast<LifeLink&>(stream).unlink();
    static_cast<ReadyLink&>(stream).unlink();
    static_cast<DueLink&>(stream).unlink();
    erase(stream.id);
    if (m_lastId == stream.id) {
        m_lastId = 0;
        m_last = nullptr;
    }
    stream.id = 0;
    m_free.push_back(&stream);
    --m_size;
}

void StreamTable::trim() {
    if (m_size != 0) return;
    std::vector<Stream*>().swap(m_slots);
    std::vector<Stream*>().swap(m_free);
    std::deque<Stream>().swap(m_pool);
}

Stream* StreamTable::lookUp(uint32_t id) {
    if (m_slots.empty()) return nullptr;
    const size_t mask = m_slots.size() - 1;
    for (size_t slot = home(id); m_slots[slot] != nullptr; slot = (slot + 1) & mask) {
        if (m_slots[slot]->id != id) continue;
        m_lastId = id;
        m_last = m_slots[slot];
        return m_last;
    }
    return nullptr;
}

void StreamTable::grow() {
    std::vector<Stream*> former(m_slots.empty() ? 16 : 2 * m_slots.size(), nullptr);
    former.swap(m_slots);
    for (Stream* stream : former) {
        if (stream != nullptr) insert(stream);
    }
}

// Streams of one run lie in the order of their homes: one that is nearer to its home gives way.
void StreamTable::insert(Stream* stream) {
    const size_t mask = m_slots.size() - 1;
    size_t slot = home(stream->id);
    for (; m_slots[slot] != nullptr; slot = (slot + 1) & mask) {
        if (distance(slot, *m_slots[slot]) < distance(slot, *stream)) {
            std::swap(stream, m_slots[slot]);
        }
    }
    m_slots[slot] = stream;
}

// Moves later streams of the run forward, up to one that is at its home, so that a search never
// meets a gap too early.
void StreamTable::erase(uint32_t id) {
    const size_t mask = m_slots.size() - 1;
    size_t gap = home(id);
    while (m_slots[gap]->id != id) gap = (gap + 1) & mask;
    for (;;) {
        const size_t next = (gap + 1) & mask;
        if (m_slots[next] == nullptr || distance(next, *m_slots[next]) == 0) break;
        m_slots[gap] = m_slots[next];
        gap = next;
    }
    m_slots[gap] = nullptr;
}

}  // namespace h2
