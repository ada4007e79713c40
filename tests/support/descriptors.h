#ifndef HTTP2CLIENT_TESTS_SUPPORT_DESCRIPTORS_H
#define HTTP2CLIENT_TESTS_SUPPORT_DESCRIPTORS_H

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <iterator>
#include <stdexcept>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include "wait.h"

// Descriptors of the test's own process: counting, waiting, running out of them.
namespace h2test {

// How many descriptors are open. The one that reads the directory counts too, each time.
inline size_t openDescriptors() {
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                                             std::filesystem::directory_iterator()));
}

inline bool isOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

// The number that the next descriptor will have.
inline int nextDescriptor() {
    const int fd = open("/dev/null", O_RDONLY);
    if (fd == -1) throw std::runtime_error("no descriptor left");
    close(fd);
    // The caller needs the number, not the descriptor.
    // cppcheck-suppress deallocret
    return fd;
}

// Waits for one of `events` of poll(2), or, with 0, for an error or a hang-up.
[[nodiscard]] inline bool waitReady(int fd, short events,
                                    std::chrono::milliseconds limit = kWaitLimit) {
    pollfd entry{fd, events, 0};
    return poll(&entry, 1, static_cast<int>(limit.count())) == 1;
}

// Changes how many descriptors the process may have, as long as it lives.
class DescriptorLimit {
public:
    explicit DescriptorLimit(rlim_t limit) {
        getrlimit(RLIMIT_NOFILE, &m_former);
        rlimit changed = m_former;
        changed.rlim_cur = limit;
        if (setrlimit(RLIMIT_NOFILE, &changed) != 0) throw std::runtime_error("setrlimit");
    }
    ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &m_former); }
    DescriptorLimit(const DescriptorLimit&) = delete;
    DescriptorLimit& operator=(const DescriptorLimit&) = delete;

private:
    rlimit m_former;
};

// Takes every free descriptor below `end`, so that the next one is `end` or higher.
class OccupiedDescriptors {
public:
    explicit OccupiedDescriptors(int end) {
        while (nextDescriptor() < end) m_taken.push_back(open("/dev/null", O_RDONLY));
    }
    ~OccupiedDescriptors() {
        for (const int fd : m_taken) close(fd);
    }
    OccupiedDescriptors(const OccupiedDescriptors&) = delete;
    OccupiedDescriptors& operator=(const OccupiedDescriptors&) = delete;

private:
    std::vector<int> m_taken;
};

}  // namespace h2test

#endif  // HTTP2CLIENT_TESTS_SUPPORT_DESCRIPTORS_H
