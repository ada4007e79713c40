// h2request as a person uses it: typed into a shell, on a real terminal.
#include <string>

#include "terminal.h"
#include "tool_support.h"

namespace h2test {
namespace {

constexpr std::string_view kRed = "\033[31m";
constexpr std::string_view kGreen = "\033[32m";
constexpr std::string_view kCyan = "\033[36m";

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

TEST(H2requestTerminal, PaintsStatusAndNames) {
    ScriptedServer server(answering([](uint32_t streamId, size_t nth) {
        return response(streamId, nth == 2 ? 404 : 200, "body\n", field("x-a", "1"));
    }));
    Terminal terminal;
    terminal.enter(command(server, "-i"));
    ASSERT_TRUE(terminal.waitFor("code=0.")) << terminal.screen();
    EXPECT_TRUE(terminal.screen().starts_with("status: 200\nx-a: 1\n\nbody\ncode=0."))
        << terminal.screen();
    const std::string good = terminal.colouredScreen();
    EXPECT_TRUE(contains(good, std::string(kGreen) + "status: 200")) << good;
    EXPECT_TRUE(contains(good, std::string(kCyan) + "x-a:")) << good;

    terminal.enter(command(server, "-i"));
    ASSERT_TRUE(terminal.waitFor("code=22.")) << terminal.screen();
    const std::string bad = terminal.colouredScreen();
    EXPECT_TRUE(contains(bad, std::string(kRed) + "status: 404")) << bad;
    EXPECT_TRUE(contains(bad, std::string(kRed) + "h2request:")) << bad;
}

TEST(H2requestTerminal, PaintsTheSummary) {
    ScriptedServer server(answeringWith(200, "ok"));
    Terminal terminal;
    terminal.enter(command(server, "--repeat 5 --parallel 2"));
    ASSERT_TRUE(terminal.waitFor("code=0.")) << terminal.screen();
    EXPECT_TRUE(contains(terminal.colouredScreen(), std::string(kCyan) + "###"))
        << terminal.colouredScreen();
}

// What would be painted otherwise: an error's head and message.
void expectNoColours(const std::string& before, const std::string& redirection) {
    ScriptedServer server(answeringWith(404, "body\n"));
    Terminal terminal;
    if (!before.empty()) terminal.enter(before);
    terminal.enter(command(server, "-i", redirection));
    ASSERT_TRUE(terminal.waitFor("\ncode=")) << terminal.screen();
    EXPECT_TRUE(contains(terminal.screen(), "status: 404\n")) << terminal.screen();
    EXPECT_TRUE(contains(terminal.screen(), "h2request: the server answered with"))
        << terminal.screen();
    EXPECT_FALSE(contains(terminal.colouredScreen(), "\033[")) << terminal.colouredScreen();
}

TEST(H2requestTerminal, HonoursNoColor) { expectNoColours("export NO_COLOR=1", ""); }

TEST(H2requestTerminal, PaintsNothingOnADumbTerminal) { expectNoColours("export TERM=dumb", ""); }

TEST(H2requestTerminal, PaintsNothingInAPipe) { expectNoColours("", "2>&1 | cat"); }

TEST(H2requestTerminal, TakesAnEmptyNoColorForNone) {
    ScriptedServer server(answeringWith(200, "ok\n"));
    Terminal terminal;
    terminal.enter("export NO_COLOR=");
    terminal.enter(command(server, "-i"));
    ASSERT_TRUE(terminal.waitFor("code=0.")) << terminal.screen();
    EXPECT_TRUE(contains(terminal.colouredScreen(), kGreen)) << terminal.colouredScreen();
}

TEST(H2requestTerminal, PaintsNoJson) {
    ScriptedServer server(answeringWith(200, "ok"));
    Terminal terminal;
    terminal.enter(command(server, "--json"));
    ASSERT_TRUE(terminal.waitFor("code=0.")) << terminal.screen();
    EXPECT_TRUE(terminal.screen().starts_with(R"({"request":1,"status":200,)"))
        << terminal.screen();
    EXPECT_FALSE(contains(terminal.colouredScreen(), "\033[")) << terminal.colouredScreen();
}

TEST(H2requestTerminal, ShowsABarUnlessStandardErrorGoesElsewhere) {
    const std::string bar = "received [" + std::string(40, '#') + "] 100%";
    ScriptedServer server(
        answeringWith(200, binaryBytes(1500000), field("content-length", "1500000")));
    Terminal terminal;
    terminal.enter(command(server, "", ">/dev/null"));
    ASSERT_TRUE(terminal.waitFor("code=0.")) << terminal.screen();
    EXPECT_TRUE(contains(terminal.screen(), bar)) << terminal.screen();

    Terminal other;  // the first one has the same code on its screen already
    other.enter(command(server, "", ">/dev/null 2>/dev/null"));
    ASSERT_TRUE(other.waitFor("code=0.")) << other.screen();
    EXPECT_FALSE(contains(other.screen(), "received [")) << other.screen();
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
        terminal.enter("clear; " H2REQUEST_PROGRAM " " + options + " 127.0.0.1 " +
                       std::to_string(server.port()) +
                       " / | head -c 1; echo \" codes=${PIPESTATUS[*]}.\"");
        ASSERT_TRUE(terminal.waitFor("codes=2 0.")) << options << terminal.screen();
        EXPECT_TRUE(contains(terminal.screen(),
                             "h2request: cannot write the answer to standard output: Broken pipe"))
            << options << terminal.screen();
    }
}

// Types a command on an empty line, and has the shell complete it.
void expectCompletion(Terminal& terminal, const std::string& typed, const std::string& completed) {
    terminal.type(typed);
    terminal.press("Tab");
    EXPECT_TRUE(terminal.waitFor(completed)) << terminal.screen();
    terminal.press("C-u");
}

TEST(H2requestTerminal, CompletesItsOptionsAndFiles) {
    const TempDir dir;
    dir.write("upload file", "");
    Terminal terminal;
    terminal.enter("source " H2REQUEST_COMPLETION "; cd " + dir.path() + "; clear; echo sourced");
    ASSERT_TRUE(terminal.waitFor("\nready>")) << terminal.screen();
    expectCompletion(terminal, "h2request --vol", "h2request --volatile-header");
    expectCompletion(terminal, "h2request -X D", "-X DELETE");
    expectCompletion(terminal, "h2request --data-file up", "--data-file upload\\ file");
    expectCompletion(terminal, "h2request --data-file=up", "--data-file=upload\\ file");
}

}  // namespace
}  // namespace h2test
