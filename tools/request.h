#ifndef HTTP2CLIENT_TOOLS_REQUEST_H
#define HTTP2CLIENT_TOOLS_REQUEST_H

#include <optional>
#include <string>

#include "body.h"
#include "exchange.h"
#include "interrupt.h"
#include "options.h"
#include "timing.h"

// Where an answer goes while it arrives. What returns a bool returns false, after a message, when
// it takes no more.
class AnswerSink {
public:
    AnswerSink() = default;
    virtual ~AnswerSink() = default;
    AnswerSink(const AnswerSink&) = delete;
    AnswerSink& operator=(const AnswerSink&) = delete;

    virtual bool writeHead(int status, const HeaderMap& headers) = 0;
    virtual bool writeBody(const std::string& bytes) = 0;
    // For a progress bar: whether one may be shown, how much has been sent, and its end.
    virtual bool showsUpload() const { return false; }
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
    // A thread is still inside blockedRequest and cannot be called back: only _exit is left.
    bool stuck = false;
    std::optional<int> status;
    HeaderMap headers;
    Timing timing;

    // Whether a complete answer has come, whatever its status.
    bool isAnswer() const { return code == EXIT_ANSWERED || code == EXIT_ERROR_STATUS; }
};

// All that requests on one connection share.
struct Course {
    const Options& options;
    Exchange& exchange;
    BodyReader& body;
    const Interrupt& interrupt;
    AnswerSink& sink;
};

// One request, its answer handed to the sink as it arrives. It is ended in any case.
Outcome runStreaming(const Course& course);

// ---- what the ways of making a request have in common

Deadline deadlineOf(const Options& options);
bool isOver(const Deadline& deadline);
// When to look again even if nothing arrives: for a bar that shows how much has been sent.
Deadline nextLook(const Course& course, const Deadline& deadline);
// Hands on what has arrived. False when the sink takes no more.
bool writeArrived(const Course& course, const Arrived& arrived);

std::string timedOutMessage(const char* what, const Options& options);
// These fill in code and message.
void fail(Outcome& outcome, int code, std::string message);
void failToConnect(Outcome& outcome, const Exchange::Connected& connected, const Options& options);
void failByEnd(Outcome& outcome, Arrived::End end, const Options& options);
// A complete answer, judged by its status.
void judge(Outcome& outcome, const Options& options);
// Whether the request is to be given up though nothing has gone wrong with it: an interrupt, a
// body that cannot be read, no time left.
bool isGivenUp(const Course& course, const Deadline& deadline, Outcome& outcome);

// A word for each exit code of a failed request, as in "timed out".
const char* kindOf(int code);

#endif  // HTTP2CLIENT_TOOLS_REQUEST_H
