#include "options.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#include <arpa/inet.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include "help.h"
#include "message.h"

namespace {

// What the library puts into one HEADERS frame: names, values and path. Servers refuse the
// sequence of HEADERS frames that it makes of more.
constexpr size_t kHeaderLimit = 16283;

// The longest name, value or path whose length the library writes so that servers can read it.
constexpr size_t kTextLimit = 382;

// The library has no use for a descriptor of 1024 or above, and the process needs some itself.
constexpr unsigned int kMostConnections = 1000;

[[noreturn]] void refuse(const std::string& why) { throw CLI::ValidationError(why); }

std::string trimmed(const std::string& text) {
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string::npos) return std::string();
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// RFC 9110, 5.6.2.
bool isTokenChar(unsigned char c) {
    return std::isalnum(c) != 0 || (c != '\0' && std::strchr("!#$%&'*+-.^_`|~", c) != nullptr);
}

// Splits 'name: value'; the name goes out in lower case (RFC 9113, 8.2).
Header parseHeader(const std::string& text, bool isVolatile) {
    const auto colon = text.find(':');
    Header header{trimmed(text.substr(0, colon)), std::string(), isVolatile};
    if (colon != std::string::npos) header.value = trimmed(text.substr(colon + 1));
    if (header.name.empty() || !std::all_of(header.name.begin(), header.name.end(), isTokenChar)) {
        refuse("'" + text + "' is no header; write it as 'name: value'");
    }
    if (header.value.empty()) {
        refuse("'" + text + "' has no value, and would not be sent; write it as 'name: value'");
    }
    if (header.value.find_first_of("\r\n") != std::string::npos) {
        refuse("the value of '" + header.name + "' has a line end; take it out");
    }
    std::transform(header.name.begin(), header.name.end(), header.name.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return header;
}

void addHostHeader(Options& options) {
    const bool given = std::any_of(options.headers.begin(), options.headers.end(),
                                   [](const Header& header) { return header.name == "host"; });
    if (given) return;
    options.headers.insert(options.headers.begin(),
                           {"host", options.ip + ":" + std::to_string(options.port), false});
}

void checkAddress(const Options& options) {
    in_addr address{};
    if (inet_pton(AF_INET, options.ip.c_str(), &address) != 1) {
        refuse("'" + options.ip +
               "' is no IPv4 address; names are not looked up: ask `getent ahostsv4 NAME`");
    }
    const auto needsEscape = [](unsigned char c) { return c <= ' ' || c >= 0x7f; };
    if (options.path.empty() || options.path[0] != '/') {
        refuse("PATH must start with '/', as in /index.html");
    }
    if (std::any_of(options.path.begin(), options.path.end(), needsEscape)) {
        refuse("PATH has a blank or another byte that must be escaped, as in %20");
    }
}

void checkTextSize(const std::string& what, const std::string& text) {
    if (text.size() <= kTextLimit) return;
    refuse(what + " has " + std::to_string(text.size()) + " bytes; servers can read at most " +
           std::to_string(kTextLimit) + " of this client's");
}

void checkHeaderSize(const Options& options) {
    size_t total = options.path.size();
    checkTextSize("PATH", options.path);
    for (const Header& header : options.headers) {
        checkTextSize("the name of a header", header.name);
        checkTextSize("the value of the header '" + header.name + "'", header.value);
        total += header.name.size() + header.value.size();
    }
    if (total > kHeaderLimit) {
        refuse("PATH and headers have " + std::to_string(total) + " bytes together; at most " +
               std::to_string(kHeaderLimit) + " can be sent");
    }
}

// What --json and --parallel leave no place for.
void checkOutput(const CLI::App& app, const Options& options) {
    if (options.json && options.showHeaders) {
        refuse("--json has status and headers already; leave out -i");
    }
    if (options.parallel == 0) return;
    if (options.parallel > options.repeat) {
        refuse("--parallel " + std::to_string(options.parallel) +
               " needs at least as many requests; add --repeat " +
               std::to_string(options.parallel) + " or more");
    }
    for (const char* option : {"-i", "-o", "--timing", "--blocking"}) {
        if (app.count(option) == 0) continue;
        refuse(std::string(option) +
               " does not go with --parallel, which prints a summary; leave " +
               "one of them out, or see each answer with --json");
    }
}

// The options as CLI11 fills them.
struct RawOptions {
    std::string method = "GET";
    std::vector<std::string> headers;
    std::vector<std::string> volatileHeaders;
    std::string data;
    std::string dataFile;
};

void addOptions(CLI::App& app, Options& options, RawOptions& raw) {
    app.add_option("IP", options.ip)->required();
    app.add_option("PORT", options.port)->required()->check(CLI::Range(1, 65535));
    app.add_option("PATH", options.path)->required();
    app.add_flag("--tls", options.tls);
    app.add_option("-X", raw.method)->check(CLI::IsMember({"GET", "POST", "DELETE"}));
    app.add_option("-H", raw.headers)->allow_extra_args(false);
    app.add_option("--volatile-header", raw.volatileHeaders)->allow_extra_args(false);
    auto* text = app.add_option("--data", raw.data);
    app.add_option("--data-file", raw.dataFile)->excludes(text);
    app.add_flag("-i", options.showHeaders);
    app.add_option("-o", options.outputFile);
    app.add_option("--timeout", options.timeoutMs)->check(CLI::Range(1U, 1000000000U));
    app.add_option("--repeat", options.repeat)->check(CLI::Range(1U, 1000000000U));
    app.add_option("--parallel", options.parallel)->check(CLI::Range(1U, kMostConnections));
    app.add_flag("--blocking", options.blocking);
    app.add_flag("--json", options.json);
    app.add_flag("--timing", options.timing);
    app.add_flag("-v", options.verbose);
    app.set_version_flag("--version", kVersion);
}

// The exit code of a program that only says something about itself.
int print(const std::string& text) {
    const int error = writeWhole(STDOUT_FILENO, text.data(), text.size());
    if (error == 0) return EXIT_ANSWERED;
    complain(std::string("cannot write to standard output: ") + std::strerror(error));
    return EXIT_USAGE;
}

void complete(const CLI::App& app, const RawOptions& raw, Options& options) {
    options.method = raw.method == "POST"     ? HTTP_POST
                     : raw.method == "DELETE" ? HTTP_DELETE
                                              : HTTP_GET;
    if (app.count("--data") > 0) options.data = raw.data;
    if (app.count("--data-file") > 0) options.dataFile = raw.dataFile;
    if ((options.data || options.dataFile) && app.count("-X") == 0) {
        refuse("a body needs a method that has one; add -X POST");
    }
    for (const auto& header : raw.headers) options.headers.push_back(parseHeader(header, false));
    for (const auto& header : raw.volatileHeaders) {
        options.headers.push_back(parseHeader(header, true));
    }
    checkOutput(app, options);
    checkAddress(options);
    addHostHeader(options);
    checkHeaderSize(options);
}

}  // namespace

std::optional<int> parseOptions(int argc, char** argv, Options& options) {
    CLI::App app;
    app.formatter_fn(
        [](const CLI::App*, const std::string&, CLI::AppFormatMode) { return std::string(kHelp); });
    RawOptions raw;
    addOptions(app, options, raw);
    try {
        app.parse(argc, argv);
        complete(app, raw, options);
    } catch (const CLI::CallForVersion&) {
        return print(kVersion + std::string("\n"));
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) return print(kHelp);
        complain(error.what() + std::string("\nTry 'h2request --help'."));
        return EXIT_USAGE;
    }
    return std::nullopt;
}
