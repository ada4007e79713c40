// h2request's command line: its help, and what it refuses.
#include <string>
#include <vector>

#include "tool_support.h"

namespace h2test {
namespace {

TEST(H2requestUsage, HelpFitsAScreenAndNamesEverything) {
    for (const char* option : {"--help", "-h"}) {
        const Ended ended = runTool({option});
        EXPECT_EQ(ended.code, 0);
        EXPECT_EQ(ended.errors, "");
        for (const char* start :
             {"Usage: h2request [options] IP PORT PATH", "  --timeout MS         limit for ",
              "                       Without it, 60 s without progress are the limit", "  0 ",
              "  22 ", "  2 ", "  3 ", "  4 ", "  5 ", "  6 ", "  130 "}) {
            EXPECT_TRUE(contains("\n" + ended.output, std::string("\n") + start)) << start;
        }
        // The prompt takes the screen's 40th line.
        EXPECT_LE(linesOf(ended.output).size(), 39u);
        for (const std::string& line : linesOf(ended.output)) EXPECT_LE(line.size(), 80u) << line;
    }
}

TEST(H2requestUsage, TellsItsVersion) {
    expectAnswer(runTool({"--version"}), "h2request (Http2Client) " H2REQUEST_VERSION "\n");
}

TEST(H2requestUsage, HelpThatCannotBeWrittenIsAnError) {
    Streams streams;
    streams.outputFile = "/dev/full";
    expectComplaint(runTool({"--help"}, {}, streams), kUsage, "cannot write to standard output");
}

TEST(H2requestUsage, RefusesWhatMakesNoSense) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> lines = {
        {{}, "IP is required"},
        {{"127.0.0.1"}, "PORT is required"},
        {{"127.0.0.1", "1"}, "PATH is required"},
        {{"127.0.0.1", "1", "/", "more"}, "'more' is one argument too many"},
        {{"http://127.0.0.1", "1"}, "'1' is one argument too many"},
        {{"--unknown"}, "unknown option --unknown\n"},
        {{"-X", "PUT", "-Z", "127.0.0.1", "0", "/"}, "unknown option -Z\n"},
        {{"--timeout", "soon", "--unknown=1"}, "unknown option --unknown=1\n"},
        {{"http://localhost/"}, "'localhost' is no IPv4 address"},
        {{"http:///"}, "'' is no IPv4 address"},
        {{"http://127.0.0.1:/"}, "'' is no port; it is a number from 1 to 65535"},
        {{"https://127.0.0.1:1x/"}, "'1x' is no port"},
        {{"--tls", "http://127.0.0.1/"}, "http:// does not go with --tls; write https://"},
        {{"http://127.0.0.1/a#b"}, "leave out all from '#' on, or write %23"},
        {{"http://127.0.0.1#b"}, "leave out all from '#' on, or write %23"},
        {{"127.0.0.1", "1", "/#"}, "leave out all from '#' on, or write %23"},
        {{"localhost", "1", "/"}, "'localhost' is no IPv4 address; names are not looked up"},
        {{"127.1", "1", "/"}, "'127.1' is no IPv4 address"},
        {{"127.0.0.1 x", "1", "/"}, "is no IPv4 address"},
        {{"::1", "1", "/"}, "'::1' is no IPv4 address"},
        {{"127.0.0.1", "0", "/"}, "0"},
        {{"127.0.0.1", "65536", "/"}, "65536"},
        {{"127.0.0.1", "http", "/"}, "http"},
        {{"127.0.0.1", "1", "index.html"}, "PATH must start with '/'"},
        {{"127.0.0.1", "1", ""}, "PATH must start with '/'"},
        {{"127.0.0.1", "1", "/a b"}, "must be escaped"},
        {{"127.0.0.1", "1", "/\xc3\xa4"}, "must be escaped"},
        {{"-X", "PUT", "127.0.0.1", "1", "/"}, "PUT"},
        {{"-X", "get", "127.0.0.1", "1", "/"}, "get"},
        {{"--data", "x", "--data-file", "y", "127.0.0.1", "1", "/"}, "--data"},
        {{"-H", "no colon", "127.0.0.1", "1", "/"}, "'no colon' is no header"},
        {{"-H", ": value", "127.0.0.1", "1", "/"}, "': value' is no header"},
        {{"-H", ":path: /x", "127.0.0.1", "1", "/"}, "':path: /x' is no header"},
        {{"-H", "a b: c", "127.0.0.1", "1", "/"}, "'a b: c' is no header"},
        {{"-H", "a:", "127.0.0.1", "1", "/"}, "has no value"},
        {{"--volatile-header", "a: ", "127.0.0.1", "1", "/"}, "has no value"},
        {{"-H", "a: b\r\nc: d", "127.0.0.1", "1", "/"}, "has a line end"},
        {{"-H", "a: " + std::string(383, 'x'), "127.0.0.1", "1", "/"}, "at most 382"},
        {{"--timeout", "-1", "127.0.0.1", "1", "/"}, "--timeout"},
        {{"--max-body", "-1", "127.0.0.1", "1", "/"}, "--max-body"},
        {{"--timeout", "soon", "127.0.0.1", "1", "/"}, "soon"},
        {{"--repeat", "0", "127.0.0.1", "1", "/"}, "--repeat"},
        {{"--repeat", "-1", "127.0.0.1", "1", "/"}, "--repeat"},
        {{"--parallel", "0", "127.0.0.1", "1", "/"}, "--parallel"},
        {{"--repeat", "9999", "--parallel", "1001", "127.0.0.1", "1", "/"}, "--parallel"},
        {{"--parallel", "2", "127.0.0.1", "1", "/"}, "add --repeat 2 or more"},
        {{"--repeat", "2", "--parallel", "3", "127.0.0.1", "1", "/"}, "add --repeat 3 or more"},
        {{"--parallel", "1", "-i", "127.0.0.1", "1", "/"}, "-i does not go with --parallel"},
        {{"--parallel", "1", "-o", "x", "127.0.0.1", "1", "/"}, "-o does not go with --parallel"},
        {{"--parallel", "1", "--timing", "127.0.0.1", "1", "/"}, "--timing does not go with"},
        {{"--parallel", "1", "--blocking", "127.0.0.1", "1", "/"}, "--blocking does not go with"},
        {{"--json", "-i", "127.0.0.1", "1", "/"}, "leave out -i"},
    };
    for (const auto& [arguments, message] : lines) {
        const Ended ended = runTool(arguments);
        expectComplaint(ended, kUsage, message);
        EXPECT_TRUE(ended.errors.ends_with("\nTry 'h2request --help'.\n")) << ended.errors;
        EXPECT_EQ(ended.output, "");
    }
}

TEST(H2requestUsage, SendsHeadersUpToTheLimit) {
    ScriptedServer server(answeringWith(200, "ok"));
    // PATH has 1 byte, "host" and its value are given, 42 headers have 383 bytes each.
    std::vector<std::string> options = {"-H", "host: h"};
    for (int i = 0; i < 42; ++i) {
        options.insert(options.end(), {"-H", "a: " + std::string(382, 'x')});
    }
    std::vector<std::string> rest = options;
    rest.insert(rest.end(), {"-H", "b: " + std::string(16283 - 1 - 5 - 42 * 383 - 1, 'x')});
    expectAnswer(runTool(request(server, rest)), "ok");
    ASSERT_EQ(server.frames(0, kHeaders).size(), 1u);
    EXPECT_TRUE(server.frames(0, kHeaders)[0].hasFlags(kEndHeaders));
    rest.back() += 'x';
    expectComplaint(runTool(request(server, rest)), kUsage, "have 16284 bytes together");
}

TEST(H2requestUsage, RefusesATextThatNoServerCanRead) {
    ScriptedServer server(answeringWith(200, "ok"));
    const std::string longest(382, 'x');
    expectAnswer(runTool(request(server, {"-H", longest + ": v", "-H", "a: " + longest})), "ok");
    const std::string limit = " has 383 bytes; servers can read at most 382";
    expectComplaint(runTool(request(server, {"-H", longest + "x: v"})), kUsage,
                    "the name of a header" + limit);
    expectComplaint(runTool(request(server, {"-H", "a: x" + longest})), kUsage,
                    "the value of the header 'a'" + limit);
    EXPECT_EQ(runTool({"127.0.0.1", "1", "/" + longest.substr(1)}).code, kCannotConnect);
    expectComplaint(runTool({"127.0.0.1", "1", "/" + longest}), kUsage, "PATH" + limit);
}

}  // namespace
}  // namespace h2test
