#ifndef HTTP2CLIENT_TESTS_STANDARD_TLS_PEER_H
#define HTTP2CLIENT_TESTS_STANDARD_TLS_PEER_H

#include <openssl/ssl.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <thread>

#include "tests/support/temp.h"

namespace h2test {

// A listening socket on loopback.
class Listener {
public:
    explicit Listener(const char* ip = "127.0.0.1", int backlog = 16);
    ~Listener();
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    uint16_t port() const { return m_port; }
    int accept() const;  // waits; the caller closes the descriptor
    int descriptor() const { return m_descriptor; }

private:
    int m_descriptor;
    uint16_t m_port;
};

struct PeerOptions {
    Certificate certificate;
    bool onlyTls12 = false;
    std::string alpn = "h2";                     // what it chooses; empty: nothing
    bool refuseAlpn = false;                     // answers with the alert no_application_protocol
    bool wantCertificate = false;                // asks for the client's certificate, and takes any
    std::function<void(SSL_CTX*)> prepare = {};  // what else its context needs
};

// A server's side of TLS connections, one after the other, on a thread of its own. `talk` gets
// each connection after its handshake; a failed handshake is passed over.
class TlsPeer {
public:
    TlsPeer(PeerOptions options, int connections, std::function<void(SSL*)> talk);
    ~TlsPeer();  // waits for the thread
    TlsPeer(const TlsPeer&) = delete;
    TlsPeer& operator=(const TlsPeer&) = delete;

    uint16_t port() const { return m_listener.port(); }

private:
    void serve(int connections);

    PeerOptions m_options;
    std::function<void(SSL*)> m_talk;
    Listener m_listener;
    SSL_CTX* m_context;
    std::thread m_thread;
};

// Blocking helpers for `talk`.
std::string readAll(SSL* ssl, size_t size);
void writeAll(SSL* ssl, std::string_view bytes);

}  // namespace h2test

#endif  // HTTP2CLIENT_TESTS_STANDARD_TLS_PEER_H
