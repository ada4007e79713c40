#ifndef HTTP2CLIENT_BENCH_GROWTH_CASES_H
#define HTTP2CLIENT_BENCH_GROWTH_CASES_H

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Http2Client/Http2.h"
#include "Http2Client/HttpClientInterface.h"

// The kinds of input with which a server could try to buy more than it pays for, each in any size.
namespace growth {

class Client;

// What one case works on: made ready outside of the measurement.
struct Work {
    Work();
    ~Work();

    std::string bytes;             // what the server sends
    size_t chunk;                  // how much of it one call gets
    size_t idleCalls = 0;          // of encodeFrame, behind the bytes
    bool bytesAreMeasured = true;  // false: the bytes only lead to the state
    std::vector<std::unique_ptr<Client>> clients;
    tiny::Http2 engine;  // ends before those it tells so

    void addRequests(size_t count);
    void feed();
    void idle();
};

enum class Growth { kLinear, kConstant };

struct Case {
    const char* name;
    size_t largest;  // number of units: the input sizes named in docs/security.md
    Growth growth;
    std::function<void(Work&, size_t)> fill;

    // A number of units at which the case takes milliseconds.
    size_t quick() const;
    // Fills `work` for n units, up to what is to be measured.
    void prepare(Work& work, size_t n) const;
};

std::vector<Case> allCases();

// Drops what is written to std::cout from now on.
void silenceConsole();

}  // namespace growth

// The part of a case whose cost counts. A profiler knows it by this name.
extern "C" void measured(growth::Work* work);

#endif  // HTTP2CLIENT_BENCH_GROWTH_CASES_H
