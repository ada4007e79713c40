#include "Http2ClientStandard/frames/output.h"

#include <algorithm>
#include <utility>

namespace h2 {

void Output::refer(const char* block, size_t size) {
    if (size == 0) return;
    m_references.push_back({m_ownConsumed + m_own.size(), block, size});
    m_referredBytes += size;
}

size_t Output::ownBefore(size_t index, uint64_t from) const {
    const uint64_t end =
        index < m_references.size() ? m_references[index].at : m_ownConsumed + m_own.size();
    return static_cast<size_t>(end - from);
}

size_t Output::gather(iovec* parts, size_t max) const {
    size_t count = 0;
    uint64_t position = m_ownConsumed;
    // sendmsg() takes no pointers to const, but writes nothing.
    char* own = const_cast<char*>(m_own.data());
    for (size_t i = m_first; count < max; ++i) {
        const size_t before = ownBefore(i, position);
        if (before != 0) {
            parts[count++] = {own + (position - m_ownConsumed), before};
            position += before;
        }
        if (i >= m_references.size() || count == max) break;
        parts[count++] = {const_cast<char*>(m_references[i].block), m_references[i].size};
    }
    return count;
}

void Output::consume(size_t size) {
    while (size != 0) {
        const size_t own = std::min(size, ownBefore(m_first, m_ownConsumed));
        m_own.consume(own);
        m_ownConsumed += own;
        size -= own;
        if (size == 0) break;
        Reference& reference = m_references[m_first];
        const size_t referred = std::min(size, reference.size);
        reference.block += referred;
        reference.size -= referred;
        m_referredBytes -= referred;
        size -= referred;
        if (reference.size == 0) ++m_first;
    }
    if (m_first == m_references.size()) {
        m_references.clear();
        m_first = 0;
    }
}

void Output::copyBlocks() {
    if (m_referredBytes == 0) return;
    Bytes whole;
    whole.room(size());
    uint64_t position = m_ownConsumed;
    for (size_t i = m_first;; ++i) {
        const size_t before = ownBefore(i, position);
        whole.append(m_own.view().substr(position - m_ownConsumed, before));
        position += before;
        if (i >= m_references.size()) break;
        whole.append({m_references[i].block, m_references[i].size});
    }
    clear();
    m_own = std::move(whole);
}

void Output::clear() {
    m_ownConsumed += m_own.size();
    m_own.clear();
    m_references.clear();
    m_first = 0;
    m_referredBytes = 0;
}

void Output::release() {
    clear();
    m_own.release();
    m_references.shrink_to_fit();
}

}  // namespace h2
