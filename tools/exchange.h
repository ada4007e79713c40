#ifndef HTTP2CLIENT_TOOLS_EXCHANGE_H
#define HTTP2CLIENT_TOOLS_EXCHANGE_H

#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Http2Client/HttpClientInterface.h"
#include "body.h"
#include "options.h"
#include "timing.h"

// In the order in which the library gives them.
using HeaderList = std::vector<std::pair<std::string, std::string>>;
// The value of the first header of that name; null when there is none.
const std::string* findHeader(const HeaderList& headers, const std::string& name);

// What has come in since the last look. The end is reported together with all before it.
struct Arrived {
    // TOO_LARGE: more than blockedRequest can keep; reported for a blocking request only.
    enum End { NONE, COMPLETE, FAILED, CLOSED, TOO_LARGE };
    std::optional<int> status;  // with headers, when they have just come
    HeaderList headers;
    std::string body;
    End end = NONE;
    bool withHeaders = false;  // complete with headers, so that the library waits on: see Exchange
    bool hadBody = false;      // set with withHeaders
};

// A connection and its successive requests. The callbacks only store what comes, on the library's
// thread; another thread takes it with wait.
//
// Where an answer ends in the exact edition: with the DATA frame that the library reports as the
// last one; or with its headers when they say that no body follows (status 204 and 304,
// content-length 0); or with trailers, which are always the last of a response (RFC 9113, 8.1). The
// library reports no end of stream on headers, so in the latter two cases the request is withdrawn
// before the next one. Interim responses (status 1xx) are passed over. The standard edition tells
// the end itself.
//
// What calls the library (connect to runBlocked, and the destructor) may block as long as a server
// likes: the exact edition takes its locks while it connects, and while it reads what a server
// sends without a pause. See call.h.
class Exchange : public tiny::HttpClientInterface {
public:
    Exchange() = default;
    ~Exchange() override { withdraw(); }

    // Whether there is a connection now.
    bool connect(const Options& options);
    // Sets what all requests have in common. `body` must outlive the exchange. False: the library
    // refuses to send something of it.
    bool describe(const Options& options, BodyReader& body);
    // From the next request on, bodies are counted and dropped.
    void dropBodies() { m_keepsBodies = false; }

    // Starts a request that reports through wait. Returns the library's result code: 0 is started.
    int start(BodyReader& body);
    // The same, through blockedRequest: returns its result when it does. Another thread may use
    // wait meanwhile; no bodies arrive there.
    struct BlockedResult {
        int code = 0;
        int status = 0;
        HeaderList headers;
        std::string body;
        std::string message;
    };
    void prepareBlocked(BodyReader& body);
    BlockedResult runBlocked();

    // Waits for something to arrive, but no longer than this. May return nothing at all.
    Arrived wait(Duration limit);

    // Times of the last request, as far as it has come, and the bytes of its body.
    AnswerTimes times();
    // Counts what has come of it.
    uint64_t progress();

    void onSocketClosed() override { finish(Arrived::CLOSED); }
    void onFailed(HTTP_ERROR /*err*/) override { finish(Arrived::FAILED); }
    void onHeaderReceived(int status, const HeaderDef* headers, size_t count) override;
    void onContentReceived(const char* data, size_t len, bool more) override;

private:
    void withdraw();
    void reset(BodyReader& body, bool blocking);
    void noteArrivalLocked();
    void setEndLocked(Arrived::End end);
    void finish(Arrived::End end);
    void storeBody(std::unique_lock<std::mutex>& lock, const char* data, size_t len);

    std::mutex m_mutex;                 // guards all below but the last
    std::condition_variable m_changed;  // something has arrived
    std::condition_variable m_taken;    // there is room again
    Arrived m_arrived;
    bool m_running = false;    // the library has not ended the request
    bool m_answered = false;   // the final status has come
    bool m_blocking = false;   // the request runs through blockedRequest
    bool m_abandoned = false;  // nobody takes anything any more
    uint64_t m_received = 0;   // bytes of the body
    uint64_t m_arrivals = 0;   // calls of callbacks
    TimePoint m_start;
    std::optional<TimePoint> m_firstByte;
    std::optional<TimePoint> m_end;

    bool m_keepsBodies = true;  // not guarded: changed only between requests
};

#endif  // HTTP2CLIENT_TOOLS_EXCHANGE_H
