#include "process.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <fstream>
#include <stdexcept>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/wait.h"

namespace h2test {

namespace {

void require(bool ok, const char* what) {
    if (!ok) throw std::runtime_error(std::string(what) + " failed");
}

// Both ends close on exec; the child gets its own copies.
void makePipe(int& readEnd, int& writeEnd) {
    std::array<int, 2> fds{};
    require(pipe2(fds.data(), O_CLOEXEC) == 0, "pipe2");
    readEnd = fds[0];
    writeEnd = fds[1];
}

void closeFd(int& fd) {
    if (fd != -1) close(fd);
    fd = -1;
}

// posix_spawn's settings, freed at the end.
class SpawnSettings {
public:
    SpawnSettings() {
        posix_spawn_file_actions_init(&m_actions);
        posix_spawnattr_init(&m_attributes);
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGPIPE);
        sigaddset(&signals, SIGINT);
        posix_spawnattr_setsigdefault(&m_attributes, &signals);
        posix_spawnattr_setflags(&m_attributes, POSIX_SPAWN_SETSIGDEF);
    }
    ~SpawnSettings() {
        posix_spawn_file_actions_destroy(&m_actions);
        posix_spawnattr_destroy(&m_attributes);
    }
    SpawnSettings(const SpawnSettings&) = delete;
    SpawnSettings& operator=(const SpawnSettings&) = delete;

    void give(int fd, int as) { posix_spawn_file_actions_adddup2(&m_actions, fd, as); }
    void takeAway(int fd) { posix_spawn_file_actions_addclose(&m_actions, fd); }
    pid_t spawn(const std::string& program, const std::vector<std::string>& arguments) {
        std::vector<char*> argv{const_cast<char*>(program.c_str())};
        for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
        argv.push_back(nullptr);
        pid_t pid = -1;
        require(posix_spawn(&pid, program.c_str(), &m_actions, &m_attributes, argv.data(),
                            environ) == 0,
                "posix_spawn");
        return pid;
    }

private:
    posix_spawn_file_actions_t m_actions;
    posix_spawnattr_t m_attributes;
};

}  // namespace

Process::Process(const std::string& program, const std::vector<std::string>& arguments,
                 const Streams& streams) {
    SpawnSettings settings;
    int childInput = -1;
    int childOutput = -1;
    int childErrors = -1;
    makePipe(childInput, m_input);
    if (streams.outputFile.empty()) {
        makePipe(m_outputFd, childOutput);
    } else {
        childOutput = open(streams.outputFile.c_str(), O_WRONLY | O_CLOEXEC);
        require(childOutput != -1, "open");
    }
    if (streams.terminalErrors) {
        require(openpty(&m_errorFd, &childErrors, nullptr, nullptr, nullptr) == 0, "openpty");
        fcntl(m_errorFd, F_SETFD, FD_CLOEXEC);
        fcntl(childErrors, F_SETFD, FD_CLOEXEC);
    } else {
        makePipe(m_errorFd, childErrors);
    }
    if (streams.closedInput) {
        settings.takeAway(STDIN_FILENO);
    } else {
        settings.give(childInput, STDIN_FILENO);
    }
    if (streams.closedOutput) {
        settings.takeAway(STDOUT_FILENO);
    } else {
        settings.give(childOutput, STDOUT_FILENO);
    }
    settings.give(childErrors, STDERR_FILENO);
    m_pid = settings.spawn(program, arguments);
    closeFd(childInput);
    closeFd(childOutput);
    closeFd(childErrors);

    require(pipe2(m_stop, O_CLOEXEC) == 0, "pipe2");
    if (streams.unreadOutput) {
        m_unread = m_outputFd;
        m_outputFd = -1;
    }
    if (m_outputFd == -1) {
        m_output.ended = true;
    } else {
        m_outputReader = std::thread([this] { capture(m_outputFd, m_output); });
    }
    m_errorReader = std::thread([this] { capture(m_errorFd, m_errors); });
}

Process::~Process() {
    if (m_pid != -1) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    if (m_outputReader.joinable()) m_outputReader.join();
    m_errorReader.join();
    closeFd(m_input);
    closeFd(m_unread);
    closeFd(m_outputFd);
    closeFd(m_errorFd);
    closeFd(m_stop[0]);
    closeFd(m_stop[1]);
}

// Reads to the end. A terminal's end is an error (EIO).
void Process::capture(int fd, Captured& captured) {
    static thread_local std::array<char, 65536> buffer;
    while (true) {
        std::array<pollfd, 2> ready{{{fd, POLLIN, 0}, {m_stop[0], POLLIN, 0}}};
        const bool stoppable = &captured == &m_output;
        if (poll(ready.data(), stoppable ? 2 : 1, -1) < 0 && errno == EINTR) continue;
        const bool stopped = stoppable && ready[1].revents != 0;
        const ssize_t n = stopped ? 0 : read(fd, buffer.data(), buffer.size());
        if (n < 0 && errno == EINTR) continue;
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (n > 0) captured.text.append(buffer.data(), static_cast<size_t>(n));
        if (n <= 0) captured.ended = true;
        m_changed.notify_all();
        if (n <= 0) return;
    }
}

bool Process::writeInput(std::string_view bytes) {
    while (!bytes.empty()) {
        pollfd ready{m_input, POLLOUT, 0};
        if (poll(&ready, 1, static_cast<int>(kProcessLimit.count())) != 1) return false;
        const size_t size = std::min<size_t>(bytes.size(), PIPE_BUF);
        const ssize_t n = write(m_input, bytes.data(), size);
        if (n <= 0) return false;
        bytes.remove_prefix(static_cast<size_t>(n));
    }
    return true;
}

void Process::closeInput() { closeFd(m_input); }

void Process::closeOutput() {
    if (m_outputReader.joinable()) {
        require(write(m_stop[1], "", 1) == 1, "write");
        m_outputReader.join();
    }
    closeFd(m_outputFd);
    closeFd(m_unread);
}

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

bool Process::waitText(const Captured& captured, std::string_view text,
                       std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> lock(m_mutex);
    const auto found = [&] { return captured.text.find(text) != std::string::npos; };
    m_changed.wait_for(lock, limit, [&] { return found() || captured.ended; });
    return found();
}

bool Process::waitOutput(std::string_view text) { return waitText(m_output, text, kProcessLimit); }

bool Process::waitErrors(std::string_view text, std::chrono::milliseconds limit) {
    return waitText(m_errors, text, limit);
}

int Process::wait() {
    if (m_pid == -1) return m_code;
    int status = 0;
    const bool ended =
        waitFor([&] { return waitpid(m_pid, &status, WNOHANG) == m_pid; }, kProcessLimit);
    if (!ended) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, &status, 0);
    }
    m_pid = -1;
    m_code = !ended                ? -1
             : WIFEXITED(status)   ? WEXITSTATUS(status)
             : WIFSIGNALED(status) ? 1000 + WTERMSIG(status)
                                   : -1;
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait(lock, [this] { return m_output.ended && m_errors.ended; });
    return m_code;
}

std::string Process::output() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_output.text;
}

std::string Process::errors() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_errors.text;
}

Ended run(const std::string& program, const std::vector<std::string>& arguments) {
    Process process(program, arguments);
    process.closeInput();
    Ended ended;
    ended.code = process.wait();
    ended.output = process.output();
    ended.errors = process.errors();
    return ended;
}

Ended runTool(const std::vector<std::string>& arguments, std::string_view input,
              const Streams& streams) {
    Process process(H2REQUEST_PROGRAM, arguments, streams);
    if (!input.empty() && !process.writeInput(input)) {
        return {-1, process.output(), "the process does not take its input"};
    }
    process.closeInput();
    Ended ended;
    ended.code = process.wait();
    ended.output = process.output();
    ended.errors = process.errors();
    return ended;
}

}  // namespace h2test
