// What n units of input cost, for each kind of input with which a server could try to buy more than
// it pays for. See docs/security.md.
//
//   growth                  every case at n, 2n, 4n and 8n, each in a process of its own: a table
//   growth --list           the cases' names, how each may grow, and an n for a quick look
//   growth CASE N           one case, for a profiler: only measured() is of interest
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "growth_cases.h"

namespace {

using growth::Case;
using growth::Growth;
using growth::Work;

struct Figures {
    double seconds = 0;
    long peakKiB = 0;  // of the whole process, input included
};

[[noreturn]] void runCase(const Case& chosen, size_t n) {
    growth::silenceConsole();
    Work work;
    chosen.prepare(work, n);
    const auto start = std::chrono::steady_clock::now();
    measured(&work);
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    std::printf("%.6f\n", took.count());
    std::fflush(stdout);
    std::_Exit(0);
}

Figures measureInChild(const Case& chosen, size_t n) {
    int pipeEnds[2];
    if (pipe(pipeEnds) != 0) std::abort();
    std::fflush(stdout);  // not to be written twice
    const pid_t process = fork();
    if (process == 0) {
        dup2(pipeEnds[1], STDOUT_FILENO);
        runCase(chosen, n);
    }
    close(pipeEnds[1]);
    Figures out;
    FILE* in = fdopen(pipeEnds[0], "r");
    const bool read = std::fscanf(in, "%lf", &out.seconds) == 1;
    std::fclose(in);
    int status = 0;
    rusage usage{};
    if (wait4(process, &status, 0, &usage) != process || status != 0 || !read) {
        std::fprintf(stderr, "growth: %s at %zu failed\n", chosen.name, n);
        std::exit(1);
    }
    out.peakKiB = usage.ru_maxrss;
    return out;
}

void printTable() {
    std::printf("%-20s %9s %10s %9s %7s %10s %9s\n", "case", "n", "ms", "ns/unit", "ratio",
                "peak KiB", "B/unit");
    for (const Case& one : growth::allCases()) {
        const long base = measureInChild(one, 1).peakKiB;
        Figures before;
        for (size_t n = one.largest / 8; n <= one.largest; n *= 2) {
            const Figures now = measureInChild(one, n);
            std::printf("%-20s %9zu %10.2f %9.1f %7.2f %10ld %9.1f\n", one.name, n,
                        now.seconds * 1e3, now.seconds * 1e9 / static_cast<double>(n),
                        before.seconds == 0 ? 0.0 : now.seconds / before.seconds, now.peakKiB,
                        static_cast<double>(now.peakKiB - base) * 1024 / static_cast<double>(n));
            std::fflush(stdout);
            before = now;
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    const std::string first = argc > 1 ? argv[1] : "";
    if (argc == 1) {
        printTable();
        return 0;
    }
    for (const Case& one : growth::allCases()) {
        if (first == "--list") {
            std::printf("%s %s %zu\n", one.name,
                        one.growth == Growth::kLinear ? "linear" : "constant", one.quick());
        } else if (first == one.name && argc == 3) {
            runCase(one, std::strtoul(argv[2], nullptr, 10));
        }
    }
    if (first == "--list") return 0;
    std::fprintf(stderr, "usage: growth [--list | CASE N]\n");
    return 2;
}
