#ifndef HTTP2CLIENTSTANDARD_TRANSPORT_DIALER_H
#define HTTP2CLIENTSTANDARD_TRANSPORT_DIALER_H

#include <memory>
#include <string>
#include <vector>

#include "Http2ClientStandard/base/time.h"
#include "Http2ClientStandard/transport/address.h"
#include "Http2ClientStandard/transport/tls_context.h"
#include "Http2ClientStandard/transport/transport.h"

namespace h2 {

// Makes one connection to a server without waiting: TCP to its addresses in turn until one accepts,
// then the TLS handshake. For one thread at a time.
//
// Each address gets an equal share of the time that is left, so that one that never answers does
// not use up the others' time. A failed handshake is final: another address would be the same
// server.
class Dialer {
public:
    enum class State { kGoingOn, kConnected, kFailed };

    // `tls` null: plain TCP. `host` and `port` name the server, for TLS and for error texts.
    // `deadline` ends it all, handshake included.
    Dialer(std::string host, uint16_t port, std::vector<Address> addresses,
           std::shared_ptr<TlsContext> tls, Time deadline);

    // Goes on as far as it can. Call it first to begin, then when the socket is ready (for writing
    // if wantsWrite() says so, else for reading) and when nextDeadline() has come. A new attempt
    // has a new descriptor: ask again after each call.
    State advance(Time now);

    int descriptor() const;
    bool wantsWrite() const;
    Time nextDeadline() const { return m_attemptDeadline; }

    // After kConnected, once. Call read() on it without waiting.
    std::unique_ptr<Transport> takeTransport() { return std::move(m_transport); }
    // The address that accepted; empty before.
    const std::string& peer() const { return m_peer; }
    // When TCP was connected (0: not yet).
    Time tcpConnectedAt() const { return m_tcpConnectedAt; }
    // After kFailed: what failed, for a person.
    const std::string& error() const { return m_error; }

private:
    State attempt(Time now);
    State tcpReady(Time now);
    State shakeHands();
    State nextAddress(const std::string& reason, Time now);
    State fail(std::string error);

    const std::string m_host;
    const uint16_t m_port;
    const std::vector<Address> m_addresses;
    const std::shared_ptr<TlsContext> m_tls;
    const Time m_deadline;

    State m_state = State::kGoingOn;
    size_t m_index = 0;  // of the address being tried
    Time m_attemptDeadline = 0;
    Socket m_socket;                         // while TCP connects
    std::unique_ptr<Transport> m_transport;  // from then on
    std::string m_peer;
    std::string m_error;
    Time m_tcpConnectedAt = 0;
};

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_TRANSPORT_DIALER_H
