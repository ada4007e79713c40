#include "guarded.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <sys/mman.h>
#include <unistd.h>

namespace h2test {

GuardedBytes::GuardedBytes(std::string_view bytes, std::string_view after) : m_size(bytes.size()) {
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t used = bytes.size() + after.size();
    const size_t readable = (used + page - 1) / page * page;
    m_regionSize = readable + page;
    m_region =
        mmap(nullptr, m_regionSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    char* const guard = static_cast<char*>(m_region) + readable;
    if (m_region == MAP_FAILED || mprotect(guard, page, PROT_NONE) != 0) {
        std::perror("h2test::GuardedBytes");
        std::abort();
    }
    m_data = guard - used;
    if (!bytes.empty()) std::memcpy(m_data, bytes.data(), bytes.size());
    if (!after.empty()) std::memcpy(m_data + bytes.size(), after.data(), after.size());
}

GuardedBytes::~GuardedBytes() { munmap(m_region, m_regionSize); }

}  // namespace h2test
