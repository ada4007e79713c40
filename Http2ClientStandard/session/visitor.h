#ifndef HTTP2CLIENTSTANDARD_SESSION_VISITOR_H
#define HTTP2CLIENTSTANDARD_SESSION_VISITOR_H

#include <cstddef>
#include <cstdint>

#include "Http2ClientStandard/frames/frame_reader.h"
#include "Http2ClientStandard/hpack/field_list.h"

namespace h2 {

// What became of a request.
enum class Outcome : uint8_t {
    kComplete,        // the whole answer has been delivered
    kReset,           // the server reset the stream
    kRefused,         // reset with REFUSED_STREAM: certainly not processed
    kNotProcessed,    // above GOAWAY's last stream, or never sent: certainly not processed
    kMalformed,       // the answer breaks a rule of the protocol or a limit of ours
    kConnectionLost,  // the connection is over; the request may have been processed
    kBodyFailed,      // the request's Body failed
};

struct StreamEnd {
    Outcome outcome = Outcome::kComplete;
    uint32_t code = 0;         // of the RST_STREAM or GOAWAY, received or sent; any value
    const char* reason = "";   // for people; a string that lives for ever
    bool answerBegun = false;  // a HEADERS frame of the answer had come, if only an interim one
};

// Takes the events of a session. Each has the request's stream and the pointer given to submit().
//
// An event may call any function of the session but receive(), produce(), onTime() and
// connectionLost(). For a request the order is: interim answers, headers, data, trailers, end. The
// end comes exactly once, unless the request is cancelled: then nothing comes any more.
class Visitor {
public:
    // A 1xx answer. `fields` live during the call, here and below.
    virtual void onInterim(uint32_t stream, void* user, uint32_t status,
                           const hpack::FieldList& fields) {
        (void)stream, (void)user, (void)status, (void)fields;
    }
    // The final answer's header section, ":status" included.
    virtual void onHeaders(uint32_t stream, void* user, uint32_t status,
                           const hpack::FieldList& fields) = 0;
    // A piece of content where it was received; size > 0. `last`: it ends the answer, and onEnd()
    // with kComplete follows at once.
    virtual void onData(uint32_t stream, void* user, const char* data, size_t size, bool last) = 0;
    virtual void onTrailers(uint32_t stream, void* user, const hpack::FieldList& fields) = 0;
    virtual void onEnd(uint32_t stream, void* user, const StreamEnd& end) = 0;

    // The server's SETTINGS have been applied; the first time, the server has spoken HTTP/2.
    virtual void onSettings() {}
    // The server takes no further requests. Before the ends of those that it has not processed.
    virtual void onGoAway(const GoAway& goAway) { (void)goAway; }

protected:
    ~Visitor() = default;
};

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_SESSION_VISITOR_H
