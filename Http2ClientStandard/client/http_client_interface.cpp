// The exported class and functions: nothing but calls of what stands behind them.
#include "Http2Client/HttpClientInterface.h"

#include "Http2Client/httpClientApi.h"
#include "Http2Client/log.h"
#include "Http2ClientStandard/Http2ClientOptions.h"
#include "Http2ClientStandard/client/client.h"

namespace tiny {

HttpClientInterface::HttpClientInterface() : m_impl(new HttpClientInterfaceImpl(*this)) {}

HttpClientInterface::~HttpClientInterface() { delete m_impl; }

int HttpClientInterface::connectToServer(HTTP_SCHEMA schema, const char* ip, uint16_t port) {
    return m_impl->connect(schema, ip, port);
}

void HttpClientInterface::clearClient() { m_impl->clear(); }

int HttpClientInterface::setUri(const char* uri, HTTP_METHOD method) {
    return m_impl->setUri(uri, method);
}

HttpClientInterface* HttpClientInterface::addHeader(const char* name, const char* value,
                                                    bool valueChangable) {
    return m_impl->addHeader(name, value, valueChangable) ? this : nullptr;
}

int HttpClientInterface::setContent(const char* data, size_t len) {
    return m_impl->setContent(data, len);
}

int HttpClientInterface::setContent(int (*reader)(char* buf, size_t len, void* opaque),
                                    void* opaque) {
    return m_impl->setContent(reader, opaque);
}

int HttpClientInterface::startRequest(const char* /*errMsg*/) { return m_impl->start(); }

int HttpClientInterface::cancelRequest() { return m_impl->cancel(); }

int HttpClientInterface::blockedRequest(int& status, std::map<std::string, std::string>& headerMap,
                                        std::string& content, const char*& errMsg,
                                        uint32_t timeout) {
    return m_impl->startAndWait(status, headerMap, content, errMsg, timeout);
}

HttpClientInterfaceImpl* HttpClientInterface::ctx() { return m_impl; }

int HttpClientInterface::parseHttpClientStatus(const char* /*errMsg*/) { return m_impl->state(); }

}  // namespace tiny

int initHttp2Client(unsigned int /*pollTime*/) {
    h2::Runtime& runtime = h2::Runtime::get();
    if (!runtime.threads().start(runtime.defaults().threads)) {
        HTTP2CLIENT_LOG_ERROR("the system gives no background thread");
    }
    return 1;
}

int destroyHttp2Client() {
    if (h2::LoopThreads::isLoopThread()) {
        HTTP2CLIENT_LOG_ERROR("destroyHttp2Client does nothing inside a callback");
        return 1;
    }
    h2::Runtime::get().threads().stop();
    return 1;
}

int setHttp2Option(tiny::HttpClientInterface* client, HTTP2_OPTION option, int64_t value) {
    const bool set = client != nullptr
                         ? client->ctx()->setOption(option, value)
                         : h2::Runtime::get().changeDefaults(
                               [&](h2::Options& options) { return options.set(option, value); });
    return set ? 0 : -1;
}

int setHttp2TextOption(tiny::HttpClientInterface* client, HTTP2_TEXT_OPTION option,
                       const char* text) {
    const bool set = client != nullptr
                         ? client->ctx()->setOption(option, text)
                         : h2::Runtime::get().changeDefaults(
                               [&](h2::Options& options) { return options.set(option, text); });
    return set ? 0 : -1;
}

void setHttp2Trace(tiny::HttpClientInterface* client, Http2Trace trace, void* opaque) {
    const h2::TraceSink sink{trace, opaque};
    if (client != nullptr) return client->ctx()->setTrace(sink);
    h2::Runtime::get().changeDefaults([&](h2::Options& options) {
        options.connect.connection.trace = sink;
        return true;
    });
}

int pauseHttp2Response(tiny::HttpClientInterface* client) {
    return client->ctx()->pause(true) ? 0 : -1;
}

int resumeHttp2Response(tiny::HttpClientInterface* client) {
    return client->ctx()->pause(false) ? 0 : -1;
}

int64_t getHttp2Number(tiny::HttpClientInterface* client, HTTP2_NUMBER number) {
    return client->ctx()->number(number);
}

const char* getHttp2Text(tiny::HttpClientInterface* client, HTTP2_TEXT text) {
    return client->ctx()->text(text);
}
