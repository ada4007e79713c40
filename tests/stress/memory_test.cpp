// Makes one allocation of an exchange fail: each in turn, in its own process.
//
// An allocation is operator new, the library's malloc, calloc or realloc, or OpenSSL's. The
// exchange may succeed, fail with a documented result or throw std::bad_alloc on the application's
// thread, and the process may end with a message. A crash, a hang or a sanitizer's report is a
// failure.
#include <openssl/crypto.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <map>
#include <memory_resource>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Http2Client/HttpClientInterface.h"
#include "Http2Client/buffer.h"
#include "Http2Client/httpClientApi.h"
#include "injection.h"
#include "tests/support/scripted_server.h"

namespace h2test {
namespace {

constexpr int kFailedAsDocumented = 10;
constexpr int kBadAlloc = 11;
constexpr unsigned int kChildSeconds = 60;  // a hang is ended by SIGALRM
constexpr size_t kBodySize = 40'000;

// Calls from here may be made to fail.
void* cryptoMalloc(size_t size, const char* /*file*/, int /*line*/) { return std::malloc(size); }
void* cryptoRealloc(void* block, size_t size, const char* /*file*/, int /*line*/) {
    return std::realloc(block, size);
}
void cryptoFree(void* block, const char* /*file*/, int /*line*/) { std::free(block); }

// Allocates nothing itself.
class Client : public tiny::HttpClientInterface {
public:
    ~Client() override { cancelRequest(); }
    void onSocketClosed() override { end(false); }
    void onFailed(HTTP_ERROR /*err*/) override { end(false); }
    void onHeaderReceived(int /*status*/, const HeaderDef* /*headers*/, size_t /*count*/) override {
    }
    void onContentReceived(const char* /*data*/, size_t /*len*/, bool more) override {
        if (!more) end(true);
    }
    bool waitAnswered() {
        std::unique_lock<std::mutex> hold(m_lock);
        m_changed.wait(hold, [this] { return m_ended; });
        m_ended = false;
        return m_answered;
    }

    static int readBody(char* buffer, size_t length, void* opaque) {
        auto& left = *static_cast<size_t*>(opaque);
        const size_t count = std::min(length, left);
        std::fill_n(buffer, count, 'b');
        left -= count;
        return static_cast<int>(count);
    }

private:
    void end(bool answered) {
        const std::lock_guard<std::mutex> hold(m_lock);
        m_ended = true;
        m_answered = answered;
        m_changed.notify_all();
    }

    std::mutex m_lock;
    std::condition_variable m_changed;
    bool m_ended = false;
    bool m_answered = false;
};

bool exchange(Client& client, bool tls, uint16_t port) {
    if (client.connectToServer(tls ? HTTPS_2 : HTTP_2, "127.0.0.1", port) != 0) return false;
    size_t bodyLeft = kBodySize;
    if (client.setUri("/upload", HTTP_POST) != 0) return false;
    if (client.addHeader("host", "memory", false) == nullptr) return false;
    if (client.setContent(Client::readBody, &bodyLeft) != 0) return false;
    if (client.startRequest(nullptr) != 0) return false;
    const bool answered = client.waitAnswered();
    client.cancelRequest();  // before the body's source goes
    if (!answered) return false;

    client.clearClient();
    if (client.setUri("/", HTTP_GET) != 0) return false;
    int status = 0;
    std::map<std::string, std::string> headers;
    std::string content;
    const char* message = nullptr;
    return client.blockedRequest(status, headers, content, message, 500) == 0 && status == 200 &&
           content == "ok";
}

int runExchange(bool tls, uint16_t port) {
    int result = 0;
    injection->armed = true;
    try {
        initHttp2Client(1);
        Client client;
        if (!exchange(client, tls, port)) result = kFailedAsDocumented;
        injection->armed = false;
    } catch (const std::bad_alloc&) {
        injection->armed = false;
        result = kBadAlloc;
    }
    destroyHttp2Client();
    return result;
}

// In the child process. Never returns.
[[noreturn]] void childMain(bool tls, uint16_t port, int errorFile) {
    alarm(kChildSeconds);
    dup2(errorFile, STDERR_FILENO);
    std::cout.setstate(std::ios::badbit);  // the console lines are not wanted
    CRYPTO_set_mem_functions(cryptoMalloc, cryptoRealloc, cryptoFree);
    // blockedRequest counts processor time: so that it passes.
    std::thread([] {
        while (true) {
        }
    }).detach();
    std::_Exit(runExchange(tls, port));
}

std::string contentsOf(FILE* file) {
    std::rewind(file);
    std::string out;
    for (int c = std::fgetc(file); c != EOF; c = std::fgetc(file)) out += static_cast<char>(c);
    return out;
}

// A server in its own process, so that this one has a single thread and may fork.
class ServerProcess {
public:
    explicit ServerProcess(bool tls) {
        int toServer[2];
        int fromServer[2];
        if (pipe(toServer) != 0 || pipe(fromServer) != 0) std::abort();
        m_process = fork();
        if (m_process == 0) {
            close(toServer[1]);
            serve(tls, toServer[0], fromServer[1]);
        }
        close(toServer[0]);
        close(fromServer[1]);
        m_stop = toServer[1];
        if (read(fromServer[0], &m_port, sizeof m_port) != sizeof m_port) std::abort();
        close(fromServer[0]);
    }
    ~ServerProcess() {
        close(m_stop);
        waitpid(m_process, nullptr, 0);
    }
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;
    uint16_t port() const { return m_port; }

private:
    [[noreturn]] static void serve(bool tls, int stop, int portPipe) {
        {
            ServerOptions options;
            options.tls = tls;
            options.keepReceived = false;
            options.responder = [](size_t /*index*/, const WireFrame& frame) {
                const bool ends =
                    (frame.type == kHeaders || frame.type == kData) && frame.hasFlags(kEndStream);
                return ends ? headers(frame.streamId, hpackIndexed(8)) +
                                  data(frame.streamId, "ok", kEndStream)
                            : std::string();
            };
            ScriptedServer server(options);
            const uint16_t port = server.port();
            char ignored = 0;
            if (write(portPipe, &port, sizeof port) == sizeof port) {
                while (read(stop, &ignored, 1) > 0) {
                }
            }
        }
        std::_Exit(0);
    }

    pid_t m_process;
    int m_stop;
    uint16_t m_port = 0;
};

class Memory : public testing::TestWithParam<bool> {
protected:
    Memory() {
        void* shared = mmap(nullptr, sizeof(Injection), PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (shared == MAP_FAILED) std::abort();
        injection = new (shared) Injection;
    }
    ~Memory() override {
        munmap(injection, sizeof(Injection));
        injection = nullptr;
    }

    // Runs one exchange in which allocation `failAt` fails. Counts how it ended.
    void runOne(uint64_t failAt) {
        injection->count = 0;
        injection->failAt = failAt;
        injection->armed = false;
        FILE* errors = std::tmpfile();
        const pid_t process = fork();
        if (process == 0) childMain(GetParam(), m_server.port(), fileno(errors));
        int status = 0;
        ASSERT_EQ(waitpid(process, &status, 0), process);
        const std::string text = contentsOf(errors);
        std::fclose(errors);
        if (WIFEXITED(status)) {
            const int code = WEXITSTATUS(status);
            ASSERT_TRUE(code == 0 || code == kFailedAsDocumented || code == kBadAlloc)
                << "allocation " << failAt << ": exit code " << code << "\n"
                << text;
            ++(code == 0 ? m_well : code == kBadAlloc ? m_thrown : m_failed);
            return;
        }
        ASSERT_EQ(WTERMSIG(status), SIGABRT) << "allocation " << failAt << "\n" << text;
        ASSERT_TRUE(text.find("Http2Client: out of memory") != std::string::npos ||
                    text.find("std::bad_alloc") != std::string::npos)
            << "allocation " << failAt << "\n"
            << text;
        ++m_ended;
    }

    ServerProcess m_server{GetParam()};
    int m_well = 0;
    int m_failed = 0;
    int m_thrown = 0;
    int m_ended = 0;
};

// Fails the first allocation of `make`.
template <typename Make>
void makeWithoutMemory(Make make) {
    static Injection failing;
    failing.failAt = 1;
    failing.armed = true;
    injection = &failing;
    make();
}

TEST(MemoryDeathTest, BufferWithoutABlockEndsTheProcess) {
    const char* const message = "Http2Client: out of memory";
    const Buffer other("other");
    EXPECT_DEATH(makeWithoutMemory([] { const Buffer made; }), message);
    EXPECT_DEATH(makeWithoutMemory([] { const Buffer made(100U); }), message);
    EXPECT_DEATH(makeWithoutMemory([] { const Buffer made("text"); }), message);
    EXPECT_DEATH(makeWithoutMemory([] { const Buffer made("text", 2); }), message);
    EXPECT_DEATH(makeWithoutMemory([&] { Buffer(other).Clear(); }), message);
    EXPECT_DEATH(makeWithoutMemory([] { Buffer().Resize(9); }), message);
}

TEST(MemoryDeathTest, ContainerOfAResourceGetsBadAlloc) {
    const auto grow = [] {
        std::array<std::byte, 8> room;
        std::pmr::monotonic_buffer_resource memory(room.data(), room.size());
        std::pmr::vector<int> numbers(100, &memory);
    };
    EXPECT_EXIT(makeWithoutMemory([&] {
                    try {
                        grow();
                    } catch (const std::bad_alloc&) {
                        std::_Exit(kBadAlloc);
                    }
                }),
                testing::ExitedWithCode(kBadAlloc), "");
}

INSTANTIATE_TEST_SUITE_P(Transport, Memory, testing::Bool(),
                         [](const auto& info) { return info.param ? "Tls" : "Plain"; });

TEST_P(Memory, FailureOfAnyOneAllocationEndsCleanly) {
    runOne(0);
    ASSERT_EQ(m_well, 1);  // nothing failed
    const uint64_t total = injection->count;
    ASSERT_GT(total, 100U);
    // The poll thread's steps make the count vary a little, so a few more are tried.
    const uint64_t step = GetParam() ? MEMORY_TLS_STEP : 1;
    for (uint64_t failAt = 1; failAt <= total + 20 && !HasFatalFailure(); failAt += step) {
        runOne(failAt);
    }
    std::fprintf(stderr,
                 "%llu allocations: %d exchanges went well, %d failed as documented, %d threw "
                 "std::bad_alloc, %d processes ended with a message\n",
                 static_cast<unsigned long long>(total), m_well, m_failed, m_thrown, m_ended);
    EXPECT_GT(m_thrown + m_ended, 0);
}

}  // namespace
}  // namespace h2test
