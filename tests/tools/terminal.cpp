#include "terminal.h"

#include <stdexcept>

#include "process.h"
#include "tests/support/wait.h"

namespace h2test {

Terminal::Terminal() {
    // No start-up files, neither tmux's nor the shell's; and a prompt that commands do not have.
    const std::string shell = "timeout --foreground 600 " ENV_PROGRAM
                              " -u NO_COLOR 'PS1=ready> ' " BASH_PROGRAM " --norc --noprofile";
    tmux({"-f", "/dev/null", "new-session", "-d", "-x", "80", "-y", "40", shell});
    if (!waitFor("ready>")) throw std::runtime_error("no shell in the terminal");
}

Terminal::~Terminal() { tmux({"kill-server"}); }

void Terminal::type(const std::string& text) { tmux({"send-keys", "-l", "--", text}); }

void Terminal::enter(const std::string& command) {
    type(command);
    press("Enter");
}

void Terminal::press(const std::string& key) { tmux({"send-keys", key}); }

std::string Terminal::screen() const { return tmux({"capture-pane", "-p"}); }

std::string Terminal::colouredScreen() const { return tmux({"capture-pane", "-p", "-e"}); }

bool Terminal::waitFor(std::string_view text) const {
    return h2test::waitFor([&] { return screen().find(text) != std::string::npos; }, kProcessLimit);
}

std::string Terminal::tmux(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), {"-u", "-S", m_dir.path() + "/socket"});
    return run(TMUX_PROGRAM, arguments).output;
}

}  // namespace h2test
