#ifndef HTTP2CLIENT_TESTS_TOOLS_PROCESS_H
#define HTTP2CLIENT_TESTS_TOOLS_PROCESS_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <sys/types.h>

namespace h2test {

// Longer than any limit of the server's, so that a test ends for the reason it is about.
constexpr std::chrono::milliseconds kProcessLimit{60000};

// How a process's standard streams start. Its SIGPIPE and SIGINT have the default disposition.
struct Streams {
    bool closedInput = false;     // default: a pipe
    bool closedOutput = false;    // default: a pipe, read as the process writes
    bool unreadOutput = false;    // a pipe that is not read
    bool terminalOutput = false;  // a terminal
    bool terminalErrors = false;  // standard error is a terminal; default: a pipe
    std::string outputFile;       // an existing file
};

// What a process has written, and with what it has ended.
struct Ended {
    int code = -1;
    std::string output;
    std::string errors;
};

// A running program and what it has written. Destruction kills it.
class Process {
public:
    Process(const std::string& program, const std::vector<std::string>& arguments,
            const Streams& streams = {});
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    // Hands `bytes` to standard input; false when the process does not take them.
    bool writeInput(std::string_view bytes);
    void closeInput();
    // No reader is left for what the process writes from now on.
    void closeOutput();
    void signal(int number) const;
    // Whether it has a handler for the signal by now.
    bool handles(int number) const;
    // What it has in memory now.
    size_t residentBytes() const;

    // Waits for `text` in what has been written to standard output.
    [[nodiscard]] bool waitOutput(std::string_view text);
    // Waits for the end of the process and of its output. The code is 1000 and the signal's number
    // when it was killed; -1, after killing it, when it does not end.
    Ended wait();

private:
    void capture();

    pid_t m_pid = -1;  // -1 when it has been waited for
    int m_input = -1;
    int m_outputFd = -1;  // these two are the reader's
    int m_errorFd = -1;
    std::atomic<bool> m_readsOutput{true};
    std::atomic<bool> m_dropsOutput{false};
    std::mutex m_mutex;
    std::condition_variable m_changed;
    Ended m_ended;  // guarded by m_mutex
    std::thread m_reader;
};

// Runs a program to its end, with `input` on standard input.
Ended run(const std::string& program, const std::vector<std::string>& arguments,
          std::string_view input = {}, const Streams& streams = {});

// The same with h2request.
Ended runTool(const std::vector<std::string>& arguments, std::string_view input = {},
              const Streams& streams = {});

}  // namespace h2test

#endif  // HTTP2CLIENT_TESTS_TOOLS_PROCESS_H
