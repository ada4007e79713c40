#ifndef HTTP2CLIENT_TOOLS_INTERRUPT_H
#define HTTP2CLIENT_TOOLS_INTERRUPT_H

#include <csignal>

// Turns Ctrl-C (SIGINT) into a flag for the main thread to look at. A second one ends the process
// at once. Where SIGINT was ignored from the start, as under nohup, it stays ignored.
void catchInterrupts();
bool isInterrupted();

// Blocks SIGINT in this thread while it lives, and so for good in the threads that are started
// meanwhile: a system call of theirs must not be cut short.
class BlockedInterrupts {
public:
    BlockedInterrupts();
    ~BlockedInterrupts();
    BlockedInterrupts(const BlockedInterrupts&) = delete;
    BlockedInterrupts& operator=(const BlockedInterrupts&) = delete;

private:
    sigset_t m_before;
};

#endif  // HTTP2CLIENT_TOOLS_INTERRUPT_H
