#include "interrupt.h"

#include <atomic>

#include <unistd.h>

#include "options.h"

namespace {

std::atomic<bool> interrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free, "the signal handler uses it");

extern "C" void onInterrupt(int) {
    if (interrupted.exchange(true)) _exit(EXIT_INTERRUPTED);
}

}  // namespace

void catchInterrupts() {
    struct sigaction action {};
    if (sigaction(SIGINT, nullptr, &action) != 0 || action.sa_handler == SIG_IGN) return;
    action = {};
    action.sa_handler = onInterrupt;
    sigaction(SIGINT, &action, nullptr);
}

bool isInterrupted() { return interrupted; }

BlockedInterrupts::BlockedInterrupts() : m_before() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    pthread_sigmask(SIG_BLOCK, &set, &m_before);
}

BlockedInterrupts::~BlockedInterrupts() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
