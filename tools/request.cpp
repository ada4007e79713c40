#include "request.h"

#include <cstring>
#include <utility>

#include "edition.h"
#include "interrupt.h"

namespace {

constexpr int kFirstServerError = 500;

// What had come when a request was given up, for its message.
std::string whatHadCome(const RequestContext& context, const Outcome& outcome) {
    std::string text;
    if (context.body.size() > 0) {
        text = std::to_string(context.body.sent()) + " of " + std::to_string(context.body.size()) +
               " bytes were sent; ";
    }
    if (!outcome.status) return text + "nothing had come";
    return text + "status " + std::to_string(*outcome.status) + " and " +
           std::to_string(context.exchange.times().bodySize) + " bytes of the body had come";
}

void failByBodyLimit(const Options& options, Outcome& outcome) {
    fail(outcome, EXIT_REQUEST_FAILED,
         "request failed: the body is over the " + std::to_string(options.maxBody) +
             " bytes that --json keeps; write it with -o FILE, or allow more with --max-body");
}

}  // namespace

bool writeArrived(const RequestContext& context, const Arrived& arrived, Outcome& outcome) {
    AnswerSink& sink = context.sink;
    bool taken = true;
    if (arrived.status) {
        sink.showUpload(context.body.sent(), context.body.size());
        taken = sink.writeHead(*arrived.status, arrived.headers);
    }
    if (taken && context.options.keepsBody() &&
        context.exchange.times().bodySize > context.options.maxBody) {
        failByBodyLimit(context.options, outcome);
        return false;
    }
    if (taken && (arrived.status || !arrived.body.empty())) taken = sink.writeBody(arrived.body);
    if (!taken && !isGivenUp(context, outcome)) fail(outcome, EXIT_USAGE, {});
    return taken;
}

void fail(Outcome& outcome, int code, std::string message) {
    outcome.code = code;
    outcome.message = std::move(message);
}

void failByEnd(Outcome& outcome, Arrived::End end, const std::string& error) {
    if (end == Arrived::TOO_LARGE) {
        return fail(outcome, EXIT_REQUEST_FAILED,
                    "request failed: the body is over the 1 MiB that the blocking call can hold; "
                    "leave out --blocking");
    }
    outcome.disconnected = true;
    if (end == Arrived::CLOSED) {
        return fail(outcome, EXIT_CONNECTION_LOST,
                    "connection lost before the answer was complete" +
                        (error.empty() ? "" : ": " + error) + "; see the server's log");
    }
    fail(outcome, EXIT_REQUEST_FAILED,
         "request failed: " +
             (error.empty() ? "the server reset it, or what it sends cannot be parsed" : error) +
             "; -v shows the frames");
}

Outcome cannotConnect(const Options& options, const std::string& reason) {
    Outcome outcome;
    outcome.disconnected = true;
    fail(outcome, EXIT_CANNOT_CONNECT,
         "cannot connect to " + options.host + " port " + std::to_string(options.port) +
             (options.tls ? " with TLS" : "") + ": " + reason);
    return outcome;
}

Outcome refusedRequest(Exchange& exchange) {
    Outcome outcome;
    fail(outcome, EXIT_USAGE,
         edition::lastError(exchange) +
             "; what HTTP/2 forbids, and more than 64 KiB of headers, cannot be sent");
    return outcome;
}

void classify(Outcome& outcome, const Options& options) {
    const int status = outcome.status.value_or(0);
    if (status == 0) {
        return fail(outcome, EXIT_REQUEST_FAILED,
                    "request failed: the answer came without a status that can be read "
                    "(Huffman-coded headers are not); -v shows the frames");
    }
    if (status < kFirstErrorStatus) return;
    std::string message = "the server answered with status " + std::to_string(status) + "; ";
    if (status >= kFirstServerError) {
        message += "see the server's log";
    } else {
        message += options.showHeaders || options.json ? "check PATH, -X and the headers"
                                                       : "check PATH, -X and the headers; -i shows "
                                                         "the answer's";
    }
    fail(outcome, EXIT_ERROR_STATUS, message);
}

bool isGivenUp(const RequestContext& context, Outcome& outcome) {
    context.limit.setProgress(context.exchange.progress() + context.body.sent());
    if (isInterrupted()) {
        fail(outcome, EXIT_INTERRUPTED, "interrupted");
    } else if (context.body.error() != 0) {
        fail(outcome, EXIT_USAGE,
             std::string("reading the body failed: ") + std::strerror(context.body.error()) +
                 "; the request was given up: check --data-file");
    } else if (context.limit.isOver()) {
        fail(outcome, EXIT_TIMED_OUT,
             context.limit.text("complete answer") + "; " + whatHadCome(context, outcome) +
                 "; allow more with --timeout");
    } else {
        return false;
    }
    return true;
}

const char* kindOf(int code) {
    switch (code) {
        case EXIT_CANNOT_CONNECT: return "cannot connect";
        case EXIT_REQUEST_FAILED: return "request failed";
        case EXIT_CONNECTION_LOST: return "connection lost";
        case EXIT_TIMED_OUT: return "timed out";
        case EXIT_INTERRUPTED: return "interrupted";
        case EXIT_ERROR_STATUS: return "error status";
        default: return "input or output failed";
    }
}

Outcome followRequest(const RequestContext& context, int startCode) {
    Outcome outcome;
    if (startCode != 0) {
        failByEnd(outcome, Arrived::CLOSED, edition::lastError(context.exchange));
        outcome.unsent = true;
        return outcome;
    }
    while (!isGivenUp(context, outcome)) {
        Arrived arrived = context.exchange.wait(context.lookPause);
        if (arrived.status) outcome.status = arrived.status;
        if (!writeArrived(context, arrived, outcome)) break;
        if (arrived.status) outcome.headers = std::move(arrived.headers);
        if (!outcome.status) context.sink.showUpload(context.body.sent(), context.body.size());
        if (arrived.end == Arrived::COMPLETE) {
            classify(outcome, context.options);
            break;
        }
        if (arrived.end != Arrived::NONE) {
            failByEnd(outcome, arrived.end, edition::lastError(context.exchange));
            break;
        }
    }
    outcome.timing.answer = context.exchange.times();
    context.sink.endProgress();
    return outcome;
}
