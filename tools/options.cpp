#include "options.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstring>

#include <arpa/inet.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include "edition.h"
#include "help.h"
#include "message.h"
#include "text.h"

namespace {

// What the exact edition puts into one HEADERS frame: names, values and path. Servers refuse the
// sequence of HEADERS frames that it makes of more.
constexpr size_t kHeaderLimit = 16283;

// The longest name, value or path whose length the exact edition writes so that servers can read
// it.
constexpr size_t kTextLimit = 382;

// Each has a thread of its own. The exact edition has no use for a descriptor of 1024 or above, and
// the process needs some itself.
constexpr unsigned int kMostParallel = 1000;

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
    if (header.value.empty() && !edition::kIsStandard) {
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
                           {"host", options.host + ":" + std::to_string(options.port), false});
}

void checkIpv4(const std::string& ip) {
    in_addr address{};
    if (inet_pton(AF_INET, ip.c_str(), &address) == 1) return;
    refuse("'" + ip +
           "' is no IPv4 address; names are not looked up: ask `getent ahostsv4 NAME`, or use "
           "--standard");
}

void checkHost(const std::string& host) {
    in6_addr address{};
    if (inet_pton(AF_INET6, host.c_str(), &address) == 1) return;
    const auto isHostChar = [](unsigned char c) {
        return std::isalnum(c) != 0 || c == '-' || c == '.' || c == '_';
    };
    if (!host.empty() && std::all_of(host.begin(), host.end(), isHostChar)) return;
    refuse("'" + printable(host) + "' is neither a host name nor an address");
}

void checkPath(const Options& options) {
    const auto needsEscape = [](unsigned char c) { return c <= ' ' || c >= 0x7f; };
    if (options.path.find('#') != std::string::npos) {
        refuse("PATH has a fragment, which is never sent; leave out all from '#' on, or write %23");
    }
    if (options.path.empty() || options.path[0] != '/') {
        refuse("PATH must start with '/', as in /index.html");
    }
    if (std::any_of(options.path.begin(), options.path.end(), needsEscape)) {
        refuse("PATH has a blank or another byte that must be escaped, as in %20");
    }
}

// Of the exact edition.
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
    std::vector<std::string> target;  // IP PORT PATH, or a URL
    unsigned int timeoutMs = 0;
    double maxSeconds = 0;
    double connectSeconds = 0;
    bool standard = false;
    bool head = false;
    std::string upload;
    std::vector<std::string> headers;
    std::vector<std::string> volatileHeaders;
    std::string data;
    std::string dataFile;
};

// A method is a token (RFC 9110, 9.1). CONNECT makes a tunnel, which nothing here can use.
void checkMethod(const std::string& method) {
    const bool valid = !method.empty() && std::all_of(method.begin(), method.end(), isTokenChar);
    if (!valid || method == "CONNECT") {
        refuse("-X " + printable(method) + " cannot be sent; use a method such as GET or PATCH");
    }
}

// What only the standard edition has.
void addStandardOptions(CLI::App& app, Options& options, RawOptions& raw) {
    constexpr double kMostSeconds = 1000000;
    const CLI::Range seconds(0.001, kMostSeconds);
    app.add_option("--cacert", options.caFile);
    app.add_option("--cert", options.certificateFile);
    app.add_option("--key", options.keyFile);
    app.add_flag("-I", raw.head)->excludes("-d")->excludes("--data-file");
    app.add_option("-T", raw.upload)->excludes("-d")->excludes("--data-file")->excludes("-I");
    app.add_option("--connect-timeout", raw.connectSeconds)->check(seconds);
    app.add_option("--max-time", raw.maxSeconds)->check(seconds)->excludes("--timeout");
    app.add_option("--max-streams", options.maxStreams)->check(CLI::Range(1U, kMostParallel));
}

void addOptions(CLI::App& app, Options& options, RawOptions& raw) {
    app.add_option("IP PORT PATH", raw.target);
    app.add_flag("--standard", raw.standard);
    app.add_flag("--tls", options.tls);
    app.add_flag("-k", options.insecure);
    auto* method = app.add_option("-X", options.method);
    if (!edition::kIsStandard) method->check(CLI::IsMember({"GET", "POST", "DELETE"}));
    app.add_option("-H", raw.headers)->allow_extra_args(false);
    app.add_option("--volatile-header", raw.volatileHeaders)->allow_extra_args(false);
    auto* text = app.add_option("-d,--data", raw.data);
    app.add_option("--data-file", raw.dataFile)->excludes(text);
    app.add_flag("-i", options.showHeaders);
    app.add_option("-o", options.outputFile);
    app.add_option("--timeout", raw.timeoutMs)->check(CLI::Range(0U, 1000000000U));
    app.add_option("--repeat", options.repeat)->check(CLI::Range(1U, 1000000000U));
    app.add_option("--parallel", options.parallel)->check(CLI::Range(1U, kMostParallel));
    app.add_flag("--blocking", options.blocking);
    app.add_flag("--json", options.json);
    app.add_option("--max-body", options.maxBody)->check(CLI::NonNegativeNumber);
    app.add_flag("--timing", options.timing);
    app.add_flag("-v", options.verbose);
    if (edition::kIsStandard) addStandardOptions(app, options, raw);
    app.set_version_flag("--version", versionText());
}

uint16_t parsePort(const std::string& text) {
    unsigned int port = 0;
    const bool isNumber = CLI::detail::lexical_cast(text, port);
    if (!isNumber || port == 0 || port > 65535) {
        refuse("'" + text + "' is no port; it is a number from 1 to 65535");
    }
    return static_cast<uint16_t>(port);
}

// Takes the HOST, HOST:PORT or [IPV6]:PORT of a URL apart. Returns the port's text; empty: none.
std::optional<std::string> splitAuthority(const std::string& authority, std::string& host) {
    if (authority.find('@') != std::string::npos && edition::kIsStandard) {
        refuse("a URL's user and password are not sent; write -H 'authorization: ...'");
    }
    size_t end = authority.find(':');
    if (authority.rfind('[', 0) == 0 && edition::kIsStandard) {
        const size_t bracket = std::min(authority.find(']'), authority.size() - 1);
        host = authority.substr(1, bracket - 1);
        if (authority[bracket] != ']' ||
            (bracket + 1 < authority.size() && authority[bracket + 1] != ':')) {
            refuse("'" + printable(authority) + "' is no IPv6 address; write it as in [::1]:8443");
        }
        end = authority.find(':', bracket);
    } else {
        host = authority.substr(0, end);
    }
    if (end == std::string::npos) return std::nullopt;
    return authority.substr(end + 1);
}

// Takes http://IP:PORT/PATH apart. Port and path may be missing.
void parseUrl(std::string url, Options& options) {
    const bool tls = url.rfind("https://", 0) == 0;
    if (options.tls && !tls) refuse("http:// does not go with --tls; write https://");
    options.tls = tls;
    url.erase(0, url.find("//") + 2);
    const size_t path = std::min(url.find_first_of("/?#"), url.size());
    options.path = url.substr(path);
    if (options.path.empty() || options.path[0] != '/') options.path.insert(0, 1, '/');
    url.erase(path);
    const auto port = splitAuthority(url, options.host);
    options.port = port ? parsePort(*port) : tls ? 443 : 80;
}

void parseTarget(const std::vector<std::string>& target, Options& options) {
    const bool isUrl = !target.empty() &&
                       (target[0].rfind("http://", 0) == 0 || target[0].rfind("https://", 0) == 0);
    const size_t expected = isUrl ? 1 : 3;
    if (target.size() > expected) refuse("'" + target[expected] + "' is one argument too many");
    if (isUrl) return parseUrl(target[0], options);
    if (edition::kIsStandard && target.size() < 2) {
        refuse(target.empty()
                   ? "a URL is required, such as https://localhost:8443/"
                   : "'" + printable(target[0]) + "' is no URL; write http://... or https://...");
    }
    if (target.empty()) refuse("IP is required, or a URL such as http://127.0.0.1:8080/");
    if (target.size() == 1) refuse("PORT is required");
    if (target.size() == 2) refuse("PATH is required");
    options.host = target[0];
    options.port = parsePort(target[1]);
    options.path = target[2];
}

// CLI11 finds out about unknown options last.
void refuseUnknownOption(const CLI::App& app) {
    for (const std::string& argument : app.remaining()) {
        if (argument.size() > 1 && argument[0] == '-') refuse("unknown option " + argument);
    }
}

// Without -X the method follows from what is sent.
void completeMethod(const CLI::App& app, const RawOptions& raw, Options& options) {
    if (app.count("--data") > 0) options.data = raw.data;
    if (app.count("--data-file") > 0) options.dataFile = raw.dataFile;
    if (app.count("-X") > 0) {
        checkMethod(options.method);
    } else if (options.data || options.dataFile) {
        options.method = "POST";
    }
}

// What the options of the standard edition change.
void completeStandard(const CLI::App& app, const RawOptions& raw, Options& options) {
    if (app.count("-T") > 0) options.dataFile = raw.upload;
    if (app.count("-X") == 0 && raw.head) options.method = "HEAD";
    if (app.count("-X") == 0 && app.count("-T") > 0) options.method = "PUT";
    options.showHeaders = options.showHeaders || (raw.head && !options.json);
    const auto inMs = [](double seconds) {
        return static_cast<unsigned int>(std::lround(seconds * 1000));
    };
    if (app.count("--max-time") > 0) options.timeoutMs = inMs(raw.maxSeconds);
    if (app.count("--connect-timeout") > 0) options.connectTimeoutMs = inMs(raw.connectSeconds);
    if (options.maxStreams != 0 && options.parallel == 0) {
        refuse("--max-streams is about --parallel; add that");
    }
    if (!options.keyFile.empty() && options.certificateFile.empty()) {
        refuse("--key goes with a certificate; add --cert");
    }
}

void complete(const CLI::App& app, const RawOptions& raw, Options& options) {
    if (raw.standard && !edition::kIsStandard) refuse("--standard must be the first argument");
    parseTarget(raw.target, options);
    if (app.count("--timeout") > 0) options.timeoutMs = raw.timeoutMs;
    if (options.outputFile == "-") options.outputFile.clear();
    completeMethod(app, raw, options);
    if (edition::kIsStandard) completeStandard(app, raw, options);
    for (const auto& header : raw.headers) options.headers.push_back(parseHeader(header, false));
    for (const auto& header : raw.volatileHeaders) {
        options.headers.push_back(parseHeader(header, true));
    }
    checkOutput(app, options);
    if (edition::kIsStandard) {
        checkHost(options.host);
        checkPath(options);
        return;
    }
    checkIpv4(options.host);
    checkPath(options);
    addHostHeader(options);
    checkHeaderSize(options);
}

// The exit code of a program that only says something about itself.
int print(const std::string& text) {
    const int error = writeWhole(STDOUT_FILENO, text.data(), text.size());
    if (error == 0) return EXIT_ANSWERED;
    complain(std::string("cannot write to standard output: ") + std::strerror(error));
    return EXIT_USAGE;
}

}  // namespace

std::optional<int> parseOptions(int argc, char** argv, Options& options) {
    CLI::App app;
    app.formatter_fn([](const CLI::App*, const std::string&, CLI::AppFormatMode) {
        return std::string(helpText());
    });
    RawOptions raw;
    addOptions(app, options, raw);
    try {
        try {
            app.parse(argc, argv);
        } catch (const CLI::Success&) {
            throw;
        } catch (const CLI::ParseError&) {
            refuseUnknownOption(app);
            throw;
        }
        complete(app, raw, options);
        return std::nullopt;
    } catch (const CLI::CallForVersion&) {
        return print(versionText() + std::string("\n"));
    } catch (const CLI::Success&) {
        return print(helpText());
    } catch (const CLI::ParseError& error) {
        const std::string help = edition::kIsStandard ? "--standard --help" : "--help";
        complain(error.what() + ("\nTry 'h2request " + help + "'."));
        return EXIT_USAGE;
    }
}
