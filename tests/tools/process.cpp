#include "process.h"

#include <array>
#include <climits>
#include <csignal>
#include <cstdint>
#include <fstream>
#include <stdexcept>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/wait.h"

namespace h2test {

namespace {

void require(bool ok, const char* what) {
    if (!ok) throw std::runtime_error(std::string(what) + " failed");
}

void closeFd(int& fd) {
    if (fd != -1) close(fd);
    fd = -1;
}

// The two ends of a pipe or a terminal. They close on exec; the child gets its own copies.
struct Ends {
    explicit Ends(bool terminal) {
        int fds[2] = {-1, -1};
        const int result =
            terminal ? openpty(&fds[0], &fds[1], nullptr, nullptr, nullptr) : pipe(fds);
        require(result == 0, "pipe or openpty");
        for (const int fd : fds) fcntl(fd, F_SETFD, FD_CLOEXEC);
        read = fds[0];
        write = fds[1];
    }
    int read;
    int write;
};

}  // namespace

Process::Process(const std::string& program, const std::vector<std::string>& arguments,
                 const Streams& streams) {
    Ends input(false);
    Ends output(streams.terminalOutput);
    Ends errors(streams.terminalErrors);
    if (!streams.outputFile.empty()) {
        closeFd(output.write);
        output.write = open(streams.outputFile.c_str(), O_WRONLY | O_CLOEXEC);
        require(output.write != -1, "open");
    }
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    m_pid = fork();
    require(m_pid != -1, "fork");
    if (m_pid == 0) {
        ::signal(SIGPIPE, SIG_DFL);
        ::signal(SIGINT, SIG_DFL);
        if (!streams.closedInput) dup2(input.read, STDIN_FILENO);
        if (!streams.closedOutput) dup2(output.write, STDOUT_FILENO);
        dup2(errors.write, STDERR_FILENO);
        if (streams.closedInput) close(STDIN_FILENO);
        if (streams.closedOutput) close(STDOUT_FILENO);
        execv(program.c_str(), argv.data());
        _exit(127);
    }
    closeFd(input.read);
    closeFd(output.write);
    closeFd(errors.write);
    m_input = input.write;
    m_outputFd = output.read;
    m_errorFd = errors.read;
    m_readsOutput = !streams.unreadOutput;
    m_reader = std::thread([this] { capture(); });
}

Process::~Process() {
    if (m_pid != -1) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    m_dropsOutput = m_dropsOutput || !m_readsOutput;
    if (m_reader.joinable()) m_reader.join();
    closeFd(m_input);
}

// Reads both streams to their ends. A terminal's end is an error (EIO).
void Process::capture() {
    static thread_local std::array<char, 65536> buffer;
    const auto take = [this](int& fd, std::string& text) {
        const ssize_t n = read(fd, buffer.data(), buffer.size());
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (n > 0) text.append(buffer.data(), static_cast<size_t>(n));
        if (n <= 0) closeFd(fd);
    };
    while (m_outputFd != -1 || m_errorFd != -1) {
        if (m_dropsOutput) closeFd(m_outputFd);
        std::array<pollfd, 2> ready{
            {{m_readsOutput ? m_outputFd : -1, POLLIN, 0}, {m_errorFd, POLLIN, 0}}};
        poll(ready.data(), 2, 5);
        if (ready[0].revents != 0) take(m_outputFd, m_ended.output);
        if (ready[1].revents != 0) take(m_errorFd, m_ended.errors);
        m_changed.notify_all();
    }
}

bool Process::writeInput(std::string_view bytes) {
    while (!bytes.empty()) {
        pollfd ready{m_input, POLLOUT, 0};
        if (poll(&ready, 1, static_cast<int>(kProcessLimit.count())) != 1) return false;
        const ssize_t n = write(m_input, bytes.data(), std::min<size_t>(bytes.size(), PIPE_BUF));
        if (n <= 0) return false;
        bytes.remove_prefix(static_cast<size_t>(n));
    }
    return true;
}

void Process::closeInput() { closeFd(m_input); }

void Process::closeOutput() { m_dropsOutput = true; }

void Process::signal(int number) const { kill(m_pid, number); }

bool Process::handles(int number) const {
    std::ifstream status("/proc/" + std::to_string(m_pid) + "/status");
    for (std::string name; status >> name;) {
        if (name != "SigCgt:") continue;
        uint64_t signals = 0;  // signal 1 is the lowest bit
        status >> std::hex >> signals;
        return (signals >> (number - 1) & 1) != 0;
    }
    return false;
}

size_t Process::residentBytes() const {
    std::ifstream statm("/proc/" + std::to_string(m_pid) + "/statm");
    size_t total = 0;
    size_t resident = 0;
    statm >> total >> resident;
    return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

bool Process::waitOutput(std::string_view text) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, kProcessLimit,
                              [&] { return m_ended.output.find(text) != std::string::npos; });
}

Ended Process::wait() {
    int status = 0;
    const bool ended =
        waitFor([&] { return waitpid(m_pid, &status, WNOHANG) == m_pid; }, kProcessLimit);
    if (!ended) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, &status, 0);
    }
    m_pid = -1;
    m_dropsOutput = m_dropsOutput || !m_readsOutput;
    m_reader.join();
    m_ended.code = !ended                ? -1
                   : WIFSIGNALED(status) ? 1000 + WTERMSIG(status)
                                         : WEXITSTATUS(status);
    return m_ended;
}

Ended run(const std::string& program, const std::vector<std::string>& arguments,
          std::string_view input, const Streams& streams) {
    Process process(program, arguments, streams);
    if (!process.writeInput(input)) throw std::runtime_error("the process takes no input");
    process.closeInput();
    return process.wait();
}

Ended runTool(const std::vector<std::string>& arguments, std::string_view input,
              const Streams& streams) {
    return run(H2REQUEST_PROGRAM, arguments, input, streams);
}

}  // namespace h2test
