#ifndef HTTP2CLIENTSTANDARD_POOL_SERVER_H
#define HTTP2CLIENTSTANDARD_POOL_SERVER_H

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Http2ClientStandard/base/ref.h"
#include "Http2ClientStandard/loop/loop_threads.h"
#include "Http2ClientStandard/pool/connection.h"
#include "Http2ClientStandard/pool/dial.h"

namespace h2 {

struct ServerKey {
    bool tls = true;
    std::string host;  // name or address
    uint16_t port = 0;
    TlsOptions tlsOptions;

    bool operator<(const ServerKey& other) const;
};

// How connections are made; those of the last connect() hold.
struct ConnectSettings {
    ConnectionOptions connection;
    size_t maxConnections = 1;  // at a time, those that only finish their requests not counted
    Time timeout = 10'000;      // milliseconds, TLS included
};

struct ConnectResult {
    bool connected = false;
    bool shared = false;  // the connection was there already
    std::string error;
    Ref<Connection> connection;  // null also when one is only under way
};

// A server as its clients see it: its addresses, its connections, and the requests that wait for
// one. Opens a connection when there is none that takes requests, and sends a request again when
// the server has certainly not processed it. All calls: any thread.
class Server final : public RefCounted, private ConnectionEvents {
public:
    // `tls` null: plain TCP.
    Server(LoopThreads& threads, ServerKey key, std::shared_ptr<TlsContext> tls)
        : m_threads(threads), m_key(std::move(key)), m_tls(std::move(tls)) {}

    const ServerKey& key() const { return m_key; }

    // Joins a connection or opens one, and waits for it. Calls at the same time share one attempt.
    ConnectResult connect(const ConnectSettings& settings);
    // The same without waiting: the attempt goes on in the background. A host name must have been
    // connected to before.
    ConnectResult connectSoon(const ConnectSettings& settings);

    // Sends the request, now or when there is a connection. It ends with an event in any case, if
    // it is not cancelled.
    void start(const Ref<Exchange>& exchange);

    // Takes no further requests on the present connections, and closes them when they are idle.
    void retireConnections();

private:
    void onRetired(Connection& connection) override;
    void onAttemptEnd(const Ref<Exchange>& exchange, const AttemptEnd& end) override;

    Connection* leastUsedLocked() const;
    bool joinLocked(std::unique_lock<std::mutex>& hold, ConnectResult& result);
    DialTarget targetLocked() const;
    ConnectResult dial();
    void uncountWaitedDial();
    void beginDialLocked();
    Ref<Connection> adopt(Dialed dialed);
    void endDial(const std::string& error);
    void failWaiting(const std::string& error);
    static void fail(Exchange& exchange, Failure failure, const char* reason);
    static bool mayRepeat(Exchange& exchange, const AttemptEnd& end);

    LoopThreads& m_threads;
    const ServerKey m_key;
    const std::shared_ptr<TlsContext> m_tls;

    std::mutex m_lock;  // guards what follows
    ConnectSettings m_settings;
    std::vector<Address> m_addresses;            // found last
    std::vector<Ref<Connection>> m_connections;  // that take requests
    std::vector<Ref<Exchange>> m_waiting;        // for a connection
    size_t m_waitedDials = 0;                    // under way on calling threads
    bool m_backgroundDial = false;               // one is under way on a loop
    uint64_t m_failedDials = 0;                  // counted, for those who joined one
    std::string m_dialError;                     // of the last of these
    std::condition_variable m_dialEnded;
};

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_POOL_SERVER_H
