// The standard edition's part of scripts/interop: exchanges whose outcome is known beforehand, and
// what takes several of them. None of the commands connects again by itself: a client connects
// once, and the library opens other connections as servers end them.
#include <CLI/CLI.hpp>
#include <openssl/evp.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iostream>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Http2Client/HttpClientInterface.h"
#include "Http2Client/httpClientApi.h"
#include "Http2ClientStandard/Http2ClientOptions.h"
#include "tests/support/wait.h"

namespace {

constexpr std::chrono::seconds kLimit(20);
constexpr std::chrono::milliseconds kBetweenAttempts(20);  // while a server is away

int report(int code, const std::string& words) {
    std::cerr << "result: " + words + "\n" << std::flush;
    return code;
}

int reportOutcome(const std::string& words) { return report(words == "ok" ? 0 : 1, words); }

// The SHA-256 of bytes that come piece by piece.
class Digest {
public:
    Digest() : m_context(EVP_MD_CTX_new()) {
        EVP_DigestInit_ex(m_context.get(), EVP_sha256(), nullptr);
    }
    void add(const char* data, size_t size) {
        EVP_DigestUpdate(m_context.get(), data, size);
        m_size += size;
    }
    size_t size() const { return m_size; }
    std::string hex() {
        unsigned char bytes[EVP_MAX_MD_SIZE];
        unsigned int count = 0;
        EVP_DigestFinal_ex(m_context.get(), bytes, &count);
        std::string text;
        for (unsigned int i = 0; i < count; ++i) {
            text += "0123456789abcdef"[bytes[i] >> 4];
            text += "0123456789abcdef"[bytes[i] & 15];
        }
        return text;
    }

private:
    struct Free {
        void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
    };
    std::unique_ptr<EVP_MD_CTX, Free> m_context;
    size_t m_size = 0;
};

// The first `limit` bytes of a file, as a request's body; counts and digests what was read.
class Upload {
public:
    Upload(const std::string& path, size_t limit) : m_file(path, std::ios::binary), m_left(limit) {
        if (!m_file) throw std::runtime_error("cannot read " + path);
    }
    static int read(char* buf, size_t len, void* opaque) {
        return static_cast<Upload*>(opaque)->next(buf, len);
    }
    size_t size() const { return m_digest.size(); }
    std::string hex() { return m_digest.hex(); }

private:
    int next(char* buf, size_t len) {
        m_file.read(buf, static_cast<std::streamsize>(std::min(len, m_left)));
        const auto count = static_cast<size_t>(m_file.gcount());
        m_digest.add(buf, count);
        m_left -= count;
        return static_cast<int>(count);
    }

    std::ifstream m_file;
    size_t m_left;
    Digest m_digest;
};

struct Target {
    std::string ip;
    uint16_t port = 0;
    std::string path;
    std::string caFile;  // empty: plain TCP
    int64_t timeoutMs = 20000;
};

struct Header {
    std::string name;
    std::string value;
};

struct Request {
    std::string method = "GET";
    std::string path;
    std::vector<Header> headers;
    std::string uploadFile;  // empty: no body
    size_t uploadBytes = 0;
};

enum class End { kNone, kAnswered, kFailed, kClosed };

struct Answer {
    End end = End::kNone;
    HTTP_ERROR error = ERR_OK;
    int status = 0;
    std::vector<Header> headers;
    size_t size = 0;    // of the body
    std::string text;   // the body's first 100 bytes
    std::string hex;    // SHA-256 of the body
    std::string cause;  // why there is no answer
};

class Client : public tiny::HttpClientInterface {
public:
    explicit Client(Target target) : m_target(std::move(target)) {
        setHttp2Option(this, HTTP2_REQUEST_TIMEOUT, m_target.timeoutMs);
        if (m_target.caFile.empty()) return;
        setHttp2TextOption(this, HTTP2_CA_FILE, m_target.caFile.c_str());
    }
    ~Client() override { cancelRequest(); }

    void onSocketClosed() override { end(End::kClosed, ERR_OK); }
    void onFailed(HTTP_ERROR error) override { end(End::kFailed, error); }
    void onHeaderReceived(int status, const HeaderDef* headers, size_t count) override {
        m_answer.status = status;
        m_answer.headers.clear();
        for (size_t i = 0; i < count; ++i) {
            m_answer.headers.push_back({headers[i].m_headerName, headers[i].m_headerValue});
        }
    }
    void onContentReceived(const char* data, size_t len, bool more) override {
        m_digest->add(data, len);
        m_answer.text.append(data,
                             std::min(len, 100 - std::min<size_t>(100, m_answer.text.size())));
        m_received += len;
        if (!more) end(End::kAnswered, ERR_OK);
    }

    // Why the connection failed; empty: it did not.
    std::string connect() {
        const HTTP_SCHEMA schema = m_target.caFile.empty() ? HTTP_2 : HTTPS_2;
        if (connectToServer(schema, m_target.ip.c_str(), m_target.port) == 0) return "";
        return "cannot connect: " + std::string(getHttp2Text(this, HTTP2_ERROR));
    }

    // Why the request was refused at the call; empty: it has started.
    std::string start(const Request& request) {
        cancelRequest();
        m_answer = {};
        m_received = 0;
        m_digest = std::make_unique<Digest>();
        clearClient();
        if (setUri(request.path.c_str(), HTTP_GET) != 0) return "setUri refused";
        setHttp2TextOption(this, HTTP2_METHOD, request.method.c_str());
        for (const Header& header : request.headers) {
            if (addHeader(header.name.c_str(), header.value.c_str(), false) == nullptr) {
                return "addHeader refused";
            }
        }
        if (!request.uploadFile.empty()) {
            m_upload = std::make_unique<Upload>(request.uploadFile, request.uploadBytes);
            setContent(Upload::read, m_upload.get());
        }
        return startRequest(nullptr) == 0 ? "" : "startRequest refused";
    }

    // The library's own limit ends each request; the one here is for a request without any end.
    Answer wait() {
        std::unique_lock<std::mutex> hold(m_lock);
        const auto limit = std::chrono::milliseconds(m_target.timeoutMs) + kLimit;
        if (!m_ended.wait_for(hold, limit, [this] { return m_answer.end != End::kNone; })) {
            return {};
        }
        Answer answer = m_answer;
        answer.size = m_digest->size();
        answer.hex = m_digest->hex();
        if (answer.end != End::kAnswered) answer.cause = getHttp2Text(this, HTTP2_ERROR);
        return answer;
    }

    size_t received() const { return m_received; }
    Upload& upload() { return *m_upload; }

private:
    void end(End how, HTTP_ERROR error) {
        const std::lock_guard<std::mutex> hold(m_lock);
        m_answer.end = how;
        m_answer.error = error;
        m_ended.notify_all();
    }

    Target m_target;
    std::mutex m_lock;  // guards m_answer.end, which the waiting thread reads before the rest
    std::condition_variable m_ended;
    Answer m_answer;
    std::unique_ptr<Digest> m_digest;
    std::unique_ptr<Upload> m_upload;
    std::atomic<size_t> m_received{0};
};

const char* nameOf(HTTP_ERROR error) {
    switch (error) {
        case ERR_RECV_ERR: return "ERR_RECV_ERR";
        case ERR_FETAL: return "ERR_FETAL";
        case ERR_TIMEOUT: return "ERR_TIMEOUT";
        case ERR_SOCKET_CLOSED: return "ERR_SOCKET_CLOSED";
        case ERR_CONTENT_UNSET: return "ERR_CONTENT_UNSET";
        default: return "another error";
    }
}

// What became of a request that was not answered; empty: it was.
std::string failure(const Answer& answer) {
    switch (answer.end) {
        case End::kAnswered: return "";
        case End::kFailed: return std::string(nameOf(answer.error)) + ": " + answer.cause;
        case End::kClosed: return "onSocketClosed: " + answer.cause;
        default: return "no end was reported";
    }
}

// The digest of the file that the body has to be; empty: any body is right.
std::string digestOf(const std::string& path) {
    if (path.empty()) return "";
    std::ifstream file(path, std::ios::binary);
    if (!file) throw std::runtime_error("cannot read " + path);
    Digest digest;
    std::vector<char> buffer(65536);
    while (file.read(buffer.data(), static_cast<std::streamsize>(buffer.size())),
           file.gcount() > 0) {
        digest.add(buffer.data(), static_cast<size_t>(file.gcount()));
    }
    return digest.hex();
}

struct Expectation {
    int status = 200;
    std::string hex;  // the body's digest; empty: any
    bool emptyBody = false;
    bool uploadBack = false;  // the upload, or its digest in hex
    std::string trailer;      // a field's name
    size_t fillerBytes = 0;   // in the values of x-filler-* headers
};

size_t fillerBytes(const Answer& answer) {
    size_t sum = 0;
    for (const Header& header : answer.headers) {
        if (header.name.rfind("x-filler-", 0) == 0) sum += header.value.size();
    }
    return sum;
}

bool hasHeader(const Answer& answer, const std::string& name) {
    return std::any_of(answer.headers.begin(), answer.headers.end(),
                       [&](const Header& header) { return header.name == name; });
}

// "ok", or how the answer is not as expected. `upload`: null if there was none.
std::string compare(const Answer& answer, const Expectation& expected, Upload* upload) {
    std::string failed = failure(answer);
    if (!failed.empty()) return failed;
    if (answer.status != expected.status) return "status " + std::to_string(answer.status);
    std::string another = "another body: " + std::to_string(answer.size) + " bytes";
    if (expected.emptyBody && answer.size != 0) return another;
    if (!expected.hex.empty() && answer.hex != expected.hex) return another;
    if (expected.uploadBack && upload != nullptr) {
        const std::string hex = upload->hex();
        if (answer.hex != hex && answer.text != hex + "\n") return another;
    }
    if (fillerBytes(answer) != expected.fillerBytes) {
        return "headers with " + std::to_string(fillerBytes(answer)) + " bytes";
    }
    if (!expected.trailer.empty() && !hasHeader(answer, expected.trailer)) return "no trailers";
    return "ok";
}

std::string getWords(Client& client, const std::string& path, const std::string& hex) {
    Request request;
    request.path = path;
    std::string refused = client.start(request);
    if (!refused.empty()) return refused;
    Expectation expected;
    expected.hex = hex;
    return compare(client.wait(), expected, nullptr);
}

int exchange(const Target& target, const Request& request, const Expectation& expected) {
    Client client(target);
    std::string words = client.connect();
    if (words.empty()) words = client.start(request);
    if (!words.empty()) return report(1, words);
    Upload* upload = request.uploadFile.empty() ? nullptr : &client.upload();
    return reportOutcome(compare(client.wait(), expected, upload));
}

// An answer while the upload is under way, and then another request of the same client.
int early(const Target& target, Request request, const Expectation& expected,
          const std::string& pathAfter) {
    request.headers.push_back({"content-length", std::to_string(request.uploadBytes)});
    Client client(target);
    std::string words = client.connect();
    if (words.empty()) words = client.start(request);
    if (!words.empty()) return report(1, words);
    words = compare(client.wait(), expected, nullptr);
    if (words == "ok" && client.upload().size() == request.uploadBytes) {
        words = "the answer came after the whole upload";
    }
    const std::string after = getWords(client, pathAfter, "");
    if (after != "ok") words += "; then " + after;
    return reportOutcome(words);
}

std::vector<Header> fillers(size_t bytes) {
    std::vector<Header> headers;
    for (size_t i = 0; i < bytes / 1000; ++i) {
        headers.push_back({"x-filler-" + std::to_string(i), std::string(1000, 'f')});
    }
    return headers;
}

// Requests with large headers are answered or refused, by the server or at the call; in either
// case the next one is answered.
int largeHeaders(const Target& target, const std::vector<size_t>& sizes) {
    Client client(target);
    std::string words = client.connect();
    if (!words.empty()) return report(1, words);
    for (const size_t bytes : sizes) {
        Request request;
        request.path = target.path;
        request.headers = fillers(bytes);
        if (client.start(request).empty()) {
            const Answer answer = client.wait();
            if (answer.end == End::kNone || answer.error == ERR_TIMEOUT) {
                return report(1, std::to_string(bytes) + " bytes: " + failure(answer));
            }
        }
        words = getWords(client, target.path, "");
        if (words != "ok") return report(1, "after " + std::to_string(bytes) + " bytes: " + words);
    }
    return report(0, "ok");
}

// All on one connection: each client after the first joins it.
int many(const Target& target, size_t count, const std::string& hex) {
    std::vector<std::unique_ptr<Client>> clients;
    for (size_t i = 0; i < count; ++i) {
        clients.push_back(std::make_unique<Client>(target));
        const std::string words = clients.back()->connect();
        if (!words.empty()) return report(1, words);
        if (i != 0 && getHttp2Number(clients.back().get(), HTTP2_SHARED) != 1) {
            return report(1, "client " + std::to_string(i) + " has a connection of its own");
        }
    }
    Request request;
    request.path = target.path;
    Expectation expected;
    expected.hex = hex;
    for (const auto& client : clients) client->start(request);
    size_t answered = 0;
    std::string wrong;
    for (const auto& client : clients) {
        const std::string words = compare(client->wait(), expected, nullptr);
        answered += words == "ok" ? 1 : 0;
        if (words != "ok") wrong = words;
    }
    if (answered == count) return report(0, "ok");
    return report(
        1, std::to_string(answered) + " of " + std::to_string(count) + " answered: " + wrong);
}

int successive(const Target& target, size_t count, const std::string& hex) {
    Client client(target);
    std::string words = client.connect();
    if (!words.empty()) return report(1, words);
    for (size_t i = 0; i < count; ++i) {
        words = getWords(client, target.path, hex);
        if (words != "ok") return report(1, "request " + std::to_string(i + 1) + ": " + words);
    }
    return report(0, "ok");
}

// A request, silence, a request; of a client as it is, and of one that never closes its connection,
// so that the server does. The pause is what is tested, nothing is waited for in it.
int idle(const Target& target, int seconds, const std::string& hex) {
    Client asItIs(target);
    Client staying(target);
    setHttp2Option(&staying, HTTP2_OWN_CONNECTION, 1);
    setHttp2Option(&staying, HTTP2_IDLE_TIMEOUT, 0);
    const std::pair<Client*, const char*> clients[] = {{&asItIs, ""}, {&staying, "staying: "}};
    for (const auto& [client, name] : clients) {
        std::string words = client->connect();
        if (words.empty()) words = getWords(*client, target.path, hex);
        if (words != "ok") return report(1, name + words);
    }
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    for (const auto& [client, name] : clients) {
        const std::string words = getWords(*client, target.path, hex);
        if (words != "ok") return report(1, name + ("after the silence: " + words));
    }
    return report(0, "ok");
}

// Says "started" when the body has begun, and expects the connection to end then. Asks for another
// path until the server is back.
int killed(const Target& target, const std::string& pathAfter) {
    Client client(target);
    std::string words = client.connect();
    Request request;
    request.path = target.path;
    if (words.empty()) words = client.start(request);
    if (!words.empty()) return report(1, words);
    if (!h2test::waitFor([&] { return client.received() != 0; }, kLimit)) {
        return report(1, "no body began");
    }
    std::cerr << "started" << std::endl;
    const Answer answer = client.wait();
    if (answer.end != End::kClosed) {
        return report(1, answer.end == End::kAnswered ? "ok was reported" : failure(answer));
    }
    if (!h2test::waitFor([&] { return (words = getWords(client, pathAfter, "")) == "ok"; },
                         kLimit)) {
        return report(1, "after the restart: " + words);
    }
    return report(0, "ok");
}

volatile std::sig_atomic_t g_enough = 0;

// What the clients of one run under load have seen.
struct Load {
    std::mutex lock;     // guards all fields
    size_t clients = 0;  // that have made their first request
    size_t answered = 0;
    size_t unserved = 0;  // certainly not processed, since nobody listened
    size_t lost = 0;
    std::string cause;  // of the last one lost

    void add(const std::string& words) {
        const std::lock_guard<std::mutex> hold(lock);
        if (words == "ok") {
            ++answered;
        } else if (words.rfind("ERR_SOCKET_CLOSED", 0) == 0) {
            ++unserved;
        } else {
            ++lost;
            cause = words;
        }
    }
};

void loadOneClient(const Target& target, const std::string& hex, Load& load) {
    Client client(target);
    std::string words = client.connect();
    if (words.empty()) words = getWords(client, target.path, hex);
    load.add(words);
    {
        const std::lock_guard<std::mutex> hold(load.lock);
        ++load.clients;
    }
    while (g_enough == 0) {
        words = getWords(client, target.path, hex);
        load.add(words);
        if (words != "ok") std::this_thread::sleep_for(kBetweenAttempts);
    }
    // The server is there again, or said to be.
    if (!h2test::waitFor([&] { return (words = getWords(client, target.path, hex)) == "ok"; },
                         kLimit)) {
        load.add("after the restart: " + words);
    }
}

// Clients ask as fast as they can until SIGUSR1 comes. Says "started" when all have been answered.
int load(const Target& target, size_t count, const std::string& hex, bool alwaysThere) {
    signal(SIGUSR1, [](int) { g_enough = 1; });
    Load load;
    std::vector<std::thread> threads;
    for (size_t i = 0; i < count; ++i) {
        threads.emplace_back([&] { loadOneClient(target, hex, load); });
    }
    const bool began = h2test::waitFor(
        [&] {
            const std::lock_guard<std::mutex> hold(load.lock);
            return load.clients == count && (load.answered >= 10 * count || load.lost != 0);
        },
        kLimit);
    std::cerr << (began ? "started" : "slow") << std::endl;
    h2test::waitFor([] { return g_enough != 0; });
    g_enough = 1;
    for (std::thread& thread : threads) thread.join();
    if (load.lost != 0) {
        return report(1, std::to_string(load.lost) + " lost: " + load.cause);
    }
    if (alwaysThere && load.unserved != 0) {
        return report(1, std::to_string(load.unserved) + " not served");
    }
    return report(0, "ok");
}

struct Arguments {
    Target target;
    Request request;
    Expectation expected;
    std::string bodyFile;
    std::string pathAfter;
    std::vector<std::string> headers;
    std::vector<size_t> sizes;
    size_t count = 0;
    int seconds = 0;
    bool alwaysThere = false;
};

void addExchangeOptions(CLI::App& command, Arguments& arguments) {
    command.add_option("--method", arguments.request.method, "the request's method");
    command.add_option("--header", arguments.headers, "NAME:VALUE of a request header");
    command.add_option("--upload", arguments.request.uploadFile, "the request's body");
    command.add_option("--upload-bytes", arguments.request.uploadBytes, "how much of it");
    command.add_option("--status", arguments.expected.status, "the status to expect");
    command.add_flag("--empty", arguments.expected.emptyBody, "expect an answer without a body");
    command.add_flag("--back", arguments.expected.uploadBack, "expect the upload or its digest");
    command.add_option("--trailer", arguments.expected.trailer, "expect a trailer of this name");
    command.add_option("--filler", arguments.expected.fillerBytes,
                       "expect headers x-filler-* with this many bytes");
}

int run(const CLI::App& app, Arguments& arguments) {
    const std::string command = app.get_subcommands().at(0)->get_name();
    const Target& target = arguments.target;
    arguments.request.path = target.path;
    for (const std::string& header : arguments.headers) {
        const size_t colon = header.find(':');
        arguments.request.headers.push_back({header.substr(0, colon), header.substr(colon + 1)});
    }
    const std::string hex = digestOf(arguments.bodyFile);
    arguments.expected.hex = hex;
    if (command == "exchange") return exchange(target, arguments.request, arguments.expected);
    if (command == "early") {
        return early(target, arguments.request, arguments.expected, arguments.pathAfter);
    }
    if (command == "large-headers") return largeHeaders(target, arguments.sizes);
    if (command == "many") return many(target, arguments.count, hex);
    if (command == "successive") return successive(target, arguments.count, hex);
    if (command == "idle") return idle(target, arguments.seconds, hex);
    if (command == "killed") return killed(target, arguments.pathAfter);
    return load(target, arguments.count, hex, arguments.alwaysThere);
}

}  // namespace

int main(int argc, char** argv) try {
    CLI::App app("The standard edition's part of scripts/interop. Results go to standard error.");
    Arguments arguments;
    app.require_subcommand(1);
    app.add_option("--ca", arguments.target.caFile, "TLS, verified against this certificate");
    app.add_option("--timeout", arguments.target.timeoutMs, "of a request, in milliseconds");
    app.add_option("--body", arguments.bodyFile, "the file that each answer's body has to be");
    app.add_option("ip", arguments.target.ip)->required();
    app.add_option("port", arguments.target.port)->required();
    app.add_option("path", arguments.target.path)->required();
    addExchangeOptions(*app.add_subcommand("exchange", "one request"), arguments);
    CLI::App* earlyCommand = app.add_subcommand("early", "an answer during an upload");
    addExchangeOptions(*earlyCommand, arguments);
    earlyCommand->add_option("path", arguments.pathAfter)->required();
    app.add_subcommand("large-headers", "request headers of these sizes")
        ->add_option("bytes", arguments.sizes)
        ->required();
    app.add_subcommand("many", "clients at once")->add_option("count", arguments.count)->required();
    app.add_subcommand("successive", "requests in a row")
        ->add_option("count", arguments.count)
        ->required();
    app.add_subcommand("idle", "a request, silence, a request")
        ->add_option("seconds", arguments.seconds)
        ->required();
    app.add_subcommand("killed", "a server that goes away")
        ->add_option("path", arguments.pathAfter)
        ->required();
    CLI::App* loadCommand = app.add_subcommand("load", "requests until SIGUSR1 comes");
    loadCommand->add_option("count", arguments.count)->required();
    loadCommand->add_flag("--always-there", arguments.alwaysThere, "the server never goes away");
    CLI11_PARSE(app, argc, argv);

    signal(SIGPIPE, SIG_IGN);
    initHttp2Client(10);
    const int result = run(app, arguments);
    destroyHttp2Client();
    return result;
} catch (const std::exception& failure) {
    return report(2, failure.what());
}
