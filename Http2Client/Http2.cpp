#include "Http2.h"

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <unordered_set>

#include "HttpClientInterface.h"
#include "HttpClientInterfaceImpl.h"
#include "error.h"
#include "log.h"

namespace tiny {

std::map<int, std::string> m_methodMap;
std::map<int, std::string> m_versionMap;

namespace {

// RFC 9113, 3.4.
const std::string preface = "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n";

// Lengths of names and values, and of the URI, that one HEADERS frame may carry.
constexpr int32_t kHeaderBudget = 16283;

const std::string& textOf(const std::map<int, std::string>& texts, int key) {
    static const std::string none;
    const auto found = texts.find(key);
    return found == texts.end() ? none : found->second;
}

// What glibc's atoi does, which the C standard leaves open beyond int.
int toStatus(const std::string& text) {
    return static_cast<int>(std::strtol(text.c_str(), nullptr, 10));
}

// The last field of each name in `list`, in the order of the list. Of fields with one name only
// the last leaves a trace when all are stored in turn.
//
// A header block can refer to a name of thousands of bytes with a single byte, millions of times,
// and storing a field compares its name. The fields that such a block decodes to share one text,
// so names are told apart by their address here: the same name in two texts is stored twice.
std::vector<const hpack::HeaderField*> lastOfEachName(const HeadersFrame::HeaderList& list) {
    std::unordered_set<const std::string*> names;
    std::vector<const hpack::HeaderField*> fields;
    for (auto header = list.rbegin(); header != list.rend(); ++header) {
        const hpack::HeaderField& field = header->constField();
        if (names.insert(&field.Name()).second) fields.push_back(&field);
    }
    std::reverse(fields.begin(), fields.end());
    return fields;
}

}  // namespace

void ReceiveCredit::add(uint32_t streamId, uint32_t bytes) {
    countAnewIfChanged();
    m_counts[streamId] += bytes;
    m_total += bytes;
    m_counted = m_counts.size();
    m_changed.insert(streamId);
}

uint32_t ReceiveCredit::total() {
    countAnewIfChanged();
    return m_total;
}

std::vector<std::pair<uint32_t, uint32_t>> ReceiveCredit::takeDue(uint32_t threshold) {
    countAnewIfChanged();
    std::vector<std::pair<uint32_t, uint32_t>> due;
    for (const uint32_t streamId : m_changed) {
        const auto entry = m_counts.find(streamId);
        if (entry == m_counts.end() || entry->second < threshold) continue;
        due.push_back(*entry);
        m_total -= entry->second;
        m_counts.erase(entry);
    }
    m_counted = m_counts.size();
    m_changed.clear();
    return due;
}

void ReceiveCredit::countAnewIfChanged() {
    if (m_counts.size() == m_counted) return;
    m_total = 0;
    for (const auto& [streamId, bytes] : m_counts) {
        m_total += bytes;
        m_changed.insert(streamId);
    }
    m_counted = m_counts.size();
}

Http2::Http2() {
    if (m_methodMap.empty()) {
        m_methodMap[HTTP_GET] = "GET";
        m_methodMap[HTTP_POST] = "POST";
        m_methodMap[HTTP_DELETE] = "DELETE";
    }
    if (m_versionMap.empty()) {
        m_versionMap[HTTPS_2] = "https";
        m_versionMap[HTTP_2] = "http";
    }
    // Zeroed: a reader that claims more than it wrote sends zeros or older body, nothing else.
    m_buffer = new char[m_bufferLen]();
}

Http2::~Http2() {
    HTTP2CLIENT_LOG_INFO("~~~~~Http2::Http2");
    {
        SingleLock lock(&m_httpClientLock);
        for (const auto& [streamId, impl] : m_httpClientMap) {
            if (impl != nullptr) reportSocketClosedLocked(impl);
        }
    }
    delete[] m_buffer;
    m_buffer = nullptr;
}

uint32_t Http2::generateStreamId() {
    const uint32_t streamId = m_streamIndex;
    m_streamIndex += 2;
    return streamId;
}

void Http2::addHttpClient(HttpClientInterfaceImpl* impl) {
    SingleLock lock(&m_httpClientLock);
    const uint32_t streamId = generateStreamId();
    m_httpClientMap[streamId] = impl;
    if (impl == nullptr) return;
    impl->setStreamId(streamId);
    impl->streamOpened();
}

void Http2::removeHttpClient(HttpClientInterfaceImpl* impl) {
    if (impl == nullptr) return;
    SingleLock lock(&m_httpClientLock);
    const auto entry = registrationLocked(impl);
    const bool registered = entry != m_httpClientMap.end();
    eraseLocked(impl, entry);
    if (registered) impl->streamClosed();
}

// The entry of the request's stream, if that is its own.
Http2::ClientMap::iterator Http2::registrationLocked(const HttpClientInterfaceImpl* impl) {
    const auto found = m_httpClientMap.find(impl->streamId());
    return found != m_httpClientMap.end() && found->second == impl ? found : m_httpClientMap.end();
}

// RFC 9113, 5.4.2 has a stream reset on an error. This client resets every stream it removes, also
// those that the server has ended, so that nothing more comes on them.
void Http2::eraseLocked(const HttpClientInterfaceImpl* impl, ClientMap::iterator entry) {
    queueRstStream(impl->streamId());
    if (entry != m_httpClientMap.end()) m_httpClientMap.erase(entry);
}

// The thread that the last callback wakes may change the request at once, so before the callback
// the request is marked as ended and its stream as closed.
void Http2::endRequestLocked(HttpClientInterfaceImpl* impl,
                             const std::function<void()>& lastCallback) {
    const auto entry = registrationLocked(impl);
    impl->removeClientStatus(CLI_STATUS_REQUESTING);
    if (entry != m_httpClientMap.end()) impl->streamClosed();
    lastCallback();
    eraseLocked(impl, entry);
}

void Http2::forgetHttpClient(HttpClientInterfaceImpl* impl) {
    SingleLock lock(&m_httpClientLock);
    for (auto entry = m_httpClientMap.begin(); entry != m_httpClientMap.end();) {
        const auto current = entry++;
        if (current->second != impl) continue;
        m_httpClientMap.erase(current);
        impl->streamClosed();
    }
}

void Http2::makeRstStream(uint32_t /*streamId*/, int /*errorCode*/) {}

void Http2::testWriteDataFrame(const char* /*data*/, size_t /*len*/) {}

// Sending

std::string Http2::encodeFrame(int& status) {
    if (!m_prefaceSent) {
        m_prefaceSent = true;
        return preface;
    }
    if (!m_settingSent) {
        SettingsFrame frame;
        frame.updateLength();
        m_settingSent = true;
        std::string bytes;
        appendFrame(bytes, frame);
        return bytes;
    }
    if (!m_settingReceived) return std::string();
    if (!m_rstFrameMap.empty()) return encodeRstStreams();
    std::string bytes = encodeNextHeaders();
    if (bytes.empty()) bytes = encodeNextData();
    if (!bytes.empty()) return bytes;
    return m_streamPingTicker < pingTicker ? encodeCredit() : encodeKeepAlive(status);
}

std::string Http2::encodeRstStreams() {
    std::string bytes;
    for (const auto& [streamId, frame] : m_rstFrameMap) appendFrame(bytes, *frame);
    m_rstFrameMap.clear();
    return bytes;
}

std::string Http2::encodeNextHeaders() {
    std::string bytes;
    HeadersFrame frame;
    SingleLock lock(&m_httpClientLock);
    for (const auto& [streamId, impl] : m_httpClientMap) {
        if (impl == nullptr || !createHeaderFrame(impl, frame)) continue;
        appendFrame(bytes, frame);
        break;
    }
    return bytes;
}

// RFC 9113, 6.9 bounds what may be sent by the server's windows. This client sends as fast as the
// transport takes it, whatever the server announces.
std::string Http2::encodeNextData() {
    std::string bytes;
    DataFrame frame;
    SingleLock lock(&m_httpClientLock);
    for (const auto& [streamId, impl] : m_httpClientMap) {
        if (impl == nullptr || !createDataFrame(impl, frame)) continue;
        appendFrame(bytes, frame);
        break;
    }
    return bytes;
}

// Credit for the connection is the sum over all streams with uncredited bytes. RFC 9113, 6.9.1
// wants each byte credited once. Here streams below the threshold keep their bytes, also when they
// have ended, and every later call counts them again.
std::string Http2::encodeCredit() {
    std::string bytes;
    const uint32_t total = m_receiveCredit.total();
    if (static_cast<int32_t>(total) >= static_cast<int32_t>(m_flowCtrlSize)) {
        appendWindowUpdate(bytes, 0, total);
    }
    for (const auto& [streamId, count] : m_receiveCredit.takeDue(m_flowCtrlSize)) {
        appendWindowUpdate(bytes, streamId, count);
    }
    return bytes;
}

std::string Http2::encodeKeepAlive(int& status) {
    std::string bytes;
    ++m_streamPingTicker;
    if (!m_waitPong && m_streamPingTicker >= pingTicker) {
        HTTP2CLIENT_LOG_INFO("PING!");
        PingFrame frame;
        appendFrame(bytes, frame);
        m_waitPong = true;
    }
    if (m_streamPingTicker >= pongTicker && m_waitPong) {
        HTTP2CLIENT_LOG_INFO("m_streamPingTicker :" << m_streamPingTicker
                                                    << " and m_waitPong = " << m_waitPong);
        SingleLock lock(&m_httpClientLock);
        for (auto entry = m_httpClientMap.begin(); entry != m_httpClientMap.end();) {
            const auto current = entry++;
            if (current->second == nullptr) continue;
            reportSocketClosedLocked(current->second);
            m_httpClientMap.erase(current);
        }
        status = FrameCtx::CTX_NEED_CLOSE;
    }
    return bytes;
}

void Http2::appendFrame(std::string& bytes, Frame& frame) {
    const std::unique_ptr<Buffer> buffer(frame.encodeFrame(&m_hpackTable));
    bytes.append(buffer->buffer, buffer->len);
}

void Http2::appendWindowUpdate(std::string& bytes, uint32_t streamId, uint32_t increment) {
    WindowUpdateFrame frame;
    frame.setStreamId(streamId);
    frame.setWindowSizeIncrement(static_cast<int>(increment));
    appendFrame(bytes, frame);
}

// A header list above the budget goes out as several HEADERS frames of one stream, only the last
// with END_HEADERS, where RFC 9113, 6.10 has CONTINUATION frames. No ":authority" is sent (RFC
// 9113, 8.3.1 leaves that to a "host" header of the application's).
bool Http2::createHeaderFrame(HttpClientInterfaceImpl* impl, HeadersFrame& frame) {
    HeadersFrame::HeaderList list;
    const auto append = [&list](const std::string& name, const std::string& value,
                                hpack::HeaderField::HEADER_FIELD_TYPE type) {
        hpack::HeaderFieldRepresentation entry;
        entry.Field() = hpack::HeaderField(false, false, name, value);
        entry.Type() = type;
        list.push_back(std::move(entry));
    };

    uint32_t total = 0;
    if (!impl->httpHandshake()) {
        const HTTP_METHOD method = impl->httpMethod();
        const std::string uri = impl->uri();
        append(":method", textOf(m_methodMap, method),
               method == HTTP_GET || method == HTTP_POST
                   ? hpack::HeaderField::INDEXED_HEADER_FIELD
                   : hpack::HeaderField::LITERAL_HEADER_FIELD_WITH_INCREMENTAL_INDEXING);
        append(":scheme", textOf(m_versionMap, impl->httpVersion()),
               hpack::HeaderField::INDEXED_HEADER_FIELD);
        append(":path", uri, hpack::HeaderField::LITERAL_HEADER_FIELD_WITH_INCREMENTAL_INDEXING);
        impl->sethttpHandshake(true);
        total += static_cast<uint32_t>(uri.size());
    }

    bool allTaken = false;
    HttpClientInterfaceImpl::HttpHeader header("", "", false);
    while (true) {
        total += impl->nextHeaderLength();
        if (static_cast<int32_t>(total) > kHeaderBudget) break;
        if (!impl->takeHttpHeader(header)) {
            allTaken = true;
            break;
        }
        const std::string name = header.name();
        const std::string value = header.value();
        if (name.empty() || value.empty()) continue;
        append(name, value,
               header.isValueChangable()
                   ? hpack::HeaderField::LITERAL_HEADER_FIELD_NEVER_INDEXED
                   : hpack::HeaderField::LITERAL_HEADER_FIELD_WITH_INCREMENTAL_INDEXING);
    }
    if (list.empty()) return false;

    frame.setHeaderList(list, m_hpackTable);
    frame.setStreamId(impl->streamId());
    if (allTaken) frame.setEndHeadersFlag();
    if (!impl->hasPendingContent()) frame.setEndStreamFlag();
    return true;
}

bool Http2::createDataFrame(HttpClientInterfaceImpl* impl, DataFrame& frame) {
    if (!impl->hasPendingContent()) return false;
    frame.setStreamId(impl->streamId());
    if (impl->contentReader() != nullptr) {
        if (readContent(impl, frame)) return true;
    } else if (impl->nextContentLength() != 0) {
        const char* chunk = nullptr;
        const size_t taken = impl->takeHttpContent(chunk, m_bufferLen);
        frame.setData(chunk, static_cast<unsigned int>(taken));
        if (impl->nextContentLength() == 0) {
            frame.setEndStreamFlag();
            impl->setContentFinished(true);
        }
        return true;
    }
    frame.setEndStreamFlag();
    impl->setContentFinished(true);
    return true;
}

// Asks the request's reader for the next chunk. False when it delivered nothing.
bool Http2::readContent(HttpClientInterfaceImpl* impl, DataFrame& frame) {
    const int count = impl->contentReader()(m_buffer, m_bufferLen, impl->contentOpaque());
    if (count <= 0) return false;
    const size_t filled = std::min(static_cast<size_t>(count), m_bufferLen);
    frame.setData(m_buffer, static_cast<unsigned int>(filled));
    if (filled < m_bufferLen) {
        frame.setEndStreamFlag();
        impl->setContentFinished(true);
    }
    return true;
}

void Http2::queueRstStream(uint32_t streamId) {
    auto frame = std::make_shared<RSTStreamFrame>();
    frame->setStreamId(streamId);
    frame->setErrorEode(HTTP2_ERROR_CANCEL);
    m_rstFrameMap[streamId] = frame;
}

// Receiving

int Http2::decodeFrame(char* data, size_t len) {
    if (len == 0) return 0;
    switch (m_frameCtx.sendPacket(data, len, m_hpackTable, true)) {
        case FrameCtx::CTX_DONE:
        case FrameCtx::CTX_MUST_READ: return drainFrames(data, len);
        case FrameCtx::CTX_FETAL_ERROR:
            failAllRequests();
            std::cout << "fetal error\n";
            queueRstStream(0);
            return FrameCtx::CTX_FETAL_ERROR;
        default: return 0;
    }
}

int Http2::drainFrames(const char* data, size_t len) {
    uint32_t total = 0;
    std::vector<std::pair<uint32_t, uint32_t>> received;  // stream and length of each DATA frame
    while (m_frameCtx.hasFrame()) {
        const std::shared_ptr<Frame> frame = m_frameCtx.getFrame();
        std::cout << "received a stream: id = " << frame->getStreamId()
                  << " name = " << frame->getFrameTypeName() << "    length = " << frame->length()
                  << '\n';
        dispatchFrame(frame.get());
        const int type = frame->getType();
        if (type == Frame::TYPE_DATA_FRAME) {
            total += frame->length();
            received.emplace_back(frame->getStreamId(), frame->length());
        }
        if (type == Frame::TYPE_RST_STREAM_FRAME) return FrameCtx::CTX_NEED_CLOSE;
        if (type == Frame::TYPE_GOAWAY_FRAME) {
            HTTP2CLIENT_LOG_INFO("received stream: " << std::string(data, len));
            return FrameCtx::CTX_NEED_CLOSE;
        }
    }
    if (static_cast<int32_t>(total) <= 0) return 0;
    recordWindowUpdates(total, received);
    return 0;
}

// A server may put hundreds of DATA frames into one read. So one frame is encoded, and its stream
// and increment are overwritten for each.
void Http2::recordWindowUpdates(uint32_t total,
                                const std::vector<std::pair<uint32_t, uint32_t>>& received) {
    const std::unique_ptr<Buffer> frame(WindowUpdateFrame().encodeFrame(&m_hpackTable));
    const auto append = [this, &frame](uint32_t streamId, uint32_t increment) {
        frame->SetValue(streamId, 4, 5);
        frame->SetValue(increment, 4, 9);
        m_flowCtrlMsg.append(frame->buffer, frame->len);
    };
    append(0, total);
    for (const auto& [streamId, length] : received) append(streamId, length);
}

void Http2::dispatchFrame(Frame* frame) {
    switch (frame->getType()) {
        case Frame::TYPE_DATA_FRAME: processDataFrame(frame); break;
        case Frame::TYPE_HEADERS_FRAME: processHeaderFrame(frame); break;
        case Frame::TYPE_PRIORITY_FRAME: processPriorityFrame(frame); break;
        case Frame::TYPE_RST_STREAM_FRAME: processRstStreamFrame(frame); break;
        case Frame::TYPE_SETTINGS_FRAME: processSettingFrame(frame); break;
        case Frame::TYPE_PUSH_PROMISE_FRAME: processPushPromiseFrame(frame); break;
        case Frame::TYPE_PING_FRAME: processPingFrame(frame); break;
        case Frame::TYPE_GOAWAY_FRAME: processGoawayFrame(frame); break;
        case Frame::TYPE_WINDOW_UPDATE_FRAME: processWindowUpdateFrame(frame); break;
        case Frame::TYPE_CONTINUATION_FRAME: processContinuationFrame(frame); break;
    }
}

// One entry at a time: the lock is free during the callback.
void Http2::failAllRequests() {
    while (true) {
        HttpClientInterfaceImpl* impl = nullptr;
        {
            SingleLock lock(&m_httpClientLock);
            if (m_httpClientMap.empty()) return;
            impl = m_httpClientMap.begin()->second;
            m_httpClientMap.erase(m_httpClientMap.begin());
        }
        if (impl == nullptr) continue;
        logFailure(impl);
        impl->removeClientStatus(CLI_STATUS_REQUESTING);
        impl->streamClosed();
        impl->client()->onFailed(ERR_FETAL);
    }
}

void Http2::failRequestLocked(HttpClientInterfaceImpl* impl) {
    logFailure(impl);
    endRequestLocked(impl, [impl] { impl->client()->onFailed(ERR_FETAL); });
}

void Http2::logFailure(const HttpClientInterfaceImpl* impl) {
    HTTP2CLIENT_LOG_INFO("uri: " << impl->uri() << " status: ERR_FETAL!");
}

// The caller removes the entry.
void Http2::reportSocketClosedLocked(HttpClientInterfaceImpl* impl) {
    HTTP2CLIENT_LOG_INFO("onSocketClosed: Uri:" << impl->uri());
    impl->removeClientStatus(CLI_STATUS_REQUESTING);
    impl->streamClosed();
    impl->client()->onSocketClosed();
}

void Http2::processDataFrame(Frame* frame) {
    auto* dataFrame = static_cast<DataFrame*>(frame);
    const Buffer& content = dataFrame->getData();
    const char* data = content.Length() == 0 ? "" : content.Address(0);
    const size_t length = content.Length();
    testWriteDataFrame(data, length);
    m_receiveCredit.add(frame->getStreamId(), frame->length());
    m_waitPong = false;
    m_streamPingTicker = 0;

    SingleLock lock(&m_httpClientLock);
    const auto found = m_httpClientMap.find(frame->getStreamId());
    if (found == m_httpClientMap.end()) {
        queueRstStream(frame->getStreamId());
        return;
    }
    HttpClientInterfaceImpl* impl = found->second;
    if (impl == nullptr) return;
    const bool more = !dataFrame->hasEndStreamFlag();
    const auto report = [=] { impl->client()->onContentReceived(data, length, more); };
    if (more) {
        impl->setReceiveContentBegin();
        impl->appendReceivedContent(data, length);
        report();
    } else {
        impl->setReceiveContentDone();
        impl->appendReceivedContent(data, length);
        endRequestLocked(impl, report);
    }
}

// END_STREAM on a HEADERS frame does not end the request here, where RFC 9113, 8.1 says that the
// response is complete: only a DATA frame ends one.
void Http2::processHeaderFrame(Frame* frame) {
    auto* headersFrame = static_cast<HeadersFrame*>(frame);
    SingleLock lock(&m_httpClientLock);
    const auto found = m_httpClientMap.find(frame->getStreamId());
    if (found == m_httpClientMap.end() || found->second == nullptr) return;
    HttpClientInterfaceImpl* impl = found->second;
    const HeadersFrame::HeaderList& list = headersFrame->getHeaderList();
    for (const hpack::HeaderFieldRepresentation& header : list) {
        std::cout << header.constField().Name() << "    " << header.constField().Value() << '\n';
    }
    for (const hpack::HeaderField* field : lastOfEachName(list)) {
        if (field->Name() == ":status") impl->setReceivedHttpStatus(toStatus(field->Value()));
        impl->addReceivedHttpHeader(field->Name(), field->Value());
    }
    if (!headersFrame->hasEndHeadersFlag()) return;

    const std::vector<HttpClientInterface::HeaderDef>& headers = impl->receivedHeaderRecords();
    HTTP2CLIENT_LOG_INFO("uri: " << impl->uri() << " status:" << impl->receivedHttpStatus());
    impl->client()->onHeaderReceived(impl->receivedHttpStatus(), headers.data(), headers.size());
}

void Http2::processPriorityFrame(Frame* /*frame*/) {}

// The server's reset is answered with a reset, and costs the connection (RFC 9113, 6.4 asks for
// neither).
void Http2::processRstStreamFrame(Frame* frame) {
    const uint32_t streamId = frame->getStreamId();
    HTTP2CLIENT_LOG_ERROR("this frame have RST! " << streamId);
    queueRstStream(streamId);
    SingleLock lock(&m_httpClientLock);
    const auto found = m_httpClientMap.find(streamId);
    if (found == m_httpClientMap.end() || found->second == nullptr) return;
    failRequestLocked(found->second);
}

// RFC 9113, 6.5.3 wants the values applied and acknowledged. They are not: some servers close the
// connection for it after a while.
void Http2::processSettingFrame(Frame* frame) {
    auto* settingsFrame = static_cast<SettingsFrame*>(frame);
    std::cout << settingsFrame->getSettings().getInitialWindowSize() << '\n';
    m_settingReceived = true;
}

void Http2::processPushPromiseFrame(Frame* /*frame*/) {}

// Any PING counts as a sign of life; none is answered (RFC 9113, 6.7 wants an ACK).
void Http2::processPingFrame(Frame* /*frame*/) {
    m_streamPingTicker = 0;
    m_waitPong = false;
    std::cout << "pong \n";
}

// The requests failed here are those from the GOAWAY frame's own stream on, not, as RFC 9113, 6.8
// has it, those above the last stream it names. The frame travels on stream 0, so normally none
// is, and all hear of it as onSocketClosed when the connection is dropped.
void Http2::processGoawayFrame(Frame* frame) {
    auto* goawayFrame = static_cast<GoawayFrame*>(frame);
    std::cout << "goaway frame: errorcode = " << goawayFrame->getErrorCode() << '\n';
    HTTP2CLIENT_LOG_INFO("goaway frame: errorcode = " << goawayFrame->getErrorCode()
                                                      << " status: ERR_FETAL! streamId :"
                                                      << frame->getStreamId());
    SingleLock lock(&m_httpClientLock);
    auto entry = m_httpClientMap.find(frame->getStreamId());
    while (entry != m_httpClientMap.end()) {
        const uint32_t streamId = entry->first;
        if (entry->second != nullptr) failRequestLocked(entry->second);
        entry = m_httpClientMap.upper_bound(streamId);  // the removal may have taken any entry
    }
}

void Http2::processWindowUpdateFrame(Frame* /*frame*/) {}

void Http2::processContinuationFrame(Frame* /*frame*/) {}

}  // namespace tiny
