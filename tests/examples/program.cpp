#include "program.h"

#include <chrono>
#include <csignal>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/temp.h"
#include "tests/support/wait.h"

namespace h2test {

namespace {

// Longer than any limit of an example's or of the server's.
constexpr std::chrono::milliseconds kExampleLimit{90000};

// Starts the program with its output going to the two files. Its SIGPIPE has the default
// disposition, as a shell would start it; the server of this process ignores the signal.
pid_t spawn(const std::string& program, const std::vector<std::string>& arguments,
            const std::string& output, const std::string& errors) {
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
    const int flags = O_WRONLY | O_CREAT | O_TRUNC;
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(), flags, 0600);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errors.c_str(), flags, 0600);
    sigset_t pipeSignal;
    sigemptyset(&pipeSignal);
    sigaddset(&pipeSignal, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes, &pipeSignal);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    pid_t pid = -1;
    const int error =
        posix_spawn(&pid, program.c_str(), &actions, &attributes, argv.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) throw std::runtime_error("cannot start " + program);
    return pid;
}

}  // namespace

std::string fileContent(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

namespace {

Ended run(const std::string& program, const std::vector<std::string>& arguments) {
    const TempDir dir;
    const std::string output = dir.path() + "/out";
    const std::string errors = dir.path() + "/err";
    const pid_t pid = spawn(program, arguments, output, errors);
    int status = 0;
    const bool ended =
        waitFor([&] { return waitpid(pid, &status, WNOHANG) == pid; }, kExampleLimit);
    if (!ended) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
    }
    Ended out;
    if (ended) out.code = WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
    out.output = fileContent(output);
    out.errors = fileContent(errors);
    return out;
}

}  // namespace

Ended runExample(Edition edition, const std::string& name,
                 const std::vector<std::string>& arguments) {
    const std::string folder = edition == Edition::kExact ? EXAMPLES_DIR : STANDARD_EXAMPLES_DIR;
    return run(folder + "/" + name, arguments);
}

Ended runStandardExample(const std::string& name, const std::vector<std::string>& arguments) {
    return run(EXAMPLES_DIR "/" + name, arguments);
}

}  // namespace h2test
