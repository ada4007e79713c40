#include "interposed.h"

#include <dlfcn.h>
#include <netdb.h>
#include <sys/socket.h>

#include <cstdlib>
#include <new>
#include <utility>

namespace h2test {

namespace {

thread_local Allocations allocations;
thread_local bool failing = false;
constexpr long kNever = 1L << 60;
thread_local long failsBehind = kNever;  // -1: has failed
thread_local const char* received = nullptr;
thread_local size_t receivedSize = 0;

void* allocate(size_t size) noexcept {
    if (failing) return nullptr;
    if (failsBehind >= 0 && failsBehind-- == 0) return nullptr;
    ++allocations.calls;
    allocations.bytes += size;
    return std::malloc(size == 0 ? 1 : size);
}

template <typename Function>
Function systems(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

Allocations allocationsOfThisThread() { return allocations; }

void failAllocationsOfThisThread() { failing = true; }

long failAllocationOfThisThreadBehind(long count) { return std::exchange(failsBehind, count); }

bool liesInLastReceived(const char* data, size_t size) {
    return data >= received && data + size <= received + receivedSize;
}

Names& Names::get() {
    static Names names;
    return names;
}

void Names::set(const std::string& name, std::vector<std::string> known) {
    const std::lock_guard<std::mutex> hold(lock);
    addresses[name] = std::move(known);
}

std::vector<std::thread::id> Names::takeLookUps() {
    const std::lock_guard<std::mutex> hold(lock);
    return std::exchange(lookUps, {});
}

}  // namespace h2test

void* operator new(size_t size) {
    void* block = h2test::allocate(size);
    if (block == nullptr) throw std::bad_alloc();
    return block;
}
void* operator new(size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return h2test::allocate(size);
}
void* operator new[](size_t size) { return operator new(size); }
void* operator new[](size_t size, const std::nothrow_t& tag) noexcept {
    return operator new(size, tag);
}
void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, size_t /*size*/) noexcept { std::free(block); }
void operator delete(void* block, const std::nothrow_t& /*tag*/) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete[](void* block, size_t /*size*/) noexcept { std::free(block); }
void operator delete[](void* block, const std::nothrow_t& /*tag*/) noexcept { std::free(block); }

extern "C" {

ssize_t recv(int descriptor, void* buffer, size_t size, int flags) {
    static const auto real = h2test::systems<decltype(&recv)>("recv");
    const ssize_t result = real(descriptor, buffer, size, flags);
    if (result > 0) {
        h2test::received = static_cast<const char*>(buffer);
        h2test::receivedSize = static_cast<size_t>(result);
    }
    return result;
}

int getaddrinfo(const char* host, const char* service, const addrinfo* hints, addrinfo** found) {
    static const auto real = h2test::systems<decltype(&getaddrinfo)>("getaddrinfo");
    h2test::Names& names = h2test::Names::get();
    const std::lock_guard<std::mutex> hold(names.lock);
    const auto known = host == nullptr ? names.addresses.end() : names.addresses.find(host);
    if (known == names.addresses.end()) return real(host, service, hints, found);
    names.lookUps.push_back(std::this_thread::get_id());
    if (known->second.empty()) return EAI_AGAIN;
    addrinfo** end = found;
    for (const std::string& address : known->second) {
        const int result = real(address.c_str(), service, hints, end);
        if (result != 0) return result;
        end = &(*end)->ai_next;
    }
    return 0;
}

}  // extern "C"
