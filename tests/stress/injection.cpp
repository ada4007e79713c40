#include "injection.h"

#include <cstdlib>
#include <new>

namespace h2test {

Injection* injection = nullptr;

bool injectedFailure() {
    if (injection == nullptr || !injection->armed) return false;
    return ++injection->count == injection->failAt;
}

}  // namespace h2test

void* operator new(size_t size) {
    void* block = h2test::injectedFailure() ? nullptr : std::malloc(size == 0 ? 1 : size);
    if (block == nullptr) throw std::bad_alloc();
    return block;
}
void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, size_t /*size*/) noexcept { std::free(block); }

// The linker's names.
extern "C" void* __real_realloc(void* block, size_t size);
extern "C" void* __wrap_realloc(void* block, size_t size) {
    return h2test::injectedFailure() ? nullptr : __real_realloc(block, size);
}
