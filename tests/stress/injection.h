#ifndef HTTP2CLIENT_TESTS_STRESS_INJECTION_H
#define HTTP2CLIENT_TESTS_STRESS_INJECTION_H

#include <atomic>
#include <cstdint>

namespace h2test {

// Makes one allocation fail. Kept in memory shared with child processes.
struct Injection {
    std::atomic<uint64_t> count{0};   // allocations so far, while armed
    std::atomic<uint64_t> failAt{0};  // which of them fails; 0: none
    std::atomic<bool> armed{false};
};

// Null: nothing is counted. Every form of operator new uses it. So do malloc, calloc and realloc in
// all objects that are linked with --wrap for these three (compilers turn a realloc of null into
// one of the others).
extern Injection* injection;

// Counts one allocation; true when it is the one to fail.
bool injectedFailure();

}  // namespace h2test

#endif  // HTTP2CLIENT_TESTS_STRESS_INJECTION_H
