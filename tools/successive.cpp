#include "successive.h"

#include <unistd.h>

#include "blocking.h"
#include "call.h"
#include "edition.h"
#include "interrupt.h"
#include "json.h"
#include "message.h"
#include "request.h"

namespace {

// After its time a connect of the standard edition says itself what it was waiting for.
std::chrono::milliseconds connectSlack() {
    return std::chrono::milliseconds(edition::kIsStandard ? 1000 : 0);
}

class SuccessiveRun {
public:
    SuccessiveRun(const Options& options, const BodySource& source, Output& output)
        : m_options(options), m_output(output), m_body(source), m_limit(options) {
        output.setGiveUp([this] {
            m_limit.extend();  // the user's output may be slow, the server is not to blame
            return isInterrupted() || m_limit.isOver();
        });
    }
    [[noreturn]] void run();

private:
    void connect();
    Outcome request(unsigned int number);
    void report(unsigned int number, const Outcome& outcome);
    [[noreturn]] void leave();

    const Options& m_options;
    Output& m_output;
    BodyReader m_body;
    Exchange m_exchange;
    TimeLimit m_limit;
    Duration m_connectTime{};
    int m_code = EXIT_ANSWERED;
};

void SuccessiveRun::connect() {
    const TimePoint start = Clock::now();
    TimeLimit limit(m_options.connectLimitMs(), m_options.idleMs);
    limit.start();
    const auto connected =
        callLibrary([this] { return m_exchange.connect(m_options); },
                    [&limit] { return isInterrupted() || limit.isOver(connectSlack()); });
    m_connectTime = Clock::now() - start;
    if (connected == true) return;
    Outcome outcome;
    if (connected == false) {
        outcome = edition::failToConnect(m_options, edition::lastError(m_exchange));
    } else if (isInterrupted()) {
        fail(outcome, EXIT_INTERRUPTED, "interrupted");
    } else {
        fail(outcome, EXIT_TIMED_OUT,
             limit.text("connection") +
                 "; check the address and the port, or allow more with "
                 "--timeout");
    }
    outcome.timing.connect = m_connectTime;
    report(1, outcome);
    leave();
}

Outcome SuccessiveRun::request(unsigned int number) {
    const RequestContext context{m_options, m_exchange, m_body, m_limit, m_output, kLookPause};
    m_limit.start();
    m_output.beginAnswer();
    Outcome outcome;
    if (m_options.blocking) {
        outcome = runBlocking(context, number == m_options.repeat);
    } else if (const auto code = callLibrary([this] { return m_exchange.start(m_body); },
                                             [&] { return isGivenUp(context, outcome); })) {
        outcome = followRequest(context, *code);
    }
    if (number == 1) {
        outcome.timing.connect = m_connectTime;
        outcome.timing.connectTimes = edition::connectTimes(m_exchange);
    }
    const bool failed = outcome.code >= EXIT_REQUEST_FAILED && outcome.code <= EXIT_TIMED_OUT;
    if (failed && number == 1 && !outcome.status) edition::explainFailure(m_options, outcome);
    if (outcome.code == EXIT_CONNECTION_LOST && number > 1 && !edition::kIsStandard) {
        outcome.message = "connection lost after " + std::to_string(number - 1) +
                          (number == 2 ? " answer" : " answers") +
                          "; servers end a connection after some time or some requests: with "
                          "--parallel 1 the rest is made on new ones";
    }
    return outcome;
}

void SuccessiveRun::report(unsigned int number, const Outcome& outcome) {
    if (outcome.code != EXIT_ANSWERED) m_code = outcome.code;
    if (!outcome.message.empty()) complain(outcome.message);
    if (m_options.timing) {
        const std::string line = timingLine(outcome.timing) + "\n";
        writeWhole(STDERR_FILENO, line.data(), line.size());
    }
    const bool broken = outcome.code == EXIT_USAGE && outcome.message.empty();
    if (!m_options.json || broken) return;
    if (!m_output.writeJson(jsonLine(number, outcome, m_output.keptBody(), m_options)) &&
        outcome.isAnswer()) {
        m_code = isInterrupted() ? EXIT_INTERRUPTED : EXIT_USAGE;
    }
}

void SuccessiveRun::leave() {
    const bool whole = m_code == EXIT_ANSWERED || m_code == EXIT_ERROR_STATUS;
    if (!m_output.close(whole)) m_code = EXIT_USAGE;
    _exit(m_code);
}

void SuccessiveRun::run() {
    connect();
    if (!m_exchange.describe(m_options, m_body)) {
        report(1, refusedRequest(m_exchange));
        leave();
    }
    for (unsigned int number = 1; number <= m_options.repeat; ++number) {
        const Outcome outcome = request(number);
        report(number, outcome);
        if (m_code != EXIT_ANSWERED && m_code != EXIT_ERROR_STATUS) break;
    }
    leave();
}

}  // namespace

void runSuccessive(const Options& options, const BodySource& source, Output& output) {
    SuccessiveRun run(options, source, output);
    run.run();
}
