// What scripts/interop needs of a client beyond h2request: many clients at once, many requests in a
// row with a new connection whenever one ends, an idle connection, an empty body, a server that
// goes away.
#include <CLI/CLI.hpp>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <exception>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Http2Client/HttpClientInterface.h"
#include "Http2Client/httpClientApi.h"
#include "tests/support/capture.h"
#include "tests/support/wait.h"

namespace {

constexpr std::chrono::seconds kLimit(20);
constexpr std::chrono::seconds kSilence(3);  // after which nothing follows any more

// The outcome goes to standard error among the library's messages, so it is marked.
int report(int code, const std::string& words) {
    std::cerr << "result: " + words + "\n" << std::flush;
    return code;
}

struct Target {
    std::string ip;
    uint16_t port = 0;
    std::string path;
    bool tls = false;
};

enum class End { kNone, kAnswered, kFailed, kClosed };

class Client : public tiny::HttpClientInterface {
public:
    explicit Client(const Target& target) : m_target(target) {}
    ~Client() override { cancelRequest(); }

    void onSocketClosed() override { end(End::kClosed); }
    void onFailed(HTTP_ERROR /*err*/) override { end(End::kFailed); }
    void onHeaderReceived(int status, const HeaderDef* /*headers*/, size_t /*count*/) override {
        m_status = status;
    }
    void onContentReceived(const char* /*data*/, size_t len, bool more) override {
        m_received += len;
        if (!more) end(End::kAnswered);
    }

    bool connect() {
        return connectToServer(m_target.tls ? HTTPS_2 : HTTP_2, m_target.ip.c_str(),
                               m_target.port) == 0;
    }
    bool start() {
        clearClient();
        setUri(m_target.path.c_str(), HTTP_GET);
        addHeader("host", "localhost", false);
        m_end = End::kNone;
        m_status = 0;
        m_received = 0;
        return startRequest(nullptr) == 0;
    }
    // Whether the request was answered with a 2xx; false too when nothing came for a while.
    bool waitAnswer() {
        if (!h2test::waitFor([this] { return m_end != End::kNone; }, kLimit)) {
            cancelRequest();
            return false;
        }
        return m_end == End::kAnswered && m_status / 100 == 2;
    }
    bool get() { return start() && waitAnswer(); }

    void setPath(const std::string& path) { m_target.path = path; }
    size_t received() const { return m_received; }
    End ended() const { return m_end; }
    int status() const { return m_status; }  // 0: no headers yet

private:
    void end(End how) { m_end = how; }

    Target m_target;
    std::atomic<End> m_end{End::kNone};
    std::atomic<int> m_status{0};
    std::atomic<size_t> m_received{0};
};

// All connect, then all ask, then all wait.
int many(const Target& target, size_t count) {
    std::vector<std::unique_ptr<Client>> clients;
    size_t connected = 0;
    size_t answered = 0;
    for (size_t i = 0; i < count; ++i) {
        clients.push_back(std::make_unique<Client>(target));
        connected += clients.back()->connect() ? 1 : 0;
    }
    for (const auto& client : clients) client->start();
    for (const auto& client : clients) answered += client->waitAnswer() ? 1 : 0;
    if (answered == count) return report(0, "ok");
    return report(1, std::to_string(connected) + " connected, " + std::to_string(answered) +
                         " of " + std::to_string(count) + " answered");
}

// Asks for an empty body. Its end is told only if it comes in a frame of its own; the headers alone
// are no end to the client.
int empty(const Target& target) {
    Client client(target);
    if (!client.connect() || !client.start()) return report(1, "cannot connect");
    if (!h2test::waitFor([&] { return client.status() != 0 || client.ended() != End::kNone; },
                         kLimit)) {
        return report(1, "no answer");
    }
    if (h2test::waitFor([&] { return client.ended() != End::kNone; }, kSilence)) {
        return client.ended() == End::kAnswered ? report(0, "ok") : report(1, "request failed");
    }
    return report(1, "the headers alone");
}

// A new connection whenever one has ended; the request that this cost is made again. A connection
// that answers nothing ends it.
int successive(const Target& target, size_t count) {
    Client client(target);
    size_t answered = 0;
    while (answered < count) {
        const size_t before = answered;
        if (client.connect()) {
            while (answered < count && client.get()) ++answered;
        }
        if (answered == before) {
            return report(1,
                          std::to_string(answered) + " of " + std::to_string(count) + " answered");
        }
    }
    return report(0, "ok");
}

// The same, with a request now and then. The pause is what is tested, nothing is waited for in it.
int idle(const Target& target, int seconds, int interval) {
    Client client(target);
    if (!client.connect() || !client.get()) return report(1, "the first request was not answered");
    for (int at = interval; at <= seconds; at += interval) {
        std::this_thread::sleep_for(std::chrono::seconds(interval));
        if (client.get() || (client.connect() && client.get())) continue;
        return report(1, "not answered after a reconnect, " + std::to_string(at) + " s");
    }
    return report(0, "ok");
}

// Says "started" when the body has begun, and expects the connection to end then. Asks for another
// path as soon as the server is back.
int killed(const Target& target, const std::string& pathAfter) {
    Client client(target);
    if (!client.connect() || !client.start()) return report(1, "cannot connect");
    if (!h2test::waitFor([&] { return client.received() != 0; }, kLimit)) {
        return report(1, "no body began");
    }
    std::cerr << "started" << std::endl;
    if (!h2test::waitFor([&] { return client.ended() != End::kNone; }, kLimit)) {
        return report(1, "the end of the connection was not noticed");
    }
    if (client.ended() == End::kAnswered) {
        return report(1, "the whole body had come before the server ended");
    }
    client.setPath(pathAfter);
    if (!h2test::waitFor([&] { return client.connect() && client.get(); }, kLimit)) {
        return report(1, "no answer after the restart");
    }
    return report(0, "ok");
}

}  // namespace

int main(int argc, char** argv) try {
    CLI::App app("The client's part of scripts/interop. Results go to standard error.");
    Target target;
    size_t count = 0;
    int seconds = 0;
    int interval = 0;
    std::string pathAfter;
    app.require_subcommand(1);
    app.add_flag("--tls", target.tls, "TLS");
    app.add_option("ip", target.ip)->required();
    app.add_option("port", target.port)->required();
    app.add_option("path", target.path)->required();
    CLI::App* manyCommand = app.add_subcommand("many", "clients at once");
    manyCommand->add_option("count", count)->required();
    const CLI::App* emptyCommand = app.add_subcommand("empty", "an answer without a body");
    CLI::App* successiveCommand = app.add_subcommand("successive", "requests in a row");
    successiveCommand->add_option("count", count)->required();
    CLI::App* idleCommand = app.add_subcommand("idle", "a request now and then");
    idleCommand->add_option("seconds", seconds)->required();
    idleCommand->add_option("interval", interval)->required();
    CLI::App* killedCommand = app.add_subcommand("killed", "a server that goes away");
    killedCommand->add_option("path", pathAfter)->required();
    CLI11_PARSE(app, argc, argv);

    signal(SIGPIPE, SIG_IGN);
    const h2test::NullCout quiet;
    initHttp2Client(10);
    int result = 2;
    if (*manyCommand) result = many(target, count);
    if (*emptyCommand) result = empty(target);
    if (*successiveCommand) result = successive(target, count);
    if (*idleCommand) result = idle(target, seconds, interval);
    if (*killedCommand) result = killed(target, pathAfter);
    destroyHttp2Client();
    return result;
} catch (const std::exception& failure) {
    return report(2, failure.what());
}
