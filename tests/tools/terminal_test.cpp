// h2request as a person uses it: typed into a shell, on a real terminal.
#include <stdexcept>

#include "tool_support.h"

namespace h2test {
namespace {

// A terminal of 80 columns and 40 lines with a shell in it: a tmux server of its own, which goes
// with this object (or by itself, after some minutes, when the test is killed).
class Terminal {
public:
    Terminal() {
        // No start-up files, neither tmux's nor the shell's; and a prompt that commands do not
        // have.
        const std::string shell = "timeout --foreground 600 " ENV_PROGRAM
                                  " -u NO_COLOR 'PS1=ready> ' " BASH_PROGRAM " --norc --noprofile";
        tmux({"-f", "/dev/null", "new-session", "-d", "-x", "80", "-y", "40", shell});
        if (!waitFor("ready>")) throw std::runtime_error("no shell in the terminal");
    }
    ~Terminal() { tmux({"kill-server"}); }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    // Types a text; as a command, with the Enter key after it.
    void type(const std::string& text) { tmux({"send-keys", "-l", "--", text}); }
    void enter(const std::string& command) {
        type(command);
        press("Enter");
    }
    // Presses a key, by its name for tmux: "C-c", "Tab".
    void press(const std::string& key) { tmux({"send-keys", key}); }

    // What is on the screen, lines without the blanks at their ends; with the escape sequences of
    // its colours on demand.
    std::string screen() const { return tmux({"capture-pane", "-p"}); }
    std::string colouredScreen() const { return tmux({"capture-pane", "-p", "-e"}); }
    // Waits for `text` on the screen, where typed commands are as well.
    [[nodiscard]] bool waitFor(std::string_view text) const {
        return h2test::waitFor([&] { return contains(screen(), text); }, kProcessLimit);
    }

private:
    std::string tmux(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), {"-u", "-S", m_dir.path() + "/socket"});
        return run(TMUX_PROGRAM, arguments).output;
    }

    TempDir m_dir;  // has the server's socket
};

const std::string kRed = "\033[31m";
const std::string kGreen = "\033[32m";
const std::string kCyan = "\033[36m";

// A command line for "/", and then the exit code as "code=N.".
std::string command(const ScriptedServer& server, const std::string& options,
                    const std::string& redirection = {}) {
    return "clear; " H2REQUEST_PROGRAM " " + options + " 127.0.0.1 " +
           std::to_string(server.port()) + " / " + redirection + "; echo \"code=$?.\"";
}

TEST(H2requestTerminal, ShowsItsHelpOnOneScreen) {
    Terminal terminal;
    terminal.enter("clear; " H2REQUEST_PROGRAM " --help");
    ASSERT_TRUE(terminal.waitFor("index.html\nready>")) << terminal.screen();
    EXPECT_TRUE(terminal.screen().starts_with("Usage: h2request ")) << terminal.screen();
}

TEST(H2requestTerminal, PaintsUnlessToldOtherwise) {
    struct Case {
        std::string before;  // a command
        std::string options;
        std::string redirection;
        int status;
        std::string text;                   // on the screen
        std::vector<std::string> coloured;  // none: there are no colours
    };
    const std::string message = "h2request: the server answered with";
    const std::vector<Case> cases = {
        {"",
         "-i",
         "",
         200,
         "status: 200\nx-a: 1\n\nbody\ncode=0.",
         {kGreen + "status: 200", kCyan + "x-a:"}},
        {"", "-i", "", 404, message, {kRed + "status: 404", kRed + "h2request:"}},
        {"", "--repeat 5 --parallel 2", "", 200, "failed    0", {kCyan + "###"}},
        {"export NO_COLOR=", "-i", "", 200, "status: 200\n", {kGreen}},
        {"export NO_COLOR=1", "-i", "", 404, message, {}},
        {"export TERM=dumb", "-i", "", 404, message, {}},
        {"", "-i", "2>&1 | cat", 404, message, {}},
        {"", "--json", "", 200, R"({"request":1,"status":200,)", {}},
    };
    for (const Case& one : cases) {
        ScriptedServer server(answeringWith(one.status, "body\n", field("x-a", "1")));
        Terminal terminal;
        if (!one.before.empty()) terminal.enter(one.before);
        terminal.enter(command(server, one.options, one.redirection));
        ASSERT_TRUE(terminal.waitFor("\ncode=")) << terminal.screen();
        EXPECT_TRUE(contains(terminal.screen(), one.text)) << terminal.screen();
        const std::string screen = terminal.colouredScreen();
        for (const auto& part : one.coloured) EXPECT_TRUE(contains(screen, part)) << screen;
        EXPECT_EQ(contains(screen, "\033["), !one.coloured.empty()) << screen;
    }
}

TEST(H2requestTerminal, IsEndedByCtrlC) {
    ScriptedServer server(silent());
    Terminal terminal;
    // One after the other, so that the shell gets the code and goes on.
    terminal.enter(command(server, "-i"));
    ASSERT_TRUE(server.waitFramesOf(0, kHeaders));
    terminal.press("C-c");
    ASSERT_TRUE(terminal.waitFor("h2request: interrupted")) << terminal.screen();
    terminal.enter("echo \"code=$?.\"");
    ASSERT_TRUE(terminal.waitFor("code=130.")) << terminal.screen();
}

// More than the pipe holds, so that it is in a write when the reader goes.
TEST(H2requestTerminal, EndsWhenThePipeClosesEarly) {
    ScriptedServer server(answeringWith(200, std::string(900000, 'x')));
    for (const std::string options : {"", "-i", "--json", "--blocking"}) {
        Terminal terminal;
        terminal.enter(command(server, options, "| head -c 1; echo \" codes=${PIPESTATUS[*]}.\""));
        ASSERT_TRUE(terminal.waitFor("codes=2 0.")) << options << terminal.screen();
        EXPECT_TRUE(contains(terminal.screen(),
                             "h2request: cannot write the answer to standard output: Broken pipe"))
            << options << terminal.screen();
    }
}

// Each is typed on an empty line, and the shell completes it.
TEST(H2requestTerminal, CompletesItsOptionsAndFiles) {
    const TempDir dir;
    dir.write("upload file", "");
    Terminal terminal;
    terminal.enter("source " H2REQUEST_COMPLETION "; cd " + dir.path() + "; clear; echo sourced");
    ASSERT_TRUE(terminal.waitFor("\nready>")) << terminal.screen();
    const std::vector<std::pair<std::string, std::string>> lines = {
        {"--vol", "h2request --volatile-header"},
        {"-X D", "-X DELETE"},
        {"--data-file up", "--data-file upload\\ file"},
        {"--data-file=up", "--data-file=upload\\ file"},
    };
    for (const auto& [typed, completed] : lines) {
        terminal.type("h2request " + typed);
        terminal.press("Tab");
        EXPECT_TRUE(terminal.waitFor(completed)) << terminal.screen();
        terminal.press("C-u");
    }
}

}  // namespace
}  // namespace h2test
