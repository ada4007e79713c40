#include "blocking.h"

#include <utility>

#include "call.h"
#include "edition.h"

namespace {

using Result = Exchange::BlockedResult;

// An answer that ends with headers: blockedRequest does not see that, and waits on.
void endAfterHeaders(const RequestContext& context, bool hadBody, bool isLast, Outcome& outcome) {
    if (hadBody) {
        return fail(outcome, EXIT_REQUEST_FAILED,
                    "request failed: the blocking call waits on after an answer with trailers; "
                    "leave out --blocking");
    }
    Arrived whole;
    whole.status = outcome.status;
    whole.headers = outcome.headers;
    if (!writeArrived(context, whole, outcome)) return;
    classify(outcome, context.options);
    if (isLast) return;
    fail(outcome, EXIT_REQUEST_FAILED,
         "request failed: the blocking call waits on after an answer without a body; leave out "
         "--blocking or --repeat");
}

// Looks at what has arrived beside the call. True when the call is not to be waited for any more:
// the exact edition's may go on though the request has ended. `end` keeps how it has.
bool isEndedBeside(const RequestContext& context, bool isLast, Arrived::End& end,
                   Outcome& outcome) {
    if (isGivenUp(context, outcome)) return true;
    Arrived arrived = context.exchange.wait({});
    if (arrived.end != Arrived::NONE) end = arrived.end;
    if (!outcome.status) context.sink.showUpload(context.body.sent(), context.body.size());
    if (arrived.status) {
        outcome.status = arrived.status;
        outcome.headers = std::move(arrived.headers);
        context.sink.endProgress();
    }
    if (arrived.withHeaders) {
        endAfterHeaders(context, arrived.hadBody, isLast, outcome);
        return true;
    }
    if (arrived.end == Arrived::NONE || arrived.end == Arrived::COMPLETE) return false;
    if (edition::kIsStandard) return false;
    failByEnd(outcome, arrived.end, {});
    return true;
}

void takeResult(const RequestContext& context, const Result& result, Arrived::End end,
                Outcome& outcome) {
    const std::string error = edition::lastError(context.exchange);
    if (end == Arrived::NONE) end = context.exchange.wait({}).end;
    const bool isTold = edition::kIsStandard && (end == Arrived::FAILED || end == Arrived::CLOSED);
    if (end == Arrived::TOO_LARGE || isTold) return failByEnd(outcome, end, error);
    if (result.code == 2) return failByEnd(outcome, Arrived::CLOSED, error);
    if (result.code != 0) {
        const bool timedOut = result.code == 3;
        return fail(
            outcome, timedOut ? EXIT_TIMED_OUT : EXIT_REQUEST_FAILED,
            result.message + (timedOut ? "; leave out --blocking" : "; -v shows the frames"));
    }
    outcome.status = result.status;
    outcome.headers = result.headers;
    Arrived whole;
    whole.status = result.status;
    whole.headers = result.headers;
    whole.body = result.body;
    if (writeArrived(context, whole, outcome)) classify(outcome, context.options);
}

}  // namespace

Outcome runBlocking(const RequestContext& context, bool isLast) {
    Outcome outcome;
    Exchange& exchange = context.exchange;
    exchange.prepareBlocked(context.body);
    Arrived::End end = Arrived::NONE;
    const auto result = callLibrary([&exchange] { return exchange.runBlocked(); },
                                    [&] { return isEndedBeside(context, isLast, end, outcome); });
    if (result) takeResult(context, *result, end, outcome);
    outcome.timing.answer = exchange.times();
    context.sink.endProgress();
    return outcome;
}
