#ifndef HTTP2CLIENT_BENCH_CALLS_H
#define HTTP2CLIENT_BENCH_CALLS_H

#include <cstdint>

// How many steps the library's poll loop has begun, and how often it has sent something.
uint64_t pollSteps();
uint64_t sends();

#endif  // HTTP2CLIENT_BENCH_CALLS_H
