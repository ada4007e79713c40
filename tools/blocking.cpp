#include "blocking.h"

#include <future>
#include <memory>
#include <thread>
#include <utility>

namespace {

using Result = Exchange::BlockedResult;

// blockedRequest on a thread of its own. That thread is left alone when it does not come back.
class Call {
public:
    explicit Call(Exchange& exchange) {
        auto promise = std::make_shared<std::promise<Result>>();
        m_result = promise->get_future();
        m_thread = std::thread([promise, &exchange] {
            promise->set_value(exchange.runBlocked());
            exchange.wake();
        });
    }
    ~Call() {
        if (m_thread.joinable()) m_thread.detach();
    }
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    bool isOver() const {
        return m_result.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    }
    Result take() {
        m_thread.join();
        return m_result.get();
    }

private:
    std::future<Result> m_result;
    std::thread m_thread;
};

// An answer that ends with headers: blockedRequest does not see that, and waits on.
void endAfterHeaders(const Course& course, bool hadBody, bool isLast, Outcome& outcome) {
    if (hadBody) {
        return fail(outcome, EXIT_REQUEST_FAILED,
                    "request failed: the blocking call waits on after an answer with trailers; "
                    "leave out --blocking");
    }
    if (!course.sink.writeHead(*outcome.status, outcome.headers) || !course.sink.writeBody({})) {
        return fail(outcome, EXIT_USAGE, {});
    }
    judge(outcome, course.options);
    if (isLast) return;
    fail(outcome, EXIT_REQUEST_FAILED,
         "request failed: the blocking call waits on after an answer without a body; leave out "
         "--blocking or --repeat");
}

// Watches until the call is over, or is not to be waited for. True for the former.
bool watch(const Course& course, const Call& call, const Deadline& deadline, bool isLast,
           Outcome& outcome) {
    while (!call.isOver()) {
        if (isGivenUp(course, deadline, outcome)) return false;
        Arrived arrived = course.exchange.wait(nextLook(course, deadline));
        if (!outcome.status) course.sink.showUpload(course.body.sent(), course.body.size());
        if (arrived.status) {
            outcome.status = arrived.status;
            outcome.headers = std::move(arrived.headers);
            course.sink.endProgress();
        }
        if (arrived.beforeLibrary) {
            endAfterHeaders(course, arrived.hadBody, isLast, outcome);
            return false;
        }
        if (arrived.end != Arrived::NONE && arrived.end != Arrived::COMPLETE) {
            failByEnd(outcome, arrived.end, course.options);
            return false;
        }
    }
    return true;
}

void judgeResult(const Course& course, const Result& result, Outcome& outcome) {
    if (course.exchange.wait(Clock::now()).end == Arrived::TOO_LARGE) {
        return failByEnd(outcome, Arrived::TOO_LARGE, course.options);
    }
    if (result.code == 2) return failByEnd(outcome, Arrived::CLOSED, course.options);
    if (result.code != 0) {
        const bool timedOut = result.code == 3;
        return fail(
            outcome, timedOut ? EXIT_TIMED_OUT : EXIT_REQUEST_FAILED,
            result.message + (timedOut ? "; leave out --blocking" : "; -v shows the frames"));
    }
    outcome.status = result.status;
    outcome.headers = result.headers;
    if (!course.sink.writeHead(result.status, result.headers) ||
        !course.sink.writeBody(result.body)) {
        return fail(outcome, EXIT_USAGE, {});
    }
    judge(outcome, course.options);
}

}  // namespace

Outcome runBlocking(const Course& course, bool isLast) {
    const Deadline deadline = deadlineOf(course.options);
    Outcome outcome;
    course.exchange.prepareBlocked(course.body);
    Call call(course.exchange);
    outcome.stuck = !watch(course, call, deadline, isLast, outcome);
    if (!outcome.stuck) judgeResult(course, call.take(), outcome);
    outcome.timing.answer = course.exchange.times();
    course.sink.endProgress();
    return outcome;
}
