#include "Http2ClientStandard/pool/pool.h"

namespace h2 {

Ref<Server> Pool::find(const ServerKey& key, bool own, std::string& error) {
    if (!own) {
        const std::lock_guard<std::mutex> hold(m_lock);
        const auto found = m_servers.find(key);
        if (found != m_servers.end()) return found->second;
    }
    std::shared_ptr<TlsContext> context;
    if (key.tls) {
        context = tlsContext(key.tlsOptions, error);
        if (context == nullptr) return {};
    }
    Ref<Server> server = makeRef<Server>(m_threads, key, std::move(context));
    if (own) return server;
    const std::lock_guard<std::mutex> hold(m_lock);
    // Those that nobody uses any more.
    std::erase_if(m_servers, [](const auto& entry) { return entry.second->unique(); });
    return m_servers.emplace(key, server).first->second;
}

// Loads files, so without the lock.
std::shared_ptr<TlsContext> Pool::tlsContext(const TlsOptions& options, std::string& error) {
    {
        const std::lock_guard<std::mutex> hold(m_lock);
        if (std::shared_ptr<TlsContext> known = m_tlsContexts[options].lock()) return known;
    }
    std::shared_ptr<TlsContext> made = TlsContext::create(options, error);
    const std::lock_guard<std::mutex> hold(m_lock);
    std::erase_if(m_tlsContexts, [](const auto& entry) { return entry.second.expired(); });
    if (made != nullptr) m_tlsContexts[options] = made;
    return made;
}

}  // namespace h2
