#include "request.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace {

constexpr int kFirstServerError = 500;
constexpr std::chrono::milliseconds kProgressPause{100};

}  // namespace

void failToConnect(Outcome& outcome, const Exchange::Connected& connected, const Options& options) {
    std::string message = "cannot connect to " + options.ip + " port " +
                          std::to_string(options.port) + (options.tls ? " with TLS" : "");
    if (connected.error == ECONNREFUSED) {
        message += ": nobody listens there; start the server, or see its ports with `ss -ltn`";
    } else if (connected.error == EBADF) {
        message += ": no descriptor is left; allow more with `ulimit -n`, or use fewer";
    } else if (connected.error != 0) {
        message += std::string(": ") + std::strerror(connected.error) +
                   "; check the address, and whether a firewall is in between";
    } else if (options.tls) {
        message += ": the handshake failed; leave out --tls if the port speaks plain HTTP/2";
    } else {
        message += ": the process has no descriptor below 1024 left; use fewer connections";
    }
    outcome.timing.connect = connected.times;
    outcome.disconnected = true;
    fail(outcome, EXIT_CANNOT_CONNECT, message);
}

Deadline deadlineOf(const Options& options) {
    if (options.timeoutMs == 0) return std::nullopt;
    return Clock::now() + std::chrono::milliseconds(options.timeoutMs);
}

bool isOver(const Deadline& deadline) { return deadline && Clock::now() >= *deadline; }

Deadline nextLook(const Course& course, const Deadline& deadline) {
    if (!course.sink.showsUpload() || course.body.size() == 0) return deadline;
    const auto tick = Clock::now() + kProgressPause;
    return deadline ? std::min(*deadline, tick) : tick;
}

bool writeArrived(const Course& course, const Arrived& arrived) {
    if (arrived.status) {
        course.sink.showUpload(course.body.sent(), course.body.size());
        if (!course.sink.writeHead(*arrived.status, arrived.headers)) return false;
    }
    const bool isAnswer = arrived.status || !arrived.body.empty();
    return !isAnswer || course.sink.writeBody(arrived.body);
}

std::string timedOutMessage(const char* what, const Options& options) {
    return std::string("no ") + what + " within " + std::to_string(options.timeoutMs) +
           " ms; allow more with --timeout";
}

void fail(Outcome& outcome, int code, std::string message) {
    outcome.code = code;
    outcome.message = std::move(message);
}

void failByEnd(Outcome& outcome, Arrived::End end, const Options& options) {
    if (end == Arrived::TOO_LARGE) {
        return fail(outcome, EXIT_REQUEST_FAILED,
                    "request failed: the body is over the 1 MiB that the blocking call can hold; "
                    "leave out --blocking");
    }
    outcome.disconnected = true;
    if (end == Arrived::CLOSED) {
        return fail(outcome, EXIT_CONNECTION_LOST,
                    std::string("connection lost before the answer was complete; ") +
                        (options.tls ? "see the server's log"
                                     : "if the port speaks TLS, add --tls; else see the server's "
                                       "log"));
    }
    fail(outcome, EXIT_REQUEST_FAILED,
         "request failed: the server reset it, or what it sends cannot be parsed; -v shows the "
         "frames");
}

void judge(Outcome& outcome, const Options& options) {
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

bool isGivenUp(const Course& course, const Deadline& deadline, Outcome& outcome) {
    if (course.interrupt.requested()) {
        fail(outcome, EXIT_INTERRUPTED, "interrupted; the request was cancelled");
    } else if (course.body.error() != 0) {
        fail(outcome, EXIT_USAGE,
             std::string("reading the body failed: ") + std::strerror(course.body.error()) +
                 "; the request was given up: check --data-file");
    } else if (isOver(deadline)) {
        fail(outcome, EXIT_TIMED_OUT, timedOutMessage("complete answer", course.options));
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

namespace {

// Takes what arrives until the request has ended, or is given up.
void followAnswer(const Course& course, const Deadline& deadline, Outcome& outcome) {
    while (!isGivenUp(course, deadline, outcome)) {
        Arrived arrived = course.exchange.wait(nextLook(course, deadline));
        if (arrived.status) outcome.status = arrived.status;
        if (!writeArrived(course, arrived)) return fail(outcome, EXIT_USAGE, {});
        if (arrived.status) outcome.headers = std::move(arrived.headers);
        if (!outcome.status) course.sink.showUpload(course.body.sent(), course.body.size());
        if (arrived.end == Arrived::COMPLETE) {
            if (arrived.beforeLibrary) course.exchange.stop();
            return judge(outcome, course.options);
        }
        if (arrived.end != Arrived::NONE) return failByEnd(outcome, arrived.end, course.options);
    }
}

}  // namespace

Outcome runStreaming(const Course& course) {
    const Deadline deadline = deadlineOf(course.options);
    Outcome outcome;
    if (course.exchange.start(course.body) != 0) {
        failByEnd(outcome, Arrived::CLOSED, course.options);
        outcome.unsent = true;
        return outcome;
    }
    followAnswer(course, deadline, outcome);
    outcome.timing.answer = course.exchange.times();
    if (!outcome.isAnswer()) course.exchange.cancel();
    course.sink.endProgress();
    return outcome;
}
