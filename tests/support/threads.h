#ifndef HTTP2CLIENT_TESTS_SUPPORT_THREADS_H
#define HTTP2CLIENT_TESTS_SUPPORT_THREADS_H

#include <cstddef>
#include <filesystem>
#include <iterator>

namespace h2test {

// How many threads this process has now. An ended thread is counted until the kernel removes it
// from its list, a moment after it was joined.
inline size_t threadsOfThisProcess() {
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/task"),
                                             std::filesystem::directory_iterator()));
}

}  // namespace h2test

#endif  // HTTP2CLIENT_TESTS_SUPPORT_THREADS_H
