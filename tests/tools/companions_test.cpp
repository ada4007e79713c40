// What comes with h2request, compared with its --help: the man page and the completion.
#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "tool_support.h"

namespace h2test {
namespace {

// All options that --help names, in both forms where there are two.
std::set<std::string> optionsOfHelp() {
    std::set<std::string> options;
    for (const std::string& line : linesOf(runTool({"--help"}).output)) {
        if (!line.starts_with("  -")) continue;
        std::istringstream words(line.substr(0, line.find("  ", 2)));
        for (std::string word; words >> word;) {
            if (word.back() == ',') word.pop_back();
            if (word.front() == '-') options.insert(word);
        }
    }
    return options;
}

// What the completion offers for the last of the words. It runs outside a completion of the
// shell's, where compopt has no effect.
std::set<std::string> completionsOf(const std::vector<std::string>& words) {
    std::vector<std::string> arguments{"--norc", "-c", R"(
        source "$1"; shift
        compopt() { :; }
        COMP_WORDS=(h2request "$@"); COMP_CWORD=$#
        _h2request
        [ "${#COMPREPLY[@]}" -eq 0 ] || printf '%s\n' "${COMPREPLY[@]}")",
                                       "bash", H2REQUEST_COMPLETION};
    arguments.insert(arguments.end(), words.begin(), words.end());
    const Ended ended = run(BASH_PROGRAM, arguments);
    EXPECT_EQ(ended.code, 0);
    EXPECT_EQ(ended.errors, "");
    const std::vector<std::string> lines = linesOf(ended.output);
    return {lines.begin(), lines.end()};
}

using Words = std::set<std::string>;

TEST(H2requestCompletion, KnowsEveryOptionAndNoOther) {
    const std::set<std::string> options = optionsOfHelp();
    EXPECT_EQ(options.size(), 21u);
    EXPECT_EQ(completionsOf({"-"}), options);
}

TEST(H2requestCompletion, CompletesEveryOptionFromItsStart) {
    for (const std::string& option : optionsOfHelp()) {
        EXPECT_EQ(completionsOf({option}).count(option), 1u) << option;
        EXPECT_EQ(completionsOf({"--tls", option.substr(0, option.size() - 1)}).count(option), 1u)
            << option;
    }
    EXPECT_EQ(completionsOf({"--t"}), (Words{"--tls", "--timeout", "--timing"}));
}

TEST(H2requestCompletion, KnowsTheMethods) {
    EXPECT_EQ(completionsOf({"-X", ""}), (Words{"GET", "POST", "DELETE"}));
    EXPECT_EQ(completionsOf({"-X", "P"}), (Words{"POST"}));
}

TEST(H2requestCompletion, KnowsFilesWhereTheyBelong) {
    const TempDir dir;
    const std::string file = dir.write("upload", "");
    const std::string start = file.substr(0, file.size() - 3);
    EXPECT_EQ(completionsOf({"-o", start}), (Words{file}));
    EXPECT_EQ(completionsOf({"--data-file", start}), (Words{file}));
    EXPECT_EQ(completionsOf({"--data-file", "=", start}), (Words{file}));
    for (const char* option : {"-H", "--volatile-header", "-d", "--timeout", "--max-body"}) {
        EXPECT_EQ(completionsOf({option, start}), Words()) << option;
        EXPECT_EQ(completionsOf({option, "-"}), Words()) << option;
    }
    EXPECT_EQ(completionsOf({start}), Words());
}

// ---- the man page

Ended man(const std::vector<std::string>& arguments) {
    std::vector<std::string> all{"LC_ALL=C.UTF-8", "MANWIDTH=80", MAN_PROGRAM};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return run(ENV_PROGRAM, all);
}

TEST(H2requestManPage, IsSoundAndHasAllSections) {
    const Ended ended = man({"--warnings", "-l", H2REQUEST_MAN_PAGE});
    EXPECT_EQ(ended.code, 0);
    EXPECT_EQ(ended.errors, "");
    EXPECT_TRUE(ended.output.starts_with("H2REQUEST(1)")) << ended.output;
    for (const char* section :
         {"NAME\n       h2request - make HTTP/2 requests and print the answers\n",
          "SYNOPSIS\n       h2request [options] IP PORT PATH | http[s]://IP[:PORT][/PATH]\n",
          "DESCRIPTION", "   Request:", "   Output:", "   Exit codes:", "PARALLEL REQUESTS",
          "TIME-OUTS", "TIMING", "JSON", "NOTES", "ENVIRONMENT", "EXAMPLES"}) {
        EXPECT_TRUE(contains(ended.output, std::string("\n") + section)) << section;
    }
}

TEST(H2requestManPage, HasEveryLineOfTheHelp) {
    const std::string page = man({"-l", H2REQUEST_MAN_PAGE}).output;
    for (const std::string& option : optionsOfHelp()) {
        const std::string shown = option == "--help"   ? "-h, --help"
                                  : option == "--data" ? "-d, --data"
                                                       : option;
        EXPECT_TRUE(contains(page, "\n       " + shown)) << option;
    }
    for (const char* code : {"0", "22", "2", "3", "4", "5", "6", "130"}) {
        EXPECT_TRUE(contains(page, std::string("\n       ") + code + " ")) << code;
    }
    EXPECT_TRUE(contains(page, "Http2Client " H2REQUEST_VERSION));
}

}  // namespace
}  // namespace h2test
