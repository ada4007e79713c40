#include "HttpClientInterfaceImpl.h"

#include <algorithm>
#include <utility>

namespace tiny {

namespace {

constexpr size_t kFinished = static_cast<size_t>(-1);
constexpr uint32_t kFinishedMark = 0xFFFFFFFF;
constexpr size_t kCacheFull = 0xFFFFF;

// A cursor counts as finished by its low 32 bits.
bool isFinished(size_t cursor) { return static_cast<uint32_t>(cursor) == kFinishedMark; }

// Moves the elements from `begin` to `end` back by `distance` places.
template <typename T>
void moveBack(std::vector<T>& list, size_t begin, size_t end, size_t distance) {
    T* const first = list.data();
    std::copy_backward(first + begin, first + end, first + end + distance);
}

const char* textOrEmpty(const char* text) { return text == nullptr ? "" : text; }

}  // namespace

void ReceivedHeaderRecords::store(const std::string& name, const std::string& value) {
    buildAnewIfChanged();
    const auto [entry, isNew] = m_headers.try_emplace(name);
    entry->second = value;
    if (isNew) {
        m_new.push_back(&*entry);
        return;
    }
    const size_t position = positionOf(name, m_recorded.size());
    if (position < m_recorded.size() && m_recorded[position] == &*entry) {
        m_records[position].m_headerValue = entry->second.c_str();  // the text may have moved
    }
}

// New headers are put in from the last to the first, so that each record moves once at most.
const std::vector<HttpClientInterface::HeaderDef>& ReceivedHeaderRecords::all() {
    buildAnewIfChanged();
    std::sort(m_new.begin(), m_new.end(),
              [](const auto* a, const auto* b) { return a->first < b->first; });
    size_t end = m_recorded.size();  // of what has not moved yet
    m_recorded.resize(end + m_new.size());
    m_records.resize(end + m_new.size());
    for (size_t left = m_new.size(); left > 0; --left) {
        const Map::value_type* header = m_new[left - 1];
        const size_t position = positionOf(header->first, end);
        moveBack(m_recorded, position, end, left);
        moveBack(m_records, position, end, left);
        m_recorded[position + left - 1] = header;
        m_records[position + left - 1] = {header->first.c_str(), header->second.c_str()};
        end = position;
    }
    m_new.clear();
    return m_records;
}

void ReceivedHeaderRecords::clear() {
    m_headers.clear();
    m_recorded.clear();
    m_records.clear();
    m_new.clear();
}

void ReceivedHeaderRecords::buildAnewIfChanged() {
    if (m_recorded.size() + m_new.size() == m_headers.size()) return;
    m_recorded.clear();
    m_records.clear();
    m_new.clear();
    for (const auto& header : m_headers) m_new.push_back(&header);
}

// Where a header of this name is among the first `count` recorded ones, or would be.
size_t ReceivedHeaderRecords::positionOf(const std::string& name, size_t count) const {
    const auto begin = m_recorded.begin();
    const auto found =
        std::lower_bound(begin, begin + static_cast<ptrdiff_t>(count), name,
                         [](const auto* header, const auto& text) { return header->first < text; });
    return static_cast<size_t>(found - begin);
}

HttpClientInterfaceImpl::HttpHeader::HttpHeader(const char* name, const char* value,
                                                bool valueChangable)
    : m_name(textOrEmpty(name)), m_value(textOrEmpty(value)), m_valueChangable(valueChangable) {}

HttpClientInterfaceImpl::HttpClientInterfaceImpl(HttpClientInterface* httpClient)
    : m_httpClient(httpClient) {
    clear();
}

void HttpClientInterfaceImpl::setUri(const std::string& uri) {
    m_uri = uri;
    m_handshake = false;
    addClientStatus(CLI_STATUS_URI);
}

void HttpClientInterfaceImpl::addHttpHeader(std::shared_ptr<HttpHeader> header) {
    m_headerLst.push_back(std::move(header));
    addClientStatus(CLI_STATUS_HEADER);
}

uint32_t HttpClientInterfaceImpl::nextHeaderLength() {
    if (isFinished(m_headerOffset)) return 0;
    if (m_headerOffset >= m_headerLst.size()) {
        m_headerOffset = kFinished;
        return 0;
    }
    const HttpHeader& header = *m_headerLst[m_headerOffset];
    return static_cast<uint32_t>(header.m_name.size() + header.m_value.size());
}

bool HttpClientInterfaceImpl::takeHttpHeader(HttpHeader& header) {
    if (isFinished(m_headerOffset)) return false;
    if (m_headerOffset >= m_headerLst.size()) {
        m_headerOffset = kFinished;
        return false;
    }
    header = *m_headerLst[m_headerOffset++];
    return true;
}

void HttpClientInterfaceImpl::resetHeaders() {
    m_headerLst.clear();
    m_headerOffset = 0;
}

void HttpClientInterfaceImpl::setContent(const std::string& str) {
    m_content = str;
    m_contentOffset = 0;
    m_noMoreContent = false;
    addClientStatus(CLI_STATUS_CONTENT);
}

void HttpClientInterfaceImpl::setContent(ContentReader reader, void* opaque) {
    ctxReader = reader;
    m_opaque = opaque;
    m_noMoreContent = false;
    addClientStatus(CLI_STATUS_CONTENT);
}

uint32_t HttpClientInterfaceImpl::nextContentLength() {
    if (isFinished(m_contentOffset)) return 0;
    if (m_contentOffset < m_content.size()) {
        return static_cast<uint32_t>(m_content.size() - m_contentOffset);
    }
    m_contentOffset = kFinished;
    return 0;
}

size_t HttpClientInterfaceImpl::takeHttpContent(const char*& buf, size_t maxLen) {
    if (isFinished(m_contentOffset) || m_contentOffset >= m_content.size()) return 0;
    if (m_content.size() - m_contentOffset < maxLen) return 0;
    m_contentOffset += maxLen;
    if (m_content.size() - maxLen >= maxLen) {
        buf = m_content.data() + maxLen;
        return maxLen;
    }
    m_chunk.assign(m_content, maxLen);
    m_chunk.resize(maxLen, '\0');
    buf = m_chunk.data();
    return maxLen;
}

bool HttpClientInterfaceImpl::hasPendingContent() {
    if (m_noMoreContent) return false;
    if (m_content.empty() && ctxReader == nullptr) {
        m_noMoreContent = true;
        return false;
    }
    return true;
}

void HttpClientInterfaceImpl::appendReceivedContent(const char* content, size_t len) {
    if (!m_saveContent) return;
    if (m_recvContentStr.size() > kCacheFull) {
        setReceivedContentOverflow();
        return;
    }
    m_recvContentStr.append(content, len);
}

void HttpClientInterfaceImpl::setErrorMessage(const char* errMsg) {
    m_errMsg = textOrEmpty(errMsg);
}

void HttpClientInterfaceImpl::resetToRequest() {
    m_handshake = false;
    m_headerOffset = 0;
    m_contentOffset = 0;
    m_noMoreContent = false;
    removeClientStatus(CLI_STATUS_REQUESTING);
    m_saveContent = false;
    m_receivedStatus = 0;
    m_receivedRecords.clear();
    m_recvContentStatus = RECV_STATUS_UNDEFINED;
    m_recvContentStr.clear();
}

void HttpClientInterfaceImpl::clear() {
    resetToRequest();
    m_uri.clear();
    m_content.clear();
    m_headerLst.clear();
    ctxReader = nullptr;
    m_opaque = nullptr;
    m_errMsg.clear();
    m_httpClientStatus &= CLI_STATUS_CONNECTED;
}

}  // namespace tiny
