#ifndef HTTP2CLIENTSTANDARD_BASE_TIME_H
#define HTTP2CLIENTSTANDARD_BASE_TIME_H

#include <chrono>
#include <cstdint>

namespace h2 {

// Milliseconds of a clock that never goes back. What counts time takes it as an argument; only the
// loop asks the clock.
using Time = uint64_t;

constexpr Time kNever = UINT64_MAX;

inline Time steadyNow() {
    return static_cast<Time>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                 std::chrono::steady_clock::now().time_since_epoch())
                                 .count());
}

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_BASE_TIME_H
