#include "growth_cases.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <streambuf>

#include "Http2Client/HttpClientInterfaceImpl.h"
#include "tests/support/bytes.h"

namespace growth {

using namespace h2test;  // the vocabulary of wire bytes

class Client : public tiny::HttpClientInterface {
public:
    void onSocketClosed() override {}
    void onFailed(HTTP_ERROR /*err*/) override {}
    void onHeaderReceived(int /*status*/, const HeaderDef* /*headers*/, size_t /*count*/) override {
    }
    void onContentReceived(const char* /*data*/, size_t /*len*/, bool /*more*/) override {}
};

namespace {

constexpr size_t kReadChunk = 8192;
constexpr size_t kIdleCalls = 1000;
constexpr size_t kBlock = size_t{8} << 20;
constexpr size_t kFlood = 1'000'000;

// Takes the place of standard output's buffer for as long as it lives, and drops what is written.
class SilentCout : public std::streambuf {
public:
    SilentCout() : m_former(std::cout.rdbuf(this)) {}
    ~SilentCout() override { std::cout.rdbuf(m_former); }
    SilentCout(const SilentCout&) = delete;
    SilentCout& operator=(const SilentCout&) = delete;

private:
    int_type overflow(int_type c) override { return traits_type::not_eof(c); }
    std::streamsize xsputn(const char*, std::streamsize size) override { return size; }

    std::streambuf* m_former;
};

std::string repeated(const std::string& text, size_t count) {
    std::string out;
    out.reserve(text.size() * count);
    for (size_t i = 0; i < count; ++i) out += text;
    return out;
}

// A size update to more entries than any block here has.
const std::string kLargestTable = hex("3F FF FF FF FF 7F");
// A literal with incremental indexing: a static entry's name, no value.
const std::string kShortLiteral = hex("41 00");
// A reference to the newest entry.
const std::string kNewestEntry = hex("BE");

// The length of a string literal of `length` bytes, at least 127, so that the decoder reads just
// that: it takes each continuation byte whole, with its sign, so all but the last count backwards.
std::string longLength(size_t length) {
    std::string out = hex("7F");
    size_t rest = length - 127;
    for (int i = 0; i < 3; ++i) {
        out += be8(0x80 | static_cast<uint32_t>(rest & 0x7F));
        rest = (rest >> 7) + 1;
    }
    return out + be8(static_cast<uint32_t>(rest));
}

// A name that no other `i` has, of four letters.
std::string distinctName(size_t i) {
    std::string out(4, 'a');
    for (char& letter : out) {
        letter = static_cast<char>('!' + i % 90);
        i /= 90;
    }
    return out;
}

// One HEADERS frame whose block is `start` and n times `unit`.
Case block(const char* name, size_t largest, const std::string& start, const std::string& unit) {
    return {name, largest, Growth::kLinear, [=](Work& work, size_t n) {
                work.addRequests(1);
                work.bytes = headers(1, start + repeated(unit, n));
            }};
}

// n frames in a row.
Case flood(const char* name, const std::string& unit, size_t chunk = kReadChunk) {
    return {name, kFlood, Growth::kLinear, [=](Work& work, size_t n) {
                work.addRequests(1);
                work.chunk = chunk;
                work.bytes = repeated(unit, n);
            }};
}

// One DATA frame of n bytes.
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

// Idle calls after n streams that have each sent `body` and ended.
Case idleAfterStreams(const char* name, size_t largest, const std::string& body) {
    return {name, largest, Growth::kConstant, [=](Work& work, size_t n) {
                work.bytes = distinctStreams(n, body);
                work.bytesAreMeasured = false;
                work.idleCalls = kIdleCalls;
            }};
}

// A block of which one half is a table entry's name or value, the other half references to it.
Case halfText(const char* name, const std::string& before, const std::string& behind) {
    return {name, kBlock, Growth::kLinear, [=](Work& work, size_t n) {
                const std::string text(std::max<size_t>(n / 2, 127), 'x');
                work.addRequests(1);
                work.bytes = headers(1, before + longLength(text.size()) + text + behind +
                                            repeated(kNewestEntry, n / 2));
            }};
}

std::vector<Case> blocks() {
    const std::string largeEntry =
        hpackLiteral(std::string(120, 'n'), std::string(250, 'v'), Literal::kIncremental);
    return {
        block("literals", kBlock / 2, kLargestTable, kShortLiteral),
        block("indexed", kBlock, "", hex("82")),
        block("small_entry", kBlock, kShortLiteral, kNewestEntry),
        block("large_entry", kBlock, largeEntry, kNewestEntry),
        halfText("half_a_value", hex("41"), ""),
        halfText("half_a_name", hex("40"), hex("00")),
        halfText("half_a_status", hex("48"), ""),
        block("size_updates", kBlock, "", hex("20")),
        block("resized_table", kBlock / 9, "", hex("20") + kLargestTable + kShortLiteral),
        block("endless_integer", kBlock, hex("FF"), hex("80")),
        block("endless_length", kBlock, hex("40 7F"), hex("80")),
        block("empty_names", kBlock / 3, kLargestTable, hex("40 00 00")),
        {"distinct_names", kBlock / 8, Growth::kLinear,
         [](Work& work, size_t n) {
             std::string fields;
             for (size_t i = 0; i < n; ++i) fields += hpackLiteral(distinctName(i), "v");
             work.addRequests(1);
             work.bytes = headers(1, fields);
         }},
        {"settings_entries", kBlock / 6, Growth::kLinear,
         [](Work& work, size_t n) {
             work.bytes = frame(kSettings, 0, 0, repeated(be16(4) + be32(1), n));
         }},
    };
}

std::vector<Case> frames() {
    return {
        frameInChunks("frame_by_1", 1),
        frameInChunks("frame_by_9", 9),
        frameInChunks("frame_by_8192", kReadChunk),
        flood("empty_data", data(1, "")),
        flood("empty_data_by_1", data(1, ""), 1),
        flood("empty_data_by_9", data(1, ""), 9),
        flood("settings", settings({})),
        flood("pings", ping(1)),
        flood("window_updates", windowUpdate(0, 1)),
        flood("priorities", frame(kPriority, 0, 1, be32(3) + be8(1))),
        flood("continuations", continuation(1, "", 0)),
        flood("small_headers", headers(1, hex("82"), 0)),
        flood("small_headers_by_10", headers(1, hex("82"), 0), 10),
        // Each call of the client is given the headers of all frames so far, in order: a new name
        // moves those that sort behind it, half of them on the average. That grows with n * n. At
        // the tests' sizes it is lost in what a frame costs anyway, and kLinear holds; from some
        // 10,000 frames on it is what counts.
        {"header_a_frame", 40'000, Growth::kLinear,
         [](Work& work, size_t n) {
             work.addRequests(1);
             for (size_t i = 0; i < n; ++i) {
                 work.bytes += headers(1, hpackLiteral(distinctName(n - i), "v"));
             }
         }},
        // Tables filled anew by each read.
        {"filled_tables", 40'000, Growth::kLinear,
         [](Work& work, size_t n) {
             work.addRequests(1);
             work.bytes = repeated(headers(1, repeated(kShortLiteral, 100), 0) + ping(1), n);
         }},
        // One large table, and then small frames that might each pay for it.
        {"table_then_frames", kFlood, Growth::kLinear,
         [](Work& work, size_t n) {
             work.addRequests(1);
             work.chunk = 10;
             work.bytes = headers(1, kLargestTable + repeated(kShortLiteral, n), 0) +
                          repeated(headers(1, hex("82"), 0), n);
         }},
        {"table_and_frames", kFlood, Growth::kLinear,  // the same, in one call
         [](Work& work, size_t n) {
             work.addRequests(1);
             work.bytes = headers(1, kLargestTable + repeated(kShortLiteral, n), 0) +
                          repeated(headers(1, kNewestEntry, 0), n);
             work.chunk = work.bytes.size();
         }},
    };
}

std::vector<Case> streams() {
    return {
        {"unknown_streams", kFlood, Growth::kLinear,
         [](Work& work, size_t n) {
             work.bytes = distinctStreams(n, "");
             work.idleCalls = 1;  // the resets of all
         }},
        idleAfterStreams("finished_streams", kFlood, ""),
        // Below the connection's threshold of credit, and above it: a WINDOW_UPDATE a call.
        idleAfterStreams("uncredited_streams", 30'000, "x"),
        idleAfterStreams("credited_streams", kFlood, std::string(40, 'x')),
        {"registered_requests", 8000, Growth::kLinear,
         [](Work& work, size_t n) {
             work.addRequests(n);
             int status = 0;
             for (size_t i = 0; i < n + 2; ++i) work.engine.encodeFrame(status);  // all HEADERS
             work.bytesAreMeasured = false;
             work.idleCalls = kIdleCalls / 10;
         }},
    };
}

}  // namespace

Work::Work() : chunk(kReadChunk) {}
Work::~Work() = default;

void Work::addRequests(size_t count) {
    for (size_t i = 0; i < count; ++i) {
        clients.push_back(std::make_unique<Client>());
        clients.back()->ctx()->setHttpMethod(HTTP_GET);
        clients.back()->ctx()->setHttpVersion(HTTP_2);
        engine.addHttpClient(clients.back()->ctx());
    }
}

void Work::feed() {
    for (size_t at = 0; at < bytes.size(); at += chunk) {
        const size_t size = std::min(chunk, bytes.size() - at);
        if (engine.decodeFrame(bytes.data() + at, size) != 0) std::abort();
    }
}

void Work::idle() {
    int status = 0;
    for (size_t i = 0; i < idleCalls; ++i) engine.encodeFrame(status);
}

size_t Case::quick() const { return std::max<size_t>(largest / 1000, 200); }

void Case::prepare(Work& work, size_t n) const {
    fill(work, n);
    if (work.bytesAreMeasured) return;
    work.feed();
    int status = 0;
    // The opening, resets, headers and bodies; credit may be due again at every call.
    for (int i = 0; i < 10; ++i) work.engine.encodeFrame(status);
}

std::vector<Case> allCases() {
    std::vector<Case> all = blocks();
    for (Case& one : frames()) all.push_back(std::move(one));
    for (Case& one : streams()) all.push_back(std::move(one));
    return all;
}

void silenceConsole() { static const SilentCout silence; }

}  // namespace growth

extern "C" __attribute__((noinline)) void measured(growth::Work* work) {
    if (work->bytesAreMeasured) work->feed();
    work->idle();
}
