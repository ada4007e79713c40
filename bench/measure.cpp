// Runs a command and tells what it took, as the operating system counts it: seconds of wall time
// and of processor time (user and system), peak memory in KiB, voluntary context switches.
//
//   measure FILE COMMAND [ARGUMENT]...    writes the figures to FILE; the status is the command's
//
// A small program of its own, because a child's peak memory counts what its parent had when it was
// made: a larger one would hide what the command needs.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>

namespace {

double seconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: measure FILE COMMAND [ARGUMENT]...\n");
        return 2;
    }
    const auto start = std::chrono::steady_clock::now();
    const pid_t process = fork();
    if (process == 0) {
        execvp(argv[2], argv + 2);
        std::perror(argv[2]);
        _exit(127);
    }
    int status = 0;
    rusage usage{};
    if (process < 0 || wait4(process, &status, 0, &usage) != process) return 127;
    const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - start;
    FILE* out = std::fopen(argv[1], "w");
    if (out == nullptr) return 127;
    std::fprintf(out, "wall %.6f\ncpu %.6f\npeak_kib %ld\nswitches %ld\n", wall.count(),
                 seconds(usage.ru_utime) + seconds(usage.ru_stime), usage.ru_maxrss,
                 usage.ru_nvcsw);
    if (std::fclose(out) != 0) return 127;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
}
