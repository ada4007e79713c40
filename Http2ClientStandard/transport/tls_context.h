#ifndef HTTP2CLIENTSTANDARD_TRANSPORT_TLS_CONTEXT_H
#define HTTP2CLIENTSTANDARD_TRANSPORT_TLS_CONTEXT_H

#include <openssl/ssl.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace h2 {

// What distinguishes one way of using TLS from another. Connections are shared among clients whose
// options are equal.
struct TlsOptions {
    bool verify = true;           // chain and name; off accepts any certificate
    std::string caFile;           // PEM; both empty: the system's store
    std::string caDirectory;      // hashed, as c_rehash makes it
    std::string certificateFile;  // PEM, the client's own, with its chain
    std::string keyFile;          // PEM; empty: in certificateFile
    std::string serverName;       // the name or address to expect; empty: the host connected to
    bool onlyTls13 = false;

    bool operator<(const TlsOptions& other) const;
};

// OpenSSL's context for one set of options, with the sessions that servers have given for
// resumption (RFC 8446, 2.2; RFC 5077). May be used by any number of threads at a time.
class TlsContext {
public:
    // Null on failure; `error` then says which file or setting was the cause.
    static std::shared_ptr<TlsContext> create(const TlsOptions& options, std::string& error);
    ~TlsContext();
    TlsContext(const TlsContext&) = delete;
    TlsContext& operator=(const TlsContext&) = delete;

    const TlsOptions& options() const { return m_options; }

    // A new TLS client for the server `host`:`port`, set to verify it, with ALPN "h2" alone, the
    // server's name (RFC 6066; not for addresses) and the last session of that server. Null on
    // failure, with a reason in `error`.
    SSL* newConnection(const std::string& host, uint16_t port, std::string& error);

private:
    explicit TlsContext(const TlsOptions& options) : m_options(options) {}

    bool setUp(std::string& error);
    bool loadTrust(std::string& error);
    bool loadOwnCertificate(std::string& error);
    static int keepSession(SSL* ssl, SSL_SESSION* session);

    const TlsOptions m_options;
    SSL_CTX* m_context = nullptr;
    std::mutex m_sessionLock;                        // guards m_sessions
    std::map<std::string, SSL_SESSION*> m_sessions;  // by "host:port", the last of each; owned
};

// The reason of the calling thread's last OpenSSL failure, without OpenSSL's codes; the system's
// reason when there is one.
std::string tlsErrorText();

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_TRANSPORT_TLS_CONTEXT_H
