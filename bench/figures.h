#ifndef HTTP2CLIENT_BENCH_FIGURES_H
#define HTTP2CLIENT_BENCH_FIGURES_H

#include <malloc.h>
#include <sys/resource.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <vector>

// What benchmark programs of the whole client measure and print.

[[noreturn]] inline void die(const char* what) {
    std::fprintf(stderr, "bench: %s\n", what);
    std::_Exit(1);
}

// To standard error: standard output has the exact edition's own lines.
inline void report(const char* name, double value) {
    std::fprintf(stderr, "%s %.9g\n", name, value);
}

inline double percentile(const std::vector<double>& sorted, double fraction) {
    return sorted[static_cast<size_t>(fraction * static_cast<double>(sorted.size() - 1))];
}

// What this process has taken so far.
struct Usage {
    Usage() {
        rusage usage{};
        getrusage(RUSAGE_SELF, &usage);
        for (const timeval& time : {usage.ru_utime, usage.ru_stime}) {
            cpu += static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
        }
        switches = static_cast<double>(usage.ru_nvcsw);
        const struct mallinfo2 heapInfo = mallinfo2();
        heap = static_cast<double>(heapInfo.uordblks + heapInfo.hblkhd);
        constexpr size_t kPageSize = 4096;
        size_t all = 0;
        size_t resident = 0;
        std::ifstream("/proc/self/statm") >> all >> resident;
        memory = static_cast<double>(resident * kPageSize);
    }
    double cpu = 0;       // seconds
    double switches = 0;  // voluntary context switches
    double heap = 0;      // bytes in use
    double memory = 0;    // bytes resident
};

#endif  // HTTP2CLIENT_BENCH_FIGURES_H
