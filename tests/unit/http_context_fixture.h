#ifndef HTTP2CLIENT_TESTS_UNIT_HTTP_CONTEXT_FIXTURE_H
#define HTTP2CLIENT_TESTS_UNIT_HTTP_CONTEXT_FIXTURE_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Http2Client/Http2.h"
#include "Http2Client/HttpClientInterface.h"
#include "Http2Client/HttpClientInterfaceImpl.h"
#include "Http2Client/HttpContext.h"
#include "Http2Client/HttpIO.h"
#include "Http2Client/HttpSocketBase.h"
#include "Http2Client/ev.h"
#include "Http2Client/ev_select.h"
#include "tests/support/bytes.h"
#include "tests/support/capture.h"
#include "tests/support/descriptors.h"
#include "tests/support/log_capture.h"
#include "tests/support/log_lines.h"
#include "tests/support/recording_client.h"
#include "tests/support/scripted_server.h"
#include "tests/support/wait.h"

namespace h2test {

using tiny::ev;
using tiny::ev_select;
using tiny::Http2;
using tiny::HttpClientInterfaceImpl;
using tiny::HttpContext;
using tiny::HttpIO;
using tiny::HttpSocketBase;

using Lines = std::vector<std::string>;
using Set = std::set<int>;
using Callbacks = std::vector<Callback>;

constexpr const char* kIp = "127.0.0.1";

inline bool isFree(Lock& lock) {
    if (pthread_mutex_trylock(&lock.m_mutex) != 0) return false;
    lock.unlock();
    return true;
}

// A poller with given results that records its calls.
class ScriptedPoller : public ev {
public:
    explicit ScriptedPoller(std::function<void(const std::string&)> hook = {})
        : m_hook(std::move(hook)) {}

    bool addEvent(int fd, int mask) override { return record("add", fd, mask); }
    bool removeEvent(int fd, int mask) override { return record("remove", fd, mask); }
    std::list<ActiveSocket> poll(timeval* timeout) override {
        m_calls.push_back("poll " + std::to_string(timeout->tv_sec) + " s " +
                          std::to_string(timeout->tv_usec) + " us");
        return m_active;
    }
    std::string poolApiName() override { return "scripted"; }

    std::list<ActiveSocket> m_active;
    Lines m_calls;

private:
    bool record(const std::string& what, int fd, int mask) {
        m_calls.push_back(what + " " + std::to_string(fd) + " " + std::to_string(mask));
        if (m_hook) m_hook(what);
        return true;
    }

    const std::function<void(const std::string&)> m_hook;
};

// A transport whose results are given in advance. With none left, a read has nothing and a write
// takes all.
class ScriptedTransport : public HttpSocketBase {
public:
    ScriptedTransport() : HttpSocketBase(HTTP_2, "192.0.2.7", 80) {}

    bool initialization() override { return true; }
    int readData(char* buf, size_t len) override {
        m_reads.emplace_back(buf, len);
        if (m_hook) m_hook();
        if (m_input.empty()) return m_readEnd;
        const std::string bytes = m_input.front();
        m_input.pop_front();
        EXPECT_LE(bytes.size(), len);
        return static_cast<int>(bytes.copy(buf, len));
    }
    int writeData(const char* buf, size_t len) override {
        m_writes.emplace_back(buf, len);
        if (m_hook) m_hook();
        if (m_writeResults.empty()) return static_cast<int>(len);
        const int result = m_writeResults.front();
        m_writeResults.pop_front();
        return result;
    }

    std::deque<std::string> m_input;  // one entry a read
    int m_readEnd = -1;               // what reads return after that
    std::deque<int> m_writeResults;
    std::vector<std::pair<char*, size_t>> m_reads;
    std::vector<std::string> m_writes;
    std::function<void()> m_hook;  // called in each operation
};

// Each test has its own context, separate from the process's, and acts as the poll thread.
class HttpContextTest : public ::testing::Test {
protected:
    // An entry of the map and its parts.
    struct Connection {
        int fd = -1;
        HttpIO* io = nullptr;
        Http2* engine = nullptr;
        ScriptedTransport* transport = nullptr;
    };

    HttpContextTest() : m_context(new HttpContext) {}
    ~HttpContextTest() override {
        char* const buffer = m_context->m_buffer;
        // Requests still running end without callbacks, which would use the destroyed test.
        for (const auto& [fd, io] : m_context->m_httpIoMap) io->m_http2->m_httpClientMap.clear();
        delete m_context;
        delete[] buffer;  // the context never frees it
    }

    HttpContext& context() { return *m_context; }

    // Replaces the context's poller.
    ScriptedPoller& scriptedPoller(std::function<void(const std::string&)> hook = {}) {
        auto* poller = new ScriptedPoller(std::move(hook));
        delete m_context->m_pollPtr;
        m_context->m_pollPtr = poller;
        return *poller;
    }
    ev_select& selectPoller() { return *dynamic_cast<ev_select*>(m_context->m_pollPtr); }

    Connection scriptedConnection() {
        Connection out;
        std::shared_ptr<HttpIO> io(new HttpIO);
        out.transport = new ScriptedTransport;
        out.engine = new Http2;
        out.io = io.get();
        io->m_socket = out.transport;
        io->m_http2 = out.engine;
        out.fd = io->httpSocket();
        m_context->m_httpIoMap[out.fd] = io;
        return out;
    }

    int connect(const ScriptedServer& server, HTTP_SCHEMA schema = HTTP_2) {
        return m_context->getHttpSocket(schema, kIp, server.port());
    }
    HttpIO& io(int fd) { return *m_context->m_httpIoMap.at(fd); }

    // A client of connection `fd`, alive until the end of the test, with no request started.
    RecordingClient& client(int fd, std::function<void(const Callback&)> hook = {}) {
        m_clients.push_back(std::make_unique<RecordingClient>(std::move(hook)));
        HttpClientInterfaceImpl* impl = m_clients.back()->ctx();
        impl->setSocket(fd);
        impl->setUri("/uri");
        impl->setHttpMethod(HTTP_GET);
        impl->setHttpVersion(HTTP_2);
        return *m_clients.back();
    }
    // The same with its request started.
    RecordingClient& running(int fd, std::function<void(const Callback&)> hook = {}) {
        RecordingClient& out = client(fd, std::move(hook));
        EXPECT_EQ(m_context->addHttpClientImpl(out.ctx()), 0);
        return out;
    }

    // Runs poll steps until `pred` holds.
    template <typename Pred>
    bool pollUntil(Pred pred) {
        return waitFor([&] {
            m_context->pollHttpClient(10);
            return pred();
        });
    }

    const NullCout m_quiet;  // the engines write a line for each frame
    std::deque<std::unique_ptr<RecordingClient>> m_clients;
    HttpContext* m_context;
};

}  // namespace h2test

#endif  // HTTP2CLIENT_TESTS_UNIT_HTTP_CONTEXT_FIXTURE_H
