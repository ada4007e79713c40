#ifndef HTTP2CLIENTSTANDARD_CLIENT_CLIENT_H
#define HTTP2CLIENTSTANDARD_CLIENT_CLIENT_H

#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include "Http2Client/HttpClientInterface.h"
#include "Http2ClientStandard/base/ref.h"
#include "Http2ClientStandard/client/callback_gate.h"
#include "Http2ClientStandard/client/client_exchange.h"
#include "Http2ClientStandard/client/message.h"
#include "Http2ClientStandard/client/options.h"
#include "Http2ClientStandard/client/runtime.h"
#include "Http2ClientStandard/client/watchdog.h"
#include "Http2ClientStandard/pool/server.h"

namespace h2 {

// What stands behind a tiny::HttpClientInterface. The results are those of its functions.
//
// The application calls from one thread at a time; callbacks may call, too, while it does. m_lock
// guards what both may touch: it is never held while anything waits.
class Client {
public:
    explicit Client(tiny::HttpClientInterface& interface);
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    int connect(HTTP_SCHEMA schema, const char* host, uint16_t port);
    void clear();
    int setUri(const char* uri, HTTP_METHOD method);
    bool addHeader(const char* name, const char* value, bool valueChangable);
    int setContent(const char* data, size_t len);
    int setContent(int (*reader)(char* buf, size_t len, void* opaque), void* opaque);
    int start();
    int cancel();
    int startAndWait(int& status, std::map<std::string, std::string>& headers, std::string& content,
                     const char*& errMsg, uint32_t timeout);
    int state();

    bool setOption(HTTP2_OPTION option, int64_t value);
    bool setOption(HTTP2_TEXT_OPTION option, const char* text);
    void setTrace(TraceSink sink);
    bool pause(bool on);
    int64_t number(HTTP2_NUMBER number);
    const char* text(HTTP2_TEXT text);

private:
    int begin(const ExchangeLimits& limits, Ref<ClientExchange>& begun);
    int tryToBegin(const ExchangeLimits& limits, Ref<ClientExchange>& begun);
    Ref<ClientExchange> freshExchangeLocked();
    bool busyLocked() const { return m_exchange && !m_exchange->isOver(); }
    void watchLocked();
    int waitForEnd(ClientExchange& exchange, Time deadline);
    int refuse(int result, const char* reason);
    bool isConnected();
    std::shared_ptr<const ConnectionInfo> connectionInfo();

    tiny::HttpClientInterface& m_interface;
    const Ref<CallbackGate> m_gate;
    std::string m_text;  // that the application was given last

    std::mutex m_lock;  // guards what follows
    Options m_options;
    Ref<Server> m_server;  // null: not connected yet
    bool m_ownsServer = false;
    std::string m_authority;
    bool m_shared = false;
    std::shared_ptr<const ConnectionInfo> m_info;  // at the last connect; may be null
    std::string m_error;                           // of the last call; empty: none
    Message m_message;
    unsigned m_cancelling = 0;       // calls that end the request at the moment
    Ref<ClientExchange> m_exchange;  // the running request, or the last
    Ref<ClientExchange> m_spare;     // one before that, to be used again
    Ref<Watchdog> m_watchdog;        // when a time-out was ever asked for
};

}  // namespace h2

// The type that HttpClientInterface.h declares.
class tiny::HttpClientInterfaceImpl final : public h2::Client {
public:
    using h2::Client::Client;
};

#endif  // HTTP2CLIENTSTANDARD_CLIENT_CLIENT_H
