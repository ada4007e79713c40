#ifndef HTTP2CLIENT_TESTS_TOOLS_TERMINAL_H
#define HTTP2CLIENT_TESTS_TOOLS_TERMINAL_H

#include <string>
#include <string_view>
#include <vector>

#include "tests/support/temp.h"

namespace h2test {

// A terminal of 80 columns and 40 lines with a shell in it: a tmux server of its own, which goes
// with this object (or by itself, after some minutes, when the test is killed).
class Terminal {
public:
    Terminal();
    ~Terminal();
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    // Types a text; as a command, with the Enter key after it.
    void type(const std::string& text);
    void enter(const std::string& command);
    // Presses a key, by its name for tmux: "C-c", "Tab".
    void press(const std::string& key);

    // What is on the screen, lines without the blanks at their ends; with the escape sequences of
    // its colours on demand.
    std::string screen() const;
    std::string colouredScreen() const;
    // Waits for `text` on the screen. Mind that typed commands are there as well.
    [[nodiscard]] bool waitFor(std::string_view text) const;

private:
    std::string tmux(std::vector<std::string> arguments) const;

    TempDir m_dir;  // has the server's socket
};

}  // namespace h2test

#endif  // HTTP2CLIENT_TESTS_TOOLS_TERMINAL_H
