// Sends random mixes of requests to a real server, and tests that every answer is right.
//
// Usage: standard_mixes SERVER SCHEME PORT MIXES SEED
//   SERVER  nghttpd, h2o or nginx, as check_mixes has set it up
//   SCHEME  http or https
//
// A mix is 1 to 12 requests at a time on one connection: methods, paths, header sizes, bodies as a
// block or from a reader, cancels before, at and behind the answer's headers, pauses. Every hundred
// mixes have a new connection, with other receive windows. The seed decides all of it.
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "CLogWrapper/CLogWrapper.h"
#include "Http2Client/HttpClientInterface.h"
#include "Http2Client/httpClientApi.h"
#include "Http2ClientStandard/Http2ClientOptions.h"
#include "tests/support/wait.h"

namespace {

constexpr size_t kClients = 12;
constexpr int kMixesAConnection = 100;
constexpr size_t kFileSize = 10000;

class Random {
public:
    explicit Random(uint32_t seed) : m_engine(seed) {}
    uint32_t below(uint32_t limit) { return static_cast<uint32_t>(m_engine() % limit); }
    bool one(uint32_t in) { return below(in) == 0; }

    // Sizes around what frames and windows have as bounds, and any others.
    size_t bodySize() {
        constexpr uint32_t kEdges[] = {1, 2, 9, 127, 128, 1000, 16383, 16384, 16385, 32768, 65535};
        if (one(3)) return kEdges[below(std::size(kEdges))];
        return 1 + below(one(10) ? 200000 : 5000);
    }
    std::string text(size_t size) {
        std::string out(size, '\0');
        for (char& c : out) c = static_cast<char>('!' + below(94));
        return out;
    }

private:
    std::mt19937 m_engine;
};

struct Header {
    std::string name;
    std::string value;
};

enum class CancelAt { kNever, kOnce, kHeaders, kContent };

// One request, and what its answer must be.
struct Plan {
    std::string method = "GET";
    std::string path;
    std::vector<Header> headers;
    std::string body;
    bool reads = false;  // the body comes from a reader, not as a block
    CancelAt cancelAt = CancelAt::kNever;
    bool pauses = false;
    int status = 200;
    std::string answer;
    std::string back;  // that the header x-back must be; empty: not looked at
};

std::string describe(const Plan& plan) {
    size_t octets = 0;
    for (const Header& header : plan.headers) octets += header.name.size() + header.value.size();
    return plan.method + " " + plan.path + ", " + std::to_string(plan.headers.size()) +
           " headers of " + std::to_string(octets) + " bytes, body " +
           std::to_string(plan.body.size()) + (plan.reads ? " read" : "");
}

class Client : public tiny::HttpClientInterface {
public:
    ~Client() override { cancelRequest(); }

    bool start(Plan plan) {
        m_plan = std::move(plan);
        m_status = 0;
        m_given = 0;
        m_answer.clear();
        m_back.clear();
        m_error.clear();
        m_done = false;
        clearClient();
        bool good = setUri(m_plan.path.c_str(), HTTP_GET) == 0;
        good &= setHttp2TextOption(this, HTTP2_METHOD, m_plan.method.c_str()) == 0;
        good &= addHeader("host", "localhost", false) != nullptr;
        for (const Header& header : m_plan.headers) {
            good &= addHeader(header.name.c_str(), header.value.c_str(), false) != nullptr;
        }
        if (m_plan.reads) {
            good &= setContent(&Client::read, this) == 0;
        } else if (!m_plan.body.empty()) {
            good &= setContent(m_plan.body.data(), m_plan.body.size()) == 0;
        }
        if (!good || startRequest(nullptr) != 0) return false;
        if (m_plan.pauses) pauseHttp2Response(this);
        if (m_plan.cancelAt == CancelAt::kOnce) {
            cancelRequest();
            m_done = true;
        }
        if (m_plan.pauses) resumeHttp2Response(this);
        return true;
    }

    // Empty, or what is wrong with the answer.
    std::string verdict() {
        if (!h2test::waitFor([this] { return m_done.load(); })) return "no answer";
        if (!m_error.empty()) return m_error;
        if (m_plan.cancelAt != CancelAt::kNever) return "";
        if (m_status != m_plan.status) return "status " + std::to_string(m_status);
        if (!m_plan.back.empty() && m_back != m_plan.back) return "another x-back";
        if (m_plan.status == 200 && m_answer != m_plan.answer) {
            return "another answer, of " + std::to_string(m_answer.size()) + " bytes";
        }
        return "";
    }
    const Plan& plan() const { return m_plan; }

    void onSocketClosed() override { end("the connection is lost"); }
    void onFailed(HTTP_ERROR error) override { end("failed with " + std::to_string(error)); }
    void onHeaderReceived(int status, const HeaderDef* headers, size_t count) override {
        m_status = status;
        for (size_t i = 0; i < count; ++i) {
            if (std::string_view(headers[i].m_headerName) == "x-back") {
                m_back = headers[i].m_headerValue;
            }
        }
        if (m_plan.cancelAt == CancelAt::kHeaders) cancelInside();
    }
    void onContentReceived(const char* data, size_t len, bool more) override {
        m_answer.append(data, len);
        if (m_plan.cancelAt == CancelAt::kContent) {
            cancelInside();
        } else if (!more) {
            m_done = true;
        }
    }

private:
    static int read(char* to, size_t size, void* opaque) {
        auto* self = static_cast<Client*>(opaque);
        const size_t left = self->m_plan.body.size() - self->m_given;
        const size_t part = std::min(size, left);
        std::copy_n(self->m_plan.body.data() + self->m_given, part, to);
        self->m_given += part;
        return static_cast<int>(part);
    }
    void cancelInside() {
        cancelRequest();
        m_done = true;
    }
    void end(const std::string& error) {
        m_error = error + ": " + getHttp2Text(this, HTTP2_ERROR);
        m_done = true;
    }

    Plan m_plan;
    size_t m_given = 0;  // of the body, by the reader
    int m_status = 0;
    std::string m_answer;
    std::string m_back;
    std::string m_error;
    std::atomic<bool> m_done{true};
};

class Mixes {
public:
    Mixes(std::string server, bool tls, uint16_t port, uint32_t seed)
        : m_server(std::move(server)), m_tls(tls), m_port(port), m_random(seed) {
        for (size_t i = 0; i < kFileSize; ++i) m_file += static_cast<char>('a' + i % 23);
    }

    // Empty, or what went wrong.
    std::string run(int mixes) {
        for (int i = 0; i < mixes; ++i) {
            if (i % kMixesAConnection == 0 && !connect()) return "cannot connect: " + m_error;
            const std::string wrong = runOne();
            if (!wrong.empty()) return "mix " + std::to_string(i) + ": " + wrong;
        }
        m_clients.clear();
        return "";
    }
    size_t requests() const { return m_requests; }
    size_t cancels() const { return m_cancels; }

private:
    // New clients, and a new connection for all of them.
    bool connect() {
        constexpr int kWindows[] = {1000, 20000, 65535, 1 << 20, 32 << 20};
        m_clients.clear();
        for (size_t i = 0; i < kClients; ++i) m_clients.push_back(std::make_unique<Client>());
        const int window = kWindows[m_random.below(std::size(kWindows))];
        for (const auto& client : m_clients) {
            setHttp2Option(client.get(), HTTP2_VERIFY, 0);
            setHttp2Option(client.get(), HTTP2_STREAM_WINDOW, window);
            setHttp2Option(client.get(), HTTP2_IDLE_TIMEOUT, 100);
            // The former connection ends when it has been idle for that long.
            const auto fresh = [&] {
                if (!connectTo(*client)) return true;
                return client != m_clients[0] || getHttp2Number(client.get(), HTTP2_SHARED) == 0;
            };
            if (!h2test::waitFor([&] {
                    if (fresh()) return true;
                    std::this_thread::sleep_for(std::chrono::milliseconds(50));
                    return false;
                })) {
                m_error = "the former connection does not end";
                return false;
            }
            if (!m_error.empty()) return false;
        }
        return true;
    }
    bool connectTo(Client& client) {
        if (client.connectToServer(m_tls ? HTTPS_2 : HTTP_2, "127.0.0.1", m_port) == 0) return true;
        m_error = getHttp2Text(&client, HTTP2_ERROR);
        return false;
    }

    std::string runOne() {
        const size_t count = 1 + m_random.below(kClients);
        for (size_t i = 0; i < count; ++i) {
            Client& client = *m_clients[i];
            Plan plan = makePlan();
            ++m_requests;
            if (plan.cancelAt != CancelAt::kNever) ++m_cancels;
            if (!client.start(std::move(plan))) {
                return "not started: " + std::string(getHttp2Text(&client, HTTP2_ERROR));
            }
        }
        for (size_t i = 0; i < count; ++i) {
            const std::string wrong = m_clients[i]->verdict();
            if (!wrong.empty()) return describe(m_clients[i]->plan()) + ": " + wrong;
        }
        return "";
    }

    Plan makePlan() {
        Plan plan;
        switch (m_random.below(6)) {
            case 0:
                plan.path = "/none/" + std::to_string(m_random.below(1000));
                plan.status = 404;
                break;
            case 1:
                plan.method = "HEAD";
                plan.path = "/file.txt";
                break;
            case 2:
            case 3:
                plan.path = "/file.txt?" + std::to_string(m_random.below(1000));
                plan.answer = m_file;
                break;
            default: makeEcho(plan);
        }
        addHeaders(plan);
        if (m_random.one(12)) plan.cancelAt = static_cast<CancelAt>(1 + m_random.below(3));
        // An answer without content, or one that has come whole, is not cancelled there.
        if (plan.cancelAt == CancelAt::kContent && plan.answer.empty()) {
            plan.cancelAt = CancelAt::kHeaders;
        }
        plan.pauses = m_random.one(10);
        return plan;
    }

    void makeEcho(Plan& plan) {
        plan.method = m_random.one(3) ? "PUT" : "POST";
        plan.path = "/echo";
        plan.body = m_random.text(m_random.bodySize());
        plan.reads = m_random.one(2);
        plan.answer = plan.body;
        if (m_server != "nghttpd") {
            plan.back = m_random.text(1 + m_random.below(60));
            plan.headers.push_back({"x-probe", plan.back});
        }
    }

    // Of few names and, half of the time, few values: they enter the table and leave it. Some
    // requests have 16 to 24 KB, and so CONTINUATION; no server's limit is reached.
    void addHeaders(Plan& plan) {
        const bool large = m_random.one(20);
        for (uint32_t count = large ? 16 : m_random.below(16); count > 0; --count) {
            const size_t size = large ? 1000 + m_random.below(500) : 1 + m_random.below(100);
            const bool known = !large && m_random.one(2);
            plan.headers.push_back(
                {"x-n" + std::to_string(m_random.below(20)),
                 known ? std::to_string(m_random.below(9)) : m_random.text(size)});
        }
    }

    const std::string m_server;
    const bool m_tls;
    const uint16_t m_port;
    Random m_random;
    std::string m_file;
    std::string m_error;
    std::vector<std::unique_ptr<Client>> m_clients;
    size_t m_requests = 0;
    size_t m_cancels = 0;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 6) {
        std::cerr << "usage: standard_mixes SERVER SCHEME PORT MIXES SEED\n";
        return 2;
    }
    CLogWrapper::SetLevel(20000);  // a server's GOAWAY is information
    initHttp2Client(5);
    Mixes mixes(argv[1], std::string_view(argv[2]) == "https",
                static_cast<uint16_t>(std::atoi(argv[3])),
                static_cast<uint32_t>(std::atoi(argv[5])));
    const std::string wrong = mixes.run(std::atoi(argv[4]));
    destroyHttp2Client();
    std::cout << argv[1] << " " << argv[2] << ": " << mixes.requests() << " requests, "
              << mixes.cancels() << " of them cancelled; "
              << (wrong.empty() ? "every answer was right" : wrong) << "\n";
    return wrong.empty() ? 0 : 1;
}
