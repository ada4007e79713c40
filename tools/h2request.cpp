// The library as a command: makes requests, prints the answers. See --help.

#include <csignal>
#include <condition_variable>
#include <iostream>
#include <mutex>
#include <thread>

#include <unistd.h>

#include "CLogWrapper/CLogWrapper.h"
#include "exchange.h"
#include "Http2Client/httpClientApi.h"
#include "options.h"
#include "output.h"

namespace {

constexpr unsigned int kPollTimeMs = 100;
constexpr int kLogInfo = 20000;
constexpr int kFirstErrorStatus = 400;
// The longest processor time that blockedRequest can count; the wall clock is watched here.
constexpr uint32_t kLongestWaitMs = 4294967;
// How long blockedRequest may take to notice an end that the callbacks have already reported.
constexpr std::chrono::seconds kGrace{2};

const char* const kLost =
    "h2request: connection lost before the answer was complete; the server closed it\n";
const char* const kFailed = "h2request: request failed; the server reset it or sent no HTTP/2\n";

Deadline deadlineOf(const Options& options) {
    if (options.timeoutMs == 0) return std::nullopt;
    return std::chrono::steady_clock::now() + std::chrono::milliseconds(options.timeoutMs);
}

int codeOf(int status) { return status < kFirstErrorStatus ? EXIT_ANSWERED : EXIT_ERROR_STATUS; }

int explain(Arrived::End end, const Options& options) {
    switch (end) {
        case Arrived::FAILED: std::cerr << kFailed; return EXIT_REQUEST_FAILED;
        case Arrived::CLOSED: std::cerr << kLost; return EXIT_CONNECTION_LOST;
        default:
            std::cerr << "h2request: no complete answer within " << options.timeoutMs
                      << " ms; give it more with --timeout\n";
            return EXIT_TIMED_OUT;
    }
}

// One request, its answer printed as it arrives.
int runStreaming(Exchange& exchange, const Options& options, BodySource& body, Output& output) {
    const Deadline deadline = deadlineOf(options);
    output.beginAnswer();
    if (exchange.start(body) != 0) {
        std::cerr << kLost;
        return EXIT_CONNECTION_LOST;
    }
    int status = 0;
    while (true) {
        const Arrived arrived = exchange.wait(deadline);
        if (arrived.status) {
            status = *arrived.status;
            if (!output.writeHead(status, arrived.headers)) return EXIT_USAGE;
        }
        if (!output.writeBody(arrived.body)) return EXIT_USAGE;
        if (arrived.end == Arrived::NONE) continue;
        if (!output.flush()) return EXIT_USAGE;
        if (arrived.end != Arrived::COMPLETE) return explain(arrived.end, options);
        if (arrived.endedByHeaders) exchange.cancelRequest();
        return codeOf(status);
    }
}

// What blockedRequest has returned, once it has.
struct Blocked {
    std::mutex mutex;
    std::condition_variable returned;
    bool done = false;
    int result = 0;
    int status = 0;
    std::map<std::string, std::string> headers;
    std::string content;
    std::string message;
};

void callBlocking(Exchange& exchange, Blocked& blocked) {
    int status = 0;
    std::map<std::string, std::string> headers;
    std::string content;
    const char* message = "";
    const int result = exchange.blockedRequest(status, headers, content, message, kLongestWaitMs);
    const std::lock_guard<std::mutex> lock(blocked.mutex);
    blocked.result = result;
    blocked.status = status;
    blocked.headers = headers;
    blocked.content = content;
    blocked.message = message;
    blocked.done = true;
    blocked.returned.notify_all();
}

// Ends the process at once: a thread is still inside blockedRequest and cannot be called back.
[[noreturn]] void leave(Output& output, int code) {
    output.flush();
    std::cerr.flush();
    _exit(code);
}

// One request through blockedRequest. It counts processor time and does not hear of a lost
// connection, so the callbacks and the wall clock are watched beside it.
int runBlocking(Exchange& exchange, const Options& options, BodySource& body, Output& output) {
    const Deadline deadline = deadlineOf(options);
    output.beginAnswer();
    exchange.reset();
    body.rewind();
    if (body.exists()) exchange.setContent(&BodySource::read, &body);
    Blocked blocked;
    std::thread caller(callBlocking, std::ref(exchange), std::ref(blocked));
    Arrived seen;
    {
        std::unique_lock<std::mutex> lock(blocked.mutex);
        const auto isDone = [&blocked] { return blocked.done; };
        while (!blocked.done && seen.end == Arrived::NONE) {
            blocked.returned.wait_for(lock, std::chrono::milliseconds(5), isDone);
            const Arrived now = exchange.wait(std::chrono::steady_clock::now());
            if (now.status) {
                seen.status = now.status;
                seen.headers = now.headers;
            }
            if (now.end != Arrived::TIMED_OUT) seen.end = now.end;
            seen.endedByHeaders = now.endedByHeaders;
            if (deadline && std::chrono::steady_clock::now() >= *deadline) {
                if (seen.end == Arrived::NONE) seen.end = Arrived::TIMED_OUT;
            }
        }
        const bool complete = seen.end == Arrived::COMPLETE && !seen.endedByHeaders;
        if (!blocked.done && complete) blocked.returned.wait_for(lock, kGrace, isDone);
    }
    if (!blocked.done) {
        if (seen.endedByHeaders) {
            output.writeHead(*seen.status, seen.headers);
            leave(output, codeOf(*seen.status));
        }
        if (seen.end != Arrived::COMPLETE) leave(output, explain(seen.end, options));
        std::cerr << "h2request: request failed, the content is over limit(1MB); leave out "
                     "--blocking\n";
        leave(output, EXIT_REQUEST_FAILED);
    }
    caller.join();
    if (blocked.result == 2) {
        std::cerr << kLost;
        return EXIT_CONNECTION_LOST;
    }
    if (blocked.result != 0) {
        std::cerr << "h2request: " << blocked.message << "\n";
        return EXIT_REQUEST_FAILED;
    }
    if (!output.writeHead(blocked.status, blocked.headers) || !output.writeBody(blocked.content) ||
        !output.flush()) {
        return EXIT_USAGE;
    }
    return codeOf(blocked.status);
}

int runRequests(const Options& options, BodySource& body, Output& output) {
    Exchange exchange;
    if (!exchange.connect(options)) {
        std::cerr << "h2request: cannot connect to " << options.ip << " port " << options.port
                  << (options.tls ? " with TLS; does it speak TLS there?\n"
                                  : "; is the server running, and on this port?\n");
        return EXIT_CANNOT_CONNECT;
    }
    exchange.describe(options);
    int worst = EXIT_ANSWERED;
    for (unsigned int i = 0; i < options.repeat; ++i) {
        const int code = options.blocking ? runBlocking(exchange, options, body, output)
                                          : runStreaming(exchange, options, body, output);
        if (body.failed()) {
            std::cerr << "h2request: reading the body failed; part of it was sent\n";
            return EXIT_USAGE;
        }
        if (code != EXIT_ANSWERED) worst = code;
        if (code != EXIT_ANSWERED && code != EXIT_ERROR_STATUS) break;
    }
    return worst;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (const auto ended = parseOptions(argc, argv, options)) return *ended;
    signal(SIGPIPE, SIG_IGN);
    BodySource body;
    Output output;
    if (!body.open(options) || !output.open(options)) return EXIT_USAGE;
    if (options.verbose) CLogWrapper::SetLevel(kLogInfo);

    const ConsoleLines consoleLines(options.verbose);
    initHttp2Client(kPollTimeMs);
    const int code = runRequests(options, body, output);
    destroyHttp2Client();
    return code;
}
