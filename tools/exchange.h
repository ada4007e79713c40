#ifndef HTTP2CLIENT_TOOLS_EXCHANGE_H
#define HTTP2CLIENT_TOOLS_EXCHANGE_H

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "Http2Client/HttpClientInterface.h"
#include "body.h"
#include "options.h"

using Deadline = std::optional<std::chrono::steady_clock::time_point>;
using HeaderMap = std::map<std::string, std::string>;

// What has come in since the last look. The end is reported together with all before it.
struct Arrived {
    // TOO_LARGE: more than blockedRequest can keep; reported for a blocking request only.
    enum End { NONE, COMPLETE, FAILED, CLOSED, TOO_LARGE };
    std::optional<int> status;  // with headers, when they have just come
    HeaderMap headers;
    std::string body;
    End end = NONE;
    bool beforeLibrary = false;  // complete, but the library waits on: see Exchange
    bool hadBody = false;        // set with beforeLibrary
};

// A connection and its successive requests. The callbacks only store what comes, on the library's
// thread; the main thread takes it with wait.
//
// Where an answer ends: with the DATA frame that the library reports as the last one; or with its
// headers when they say that no body follows (status 204 and 304, content-length 0); or with
// trailers, which are always the last of a response (RFC 9113, 8.1). The library reports no end of
// stream on headers, so in the latter two cases it has to be told, by stop(). Interim responses
// (status 1xx) are passed over.
class Exchange : public tiny::HttpClientInterface {
public:
    Exchange() = default;
    ~Exchange() override { stop(); }

    bool connect(const Options& options);
    // Sets what all requests have in common. `body` must outlive the exchange.
    void describe(const Options& options, BodySource& body);

    // Starts a request that reports through wait. Returns the library's result code: 0 is started.
    int start(BodySource& body);
    // The same, through blockedRequest: returns its result when it does. Another thread may use
    // wait meanwhile; no bodies arrive there.
    struct BlockedResult {
        int code = 0;
        int status = 0;
        HeaderMap headers;
        std::string body;
        std::string message;
    };
    void prepareBlocked(BodySource& body);
    BlockedResult runBlocked();

    // Waits for something to arrive, for wake, or for the deadline. May return nothing at all.
    Arrived wait(const Deadline& deadline);
    // Makes wait return. From any thread.
    void wake();
    // Ends the running request, if there is one. Not while runBlocked runs.
    void stop();

    void onSocketClosed() override { finish(Arrived::CLOSED); }
    void onFailed(HTTP_ERROR /*err*/) override { finish(Arrived::FAILED); }
    void onHeaderReceived(int status, const HeaderDef* headers, size_t count) override;
    void onContentReceived(const char* data, size_t len, bool more) override;

private:
    void reset(BodySource& body, bool blocking);
    void finish(Arrived::End end);
    void storeBody(std::unique_lock<std::mutex>& lock, const char* data, size_t len);

    std::mutex m_mutex;                 // guards all below
    std::condition_variable m_changed;  // something has arrived
    std::condition_variable m_taken;    // there is room again
    Arrived m_arrived;
    bool m_woken = false;
    bool m_answered = false;   // the final status has come
    bool m_blocking = false;   // the request runs through blockedRequest
    bool m_abandoned = false;  // nobody takes anything any more
    uint64_t m_received = 0;   // bytes of the body
};

#endif  // HTTP2CLIENT_TOOLS_EXCHANGE_H
