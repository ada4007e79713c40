#include "HttpClientInterfaceImpl.h"

#include <algorithm>
#include <atomic>
#include <utility>

namespace tiny {

namespace {

constexpr size_t kFinished = static_cast<size_t>(-1);
constexpr uint32_t kFinishedMark = 0xFFFFFFFF;
constexpr size_t kCacheFull = 0xFFFFF;

// A cursor counts as finished by its low 32 bits.
bool isFinished(size_t cursor) { return static_cast<uint32_t>(cursor) == kFinishedMark; }

const char* textOrEmpty(const char* text) { return text == nullptr ? "" : text; }

template <typename T>
std::atomic_ref<T> atomic(const T& value) {
    return std::atomic_ref<T>(const_cast<T&>(value));
}

}  // namespace

HttpClientInterfaceImpl::HttpHeader::HttpHeader(const char* name, const char* value,
                                                bool valueChangable)
    : m_name(textOrEmpty(name)), m_value(textOrEmpty(value)), m_valueChangable(valueChangable) {}

HttpClientInterfaceImpl::HttpClientInterfaceImpl(HttpClientInterface* httpClient)
    : m_httpClient(httpClient) {
    clear();
}

int HttpClientInterfaceImpl::clientStatus() const { return atomic(m_httpClientStatus).load(); }

void HttpClientInterfaceImpl::addClientStatus(HTTP_CLIENT_STATUS status) {
    atomic(m_httpClientStatus).fetch_or(status);
}

void HttpClientInterfaceImpl::removeClientStatus(HTTP_CLIENT_STATUS status) {
    atomic(m_httpClientStatus).fetch_and(~static_cast<int32_t>(status));
}

void HttpClientInterfaceImpl::resetClientStatus(HTTP_CLIENT_STATUS status) {
    atomic(m_httpClientStatus).store(status);
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

bool HttpClientInterfaceImpl::hasPendingHeaders() const { return !isFinished(m_headerOffset); }

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

void HttpClientInterfaceImpl::addReceivedHttpHeader(const std::string& headerName,
                                                    const std::string& headerValue) {
    const auto [entry, isNew] = m_receivedHeaderMap.try_emplace(headerName);
    entry->second = headerValue;
    if (isNew) {
        m_unrecordedHeaders.push_back(&*entry);
        return;
    }
    const size_t position = headerPosition(headerName);
    if (position < m_recordedHeaders.size() && m_recordedHeaders[position] == &*entry) {
        m_headerDefs[position].m_headerValue = entry->second.c_str();  // the text may have moved
    }
}

// Where a header of this name is among the recorded ones, or would be.
size_t HttpClientInterfaceImpl::headerPosition(const std::string& headerName) const {
    const auto found = std::lower_bound(
        m_recordedHeaders.begin(), m_recordedHeaders.end(), headerName,
        [](const ReceivedHeader* header, const std::string& name) { return header->first < name; });
    return static_cast<size_t>(found - m_recordedHeaders.begin());
}

// New headers are put in from the last to the first, so that each record moves once at most.
const std::vector<HttpClientInterface::HeaderDef>& HttpClientInterfaceImpl::receivedHeaderDefs() {
    std::sort(m_unrecordedHeaders.begin(), m_unrecordedHeaders.end(),
              [](const ReceivedHeader* a, const ReceivedHeader* b) { return a->first < b->first; });
    std::vector<size_t> positions;
    positions.reserve(m_unrecordedHeaders.size());
    for (const ReceivedHeader* header : m_unrecordedHeaders) {
        positions.push_back(headerPosition(header->first));
    }
    size_t end = m_recordedHeaders.size();  // of what has not moved yet
    m_recordedHeaders.resize(end + m_unrecordedHeaders.size());
    m_headerDefs.resize(m_recordedHeaders.size());
    for (size_t left = m_unrecordedHeaders.size(); left > 0; --left) {
        const auto position = static_cast<ptrdiff_t>(positions[left - 1]);
        const auto oldEnd = static_cast<ptrdiff_t>(end);
        const auto newEnd = static_cast<ptrdiff_t>(end + left);
        std::move_backward(m_recordedHeaders.begin() + position, m_recordedHeaders.begin() + oldEnd,
                           m_recordedHeaders.begin() + newEnd);
        std::move_backward(m_headerDefs.begin() + position, m_headerDefs.begin() + oldEnd,
                           m_headerDefs.begin() + newEnd);
        const ReceivedHeader* header = m_unrecordedHeaders[left - 1];
        const size_t at = positions[left - 1] + left - 1;
        m_recordedHeaders[at] = header;
        m_headerDefs[at] = {header->first.c_str(), header->second.c_str()};
        end = positions[left - 1];
    }
    m_unrecordedHeaders.clear();
    return m_headerDefs;
}

void HttpClientInterfaceImpl::forgetReceivedHeaders() {
    m_receivedHeaderMap.clear();
    m_recordedHeaders.clear();
    m_headerDefs.clear();
    m_unrecordedHeaders.clear();
}

int HttpClientInterfaceImpl::receivedHttpContentStatus() const {
    return atomic(m_recvContentStatus).load();
}

void HttpClientInterfaceImpl::storeContentStatus(RECV_STATUS status) {
    atomic(m_recvContentStatus).store(status);
}

void HttpClientInterfaceImpl::setReceiveContentBegin() { storeContentStatus(RECV_STATUS_START); }

void HttpClientInterfaceImpl::setReceiveContentDone() { storeContentStatus(RECV_STATUS_END); }

void HttpClientInterfaceImpl::setReceivedContentOverflow() {
    storeContentStatus(RECV_STATUS_CONTENT_OVERFLOW);
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
    forgetReceivedHeaders();
    storeContentStatus(RECV_STATUS_UNDEFINED);
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
    m_noMoreContent = false;
    const bool connected = (clientStatus() & CLI_STATUS_CONNECTED) != 0;
    resetClientStatus(connected ? CLI_STATUS_CONNECTED : CLI_STATE_NONE);
}

}  // namespace tiny
