#ifndef HTTP2CLIENTSTANDARD_POOL_POOL_H
#define HTTP2CLIENTSTANDARD_POOL_POOL_H

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "Http2ClientStandard/base/ref.h"
#include "Http2ClientStandard/pool/server.h"

namespace h2 {

// The servers that clients share. All calls: any thread.
class Pool {
public:
    explicit Pool(LoopThreads& threads) : m_threads(threads) {}

    // The server of that key, or one of the caller's own (`own`). Null on failure: `error` then
    // says which TLS option was the cause.
    Ref<Server> find(const ServerKey& key, bool own, std::string& error);

private:
    std::shared_ptr<TlsContext> tlsContext(const TlsOptions& options, std::string& error);

    LoopThreads& m_threads;
    std::mutex m_lock;  // guards what follows
    std::map<ServerKey, Ref<Server>> m_servers;
    std::map<TlsOptions, std::weak_ptr<TlsContext>> m_tlsContexts;
};

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_POOL_POOL_H
