// The library as a command: makes requests, prints the answers. See --help.

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstring>
#include <future>
#include <iostream>
#include <string>
#include <thread>

#include <unistd.h>

#include "CLogWrapper/CLogWrapper.h"
#include "Http2Client/httpClientApi.h"
#include "body.h"
#include "exchange.h"
#include "options.h"
#include "output.h"
#include "watchdog.h"

namespace {

using std::chrono::steady_clock;

constexpr unsigned int kPollTimeMs = 5;
constexpr int kFirstErrorStatus = 400;
constexpr std::chrono::milliseconds kProgressPause{100};
// How long after its time a request may take to be ended in order, before the watchdog ends it.
constexpr std::chrono::seconds kGrace{5};

Deadline deadlineOf(const Options& options) {
    if (options.timeoutMs == 0) return std::nullopt;
    return steady_clock::now() + std::chrono::milliseconds(options.timeoutMs);
}

bool isOver(const Deadline& deadline) { return deadline && steady_clock::now() >= *deadline; }

std::string timedOutMessage(const char* what, const Options& options) {
    return std::string("h2request: no ") + what + " within " + std::to_string(options.timeoutMs) +
           " ms; allow more with --timeout\n";
}

int explainTimeOut(const Options& options) {
    std::cerr << timedOutMessage("complete answer", options);
    return EXIT_TIMED_OUT;
}

int explainLost(const Options& options) {
    std::cerr << "h2request: connection lost before the answer was complete; "
              << (options.tls ? "see the server's log" : "if the port speaks TLS, add --tls")
              << "\n";
    return EXIT_CONNECTION_LOST;
}

int explainTooLarge() {
    std::cerr << "h2request: request failed: the body is over the 1 MiB that the blocking call "
                 "can hold; leave out --blocking\n";
    return EXIT_REQUEST_FAILED;
}

int explain(Arrived::End end, const Options& options) {
    if (end == Arrived::TOO_LARGE) return explainTooLarge();
    if (end == Arrived::CLOSED) return explainLost(options);
    std::cerr << "h2request: request failed: the server reset it, or what it sends cannot be "
                 "parsed; -v shows the frames\n";
    return EXIT_REQUEST_FAILED;
}

int explainBody(const BodySource& body) {
    std::cerr << "h2request: reading the body failed: " << std::strerror(body.error())
              << "; the request was given up\n";
    return EXIT_USAGE;
}

// The exit code for a complete answer.
int judge(int status) {
    if (status == 0) {
        std::cerr << "h2request: request failed: the answer came without a status that can be "
                     "read (Huffman-coded headers are not); -v shows the frames\n";
        return EXIT_REQUEST_FAILED;
    }
    if (status < kFirstErrorStatus) return EXIT_ANSWERED;
    std::cerr << "h2request: the server answered with status " << status << "\n";
    return EXIT_ERROR_STATUS;
}

// All that the requests of one run share.
struct Run {
    const Options& options;
    BodySource& body;
    Output& output;
    Watchdog& watchdog;
    Exchange& exchange;
};

// When to look again even if nothing arrives: for a bar that shows how much has been sent.
Deadline nextLook(const Run& run, const Deadline& deadline) {
    if (!run.output.showsUpload() || run.body.size() == 0) return deadline;
    const auto tick = steady_clock::now() + kProgressPause;
    return deadline ? std::min(*deadline, tick) : tick;
}

// Writes what has arrived. False when the output takes no more.
bool writeArrived(const Run& run, const Arrived& arrived) {
    if (arrived.status) {
        run.output.showUpload(run.body.sent(), run.body.size());
        if (!run.output.writeHead(*arrived.status, arrived.headers)) return false;
    }
    const bool isAnswer = arrived.status || !arrived.body.empty();
    return !isAnswer || run.output.writeBody(arrived.body);
}

// One request, its answer printed as it arrives.
int runStreaming(const Run& run) {
    const Deadline deadline = deadlineOf(run.options);
    run.watchdog.arm(deadline ? Deadline(*deadline + kGrace) : deadline,
                     timedOutMessage("complete answer", run.options));
    run.output.beginAnswer();
    if (run.exchange.start(run.body) != 0) return explainLost(run.options);
    int status = 0;
    bool answered = false;
    while (true) {
        const Arrived arrived = run.exchange.wait(nextLook(run, deadline));
        if (!writeArrived(run, arrived)) return EXIT_USAGE;
        if (arrived.status) {
            answered = true;
            status = *arrived.status;
        }
        if (!answered) run.output.showUpload(run.body.sent(), run.body.size());
        if (arrived.end != Arrived::NONE || run.body.error() != 0 || isOver(deadline)) {
            run.output.endProgress();
        }
        if (arrived.end == Arrived::COMPLETE) {
            if (arrived.beforeLibrary) run.exchange.stop();
            return judge(status);
        }
        if (arrived.end != Arrived::NONE) return explain(arrived.end, run.options);
        if (run.body.error() != 0) return explainBody(run.body);
        if (isOver(deadline)) return explainTimeOut(run.options);
    }
}

// Ends the process at once: a thread is still inside blockedRequest and cannot be called back.
[[noreturn]] void leave(const Run& run, int code) {
    if (!run.output.close() && code == EXIT_ANSWERED) code = EXIT_USAGE;
    std::cerr.flush();
    _exit(code);
}

// An answer that ends with headers: blockedRequest does not see that, and waits on.
[[noreturn]] void leaveAfterHeaders(const Run& run, const Arrived& head, bool isLast) {
    if (head.hadBody) {
        std::cerr << "h2request: request failed: the blocking call waits on after an answer with "
                     "trailers; leave out --blocking\n";
        leave(run, EXIT_REQUEST_FAILED);
    }
    if (!writeArrived(run, head)) leave(run, EXIT_USAGE);
    const int code = judge(*head.status);
    if (isLast) leave(run, code);
    std::cerr << "h2request: request failed: the blocking call waits on after an answer without a "
                 "body; leave out --blocking or --repeat\n";
    leave(run, EXIT_REQUEST_FAILED);
}

// One request through blockedRequest. It counts processor time and hears of no lost connection,
// so the callbacks and the wall clock are watched beside it.
int runBlocking(const Run& run, bool isLast) {
    const Deadline deadline = deadlineOf(run.options);
    run.watchdog.arm(deadline ? Deadline(*deadline + kGrace) : deadline,
                     timedOutMessage("complete answer", run.options));
    run.output.beginAnswer();
    run.exchange.prepareBlocked(run.body);
    std::promise<Exchange::BlockedResult> promise;
    auto future = promise.get_future();
    std::thread caller([&] {
        promise.set_value(run.exchange.runBlocked());
        run.exchange.wake();
    });

    Arrived head;  // the status and headers, when they have come
    while (future.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
        Arrived arrived = run.exchange.wait(nextLook(run, deadline));
        const Arrived::End end = arrived.end;
        const bool beforeLibrary = arrived.beforeLibrary;
        const bool hadBody = arrived.hadBody;
        if (!head.status) run.output.showUpload(run.body.sent(), run.body.size());
        if (arrived.status) head = std::move(arrived);
        if (head.status || end != Arrived::NONE || run.body.error() != 0 || isOver(deadline)) {
            run.output.endProgress();
        }
        if (beforeLibrary) {
            head.hadBody = hadBody;
            leaveAfterHeaders(run, head, isLast);
        }
        if (end != Arrived::NONE && end != Arrived::COMPLETE) leave(run, explain(end, run.options));
        if (run.body.error() != 0) leave(run, explainBody(run.body));
        if (isOver(deadline)) leave(run, explainTimeOut(run.options));
    }
    caller.join();
    const Exchange::BlockedResult result = future.get();
    if (run.exchange.wait(steady_clock::now()).end == Arrived::TOO_LARGE) return explainTooLarge();
    if (result.code == 2) return explainLost(run.options);
    if (result.code != 0) {
        std::cerr << "h2request: " << result.message << "\n";
        return result.code == 3 ? EXIT_TIMED_OUT : EXIT_REQUEST_FAILED;
    }
    if (!run.output.writeHead(result.status, result.headers) ||
        !run.output.writeBody(result.body)) {
        return EXIT_USAGE;
    }
    run.output.endProgress();
    return judge(result.status);
}

int runRequests(const Options& options, BodySource& body, Output& output) {
    Watchdog watchdog;
    Exchange exchange;
    watchdog.arm(deadlineOf(options), timedOutMessage("connection", options));
    if (!exchange.connect(options)) {
        std::cerr << "h2request: cannot connect to " << options.ip << " port " << options.port
                  << (options.tls ? " with TLS; check that a server is there and speaks TLS\n"
                                  : "; check that a server is there: `ss -ltn` lists the ports\n");
        return EXIT_CANNOT_CONNECT;
    }
    exchange.describe(options, body);
    body.setOnFailure([&exchange] { exchange.wake(); });
    const Run run{options, body, output, watchdog, exchange};
    int code = EXIT_ANSWERED;
    for (unsigned int i = 1; i <= options.repeat; ++i) {
        const int next =
            options.blocking ? runBlocking(run, i == options.repeat) : runStreaming(run);
        if (next != EXIT_ANSWERED) code = next;
        if (next != EXIT_ANSWERED && next != EXIT_ERROR_STATUS) break;
    }
    if (!output.close() && code == EXIT_ANSWERED) code = EXIT_USAGE;
    return code;
}

}  // namespace

int main(int argc, char** argv) {
    occupyStandardDescriptors();
    signal(SIGPIPE, SIG_IGN);
    Options options;
    if (const auto ended = parseOptions(argc, argv, options)) return *ended;
    BodySource body;
    Output output;
    if (!body.open(options) || !output.open(options)) return EXIT_USAGE;
#ifdef H2REQUEST_SETS_LOG_LEVEL
    constexpr int kLogInfo = 20000;
    if (options.verbose) CLogWrapper::SetLevel(kLogInfo);
#endif

    const ConsoleLines consoleLines(options.verbose);
    initHttp2Client(kPollTimeMs);
    const int code = runRequests(options, body, output);
    destroyHttp2Client();
    return code;
}
