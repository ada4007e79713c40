#ifndef HTTP2CLIENTSTANDARD_CLIENT_RUNTIME_H
#define HTTP2CLIENTSTANDARD_CLIENT_RUNTIME_H

#include <mutex>

#include "Http2ClientStandard/client/options.h"
#include "Http2ClientStandard/loop/loop_threads.h"
#include "Http2ClientStandard/pool/pool.h"

namespace h2 {

// What all clients of the process share. It is never destroyed: applications may have clients of
// static storage duration, and connections that are open when the process ends.
class Runtime {
public:
    static Runtime& get();

    LoopThreads& threads() { return m_threads; }
    Pool& pool() { return m_pool; }

    Options defaults() const {
        const std::lock_guard<std::mutex> hold(m_lock);
        return m_defaults;
    }
    // Calls `change` with the options of clients made from now on.
    template <typename Change>
    bool changeDefaults(Change change) {
        const std::lock_guard<std::mutex> hold(m_lock);
        return change(m_defaults);
    }

private:
    Runtime() = default;

    LoopThreads m_threads;
    Pool m_pool{m_threads};
    mutable std::mutex m_lock;  // guards m_defaults
    Options m_defaults;
};

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_CLIENT_RUNTIME_H
