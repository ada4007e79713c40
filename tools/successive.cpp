#include "successive.h"

#include <iostream>
#include <utility>

#include <unistd.h>

#include "blocking.h"
#include "json.h"
#include "message.h"
#include "request.h"
#include "watchdog.h"

namespace {

// How long after its time a request may take to be ended in order, before the watchdog ends it.
constexpr std::chrono::seconds kGrace{5};

// What --timing and --json say of a request. Its exit code, or that of a broken output.
int report(const Options& options, const Output& output, unsigned int number,
           const Outcome& outcome) {
    if (options.timing) {
        const std::string line = timingLine(outcome.timing) + "\n";
        writeWhole(STDERR_FILENO, line.data(), line.size());
    }
    const bool broken = outcome.code == EXIT_USAGE && outcome.message.empty();
    if (!options.json || broken) return outcome.code;
    return writeOut(jsonLine(number, outcome, output.keptBody(), options)) ? outcome.code
                                                                           : EXIT_USAGE;
}

int complainAndReport(const Options& options, const Output& output, unsigned int number,
                      const Outcome& outcome) {
    if (!outcome.message.empty()) complain(outcome.message);
    return report(options, output, number, outcome);
}

// Nothing when the connection is there.
std::optional<Outcome> connect(const Options& options, const Output& output, Watchdog& watchdog,
                               Exchange& exchange, ConnectTimes& times) {
    const std::string late = timedOutMessage("connection", options);
    const TimePoint start = Clock::now();
    watchdog.arm(deadlineOf(options), late, [&, late, start] {
        Outcome outcome;
        fail(outcome, EXIT_TIMED_OUT, late);
        outcome.timing.connect = ConnectTimes{Clock::now() - start, {}, {}};
        report(options, output, 1, outcome);
    });
    const Exchange::Connected connected = exchange.connect(options);
    watchdog.disarm();
    times = connected.times;
    if (connected.ok) return std::nullopt;
    Outcome outcome;
    failToConnect(outcome, connected, options);
    return outcome;
}

// Ends the process at once.
[[noreturn]] void leave(Output& output, int code) {
    if (!output.close() && code == EXIT_ANSWERED) code = EXIT_USAGE;
    std::cerr.flush();
    _exit(code);
}

}  // namespace

int runSuccessive(const Options& options, const BodySource& source, Output& output,
                  Interrupt& interrupt) {
    Watchdog watchdog;
    BodyReader body(source);
    Exchange exchange;
    ConnectTimes connectTimes;
    if (const auto failed = connect(options, output, watchdog, exchange, connectTimes)) {
        return complainAndReport(options, output, 1, *failed);
    }
    exchange.describe(options, body);
    body.setOnFailure([&exchange] { exchange.wake(); });
    const InterruptWake wake(interrupt, [&exchange] { exchange.wake(); });
    const Course course{options, exchange, body, interrupt, output};
    int code = EXIT_ANSWERED;
    for (unsigned int i = 1; i <= options.repeat; ++i) {
        const Deadline deadline = deadlineOf(options);
        watchdog.arm(deadline ? Deadline(*deadline + kGrace) : deadline,
                     timedOutMessage("complete answer", options));
        output.beginAnswer();
        Outcome outcome =
            options.blocking ? runBlocking(course, i == options.repeat) : runStreaming(course);
        if (i == 1) outcome.timing.connect = connectTimes;
        const int next = complainAndReport(options, output, i, outcome);
        if (outcome.stuck) leave(output, next);
        if (next != EXIT_ANSWERED) code = next;
        if (next != EXIT_ANSWERED && next != EXIT_ERROR_STATUS) break;
    }
    if (!output.close() && code == EXIT_ANSWERED) code = EXIT_USAGE;
    return code;
}
