#ifndef HTTP2CLIENT_TESTS_COST_COUNTING_H
#define HTTP2CLIENT_TESTS_COST_COUNTING_H

#include <cstddef>

namespace h2test {

// What operator new has been asked for, in each of its forms, and malloc, calloc, realloc and free
// by objects that are linked with --wrap for these four (compilers turn a realloc of nothing into a
// malloc or calloc). For programs of one thread.
struct Allocations {
    size_t calls = 0;  // that returned a block
    size_t bytes = 0;  // asked for by them
    size_t held = 0;   // in blocks not freed yet, as the allocator rounds them up
    size_t peak = 0;   // the most that `held` has been
};

extern Allocations allocations;

}  // namespace h2test

#endif  // HTTP2CLIENT_TESTS_COST_COUNTING_H
