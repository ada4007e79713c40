// What n units of a server's input cost the standard edition's session, for each kind of input with
// which a server could try to buy more than it pays for. The budgets that end such a connection are
// raised out of the way.
//
//   standard_growth --list   the cases' names, how each may grow, and an n
//   standard_growth CASE N   one case, for a profiler: only measured() is of interest
//
// scripts/lib/bench/instructions.py --growth runs it.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "Http2ClientStandard/session/session.h"
#include "tests/support/bytes.h"

namespace {

using namespace h2test;

constexpr size_t kChunk = size_t{64} * 1024;  // what one read gives
constexpr uint8_t kLast = kEndHeaders | kEndStream;

class Events : public h2::Visitor {
public:
    void onInterim(uint32_t, void*, uint32_t, const h2::hpack::FieldList&) override {}
    void onHeaders(uint32_t, void*, uint32_t, const h2::hpack::FieldList&) override {}
    void onData(uint32_t, void*, const char*, size_t, bool) override {}
    void onTrailers(uint32_t, void*, const h2::hpack::FieldList&) override {}
    void onEnd(uint32_t, void*, const h2::StreamEnd&) override {}
    void onSettings() override {}
    void onGoAway(const h2::GoAway&) override {}
};

h2::SessionOptions withoutBudgets() {
    h2::SessionOptions options;
    options.maxReplies = options.frameBudget = options.maxContinuations = UINT32_MAX;
    options.maxInterim = options.maxHeaderBlock = UINT32_MAX;
    return options;
}

struct Work {
    Events events;
    h2::Session session{events, withoutBudgets()};
    h2::Output output;
    std::string bytes;
    size_t chunk = kChunk;

    void send() {
        session.produce(output, kChunk, 1);
        output.clear();
    }
    void start(size_t requests) {
        const h2::hpack::Field fields[] = {
            {":method", "GET"}, {":scheme", "http"}, {":authority", "a"}, {":path", "/"}};
        receive(settings({}) + settingsAck());
        for (size_t i = 0; i < requests; ++i) session.submit({fields, false, nullptr, nullptr});
        send();
    }
    void receive(std::string_view input) {
        for (size_t at = 0; at < input.size(); at += chunk) {
            const std::string_view part = input.substr(at, chunk);
            session.receive(part.data(), part.size(), 1);
            send();
        }
    }
};

std::string repeated(const std::string& bytes, size_t count) {
    std::string out;
    for (size_t i = 0; i < count; ++i) out += bytes;
    return out;
}

const std::string kOk = hpackIndexed(8);  // :status 200

// Makes a session ready, and the input of n units.
using Prepare = void (*)(Work&, size_t n);

struct Case {
    const char* name;
    size_t n;
    Prepare prepare;
};

void prepareFlood(Work& work, const std::string& frame, size_t n) {
    work.start(1);
    work.bytes = repeated(frame, n);
}

void prepareClosed(Work& work, size_t n) {
    work.start(n);
    std::string ends;
    for (uint32_t i = 0; i < n; ++i) ends += headers(2 * i + 1, kOk, kLast);
    work.receive(ends);
    // Each on another stream, so that each is reset.
    for (uint32_t i = 0; i < n; ++i) work.bytes += data(2 * i + 1, "x");
}

const Case kCases[] = {
    {"ping", 500, [](Work& work, size_t n) { prepareFlood(work, ping(1), n); }},
    {"settings", 500,
     [](Work& work, size_t n) {
         prepareFlood(work, settings({{4, 1}, {1, 0}, {1, 4096}}), n);
     }},
    {"settings_values", 500,
     [](Work& work, size_t n) {
         prepareFlood(work, settings(std::vector(500, std::pair<uint16_t, uint32_t>(4, 1))), n);
     }},
    {"window_update", 500, [](Work& work, size_t n) { prepareFlood(work, windowUpdate(0, 1), n); }},
    {"rst_stream", 500, [](Work& work, size_t n) { prepareFlood(work, rstStream(1, 8), n); }},
    {"unknown", 500, [](Work& work, size_t n) { prepareFlood(work, frame(99, 0, 7, "?"), n); }},
    {"empty_data", 500,
     [](Work& work, size_t n) {
         prepareFlood(work, data(1, ""), n);
         work.receive(headers(1, kOk));
     }},
    {"continuation", 500,
     [](Work& work, size_t n) {
         prepareFlood(work, continuation(1, "\x88", 0), n);
         work.receive(headers(1, kOk, 0));
     }},
    {"interim", 500,
     [](Work& work, size_t n) { prepareFlood(work, headers(1, hpackLiteral(8, "103")), n); }},
    {"references", 5,
     [](Work& work, size_t n) {
         const std::string entry = hpackLiteral("n", std::string(3000, 'v'), Literal::kIncremental);
         work.start(n);
         for (uint32_t i = 0; i < n; ++i) {
             work.bytes += headers(2 * i + 1, kOk + entry + std::string(12000, '\xbe'));
         }
     }},
    {"table_turnover", 500,
     [](Work& work, size_t n) {
         work.start(n);
         const std::string entry = hpackLiteral("n", "v", Literal::kIncremental);
         for (uint32_t i = 0; i < n; ++i) {
             work.bytes += headers(2 * i + 1, kOk + repeated(entry, 10), kLast);
         }
     }},
    {"table_resized", 100,
     [](Work& work, size_t n) {
         const std::string resize = hex("20 3f e1 1f");  // to 0 and to 4096
         const std::string entry = hpackLiteral("n", "v", Literal::kIncremental);
         work.start(n);
         for (uint32_t i = 0; i < n; ++i) {
             work.bytes += headers(2 * i + 1, repeated(resize, 100) + kOk + entry, kLast);
         }
     }},
    {"closed_streams", 500, prepareClosed},
    {"single_bytes", 5000,
     [](Work& work, size_t n) {
         work.start(1);
         work.bytes = headers(1, kOk) + frame(99, 0, 1, std::string(16000, '?'));
         work.bytes += repeated(data(1, std::string(100, 'x')), n / 100);
         work.bytes.resize(n);
         work.chunk = 1;
     }},
    {"promises", 500,
     [](Work& work, size_t n) {
         const h2::hpack::Field fields[] = {
             {":method", "GET"}, {":scheme", "http"}, {":path", "/"}};
         work.receive(settings({}));
         work.session.submit({fields, false, nullptr, nullptr});
         work.send();
         for (uint32_t i = 1; i <= n; ++i) {
             work.bytes += frame(kPushPromise, kEndHeaders, 1, be32(2 * i) + kOk);
         }
     }},
};

}  // namespace

extern "C" __attribute__((noinline)) void measured(Work* work) { work->receive(work->bytes); }

int main(int argc, char** argv) {
    if (argc == 2 && std::string_view(argv[1]) == "--list") {
        for (const Case& one : kCases) std::printf("%s linear %zu\n", one.name, one.n);
        return 0;
    }
    for (const Case& one : kCases) {
        if (argc != 3 || std::string_view(argv[1]) != one.name) continue;
        Work work;
        one.prepare(work, std::strtoul(argv[2], nullptr, 10));
        measured(&work);
        if (work.session.error() == nullptr) return 0;
        std::fprintf(stderr, "%s: %s\n", one.name, work.session.error()->reason);
        return 1;
    }
    std::fprintf(stderr, "usage: standard_growth --list | CASE N\n");
    return 2;
}
