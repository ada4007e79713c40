#include "counting.h"

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <new>

namespace h2test {

Allocations allocations;

namespace {

void* taken(void* block, size_t size) {
    if (block == nullptr) std::abort();
    ++allocations.calls;
    allocations.bytes += size;
    allocations.held += malloc_usable_size(block);
    allocations.peak = std::max(allocations.peak, allocations.held);
    return block;
}

void* given(void* block) {
    if (block != nullptr) allocations.held -= malloc_usable_size(block);
    return block;
}

}  // namespace

}  // namespace h2test

// The linker's names.
extern "C" void* __real_malloc(size_t size);
extern "C" void* __real_calloc(size_t count, size_t size);
extern "C" void* __real_realloc(void* block, size_t size);
extern "C" void __real_free(void* block);
extern "C" void* __wrap_malloc(size_t size) { return h2test::taken(__real_malloc(size), size); }
extern "C" void* __wrap_calloc(size_t count, size_t size) {
    return h2test::taken(__real_calloc(count, size), count * size);
}
extern "C" void* __wrap_realloc(void* block, size_t size) {
    return h2test::taken(__real_realloc(h2test::given(block), size), size);
}
extern "C" void __wrap_free(void* block) { __real_free(h2test::given(block)); }

void* operator new(size_t size) { return h2test::taken(__real_malloc(size == 0 ? 1 : size), size); }
void operator delete(void* block) noexcept { __real_free(h2test::given(block)); }
void operator delete(void* block, size_t /*size*/) noexcept { operator delete(block); }

// The C++ library's own call those above, a sanitizer's do not.
void* operator new[](size_t size) { return operator new(size); }
void operator delete[](void* block) noexcept { operator delete(block); }
void operator delete[](void* block, size_t /*size*/) noexcept { operator delete(block); }

// What the containers of std::pmr use, also where nothing is aligned.
void* operator new(size_t size, std::align_val_t alignment) {
    void* block = nullptr;
    const size_t aligned = std::max(static_cast<size_t>(alignment), sizeof(void*));
    if (posix_memalign(&block, aligned, size) != 0) std::abort();
    return h2test::taken(block, size);
}
void operator delete(void* block, std::align_val_t /*alignment*/) noexcept {
    operator delete(block);
}
void operator delete(void* block, size_t /*size*/, std::align_val_t /*alignment*/) noexcept {
    operator delete(block);
}
