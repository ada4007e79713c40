#include "Http2ClientStandard/pool/dial.h"

#include <poll.h>

#include <algorithm>
#include <climits>

#include "Http2ClientStandard/transport/tls_transport.h"

namespace h2 {

namespace {

Dialer makeDialer(const DialTarget& target, Time now) {
    return {target.host, target.port, target.addresses, target.tls, now + target.timeout};
}

// What a dialer that has come to its end has to say.
Dialed finish(Dialer& dialer, const DialTarget& target, Time begun, Time now) {
    Dialed dialed;
    dialed.transport = dialer.takeTransport();
    if (!dialed.transport) {
        dialed.error = dialer.error();
        return dialed;
    }
    dialed.info.peer = dialer.peer();
    dialed.info.nameTime = target.nameTime;
    dialed.info.connectTime = dialer.tcpConnectedAt() - begun;
    if (const auto* tls = dynamic_cast<const TlsTransport*>(dialed.transport.get())) {
        dialed.info.tlsVersion = tls->version();
        dialed.info.tlsTime = now - dialer.tcpConnectedAt();
    }
    return dialed;
}

}  // namespace

Dialed dialAndWait(const DialTarget& target) {
    const Time begun = steadyNow();
    Dialer dialer = makeDialer(target, begun);
    Time now = begun;
    while (dialer.advance(now) == Dialer::State::kGoingOn) {
        pollfd ready{dialer.descriptor(),
                     static_cast<short>(dialer.wantsWrite() ? POLLOUT : POLLIN), 0};
        const Time deadline = dialer.nextDeadline();
        const Time left = deadline > now ? std::min<Time>(deadline - now, INT_MAX) : 0;
        poll(&ready, 1, static_cast<int>(left));
        now = steadyNow();
    }
    return finish(dialer, target, begun, now);
}

void BackgroundDial::begin(Loop& loop, DialTarget target, Done done) {
    const Ref<BackgroundDial> dial(new BackgroundDial(loop, std::move(target), std::move(done)));
    dial->m_self = dial;
    loop.post([&started = *dial] { started.start(); });
}

void BackgroundDial::start() {
    m_begun = steadyNow();
    m_dialer = std::make_unique<Dialer>(makeDialer(m_target, m_begun));
    advance();
}

void BackgroundDial::advance() {
    const Time now = steadyNow();
    const Dialer::State state = m_dialer->advance(now);
    // Another address has another descriptor, which may have the same number.
    m_loop.remove(*this);
    if (state == Dialer::State::kGoingOn) {
        if (m_loop.add(*this, m_dialer->descriptor(),
                       m_dialer->wantsWrite() ? EPOLLOUT : EPOLLIN)) {
            m_loop.setDeadline(*this, m_dialer->nextDeadline());
            return;
        }
    }
    const Ref<BackgroundDial> self = std::move(m_self);
    Dialed dialed = finish(*m_dialer, m_target, m_begun, now);
    if (dialed.error.empty() && !dialed.transport) {
        dialed.error = "the system has no room for another connection";
    }
    m_done(std::move(dialed));
}

}  // namespace h2
