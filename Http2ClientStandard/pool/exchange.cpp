#include "Http2ClientStandard/pool/exchange.h"

#include "Http2ClientStandard/pool/connection.h"

namespace h2 {

Ref<Connection> Exchange::connection() const {
    const std::lock_guard<std::mutex> hold(m_placeLock);
    return m_connection;
}

std::shared_ptr<const ConnectionInfo> Exchange::connectionInfo() const {
    const std::lock_guard<std::mutex> hold(m_placeLock);
    return m_info;
}

void Exchange::setConnection(Ref<Connection> connection) {
    const std::lock_guard<std::mutex> hold(m_placeLock);
    if (connection) m_info = connection->info();
    std::swap(m_connection, connection);
}

void Exchange::pause(bool on) {
    m_paused.store(on);
    if (const Ref<Connection> at = connection()) at->pauseAsWanted(*this);
}

void Exchange::forgetAttempts() {
    m_attempts = 0;
    m_repeated = false;
    m_debugData.clear();
    m_paused.store(false);
}

}  // namespace h2
