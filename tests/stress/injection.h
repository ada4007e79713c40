#ifndef HTTP2CLIENT_TESTS_STRESS_INJECTION_H
#define HTTP2CLIENT_TESTS_STRESS_INJECTION_H

#include <atomic>
#include <cstdint>

namespace h2test {

// Makes one allocation fail. Lies in memory that child processes share.
struct Injection {
    std::atomic<uint64_t> count{0};   // allocations so far, while armed
    std::atomic<uint64_t> failAt{0};  // which of them fails; 0: none
    std::atomic<bool> armed{false};
};

// Null: nothing is counted. operator new asks this, in each of its forms, and malloc, calloc and
// realloc do for all objects that are linked with --wrap for these three (compilers turn a realloc
// of nothing into one of the others).
extern Injection* injection;

// Counts one allocation; true when it is the one to fail.
bool injectedFailure();

}  // namespace h2test

#endif  // HTTP2CLIENT_TESTS_STRESS_INJECTION_H
