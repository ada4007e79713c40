#include "injection.h"

#include <algorithm>
#include <cstdlib>
#include <new>

namespace h2test {

Injection* injection = nullptr;

bool injectedFailure() {
    if (injection == nullptr || !injection->armed) return false;
    return ++injection->count == injection->failAt;
}

}  // namespace h2test

// The linker's names.
extern "C" void* __real_malloc(size_t size);
extern "C" void* __real_calloc(size_t count, size_t size);
extern "C" void* __real_realloc(void* block, size_t size);
extern "C" void* __wrap_malloc(size_t size) {
    return h2test::injectedFailure() ? nullptr : __real_malloc(size);
}
extern "C" void* __wrap_calloc(size_t count, size_t size) {
    return h2test::injectedFailure() ? nullptr : __real_calloc(count, size);
}
extern "C" void* __wrap_realloc(void* block, size_t size) {
    return h2test::injectedFailure() ? nullptr : __real_realloc(block, size);
}

void* operator new(size_t size) {
    void* block = h2test::injectedFailure() ? nullptr : __real_malloc(size == 0 ? 1 : size);
    if (block == nullptr) throw std::bad_alloc();
    return block;
}
void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, size_t /*size*/) noexcept { std::free(block); }

// The C++ library's own call those above, a sanitizer's do not.
void* operator new[](size_t size) { return operator new(size); }
void operator delete[](void* block) noexcept { operator delete(block); }
void operator delete[](void* block, size_t /*size*/) noexcept { operator delete(block); }

// What the containers of std::pmr use, also where nothing is aligned.
void* operator new(size_t size, std::align_val_t alignment) {
    void* block = nullptr;
    const size_t aligned = std::max(static_cast<size_t>(alignment), sizeof(void*));
    if (h2test::injectedFailure() || posix_memalign(&block, aligned, size) != 0) {
        throw std::bad_alloc();
    }
    return block;
}
void operator delete(void* block, std::align_val_t /*alignment*/) noexcept { std::free(block); }
void operator delete(void* block, size_t /*size*/, std::align_val_t /*alignment*/) noexcept {
    std::free(block);
}
