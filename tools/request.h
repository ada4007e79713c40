#ifndef HTTP2CLIENT_TOOLS_REQUEST_H
#define HTTP2CLIENT_TOOLS_REQUEST_H

#include <optional>
#include <string>

#include "body.h"
#include "exchange.h"
#include "options.h"
#include "time_limit.h"
#include "timing.h"

// Where an answer goes while it arrives. What returns a bool returns false when it takes no more,
// after a message unless the request was given up meanwhile.
class AnswerSink {
public:
    AnswerSink() = default;
    virtual ~AnswerSink() = default;
    AnswerSink(const AnswerSink&) = delete;
    AnswerSink& operator=(const AnswerSink&) = delete;

    virtual bool writeHead(int status, const HeaderList& headers) = 0;
    virtual bool writeBody(const std::string& bytes) = 0;
    // For a progress bar: how much has been sent, and its end.
    virtual void showUpload(uint64_t /*sent*/, uint64_t /*size*/) {}
    virtual void endProgress() {}
};

// How a request has ended, and its answer but for the body.
struct Outcome {
    int code = EXIT_ANSWERED;
    std::string message;  // for the user, with what to do next; empty when all is well
    bool unsent = false;  // the connection was gone before the request began
    // The connection has ended; the object of the exchange is of no further use.
    bool disconnected = false;
    std::optional<int> status;
    HeaderList headers;
    Timing timing;

    // Whether a complete answer has come, whatever its status.
    bool isAnswer() const { return code == EXIT_ANSWERED || code == EXIT_ERROR_STATUS; }
};

// All that requests on one connection share.
struct RequestContext {
    const Options& options;
    Exchange& exchange;
    BodyReader& body;
    TimeLimit& limit;
    AnswerSink& sink;
    Duration lookPause;  // how often to look for Ctrl-C, when nothing arrives
};

// Hands the answer of a request to the sink as it arrives, to its end or to that of the time.
// `startCode` is what Exchange::start returned.
Outcome followRequest(const RequestContext& context, int startCode);

// ---- what the ways of making a request have in common

// Hands on what has arrived. False, with code and message, when it is not taken.
bool writeArrived(const RequestContext& context, const Arrived& arrived, Outcome& outcome);
// These fill in code and message.
void fail(Outcome& outcome, int code, std::string message);
// `error`: why, when the library tells.
void failByEnd(Outcome& outcome, Arrived::End end, const std::string& error);
// The outcome when there is no connection. `reason` goes on with what to do.
Outcome cannotConnect(const Options& options, const std::string& reason);
// The outcome when the library refuses to send what the user wants.
Outcome refusedRequest(Exchange& exchange);
// Tells by its status what a complete answer is.
void classify(Outcome& outcome, const Options& options);
// Whether the request is to be given up though nothing has gone wrong with it: Ctrl-C, a body that
// cannot be read, no time left.
bool isGivenUp(const RequestContext& context, Outcome& outcome);

// A word for each exit code of a failed request, as in "timed out".
const char* kindOf(int code);

#endif  // HTTP2CLIENT_TOOLS_REQUEST_H
