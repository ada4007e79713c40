#ifndef HTTP2CLIENT_TESTS_STANDARD_WIRE_HTTP2_SERVER_H
#define HTTP2CLIENT_TESTS_STANDARD_WIRE_HTTP2_SERVER_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "tests/standard/field_decoder.h"
#include "tests/support/scripted_server.h"

namespace h2test {

// A request as an Http2Server has received it.
struct Request {
    size_t connection = 0;
    uint32_t stream = 0;
    FieldLines fields;
    std::string body;

    // The value of the first field of that name; empty when there is none.
    std::string field(std::string_view name) const;
};

struct Http2Options {
    ServerOptions server;  // tls, certificate and so on; greeting and responder are ours
    std::string greeting;  // empty: SETTINGS and a large connection window
    // The reply to a request that has come whole; called on the server's thread. None: no reply.
    std::function<std::string(const Request&)> reply;
};

// A scripted server that also reads requests: acknowledges SETTINGS, decodes header blocks
// and puts bodies together. What it sends is written by hand.
class Http2Server {
public:
    using Reply = std::function<std::string(const Request&)>;

    explicit Http2Server(Http2Options options);
    explicit Http2Server(Reply reply) : Http2Server(Http2Options{{}, {}, std::move(reply)}) {}
    ~Http2Server();
    Http2Server(const Http2Server&) = delete;
    Http2Server& operator=(const Http2Server&) = delete;

    ScriptedServer& wire() { return *m_wire; }
    uint16_t port() const { return m_wire->port(); }
    // Requests that have come whole, in their order.
    std::vector<Request> requests() const;
    [[nodiscard]] bool waitRequests(size_t count) const;

    // SETTINGS with windows of 16 MiB for content.
    static std::string largeWindows();

private:
    struct Connection;

    std::string onFrame(size_t index, const WireFrame& frame);
    std::string finish(Request& request);

    const Http2Options m_options;
    mutable std::mutex m_lock;  // guards m_requests
    std::vector<Request> m_requests;
    std::map<size_t, Connection> m_connections;  // of the server's thread
    std::unique_ptr<ScriptedServer> m_wire;      // last: its thread uses the others
};

}  // namespace h2test

#endif  // HTTP2CLIENT_TESTS_STANDARD_WIRE_HTTP2_SERVER_H
