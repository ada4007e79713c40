#ifndef HTTP2CLIENTSTANDARD_POOL_DIAL_H
#define HTTP2CLIENTSTANDARD_POOL_DIAL_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Http2ClientStandard/base/ref.h"
#include "Http2ClientStandard/loop/loop.h"
#include "Http2ClientStandard/pool/connection.h"
#include "Http2ClientStandard/transport/dialer.h"

namespace h2 {

struct DialTarget {
    std::string host;
    uint16_t port = 0;
    std::vector<Address> addresses;
    std::shared_ptr<TlsContext> tls;  // null: plain TCP
    Time nameTime = 0;                // milliseconds that finding the addresses took
    Time timeout = 10'000;            // milliseconds, TLS included
};

struct Dialed {
    std::unique_ptr<Transport> transport;  // null: failed
    ConnectionInfo info;
    std::string error;  // why it failed
};

// Makes a connection on the calling thread, and waits for it.
Dialed dialAndWait(const DialTarget& target);

// Makes a connection on a loop's thread.
class BackgroundDial final : public RefCounted, private Handler {
public:
    using Done = std::function<void(Dialed)>;

    // Any thread. `done` is called on the loop's thread, once.
    static void begin(Loop& loop, DialTarget target, Done done);

private:
    BackgroundDial(Loop& loop, DialTarget target, Done done)
        : m_loop(loop), m_target(std::move(target)), m_done(std::move(done)) {}

    void onReady(uint32_t /*events*/) override { advance(); }
    void onDeadline() override { advance(); }
    void start();
    void advance();

    Loop& m_loop;
    const DialTarget m_target;
    const Done m_done;
    Time m_begun = 0;
    std::unique_ptr<Dialer> m_dialer;
    Ref<BackgroundDial> m_self;  // while it is under way
};

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_POOL_DIAL_H
