// What n units of input cost, for each kind of input with which a server could try to buy more than
// it pays for. See docs/security.md.
//
//   growth                  every case at n, 2n, 4n and 8n, each in a process of its own: a table
//   growth --list           the cases' names, how each may grow, and an n for a quick look
//   growth CASE N           one case, for a profiler: only measured() is of interest
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <memory>
#include <streambuf>
#include <string>
#include <vector>

#include "Http2Client/Http2.h"
#include "Http2Client/HttpClientInterface.h"
#include "Http2Client/HttpClientInterfaceImpl.h"
#include "tests/support/bytes.h"

namespace {

using namespace h2test;  // the vocabulary of wire bytes

constexpr size_t kReadChunk = 8192;
constexpr size_t kIdleCalls = 1000;

class NullBuffer : public std::streambuf {
    int_type overflow(int_type c) override { return traits_type::not_eof(c); }
    std::streamsize xsputn(const char*, std::streamsize size) override { return size; }
};

class Client : public tiny::HttpClientInterface {
public:
    void onSocketClosed() override {}
    void onFailed(HTTP_ERROR /*err*/) override {}
    void onHeaderReceived(int /*status*/, const HeaderDef* /*headers*/, size_t /*count*/) override {
    }
    void onContentReceived(const char* /*data*/, size_t /*len*/, bool /*more*/) override {}
};

// What one case works on: prepared outside of the measurement.
struct Work {
    std::string bytes;
    size_t chunk = kReadChunk;
    size_t idleCalls = 0;    // of encodeFrame, behind the bytes
    bool bytesCount = true;  // false: the bytes only prepare the state
    tiny::Http2 engine;
    std::vector<std::unique_ptr<Client>> clients;

    void addRequests(size_t count) {
        for (size_t i = 0; i < count; ++i) {
            clients.push_back(std::make_unique<Client>());
            clients.back()->ctx()->setHttpMethod(HTTP_GET);
            clients.back()->ctx()->setHttpVersion(HTTP_2);
            engine.addHttpClient(clients.back()->ctx());
        }
    }
    void feed() {
        for (size_t at = 0; at < bytes.size(); at += chunk) {
            const size_t size = std::min(chunk, bytes.size() - at);
            if (engine.decodeFrame(bytes.data() + at, size) != 0) std::abort();
        }
    }
    void idle() {
        int status = 0;
        for (size_t i = 0; i < idleCalls; ++i) engine.encodeFrame(status);
    }
    // The opening, resets, headers and bodies; credit may be due again at every call.
    void settle() {
        int status = 0;
        for (int i = 0; i < 10; ++i) engine.encodeFrame(status);
    }
};

enum class Growth { kLinear, kConstant };

struct Case {
    const char* name;
    size_t largest;  // the table's 8n
    Growth growth;
    std::function<void(Work&, size_t)> prepare;
};

std::string repeated(const std::string& text, size_t count) {
    std::string out;
    out.reserve(text.size() * count);
    for (size_t i = 0; i < count; ++i) out += text;
    return out;
}

// A size update to more entries than any block here has.
const std::string kLargestTable = hex("3F FF FF FF FF 7F");

Case block(const char* name, size_t largest, const std::string& start, const std::string& unit) {
    return {name, largest, Growth::kLinear, [=](Work& work, size_t n) {
                work.addRequests(1);
                work.bytes = headers(1, start + repeated(unit, n));
            }};
}

Case flood(const char* name, const std::string& unit) {
    return {name, 1'000'000, Growth::kLinear, [=](Work& work, size_t n) {
                work.addRequests(1);
                work.bytes = repeated(unit, n);
            }};
}

Case frameInChunks(const char* name, size_t chunk) {
    return {name, 16'777'215, Growth::kLinear, [=](Work& work, size_t n) {
                work.addRequests(1);
                work.chunk = chunk;
                work.bytes = data(1, std::string(n, 'x'));
            }};
}

std::string distinctStreams(size_t n, const std::string& body) {
    std::string out;
    for (size_t i = 0; i < n; ++i) out += data(static_cast<uint32_t>(2 * i + 1), body, kEndStream);
    return out;
}

std::vector<Case> allCases() {
    constexpr size_t kBlock = size_t{8} << 20;
    return {
        block("literals", kBlock / 2, kLargestTable, hex("41 00")),
        block("indexed", kBlock, "", hex("82")),
        block("large_entry", kBlock,
              hpackLiteral(std::string(120, 'n'), std::string(250, 'v'), Literal::kIncremental),
              hex("BE")),
        block("size_updates", kBlock, "", hex("20")),
        block("endless_integer", kBlock, hex("FF"), hex("80")),
        block("endless_length", kBlock, hex("40 7F"), hex("80")),
        block("empty_names", kBlock / 3, kLargestTable, hex("40 00 00")),
        frameInChunks("frame_by_1", 1),
        frameInChunks("frame_by_9", 9),
        frameInChunks("frame_by_8192", kReadChunk),
        flood("empty_data", data(1, "")),
        flood("settings", settings({})),
        flood("pings", ping(1)),
        flood("window_updates", windowUpdate(0, 1)),
        flood("priorities", frame(kPriority, 0, 1, be32(3) + be8(1))),
        flood("continuations", continuation(1, "", 0)),
        flood("small_headers", headers(1, hex("82"), 0)),
        {"unknown_streams", 1'000'000, Growth::kLinear,
         [](Work& work, size_t n) {
             work.bytes = distinctStreams(n, "");
             work.idleCalls = 1;  // the resets of all
         }},
        {"filled_table", 100'000, Growth::kLinear,  // one call a block, each fills a table anew
         [](Work& work, size_t n) {
             work.addRequests(1);
             const std::string fill = repeated(hex("41 00"), 1000);
             work.bytes = repeated(headers(1, fill, 0) + ping(1), n / 1000);
         }},
        {"finished_streams", 1'000'000, Growth::kConstant,
         [](Work& work, size_t n) {
             work.bytes = distinctStreams(n, "");
             work.bytesCount = false;
             work.idleCalls = kIdleCalls;
         }},
        {"uncredited_streams", 30'000, Growth::kConstant,  // below the threshold of credit in all
         [](Work& work, size_t n) {
             work.bytes = distinctStreams(n, "x");
             work.bytesCount = false;
             work.idleCalls = kIdleCalls;
         }},
        {"credited_streams", 1'000'000, Growth::kConstant,  // above it: a WINDOW_UPDATE a call
         [](Work& work, size_t n) {
             work.bytes = distinctStreams(n, std::string(40, 'x'));
             work.bytesCount = false;
             work.idleCalls = kIdleCalls;
         }},
        {"registered_requests", 8000, Growth::kLinear,
         [](Work& work, size_t n) {
             work.addRequests(n);
             int status = 0;
             for (size_t i = 0; i < n + 2; ++i) work.engine.encodeFrame(status);  // all HEADERS
             work.bytesCount = false;
             work.idleCalls = kIdleCalls;
         }},
    };
}

}  // namespace

// What a profiler counts.
extern "C" __attribute__((noinline)) void measured(Work* work) {
    if (work->bytesCount) work->feed();
    work->idle();
}

namespace {

struct Figures {
    double seconds = 0;
    long peakKiB = 0;  // of the whole process, input included
};

double runCase(const Case& chosen, size_t n) {
    static NullBuffer silence;
    std::cout.rdbuf(&silence);
    Work work;
    chosen.prepare(work, n);
    if (!work.bytesCount) {
        work.feed();
        work.settle();
    }
    const auto start = std::chrono::steady_clock::now();
    measured(&work);
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    std::_Exit((std::fprintf(stdout, "%.6f\n", took.count()), std::fflush(stdout), 0));
}

Figures measureInChild(const Case& chosen, size_t n) {
    int pipeEnds[2];
    if (pipe(pipeEnds) != 0) std::abort();
    std::fflush(stdout);  // not to be written twice
    const pid_t process = fork();
    if (process == 0) {
        dup2(pipeEnds[1], STDOUT_FILENO);
        runCase(chosen, n);
    }
    close(pipeEnds[1]);
    Figures out;
    FILE* in = fdopen(pipeEnds[0], "r");
    const bool read = std::fscanf(in, "%lf", &out.seconds) == 1;
    std::fclose(in);
    int status = 0;
    rusage usage{};
    if (wait4(process, &status, 0, &usage) != process || status != 0 || !read) {
        std::fprintf(stderr, "growth: %s at %zu failed\n", chosen.name, n);
        std::exit(1);
    }
    out.peakKiB = usage.ru_maxrss;
    return out;
}

void printTable() {
    std::printf("%-20s %9s %10s %9s %7s %10s %9s\n", "case", "n", "ms", "ns/unit", "ratio",
                "peak KiB", "B/unit");
    for (const Case& one : allCases()) {
        const long base = measureInChild(one, 1).peakKiB;
        Figures before;
        for (size_t n = one.largest / 8; n <= one.largest; n *= 2) {
            const Figures now = measureInChild(one, n);
            std::printf("%-20s %9zu %10.2f %9.1f %7.2f %10ld %9.1f\n", one.name, n,
                        now.seconds * 1e3, now.seconds * 1e9 / static_cast<double>(n),
                        before.seconds == 0 ? 0.0 : now.seconds / before.seconds, now.peakKiB,
                        static_cast<double>(now.peakKiB - base) * 1024 / static_cast<double>(n));
            std::fflush(stdout);
            before = now;
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    const std::string first = argc > 1 ? argv[1] : "";
    if (argc == 1) {
        printTable();
        return 0;
    }
    for (const Case& one : allCases()) {
        if (first == "--list") {
            std::printf("%s %s %zu\n", one.name,
                        one.growth == Growth::kLinear ? "linear" : "constant",
                        std::max<size_t>(one.largest / 1000, 1000));
        } else if (first == one.name && argc == 3) {
            runCase(one, std::strtoul(argv[2], nullptr, 10));
        }
    }
    if (first == "--list") return 0;
    std::fprintf(stderr, "usage: growth [--list | CASE N]\n");
    return 2;
}
