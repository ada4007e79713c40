#ifndef HTTP2CLIENTSTANDARD_POOL_EXCHANGE_H
#define HTTP2CLIENTSTANDARD_POOL_EXCHANGE_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string>

#include "Http2ClientStandard/base/ref.h"
#include "Http2ClientStandard/hpack/encoder.h"
#include "Http2ClientStandard/hpack/field_list.h"
#include "Http2ClientStandard/session/body.h"

namespace h2 {

class Connection;
struct ConnectionInfo;

// Why a request has ended without its whole answer.
enum class Failure : uint8_t {
    kReset,         // the server reset the stream
    kMalformed,     // the answer breaks the protocol
    kBodyFailed,    // the request's body failed
    kNotProcessed,  // the server has certainly not processed it, and it cannot be sent again
    kLost,          // the connection was lost; the request may have been processed
    kTimeout,       // a time-out of the request's own has passed
};

// A running request: what the pool and its connections need to know of it, and to whom they tell
// what becomes of it. Its events come on a loop's thread.
class Exchange : public RefCounted {
public:
    // What is sent. It stays as it is while the request runs.
    virtual std::span<const hpack::Field> fields() const = 0;
    // See Request. Null, or used by the connection that has the request.
    virtual hpack::KeptFields* kept() { return nullptr; }
    virtual size_t keptFrom() const { return 0; }
    virtual bool isHead() const = 0;        // the method is HEAD
    virtual bool isIdempotent() const = 0;  // RFC 9110, 9.2.2
    virtual Body* body() = 0;               // null: none
    // Whether the body may be asked on any thread, or there is none.
    virtual bool sendableAnywhere() const = 0;
    // Makes the body start again. False: it has been given in part and cannot be given again.
    virtual bool rewind() = 0;
    // Whether nobody waits for an answer any more. Any thread.
    virtual bool cancelled() = 0;

    virtual void onHeaders(uint32_t status, const hpack::FieldList& fields) = 0;
    // `last`: the answer ends with these bytes.
    virtual void onData(const char* data, size_t size, bool last) = 0;
    virtual void onTrailers(const hpack::FieldList& fields) = 0;
    // The answer is whole, if onData() has not said so.
    virtual void onComplete() = 0;
    virtual void onFailure(Failure failure, const char* reason) = 0;

    // The connection that has the request, or null. Any thread.
    Ref<Connection> connection() const;
    // What is known of the last connection that had it, or null. Any thread.
    std::shared_ptr<const ConnectionInfo> connectionInfo() const;

    // While an answer is paused, its window is not given back. Any thread.
    void pause(bool on);

protected:
    // Before the exchange is used for another request.
    void forgetAttempts();
    // What a GOAWAY before the failure said, printable. For the application, and never for the log:
    // it may be worth protecting (RFC 9113, 6.8).
    const std::string& debugData() const { return m_debugData; }

private:
    friend class Connection;
    friend class Server;

    void setConnection(Ref<Connection> connection);

    mutable std::mutex m_placeLock;  // guards m_connection and m_info
    Ref<Connection> m_connection;
    std::shared_ptr<const ConnectionInfo> m_info;
    std::atomic<bool> m_paused{false};

    // Of the connection that has the request, under its owner lock.
    uint32_t m_stream = 0;  // 0: not submitted
    Ref<Exchange> m_self;   // keeps the exchange while the session refers to it

    // Of the server, between two attempts.
    unsigned m_attempts = 0;  // that count
    bool m_repeated = false;  // once, after its connection was lost
    std::string m_debugData;  // of the last attempt
};

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_POOL_EXCHANGE_H
