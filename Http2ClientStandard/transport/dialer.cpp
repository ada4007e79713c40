#include "Http2ClientStandard/transport/dialer.h"

#include <poll.h>

#include "Http2ClientStandard/transport/plain_transport.h"
#include "Http2ClientStandard/transport/tls_transport.h"

namespace h2 {

Dialer::Dialer(std::string host, uint16_t port, std::vector<Address> addresses,
               std::shared_ptr<TlsContext> tls, Time deadline)
    : m_host(std::move(host)),
      m_port(port),
      m_addresses(std::move(addresses)),
      m_tls(std::move(tls)),
      m_deadline(deadline) {}

int Dialer::descriptor() const { return m_transport ? m_transport->descriptor() : m_socket.get(); }

bool Dialer::wantsWrite() const { return m_transport ? m_transport->wantsWrite() : true; }

Dialer::State Dialer::advance(Time now) {
    if (m_state != State::kGoingOn) return m_state;
    if (m_transport) {
        if (now >= m_deadline) return fail("no TLS handshake within the connect time-out");
        return shakeHands();
    }
    if (!m_socket) return attempt(now);
    return tcpReady(now);
}

// Begins with the address at m_index, or with the first behind it that does not fail at once.
Dialer::State Dialer::attempt(Time now) {
    if (m_addresses.empty()) return fail("no address");
    while (true) {
        std::string reason;
        m_socket = startConnect(m_addresses[m_index], reason);
        if (m_socket) break;
        if (m_index + 1 == m_addresses.size()) return fail("cannot connect: " + reason);
        ++m_index;
    }
    const Time left = m_deadline > now ? m_deadline - now : 0;
    m_attemptDeadline = now + left / (m_addresses.size() - m_index);
    return State::kGoingOn;
}

Dialer::State Dialer::tcpReady(Time now) {
    pollfd ready{m_socket.get(), POLLOUT, 0};
    if (poll(&ready, 1, 0) <= 0) {
        return now < m_attemptDeadline ? State::kGoingOn
                                       : nextAddress("no answer within the connect time-out", now);
    }
    const std::string reason = connectError(m_socket.get());
    if (!reason.empty()) return nextAddress(reason, now);
    m_peer = m_addresses[m_index].text();
    m_tcpConnectedAt = now;
    m_attemptDeadline = m_deadline;
    if (!m_tls) {
        m_transport = std::make_unique<PlainTransport>(std::move(m_socket));
        return m_state = State::kConnected;
    }
    m_transport = TlsTransport::create(std::move(m_socket), m_tls, m_host, m_port, m_error);
    return m_transport ? shakeHands() : m_state = State::kFailed;
}

Dialer::State Dialer::shakeHands() {
    switch (m_transport->handshake().status) {
        case IoStatus::kDone: return m_state = State::kConnected;
        case IoStatus::kAgain: return State::kGoingOn;
        default: return fail(m_transport->error());
    }
}

Dialer::State Dialer::nextAddress(const std::string& reason, Time now) {
    m_socket.close();
    if (m_index + 1 == m_addresses.size()) return fail("cannot connect: " + reason);
    ++m_index;
    return attempt(now);
}

Dialer::State Dialer::fail(std::string error) {
    m_error = std::move(error);
    m_transport.reset();
    m_socket.close();
    return m_state = State::kFailed;
}

}  // namespace h2
