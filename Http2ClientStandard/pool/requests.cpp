// Requests on their way in, their events on the way out.
#include <algorithm>
#include <utility>

#include "Http2Client/log.h"
#include "Http2ClientStandard/frames/names.h"
#include "Http2ClientStandard/pool/connection.h"

namespace h2 {

bool Connection::start(const Ref<Exchange>& exchange) {
    exchange->setConnection(Ref<Connection>(this));
    m_load.fetch_add(1, std::memory_order_relaxed);
    if (startAtOnce(exchange) || post(Command::Kind::kSubmit, exchange.get())) return true;
    m_load.fetch_sub(1, std::memory_order_relaxed);
    exchange->setConnection({});
    return false;
}

// Sends the request from this thread, when the connection is free and nothing is under way on it.
bool Connection::startAtOnce(const Ref<Exchange>& exchange) {
    if (!exchange->sendableAnywhere()) return false;
    {
        const std::lock_guard<std::mutex> hold(m_inboxLock);
        if (!m_takesRequests || !m_inbox.empty() || m_looksIntoInbox) return false;
    }
    const std::unique_lock<std::mutex> use(m_useLock, std::try_to_lock);
    if (!use.owns_lock() || !m_transport || m_session.requests() != 0 || sendsLater() ||
        !m_session.takesRequests()) {
        return false;
    }
    m_now = std::max(m_now, steadyNow());
    m_idleSince = 0;
    m_resting = false;
    try {
        submit(exchange);
        sendOnce();
    } catch (...) {
        breakOff(*exchange);
        throw;
    }
    if (sendsLater() || m_session.wantsToSend() || nextDeadline() < m_armed)
        post(Command::Kind::kWake, nullptr);
    return true;
}

// There is no memory, and what has been done of a request by halves is not known: the loop ends the
// connection.
void Connection::breakOff(Exchange& exchange) {
    m_broken = true;
    stopTaking();
    if (exchange.m_stream == 0) release(exchange);
    post(Command::Kind::kWake, nullptr);
}

// Whether sending needs the loop.
bool Connection::sendsLater() const {
    return m_writeFailed || !m_output.empty() || m_transport->wantsWrite() || m_moreToSend;
}

void Connection::cancel(Exchange& exchange) { post(Command::Kind::kCancel, &exchange); }

void Connection::pauseAsWanted(Exchange& exchange) { post(Command::Kind::kPause, &exchange); }

void Connection::retire() { post(Command::Kind::kRetire, nullptr); }

bool Connection::post(Command::Kind kind, Exchange* exchange) {
    bool wake = false;
    {
        const std::lock_guard<std::mutex> hold(m_inboxLock);
        if (m_over || (kind == Command::Kind::kSubmit && !m_takesRequests)) return false;
        m_inbox.push_back({kind, Ref<Exchange>(exchange)});
        wake = !m_woken && !m_looksIntoInbox;
        if (wake) m_woken = Ref<Connection>(this);
    }
    if (wake) wakeLoop();
    return true;
}

void Connection::wakeLoop() {
    try {
        m_loop.post([this] {
            Ref<Connection> self;
            {
                const std::lock_guard<std::mutex> hold(m_inboxLock);
                std::swap(self, m_woken);
            }
            serve(false);
        });
    } catch (...) {  // no memory: the next one wakes it
        const std::lock_guard<std::mutex> hold(m_inboxLock);
        m_woken = Ref<Connection>();
        throw;
    }
}

void Connection::runCommands() {
    {
        const std::lock_guard<std::mutex> hold(m_inboxLock);
        m_commands.swap(m_inbox);
    }
    for (const Command& command : m_commands) run(command);
    m_commands.clear();
}

// Whoever puts something into the inbox wakes the loop from then on. False: something is there.
bool Connection::endLooking() {
    const std::lock_guard<std::mutex> hold(m_inboxLock);
    if (!m_inbox.empty()) return false;
    m_looksIntoInbox = false;
    return true;
}

void Connection::run(const Command& command) {
    switch (command.kind) {
        case Command::Kind::kSubmit: submit(command.exchange); break;
        case Command::Kind::kCancel: forget(*command.exchange); break;
        case Command::Kind::kPause: applyPause(*command.exchange); break;
        case Command::Kind::kRetire: stopTaking(); break;
        case Command::Kind::kWake: break;
    }
}

void Connection::submit(const Ref<Exchange>& exchange) {
    exchange->m_self = exchange;
    if (exchange->cancelled()) {
        release(*exchange);
        return;
    }
    const uint32_t stream =
        m_session.submit({exchange->fields(), exchange->isHead(), exchange->body(), exchange.get(),
                          exchange->kept(), exchange->keptFrom()});
    if (stream != 0) {
        exchange->m_stream = stream;
        if (exchange->m_paused.load()) applyPause(*exchange);
        return;
    }
    stopTaking();
    release(*exchange);
    const SessionError* error = m_session.error();
    endAttempt(exchange,
               {Outcome::kNotProcessed, 0,
                error != nullptr ? error->reason : "the connection takes no requests", false});
}

void Connection::applyPause(const Exchange& exchange) {
    if (exchange.m_stream == 0) return;
    if (exchange.m_paused.load()) {
        m_session.pause(exchange.m_stream);
    } else {
        m_session.resume(exchange.m_stream);
    }
}

// The session knows nothing of the exchange from now on.
void Connection::forget(Exchange& exchange) {
    if (exchange.m_stream == 0) return;
    m_session.cancel(exchange.m_stream);
    release(exchange);
}

Ref<Exchange> Connection::release(Exchange& exchange) {
    // What is not yet sent of its body is the exchange's.
    if (exchange.sendableAnywhere() && !m_output.empty()) m_output.copyBlocks();
    exchange.m_stream = 0;
    exchange.setConnection({});
    m_load.fetch_sub(1, std::memory_order_relaxed);
    return std::exchange(exchange.m_self, Ref<Exchange>());
}

void Connection::endAttempt(const Ref<Exchange>& exchange, StreamEnd end) {
    m_events.onAttemptEnd(exchange,
                          {end, m_answeredBefore, m_saidGoAway, m_silent, m_goAway, m_debugData});
}

void Connection::onHeaders(uint32_t /*stream*/, void* user, uint32_t status,
                           const hpack::FieldList& fields) {
    static_cast<Exchange*>(user)->onHeaders(status, fields);
}

void Connection::onData(uint32_t /*stream*/, void* user, const char* data, size_t size, bool last) {
    static_cast<Exchange*>(user)->onData(data, size, last);
}

void Connection::onTrailers(uint32_t /*stream*/, void* user, const hpack::FieldList& fields) {
    static_cast<Exchange*>(user)->onTrailers(fields);
}

void Connection::onEnd(uint32_t stream, void* user, const StreamEnd& end) {
    const Ref<Exchange> exchange = release(*static_cast<Exchange*>(user));
    if (end.outcome == Outcome::kComplete) {
        if (!m_saidGoAway) m_answeredBefore = true;
        exchange->onComplete();
        return;
    }
    StreamEnd known = end;
    const uint32_t lastSent = m_outputBegun ? m_session.lastSent() : m_sentBefore;
    if (end.outcome == Outcome::kConnectionLost && stream > lastSent) {
        known.outcome = Outcome::kNotProcessed;
    }
    endAttempt(exchange, known);
}

void Connection::onGoAway(const GoAway& goAway) {
    std::string said = "GOAWAY with " + errorName(goAway.code);
    HTTP2CLIENT_LOG_INFO(m_info->peer << " says " << said << ", last stream "
                                      << goAway.lastStreamId);
    m_saidGoAway = true;
    m_debugData = printable(goAway.debugData, 200);
    if (goAway.code != 0 || !m_debugData.empty()) m_goAway = std::move(said);
    stopTaking();
}

}  // namespace h2
