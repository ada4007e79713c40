#include "parallel.h"

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <unistd.h>

#include "edition.h"
#include "interrupt.h"
#include "json.h"
#include "message.h"
#include "output.h"
#include "request.h"
#include "summary.h"

namespace {

// How long after its time a connection may take to get out of the library.
constexpr std::chrono::milliseconds kSlack{500};

constexpr std::chrono::milliseconds kWorkerPause{100};

// Keeps the body of an answer; of what an exchange drops nothing comes here.
class KeptBody : public AnswerSink {
public:
    bool writeHead(int /*status*/, const HeaderList& /*headers*/) override { return true; }
    bool writeBody(const std::string& bytes) override {
        body += bytes;
        return true;
    }

    std::string body;
};

// What one thread works with.
struct Worker {
    Worker(const Options& options, const BodySource& source) : body(source), limit(options) {}

    BodyReader body;                      // outlives the exchange
    std::unique_ptr<Exchange> exchange;   // null: no connection
    std::optional<Duration> connectTime;  // of a connection that has had no request yet
    std::string connectError;             // why there is none, when the library tells
    TimeLimit limit;                      // runs while the thread uses the library
    unsigned int number = 0;              // of its request; 0: none; guarded by m_mutex
};

// The main thread starts the others, and then only waits for them, for Ctrl-C, and for one that
// does not get out of the library in time: that one has kept all others from it as well.
class ParallelRun {
public:
    ParallelRun(const Options& options, const BodySource& source);
    [[noreturn]] void run();

private:
    // On a worker's thread.
    void work(Worker& worker);
    bool connect(Worker& worker);
    Outcome request(Worker& worker, std::string& body);
    void report(Worker& worker, const Outcome& outcome, const std::string& body);

    // On the main thread, with m_mutex held.
    void waitForAll(std::unique_lock<std::mutex>& lock, const unsigned int& count);
    [[noreturn]] void giveUp(int code, const std::string& message);
    [[noreturn]] void leave();

    const Options& m_options;
    std::vector<std::unique_ptr<Worker>> m_workers;
    std::atomic<bool> m_connecting{true};  // the first connections are being made
    std::atomic<unsigned int> m_next{1};   // number of the next request
    std::mutex m_connect;  // the library connects one at a time; a time limit starts with the turn
    std::mutex m_output;   // held while standard output is written
    std::mutex m_mutex;    // guards all below
    std::condition_variable m_changed;
    unsigned int m_ready = 0;     // workers that have tried to connect
    unsigned int m_finished = 0;  // and that have nothing more to do
    TimePoint m_start;
    Summary m_summary;
    int m_failure = EXIT_ANSWERED;  // exit code of the first failure
    bool m_errorStatus = false;
};

ParallelRun::ParallelRun(const Options& options, const BodySource& source) : m_options(options) {
    for (unsigned int i = 0; i < options.parallel; ++i) {
        m_workers.push_back(std::make_unique<Worker>(options, source));
    }
}

bool ParallelRun::connect(Worker& worker) {
    auto exchange = std::make_unique<Exchange>();
    {
        const std::lock_guard<std::mutex> lock(m_connect);
        const TimePoint start = Clock::now();
        worker.limit.start();
        const bool connected = exchange->connect(m_options);
        worker.limit.stop();
        worker.connectError = edition::lastError(*exchange);
        if (!connected) return false;
        worker.connectTime = Clock::now() - start;
    }
    if (!exchange->describe(m_options, worker.body)) {
        const std::lock_guard<std::mutex> lock(m_connect);  // for good: nobody says it twice
        complain(refusedRequest(*exchange).message);
        _exit(EXIT_USAGE);
    }
    if (!m_options.json) exchange->dropBodies();
    worker.exchange = std::move(exchange);
    if (edition::joinedConnection(*worker.exchange)) return true;
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_summary.addConnection();
    return true;
}

// The connection may have gone while it was idle: then the request is made on a new one.
Outcome ParallelRun::request(Worker& worker, std::string& body) {
    Outcome outcome;
    for (int tries = 0; tries < 2; ++tries) {
        if (!worker.exchange && !connect(worker)) {
            return edition::failToConnect(m_options, worker.connectError);
        }
        KeptBody kept;
        const RequestContext context{m_options, *worker.exchange, worker.body, worker.limit,
                                     kept,      kWorkerPause};
        worker.limit.start();
        outcome = followRequest(context, worker.exchange->start(worker.body));
        outcome.timing.connect = std::exchange(worker.connectTime, std::nullopt);
        if (outcome.timing.connect) {
            outcome.timing.connectTimes = edition::connectTimes(*worker.exchange);
            outcome.timing.joined = edition::joinedConnection(*worker.exchange);
        }
        body = std::move(kept.body);
        if (outcome.disconnected) worker.exchange.reset();
        worker.limit.stop();
        if (!outcome.unsent) break;
    }
    return outcome;
}

void ParallelRun::work(Worker& worker) {
    connect(worker);
    std::unique_lock<std::mutex> lock(m_mutex);
    ++m_ready;
    m_changed.notify_all();
    m_changed.wait(lock, [this] { return !m_connecting; });
    while (!isInterrupted() && (worker.number = m_next++) <= m_options.repeat) {
        lock.unlock();
        std::string body;
        const Outcome outcome = request(worker, body);
        report(worker, outcome, body);
        lock.lock();
    }
    worker.number = 0;
    ++m_finished;
    m_changed.notify_all();
}

void ParallelRun::report(Worker& worker, const Outcome& outcome, const std::string& body) {
    if (outcome.code == EXIT_USAGE) {
        // No further request can be made: not worth waiting for those that run.
        complain(outcome.message);
        _exit(EXIT_USAGE);
    }
    if (m_options.json) {
        const std::string line = jsonLine(worker.number, outcome, body, m_options);
        const std::lock_guard<std::mutex> lock(m_output);
        if (!writeOut(line, isInterrupted) && !isInterrupted()) _exit(EXIT_USAGE);
    }
    const std::lock_guard<std::mutex> lock(m_mutex);
    worker.number = 0;
    m_summary.add(outcome);
    if (outcome.code == EXIT_ERROR_STATUS) m_errorStatus = true;
    if (!outcome.isAnswer() && m_failure == EXIT_ANSWERED) m_failure = outcome.code;
}

// Prints the summary and ends the process.
void ParallelRun::leave() {
    const int fd = m_options.json ? STDERR_FILENO : STDOUT_FILENO;
    const std::string text = m_summary.text(Clock::now() - m_start, Style(fd));
    if (m_options.json) {
        writeWhole(fd, text.data(), text.size());
    } else if (!writeOut(text, isInterrupted) && m_failure != EXIT_INTERRUPTED) {
        _exit(EXIT_USAGE);
    }
    if (m_failure != EXIT_ANSWERED) _exit(m_failure);
    _exit(m_errorStatus ? EXIT_ERROR_STATUS : EXIT_ANSWERED);
}

// Counts the requests that run as failed by `code`.
void ParallelRun::giveUp(int code, const std::string& message) {
    complain(message);
    if (m_connecting) _exit(code);
    Outcome outcome;
    fail(outcome, code, message);
    const std::unique_lock<std::mutex> output(m_output, std::try_to_lock);
    for (const auto& worker : m_workers) {
        if (worker->number == 0) continue;
        m_summary.add(outcome);
        if (m_options.json && output) {
            writeOut(jsonLine(worker->number, outcome, {}, m_options), isInterrupted);
        }
    }
    if (m_failure == EXIT_ANSWERED || code == EXIT_INTERRUPTED) m_failure = code;
    leave();
}

void ParallelRun::waitForAll(std::unique_lock<std::mutex>& lock, const unsigned int& count) {
    const auto isDone = [&] { return count == m_workers.size(); };
    while (!m_changed.wait_for(lock, kLookPause, isDone)) {
        if (isInterrupted()) giveUp(EXIT_INTERRUPTED, "interrupted");
        for (const auto& worker : m_workers) {
            if (!worker->limit.isOver(kSlack)) continue;
            giveUp(EXIT_TIMED_OUT, worker->limit.text("connection or complete answer") +
                                       ", and the library is held up: the run was given up; allow "
                                       "more with --timeout");
        }
    }
}

void ParallelRun::run() {
    std::unique_lock<std::mutex> lock(m_mutex);
    {
        const BlockedInterrupts blocked;
        for (const auto& worker : m_workers) {
            std::thread([this, target = worker.get()] { work(*target); }).detach();
        }
    }
    waitForAll(lock, m_ready);
    if (m_summary.connections() == 0) {
        const Outcome failed = edition::failToConnect(m_options, m_workers.front()->connectError);
        complain(failed.message);
        _exit(failed.code);
    }
    m_start = Clock::now();
    m_connecting = false;
    m_changed.notify_all();
    waitForAll(lock, m_finished);
    if (isInterrupted()) giveUp(EXIT_INTERRUPTED, "interrupted");
    leave();
}

}  // namespace

void runParallel(const Options& options, const BodySource& source) {
    ParallelRun run(options, source);
    run.run();
}
