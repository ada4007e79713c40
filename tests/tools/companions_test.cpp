// What comes with h2request, compared with its --help: the man page and the completion.
#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "tool_support.h"

namespace h2test {
namespace {

using Words = std::set<std::string>;

// The words that choose an edition.
const std::vector<std::vector<std::string>> kEditions = {{}, {"--standard"}};

// `words` behind those of the edition.
std::vector<std::string> with(std::vector<std::string> edition,
                              const std::vector<std::string>& words) {
    edition.insert(edition.end(), words.begin(), words.end());
    return edition;
}

// All options that --help names, in both forms where there are two.
Words optionsOfHelp(const std::vector<std::string>& edition = {}) {
    Words options;
    for (const std::string& line : linesOf(runTool(with(edition, {"--help"})).output)) {
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

TEST(H2requestCompletion, KnowsEveryOptionAndNoOther) {
    EXPECT_EQ(optionsOfHelp().size(), 22u);
    EXPECT_EQ(optionsOfHelp({"--standard"}).size(), 29u);
    for (const auto& edition : kEditions) {
        EXPECT_EQ(completionsOf(with(edition, {"-"})), optionsOfHelp(edition));
    }
}

TEST(H2requestCompletion, CompletesEveryOptionFromItsStart) {
    for (const auto& edition : kEditions) {
        for (const std::string& option : optionsOfHelp(edition)) {
            const std::string start = option.substr(0, option.size() - 1);
            EXPECT_EQ(completionsOf(with(edition, {option})).count(option), 1u) << option;
            EXPECT_EQ(completionsOf(with(edition, {"--tls", start})).count(option), 1u) << option;
        }
        EXPECT_EQ(completionsOf(with(edition, {"--t"})), (Words{"--tls", "--timeout", "--timing"}));
    }
    EXPECT_EQ(completionsOf({"--s"}), Words{"--standard"});
}

TEST(H2requestCompletion, KnowsTheMethods) {
    EXPECT_EQ(completionsOf({"-X", ""}), (Words{"GET", "POST", "DELETE"}));
    EXPECT_EQ(completionsOf({"-X", "P"}), (Words{"POST"}));
    EXPECT_EQ(completionsOf({"--standard", "-X", "P"}), (Words{"POST", "PUT", "PATCH"}));
}

TEST(H2requestCompletion, KnowsFilesWhereTheyBelong) {
    const TempDir dir;
    const std::string file = dir.write("upload", "");
    const std::string start = file.substr(0, file.size() - 3);
    EXPECT_EQ(completionsOf({"-o", start}), (Words{file}));
    EXPECT_EQ(completionsOf({"--data-file", start}), (Words{file}));
    EXPECT_EQ(completionsOf({"--data-file", "=", start}), (Words{file}));
    for (const char* option : {"-T", "--cacert", "--cert", "--key", "-o"}) {
        EXPECT_EQ(completionsOf({"--standard", option, start}), (Words{file})) << option;
    }
    for (const char* option : {"-H", "--volatile-header", "-d", "--timeout", "--max-body",
                               "--max-time", "--connect-timeout", "--max-streams"}) {
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
    const Ended ended = man({"--warnings", "-l", H2REQUEST_MAN_PAGES "/h2request.1"});
    EXPECT_EQ(ended.code, 0);
    EXPECT_EQ(ended.errors, "");
    EXPECT_TRUE(ended.output.starts_with("H2REQUEST(1)")) << ended.output;
    for (const char* section :
         {"NAME\n       h2request - make HTTP/2 requests and print the answers\n",
          "SYNOPSIS\n       h2request [options] IP PORT PATH | http[s]://IP[:PORT][/PATH]\n",
          "DESCRIPTION", "   Request:", "   Output:", "   Exit codes:", "THE STANDARD EDITION",
          "PARALLEL REQUESTS", "TIME-OUTS", "TIMING", "JSON", "NOTES", "ENVIRONMENT", "EXAMPLES"}) {
        EXPECT_TRUE(contains(ended.output, std::string("\n") + section)) << section;
    }
}

TEST(H2requestManPage, OfTheStandardEditionIsSoundAndHasAllSections) {
    const Ended ended = man({"--warnings", "-l", H2REQUEST_MAN_PAGES "/h2request-standard.1"});
    EXPECT_EQ(ended.code, 0);
    EXPECT_EQ(ended.errors, "");
    EXPECT_TRUE(ended.output.starts_with("H2REQUEST-STANDARD(1)")) << ended.output;
    for (const char* section :
         {"NAME\n       h2request-standard - h2request with the standard edition of the library\n",
          "SYNOPSIS\n       h2request --standard [options] http[s]://HOST[:PORT][/PATH]\n",
          "DESCRIPTION", "   Request:", "   Output:", "THE OTHER EDITION", "SERVERS", "REQUESTS",
          "CONNECTIONS", "TIME-OUTS", "MESSAGES", "TIMING", "EXAMPLES", "SEE ALSO"}) {
        EXPECT_TRUE(contains(ended.output, std::string("\n") + section)) << section;
    }
}

TEST(H2requestManPage, HasEveryLineOfTheHelp) {
    for (const auto& edition : kEditions) {
        const char* file = edition.empty() ? H2REQUEST_MAN_PAGES "/h2request.1"
                                           : H2REQUEST_MAN_PAGES "/h2request-standard.1";
        const std::string page = man({"-l", file}).output;
        for (const std::string& option : optionsOfHelp(edition)) {
            const std::string shown = option == "--help"   ? "-h, --help"
                                      : option == "--data" ? "-d, --data"
                                                           : option;
            EXPECT_TRUE(contains(page, "\n       " + shown)) << option;
        }
        EXPECT_TRUE(contains(page, "Http2Client " H2REQUEST_VERSION));
    }
    const std::string page = man({"-l", H2REQUEST_MAN_PAGES "/h2request.1"}).output;
    for (const char* code : {"0", "22", "2", "3", "4", "5", "6", "130"}) {
        EXPECT_TRUE(contains(page, std::string("\n       ") + code + " ")) << code;
    }
}

}  // namespace
}  // namespace h2test
