#include "Http2ClientStandard/client/client.h"

#include <algorithm>
#include <utility>

namespace h2 {

namespace {

constexpr uint32_t kDefaultWait = 10;  // milliseconds, when blockedRequest is given none

const char* orEmpty(const char* text) { return text == nullptr ? "" : text; }

// What a request is for, when it has no host header (RFC 9110, 4.2: the schema's own port is left
// out).
std::string authorityOf(const ServerKey& key) {
    const bool bracketed = key.host.find(':') != std::string::npos;
    std::string authority = bracketed ? "[" + key.host + "]" : key.host;
    if (key.port != (key.tls ? 443 : 80)) authority += ":" + std::to_string(key.port);
    return authority;
}

const char* methodText(HTTP_METHOD method) {
    switch (method) {
        case HTTP_GET: return "GET";
        case HTTP_POST: return "POST";
        case HTTP_DELETE: return "DELETE";
        case HTTP_METHOD_UNDEFINED: break;
    }
    return nullptr;
}

}  // namespace

Client::Client(tiny::HttpClientInterface& interface)
    : m_interface(interface),
      m_gate(makeRef<CallbackGate>()),
      m_options(Runtime::get().defaults()) {}

Client::~Client() {
    cancel();
    if (m_watchdog) m_watchdog->watch({});
    if (m_ownsServer) m_server->retireConnections();
}

int Client::refuse(int result, const char* reason) {
    const std::lock_guard<std::mutex> hold(m_lock);
    m_error = reason;
    return result;
}

bool Client::isConnected() {
    const std::lock_guard<std::mutex> hold(m_lock);
    return static_cast<bool>(m_server);
}

int Client::connect(HTTP_SCHEMA schema, const char* host, uint16_t port) {
    ServerKey key;
    ConnectSettings settings;
    bool own = false;
    Ref<Server> server;
    {
        const std::lock_guard<std::mutex> hold(m_lock);
        key = {schema != HTTP_2, orEmpty(host), port, {}};
        if (key.tls) key.tlsOptions = m_options.tls;
        settings = m_options.connect;
        own = m_options.ownConnection;
        const auto same = [](const ServerKey& a, const ServerKey& b) {
            return !(a < b) && !(b < a);
        };
        if (own && m_ownsServer && same(m_server->key(), key)) server = m_server;
    }
    std::string error;
    if (!server) server = Runtime::get().pool().find(key, own, error);
    ConnectResult result;
    if (server) {
        result =
            LoopThreads::isLoopThread() ? server->connectSoon(settings) : server->connect(settings);
        error = result.error;
    }
    const std::lock_guard<std::mutex> hold(m_lock);
    m_error = error;
    if (!result.connected) return ERR_SOCKET_CLOSED;
    if (m_ownsServer && m_server.get() != server.get()) m_server->retireConnections();
    m_server = server;
    m_ownsServer = own;
    m_authority = authorityOf(key);
    m_shared = result.shared;
    m_info = result.connection ? result.connection->info() : nullptr;
    return ERR_OK;
}

void Client::clear() {
    const std::lock_guard<std::mutex> hold(m_lock);
    m_message.clear();
}

int Client::setUri(const char* uri, HTTP_METHOD method) {
    if (!isConnected()) return refuse(ERR_SOCKET_CLOSED, "not connected");
    const std::lock_guard<std::mutex> hold(m_lock);
    m_error.clear();
    if (!m_message.setPath(orEmpty(uri))) {
        m_error = "not a path that may be sent";
        return ERR_URL_UNSET;
    }
    if (const char* text = methodText(method)) m_message.setMethod(text);
    return ERR_OK;
}

bool Client::addHeader(const char* name, const char* value, bool valueChangable) {
    const std::lock_guard<std::mutex> hold(m_lock);
    m_error.clear();
    if (!m_server) {
        m_error = "not connected";
    } else if (!m_message.addHeader(orEmpty(name), orEmpty(value), valueChangable)) {
        m_error = std::string("not a header that may be sent: ") + orEmpty(name);
    }
    return m_error.empty();
}

int Client::setContent(const char* data, size_t len) {
    if (!isConnected()) return refuse(ERR_SOCKET_CLOSED, "not connected");
    const std::lock_guard<std::mutex> hold(m_lock);
    m_message.setBlock(data == nullptr ? std::string_view() : std::string_view(data, len));
    return ERR_OK;
}

int Client::setContent(int (*reader)(char* buf, size_t len, void* opaque), void* opaque) {
    if (!isConnected()) return refuse(ERR_SOCKET_CLOSED, "not connected");
    const std::lock_guard<std::mutex> hold(m_lock);
    m_message.setReader(reader, opaque);
    return ERR_OK;
}

int Client::start() {
    ExchangeLimits limits;
    Ref<ClientExchange> begun;
    return begin(limits, begun);
}

int Client::begin(const ExchangeLimits& limits, Ref<ClientExchange>& begun) {
    try {
        return tryToBegin(limits, begun);
    } catch (...) {  // no memory: the request has not been started
        if (begun) begun->cancel();
        throw;
    }
}

int Client::tryToBegin(const ExchangeLimits& limits, Ref<ClientExchange>& begun) {
    Ref<Server> server;
    {
        const std::lock_guard<std::mutex> hold(m_lock);
        if (!m_server) {
            m_error = "not connected";
            return ERR_SOCKET_CLOSED;
        }
        if (m_cancelling != 0 || busyLocked()) {
            m_error = "a request is still running";
            return ERR_BUSY;
        }
        if (m_message.method().empty()) {
            m_error = "no method is set";
            return ERR_URL_UNSET;
        }
        if (!m_message.pathSuitsMethod()) {
            m_error = "the path \"*\" is for OPTIONS only";
            return ERR_URL_UNSET;
        }
        begun = freshExchangeLocked();
        server = m_server;
        if (!m_message.compose(server->key().tls, m_authority, begun->requestFields(),
                               begun->content())) {
            m_error = "content-length and content differ";
            return ERR_CONTENT_UNSET;
        }
        ExchangeLimits all = limits;
        all.firstByte = m_options.firstByte;
        all.wholeRequest = m_options.wholeRequest;
        all.silence = m_options.silence;
        begun->begin(all, m_message);
        m_error.clear();
        watchLocked();
    }
    server->start(begun);
    return ERR_OK;
}

// An exchange that nobody else refers to. Its connection may hold the last one for a moment yet,
// so there are two.
Ref<ClientExchange> Client::freshExchangeLocked() {
    if (m_exchange && !m_exchange->unique()) std::swap(m_exchange, m_spare);
    if (!m_exchange || !m_exchange->unique()) {
        m_exchange = makeRef<ClientExchange>(m_interface, m_gate);
    }
    return m_exchange;
}

void Client::watchLocked() {
    const bool limited =
        m_options.firstByte != 0 || m_options.wholeRequest != 0 || m_options.silence != 0;
    if (!m_watchdog) {
        Loop* loop = limited ? Runtime::get().threads().next() : nullptr;
        if (loop == nullptr) return;
        m_watchdog = makeRef<Watchdog>(*loop);
    }
    m_watchdog->watch(m_exchange);
}

int Client::cancel() {
    Ref<ClientExchange> exchange;
    {
        const std::lock_guard<std::mutex> hold(m_lock);
        if (!m_server) return ERR_SOCKET_CLOSED;
        exchange = m_exchange;
        ++m_cancelling;
    }
    if (exchange) exchange->cancel();
    const std::lock_guard<std::mutex> hold(m_lock);
    --m_cancelling;
    return ERR_OK;
}

int Client::startAndWait(int& status, std::map<std::string, std::string>& headers,
                         std::string& content, const char*& errMsg, uint32_t timeout) {
    int result = 2;
    // The time now is rounded down: one more, so as not to wait for less than was asked for.
    const Time deadline = steadyNow() + 1 + (timeout == 0 ? kDefaultWait : timeout);
    if (LoopThreads::isLoopThread()) {
        refuse(result, "blockedRequest cannot wait inside a callback");
    } else if (!Runtime::get().threads().running()) {
        refuse(result, "no background thread runs: call initHttp2Client first");
    } else {
        ExchangeLimits limits;
        limits.collects = true;
        {
            const std::lock_guard<std::mutex> hold(m_lock);
            limits.maxContent = m_options.maxBlockedBody;
        }
        Ref<ClientExchange> exchange;
        if (begin(limits, exchange) == ERR_OK) {
            result = waitForEnd(*exchange, deadline);
            if (result == 0) {
                exchange->answer(status, headers);
                content = exchange->takeContent();
            }
        }
    }
    errMsg = text(HTTP2_ERROR);
    return result;
}

int Client::waitForEnd(ClientExchange& exchange, Time deadline) {
    const bool ended = exchange.ended().wait(deadline);
    if (!ended) exchange.cancel();
    if (exchange.complete()) return 0;
    if (ended) return 1;
    refuse(0, "the answer did not come in time");
    return exchange.answerBegun() ? 3 : 1;
}

int Client::state() {
    const std::lock_guard<std::mutex> hold(m_lock);
    if (!m_server) return ERR_SOCKET_CLOSED;
    return busyLocked() ? ERR_BUSY : ERR_OK;
}

bool Client::setOption(HTTP2_OPTION option, int64_t value) {
    const std::lock_guard<std::mutex> hold(m_lock);
    return option != HTTP2_BACKGROUND_THREADS && m_options.set(option, value);
}

bool Client::setOption(HTTP2_TEXT_OPTION option, const char* text) {
    const std::lock_guard<std::mutex> hold(m_lock);
    if (option == HTTP2_METHOD) return m_server && m_message.setMethod(orEmpty(text));
    return m_options.set(option, text);
}

void Client::setTrace(TraceSink sink) {
    const std::lock_guard<std::mutex> hold(m_lock);
    m_options.connect.connection.trace = sink;
}

bool Client::pause(bool on) {
    const std::lock_guard<std::mutex> hold(m_lock);
    if (!busyLocked()) return false;
    m_exchange->pause(on);
    return true;
}

std::shared_ptr<const ConnectionInfo> Client::connectionInfo() {
    const std::lock_guard<std::mutex> hold(m_lock);
    const auto last = m_exchange ? m_exchange->connectionInfo() : nullptr;
    return last ? last : m_info;
}

int64_t Client::number(HTTP2_NUMBER number) {
    const std::shared_ptr<const ConnectionInfo> info = connectionInfo();
    const auto ofConnection = [&info](Time ConnectionInfo::*time) {
        return info ? static_cast<int64_t>((*info).*time) * 1000 : -1;
    };
    const std::lock_guard<std::mutex> hold(m_lock);
    switch (number) {
        case HTTP2_SHARED: return m_server ? m_shared : -1;
        case HTTP2_NAME_TIME: return ofConnection(&ConnectionInfo::nameTime);
        case HTTP2_CONNECT_TIME: return ofConnection(&ConnectionInfo::connectTime);
        case HTTP2_TLS_TIME: return ofConnection(&ConnectionInfo::tlsTime);
        case HTTP2_FIRST_BYTE_TIME: return m_exchange ? m_exchange->firstByteTime() : -1;
        case HTTP2_TOTAL_TIME: return m_exchange ? m_exchange->totalTime() : -1;
    }
    return -1;
}

const char* Client::text(HTTP2_TEXT text) {
    const std::shared_ptr<const ConnectionInfo> info = connectionInfo();
    const std::lock_guard<std::mutex> hold(m_lock);
    m_text.clear();
    switch (text) {
        case HTTP2_ERROR:
            m_text = m_error.empty() && m_exchange ? m_exchange->error() : m_error;
            break;
        case HTTP2_PROTOCOL:
            if (m_server) m_text = m_server->key().tls ? "h2" : "h2c";
            break;
        case HTTP2_TLS_VERSION:
            if (info) m_text = info->tlsVersion;
            break;
        case HTTP2_PEER:
            if (info) m_text = info->peer;
            break;
    }
    return m_text.c_str();
}

}  // namespace h2
