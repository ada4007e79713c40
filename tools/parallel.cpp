#include "parallel.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <poll.h>
#include <unistd.h>

#include "json.h"
#include "message.h"
#include "output.h"
#include "request.h"
#include "summary.h"
#include "watchdog.h"

namespace {

// Keeps the body of an answer; of what an exchange drops nothing comes here.
class Kept : public AnswerSink {
public:
    bool writeHead(int /*status*/, const HeaderMap& /*headers*/) override { return true; }
    bool writeBody(const std::string& bytes) override {
        body += bytes;
        return true;
    }

    std::string body;
};

// What one thread works with.
struct Worker {
    explicit Worker(const BodySource& source) : body(source) {}

    BodyReader body;                     // outlives the exchange
    std::shared_ptr<Exchange> exchange;  // replaced under Crew's m_exchanges; null: no connection
    std::optional<ConnectTimes> connectTimes;  // of a connection that has had no request yet
};

// Whether standard output takes a few lines at once.
bool takesOutput() {
    pollfd ready{STDOUT_FILENO, POLLOUT, 0};
    return poll(&ready, 1, 0) == 1;
}

class Crew {
public:
    Crew(const Options& options, const BodySource& source, Interrupt& interrupt);
    int run();

private:
    std::optional<Outcome> connect(Worker& worker);
    void disconnect(Worker& worker);
    void wakeAll();
    void work(Worker& worker);
    Outcome request(Worker& worker, std::string& body);
    void report(unsigned int number, const Outcome& outcome, const std::string& body);
    int finish();
    bool print();

    const Options& m_options;
    Interrupt& m_interrupt;
    Watchdog m_watchdog;
    std::mutex m_connecting;  // the library connects one at a time; guards the watchdog
    std::mutex m_exchanges;   // guards all pointers to exchanges against wakeAll
    std::vector<std::unique_ptr<Worker>> m_workers;
    std::atomic<unsigned int> m_next{1};  // number of the next request
    TimePoint m_start;
    std::mutex m_output;   // held while standard output is written
    std::mutex m_results;  // guards all below
    Summary m_summary;
    int m_failure = EXIT_ANSWERED;  // exit code of the first failure
    bool m_errorStatus = false;
};

Crew::Crew(const Options& options, const BodySource& source, Interrupt& interrupt)
    : m_options(options), m_interrupt(interrupt), m_start(Clock::now()) {
    for (unsigned int i = 0; i < options.parallel; ++i) {
        m_workers.push_back(std::make_unique<Worker>(source));
    }
}

// Nothing when the connection is there.
std::optional<Outcome> Crew::connect(Worker& worker) {
    auto exchange = std::make_shared<Exchange>();
    Exchange::Connected connected;
    {
        const std::lock_guard<std::mutex> lock(m_connecting);
        // A connect that hangs holds up all connections, so it ends the run.
        m_watchdog.arm(deadlineOf(m_options), timedOutMessage("connection", m_options), [this] {
            if (takesOutput()) print();
        });
        connected = exchange->connect(m_options);
        m_watchdog.disarm();
    }
    if (!connected.ok) {
        Outcome outcome;
        failToConnect(outcome, connected, m_options);
        return outcome;
    }
    exchange->describe(m_options, worker.body);
    if (!m_options.json) exchange->dropBodies();
    worker.body.setOnFailure([target = exchange.get()] { target->wake(); });
    worker.connectTimes = connected.times;
    {
        const std::lock_guard<std::mutex> lock(m_exchanges);
        worker.exchange = std::move(exchange);
    }
    const std::lock_guard<std::mutex> lock(m_results);
    m_summary.addConnection();
    return std::nullopt;
}

void Crew::disconnect(Worker& worker) {
    std::shared_ptr<Exchange> old;
    const std::lock_guard<std::mutex> lock(m_exchanges);
    old.swap(worker.exchange);
}

void Crew::wakeAll() {
    const std::lock_guard<std::mutex> lock(m_exchanges);
    for (const auto& worker : m_workers) {
        if (worker->exchange) worker->exchange->wake();
    }
}

// The connection may have gone while it was idle: then the request is made on a new one.
Outcome Crew::request(Worker& worker, std::string& body) {
    Outcome outcome;
    for (int tries = 0; tries < 2; ++tries) {
        if (!worker.exchange) {
            if (auto failed = connect(worker)) return *failed;
        }
        Kept kept;
        const Course course{m_options, *worker.exchange, worker.body, m_interrupt, kept};
        outcome = runStreaming(course);
        outcome.timing.connect = std::exchange(worker.connectTimes, std::nullopt);
        body = std::move(kept.body);
        if (outcome.disconnected) disconnect(worker);
        if (!outcome.unsent) break;
    }
    return outcome;
}

void Crew::work(Worker& worker) {
    while (!m_interrupt.requested()) {
        const unsigned int number = m_next++;
        if (number > m_options.repeat) return;
        std::string body;
        const Outcome outcome = request(worker, body);
        report(number, outcome, body);
    }
}

void Crew::report(unsigned int number, const Outcome& outcome, const std::string& body) {
    if (outcome.code == EXIT_USAGE) {
        // No further request can be made: not worth waiting for those that run.
        complain(outcome.message);
        _exit(EXIT_USAGE);
    }
    if (m_options.json) {
        const std::string line = jsonLine(number, outcome, body, m_options);
        const std::lock_guard<std::mutex> lock(m_output);
        if (!writeOut(line)) _exit(EXIT_USAGE);
    }
    const std::lock_guard<std::mutex> lock(m_results);
    m_summary.add(outcome);
    if (outcome.code == EXIT_ERROR_STATUS) m_errorStatus = true;
    if (!outcome.isAnswer() && m_failure == EXIT_ANSWERED) m_failure = outcome.code;
}

// Prints the summary. False, with a message, when the output does not take it.
bool Crew::print() {
    const int fd = m_options.json ? STDERR_FILENO : STDOUT_FILENO;
    const std::lock_guard<std::mutex> lock(m_results);
    const std::string text = m_summary.text(Clock::now() - m_start, Style(fd));
    if (!m_options.json) return writeOut(text);
    writeWhole(fd, text.data(), text.size());
    return true;
}

int Crew::finish() {
    if (!print()) return EXIT_USAGE;
    if (m_interrupt.requested()) {
        complain("interrupted; the requests that ran were cancelled");
        return EXIT_INTERRUPTED;
    }
    if (m_failure != EXIT_ANSWERED) return m_failure;
    return m_errorStatus ? EXIT_ERROR_STATUS : EXIT_ANSWERED;
}

int Crew::run() {
    for (const auto& worker : m_workers) {
        const auto failed = connect(*worker);
        if (!failed || worker != m_workers.front()) continue;  // a worker tries again by itself
        complain(failed->message);
        return failed->code;
    }
    const InterruptWake wake(m_interrupt, [this] { wakeAll(); });
    m_start = Clock::now();
    std::vector<std::thread> threads;
    threads.reserve(m_workers.size());
    for (const auto& worker : m_workers) {
        threads.emplace_back([this, target = worker.get()] { work(*target); });
    }
    for (std::thread& thread : threads) thread.join();
    return finish();
}

}  // namespace

int runParallel(const Options& options, const BodySource& source, Interrupt& interrupt) {
    Crew crew(options, source, interrupt);
    return crew.run();
}
