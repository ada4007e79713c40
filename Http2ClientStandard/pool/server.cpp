#include "Http2ClientStandard/pool/server.h"

#include <algorithm>
#include <chrono>
#include <tuple>

#include "Http2Client/log.h"
#include "Http2ClientStandard/frames/names.h"
#include "Http2ClientStandard/pool/pause.h"

namespace h2 {

namespace {

// Times that a request is sent again after attempts that count.
constexpr unsigned kMaxRepeats = 3;
constexpr Time kFirstPause = 10;  // milliseconds; doubled at each further one
constexpr Time kMaxPause = 1000;

// What an attempt ended with, for people and the log.
std::string describe(const AttemptEnd& end) {
    std::string text = end.stream.reason;
    const bool isReset =
        end.stream.outcome == Outcome::kReset || end.stream.outcome == Outcome::kRefused;
    if (isReset) text += " with " + errorName(end.stream.code);
    if (!end.goAway.empty()) text.append(", after ").append(end.goAway);
    return text;
}

}  // namespace

bool ServerKey::operator<(const ServerKey& other) const {
    return std::tie(tls, host, port, tlsOptions) <
           std::tie(other.tls, other.host, other.port, other.tlsOptions);
}

Connection* Server::leastUsedLocked() const {
    Connection* best = nullptr;
    for (const Ref<Connection>& connection : m_connections) {
        if (best == nullptr || connection->load() < best->load()) best = connection.get();
    }
    return best;
}

ConnectResult Server::connect(const ConnectSettings& settings) {
    {
        std::unique_lock<std::mutex> hold(m_lock);
        m_settings = settings;
        ConnectResult result;
        if (joinLocked(hold, result)) return result;
        ++m_waitedDials;
    }
    ConnectResult result;
    try {
        result = dial();
    } catch (...) {  // no memory
        uncountWaitedDial();
        m_dialEnded.notify_all();
        throw;
    }
    uncountWaitedDial();
    endDial(result.error);
    return result;
}

void Server::uncountWaitedDial() {
    const std::lock_guard<std::mutex> hold(m_lock);
    --m_waitedDials;
}

// False: there is nothing to join. An attempt in the background is not joined: it goes on only
// while a thread runs.
bool Server::joinLocked(std::unique_lock<std::mutex>& hold, ConnectResult& result) {
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(m_settings.timeout);
    const uint64_t failedBefore = m_failedDials;
    while (m_connections.size() < m_settings.maxConnections) {
        if (m_connections.size() + m_waitedDials < m_settings.maxConnections) return false;
        const bool late = m_dialEnded.wait_until(hold, deadline) == std::cv_status::timeout;
        if (m_failedDials != failedBefore) {
            result.error = m_dialError;
            return true;
        }
        if (!late) continue;
        if (!m_connections.empty()) break;
        result.error = "no connection within the connect time-out";
        return true;
    }
    result.connected = result.shared = true;
    result.connection = Ref<Connection>(leastUsedLocked());
    return true;
}

ConnectResult Server::connectSoon(const ConnectSettings& settings) {
    const std::lock_guard<std::mutex> hold(m_lock);
    m_settings = settings;
    ConnectResult result;
    result.connection = Ref<Connection>(leastUsedLocked());
    result.connected = result.shared = static_cast<bool>(result.connection);
    if (result.connected) return result;
    if (m_waitedDials == 0 && !m_backgroundDial) {
        if (m_addresses.empty()) {
            if (!isAddressText(m_key.host)) {
                result.error = "not connected to " + m_key.host +
                               " yet, and a callback cannot wait for its address";
                return result;
            }
            m_addresses = resolve(m_key.host, m_key.port).addresses;
        }
        beginDialLocked();
    }
    result.connected = true;
    return result;
}

DialTarget Server::targetLocked() const {
    return {m_key.host, m_key.port, m_addresses, m_tls, 0, m_settings.timeout};
}

// On the calling thread.
ConnectResult Server::dial() {
    const Time begun = steadyNow();
    Resolution found = resolve(m_key.host, m_key.port);
    Dialed dialed;
    dialed.error = found.error;
    if (!found.addresses.empty()) {
        DialTarget target;
        {
            const std::lock_guard<std::mutex> hold(m_lock);
            m_addresses = std::move(found.addresses);
            target = targetLocked();
        }
        target.nameTime = steadyNow() - begun;
        dialed = dialAndWait(target);
    }
    ConnectResult result;
    result.error = dialed.error;
    if (dialed.transport) result.connection = adopt(std::move(dialed));
    if (!result.connection && result.error.empty()) {
        result.error = "the system has no room for another connection";
    }
    result.connected = static_cast<bool>(result.connection);
    return result;
}

void Server::beginDialLocked() {
    Loop* loop = m_threads.next();
    if (loop == nullptr) return;
    m_backgroundDial = true;
    BackgroundDial::begin(*loop, targetLocked(), [self = Ref<Server>(this)](Dialed dialed) {
        const std::string error = dialed.error;
        if (dialed.transport) self->adopt(std::move(dialed));
        {
            const std::lock_guard<std::mutex> hold(self->m_lock);
            self->m_backgroundDial = false;
        }
        self->endDial(error);
    });
}

// Takes a new connection in, and starts what waits for one.
Ref<Connection> Server::adopt(Dialed dialed) {
    Loop* loop = m_threads.next();
    if (loop == nullptr) return {};
    HTTP2CLIENT_LOG_INFO("connected to " << m_key.host << " port " << m_key.port << " ("
                                         << dialed.info.peer << ")"
                                         << (dialed.info.tlsVersion.empty() ? "" : " by ")
                                         << dialed.info.tlsVersion);
    std::vector<Ref<Exchange>> waiting;
    Ref<Connection> connection;
    {
        const std::lock_guard<std::mutex> hold(m_lock);
        // Somebody else may have been faster.
        if (m_connections.size() < m_settings.maxConnections) {
            connection = makeRef<Connection>(
                *loop, std::move(dialed.transport), std::move(dialed.info), m_settings.connection,
                Ref<RefCounted>(this), static_cast<ConnectionEvents&>(*this));
            m_connections.push_back(connection);
            connection->attach();
        } else {
            connection = Ref<Connection>(leastUsedLocked());
        }
        waiting.swap(m_waiting);
    }
    for (const Ref<Exchange>& exchange : waiting) start(exchange);
    return connection;
}

// `error` empty: there is a connection.
void Server::endDial(const std::string& error) {
    {
        const std::lock_guard<std::mutex> hold(m_lock);
        if (!error.empty()) {
            ++m_failedDials;
            m_dialError = error;
        }
        m_dialEnded.notify_all();
        if (m_waiting.empty() || m_backgroundDial || m_waitedDials != 0) return;
        // The connection may have come and gone.
        if (error.empty()) {
            beginDialLocked();
            return;
        }
    }
    HTTP2CLIENT_LOG_ERROR("no connection to " << m_key.host << " port " << m_key.port << ": "
                                              << error);
    Loop* loop = m_threads.next();
    if (loop == nullptr) return;
    loop->post([self = Ref<Server>(this), error] { self->failWaiting(error); });
}

void Server::failWaiting(const std::string& error) {
    std::vector<Ref<Exchange>> waiting;
    {
        const std::lock_guard<std::mutex> hold(m_lock);
        waiting.swap(m_waiting);
    }
    for (const Ref<Exchange>& exchange : waiting) {
        fail(*exchange, Failure::kNotProcessed, error.c_str());
    }
}

// What became of the last attempt is not all: an earlier one may have been processed.
void Server::fail(Exchange& exchange, Failure failure, const char* reason) {
    const bool unsure = failure == Failure::kNotProcessed && exchange.m_repeated;
    exchange.onFailure(unsure ? Failure::kLost : failure, reason);
}

void Server::start(const Ref<Exchange>& exchange) {
    while (!exchange->cancelled()) {
        Ref<Connection> connection;
        {
            const std::lock_guard<std::mutex> hold(m_lock);
            connection = Ref<Connection>(leastUsedLocked());
            if (!connection) {
                m_waiting.push_back(exchange);
                if (!m_backgroundDial && m_waitedDials == 0) beginDialLocked();
                return;
            }
        }
        if (connection->start(exchange)) return;
        onRetired(*connection);  // it is about to say so itself
    }
}

void Server::retireConnections() {
    const std::lock_guard<std::mutex> hold(m_lock);
    for (const Ref<Connection>& connection : m_connections) connection->retire();
    m_connections.clear();
}

void Server::onRetired(Connection& connection) {
    const std::lock_guard<std::mutex> hold(m_lock);
    std::erase_if(m_connections,
                  [&](const Ref<Connection>& one) { return one.get() == &connection; });
}

void Server::onAttemptEnd(const Ref<Exchange>& exchange, const AttemptEnd& end) {
    if (exchange->cancelled()) return;
    const Outcome outcome = end.stream.outcome;
    const std::string reason = describe(end);
    if (mayRepeat(*exchange, end) && exchange->rewind()) {
        HTTP2CLIENT_LOG_INFO("sends a request to " << m_key.host << " again: " << reason);
        if (outcome == Outcome::kRefused) {
            const Time pause = std::min(kFirstPause << (exchange->m_attempts - 1), kMaxPause);
            Pause::begin(*m_threads.next(), pause,
                         [self = Ref<Server>(this), exchange] { self->start(exchange); });
        } else {
            start(exchange);
        }
        return;
    }
    Failure failure = Failure::kLost;
    switch (outcome) {
        case Outcome::kReset: failure = Failure::kReset; break;
        case Outcome::kMalformed: failure = Failure::kMalformed; break;
        case Outcome::kBodyFailed: failure = Failure::kBodyFailed; break;
        case Outcome::kRefused:
        case Outcome::kNotProcessed: failure = Failure::kNotProcessed; break;
        case Outcome::kComplete:
        case Outcome::kConnectionLost: break;
    }
    exchange->m_debugData = end.debugData;
    fail(*exchange, failure, reason.c_str());
}

// Counts the attempt, if it counts.
bool Server::mayRepeat(Exchange& exchange, const AttemptEnd& end) {
    switch (end.stream.outcome) {
        case Outcome::kNotProcessed:
            // Each such connection has answered something: this comes to an end.
            if (end.saidGoAway && end.answeredBefore) return true;
            return exchange.m_attempts++ < kMaxRepeats;
        case Outcome::kRefused: return exchange.m_attempts++ < kMaxRepeats;
        case Outcome::kConnectionLost:
            // Servers close idle connections without a word. One that was asked by PING and stayed
            // silent is no such case.
            return end.answeredBefore && !end.silent && !end.stream.answerBegun &&
                   exchange.isIdempotent() && !std::exchange(exchange.m_repeated, true);
        default: return false;
    }
}

}  // namespace h2
