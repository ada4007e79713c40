#include "HttpClientInterface.h"

#include <unistd.h>

#include <ctime>
#include <memory>
#include <mutex>

#include "HttpClientInterfaceImpl.h"
#include "HttpContext.h"

namespace tiny {

namespace {

constexpr int kNoImpl = -1;
constexpr int kNothingToCancel = 2;
constexpr useconds_t kWaitRoundMicroseconds = 10000;
constexpr uint32_t kClockUnitsPerMillisecond = 1000;

// What blockedRequest returns.
enum BLOCKED_RESULT {
    BLOCKED_COMPLETE = 0,
    BLOCKED_FAILED = 1,
    BLOCKED_NOT_STARTED = 2,
    BLOCKED_TIMEOUT = 3
};

// -1, 4, or 0 when the object can take settings.
int checkUsable(const HttpClientInterfaceImpl* impl) {
    if (impl == nullptr) return kNoImpl;
    return impl->getSocket() != -1 ? ERR_OK : ERR_SOCKET_CLOSED;
}

// Registers the request. It is marked as running before it is registered, so that the end of a
// fast answer cannot be overwritten.
int registerRequest(HttpClientInterfaceImpl* impl, bool cacheContent) {
    {
        const std::unique_lock<Lock> lock = HttpContext::lockRequest(impl);
        impl->resetToRequest();
        if (cacheContent) impl->setReceivedHttpContentCacheEnabled(true);
        impl->addClientStatus(CLI_STATUS_REQUESTING);
    }
    const int result = HttpContext::instance()->addHttpClientImpl(impl);
    if (result != 0) impl->removeClientStatus(CLI_STATUS_REQUESTING);
    return result;
}

// Waits until the body is complete or has failed, or the process has used up `timeout`
// milliseconds of processor time. Returns the body's status.
int waitForContent(const HttpClientInterfaceImpl* impl, uint32_t timeout) {
    const clock_t start = clock();
    const uint32_t limit = timeout * kClockUnitsPerMillisecond;
    while (true) {
        usleep(kWaitRoundMicroseconds);
        const int status = impl->receivedHttpContentStatus();
        if (status == RECV_STATUS_END || status == RECV_STATUS_FAILED) return status;
        if (clock() - start >= static_cast<clock_t>(limit)) return status;
    }
}

}  // namespace

HttpClientInterface::HttpClientInterface() : m_impl(new HttpClientInterfaceImpl(this)) {}

HttpClientInterface::~HttpClientInterface() {
    if (m_impl == nullptr) return;
    HttpContext::instance()->forgetHttpClientImpl(m_impl);
    delete m_impl;
    m_impl = nullptr;
}

int HttpClientInterface::connectToServer(HTTP_SCHEMA schema, const char* ip, uint16_t port) {
    if (m_impl == nullptr) return kNoImpl;
    uint64_t serial = 0;
    const int sock = HttpContext::instance()->openConnection(schema, ip, port, serial);
    if (sock == -1) return ERR_SOCKET_CLOSED;
    const std::unique_lock<Lock> lock = HttpContext::lockRequest(m_impl);
    m_impl->addClientStatus(CLI_STATUS_CONNECTED);
    m_impl->setConnection(sock, serial);
    m_impl->setHttpVersion(schema);
    return ERR_OK;
}

void HttpClientInterface::clearClient() {
    if (m_impl == nullptr) return;
    const std::unique_lock<Lock> lock = HttpContext::lockRequest(m_impl);
    m_impl->clear();
}

int HttpClientInterface::setUri(const char* uri, HTTP_METHOD method) {
    if (const int error = checkUsable(m_impl)) return error;
    const std::unique_lock<Lock> lock = HttpContext::lockRequest(m_impl);
    m_impl->setUri(uri == nullptr ? "" : uri);
    m_impl->setHttpMethod(method);
    return ERR_OK;
}

HttpClientInterface* HttpClientInterface::addHeader(const char* name, const char* value,
                                                    bool valueChangable) {
    if (checkUsable(m_impl) != ERR_OK) return nullptr;
    auto header =
        std::make_shared<HttpClientInterfaceImpl::HttpHeader>(name, value, valueChangable);
    const std::unique_lock<Lock> lock = HttpContext::lockRequest(m_impl);
    m_impl->addHttpHeader(header);
    return this;
}

int HttpClientInterface::setContent(const char* data, size_t len) {
    if (const int error = checkUsable(m_impl)) return error;
    const std::string content = data == nullptr ? std::string() : std::string(data, len);
    const std::unique_lock<Lock> lock = HttpContext::lockRequest(m_impl);
    m_impl->setContent(content);
    return ERR_OK;
}

int HttpClientInterface::setContent(int (*reader)(char* buf, size_t len, void* opaque),
                                    void* opaque) {
    if (const int error = checkUsable(m_impl)) return error;
    const std::unique_lock<Lock> lock = HttpContext::lockRequest(m_impl);
    m_impl->setContent(reader, opaque);
    return ERR_OK;
}

int HttpClientInterface::startRequest(const char* errMsg) {
    if (const int error = checkUsable(m_impl)) return error;
    if (const int error = parseHttpClientStatus(errMsg)) return error;
    return registerRequest(m_impl, false);
}

int HttpClientInterface::cancelRequest() {
    if (m_impl == nullptr) return kNothingToCancel;
    if (const int error = checkUsable(m_impl)) return error;
    // On former connections too. Afterwards no engine uses the request, and no callback is made.
    HttpContext::instance()->forgetHttpClientImpl(m_impl);
    m_impl->resetToRequest();  // ends CLI_STATUS_REQUESTING
    return ERR_OK;
}

int HttpClientInterface::blockedRequest(int& status, std::map<std::string, std::string>& headerMap,
                                        std::string& content, const char*& errMsg,
                                        uint32_t timeout) {
    if (checkUsable(m_impl) != ERR_OK) return BLOCKED_NOT_STARTED;
    if (parseHttpClientStatus(errMsg) != 0) return BLOCKED_NOT_STARTED;
    if (registerRequest(m_impl, true) != 0) return BLOCKED_NOT_STARTED;
    int contentStatus = waitForContent(m_impl, timeout);

    HttpContext::instance()->forgetHttpClientImpl(m_impl);
    // The end is marked before the last chunk is cached: it may have become an overflow since.
    if (contentStatus == RECV_STATUS_END) contentStatus = m_impl->receivedHttpContentStatus();
    status = m_impl->receivedHttpStatus();
    BLOCKED_RESULT result = BLOCKED_FAILED;
    const char* text = "request failed, not any contents received";
    if (contentStatus == RECV_STATUS_END) {
        content = m_impl->receivedHttpContent();
        headerMap = m_impl->receivedHttpHeaders();
        text = "all content received";
        result = BLOCKED_COMPLETE;
    } else if (contentStatus == RECV_STATUS_CONTENT_OVERFLOW) {
        text = "request failed, the content is over limit(1MB)";
    } else if (contentStatus == RECV_STATUS_START) {
        text = "request timeout, partial content received";
        result = BLOCKED_TIMEOUT;
    }
    m_impl->setErrorMessage(text);
    errMsg = m_impl->errorText();
    m_impl->resetToRequest();
    return result;
}

HttpClientInterfaceImpl* HttpClientInterface::ctx() { return m_impl; }

int HttpClientInterface::parseHttpClientStatus(const char* /*errMsg*/) {
    m_impl->setErrorMessage("");
    const int status = m_impl->clientStatus();
    if ((status & CLI_STATUS_REQUESTING) != 0) {
        m_impl->setErrorMessage("current requesting is not finished, please wait");
        return ERR_BUSY;
    }
    // One bit is enough: a request without URI, headers and body is the application's business.
    if ((status & CLI_STATUS_INITIALIZED) != 0) return ERR_OK;
    if ((status & CLI_STATUS_CONNECTED) == 0) {
        m_impl->setErrorMessage("please call connectToServer");
        return ERR_SOCKET_CLOSED;
    }
    // Nothing below can be reached: without any bit, CLI_STATUS_CONNECTED is missing.
    // GCOVR_EXCL_START
    if ((status & CLI_STATUS_URI) == 0) {
        m_impl->setErrorMessage("please call setUri");
        return ERR_URL_UNSET;
    }
    if ((status & CLI_STATUS_HEADER) == 0) {
        m_impl->setErrorMessage("please call addHeader");
        return ERR_HEADER_UNSET;
    }
    if ((status & CLI_STATUS_CONTENT) == 0) {
        m_impl->setErrorMessage("please call setContent");
        return ERR_CONTENT_UNSET;
    }
    return ERR_OK;
    // GCOVR_EXCL_STOP
}

}  // namespace tiny
