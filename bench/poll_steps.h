#ifndef HTTP2CLIENT_BENCH_POLL_STEPS_H
#define HTTP2CLIENT_BENCH_POLL_STEPS_H

#include <cstdint>

// How many steps the library's poll loop has begun.
uint64_t pollSteps();

#endif  // HTTP2CLIENT_BENCH_POLL_STEPS_H
