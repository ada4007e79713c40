#include "options.h"

#include <arpa/inet.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>

namespace {

const char* const kFooter =
    "Exit codes: 0 answered, status below 400; 22 answered, status 400 or above;\n"
    "  3 cannot connect; 4 request failed (the server reset it); 5 connection lost;\n"
    "  6 timed out; 2 bad usage, or a file that cannot be read or written.\n"
    "The body goes to standard output, with -i behind status and headers; everything else\n"
    "goes to standard error.\n"
    "A host header is added unless one is given. A response without a body is complete\n"
    "with its headers: status 204 or 304, or content-length 0.\n"
    "Example: h2request -i -H 'accept: text/html' 127.0.0.1 8080 /index.html";

std::string trimmed(const std::string& text) {
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string::npos) return std::string();
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// Splits 'name: value'; the name goes out in lower case (RFC 9113, 8.2).
Header parseHeader(const std::string& text, bool isVolatile) {
    const auto colon = text.find(':');
    Header header{trimmed(text.substr(0, colon)), std::string(), isVolatile};
    if (colon != std::string::npos) header.value = trimmed(text.substr(colon + 1));
    if (header.name.empty() || header.value.empty()) {
        throw CLI::ValidationError("'" + text + "' is no header; write it as 'name: value'");
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

void checkMeaning(const CLI::App& app, const Options& options) {
    in_addr address{};
    if (inet_aton(options.ip.c_str(), &address) == 0) {
        throw CLI::ValidationError("'" + options.ip +
                                   "' is no IPv4 address; names are not looked up");
    }
    if (options.path.empty()) throw CLI::ValidationError("PATH is empty; write at least /");
    if (app.count("--data") + app.count("--data-file") > 0 && options.method != HTTP_POST &&
        app.count("-X") == 0) {
        throw CLI::ValidationError("a body needs a method that has one; add -X POST");
    }
}

}  // namespace

std::optional<int> parseOptions(int argc, char** argv, Options& options) {
    CLI::App app("Makes HTTP/2 requests to the server at IP PORT and prints the answer.");
    app.name("h2request");
    app.footer(kFooter);
    std::string method = "GET";
    std::vector<std::string> headers;
    std::vector<std::string> volatileHeaders;
    std::string data;
    app.add_option("IP", options.ip, "IPv4 address of the server")->required();
    app.add_option("PORT", options.port, "its port")->required()->check(CLI::Range(1, 65535));
    app.add_option("PATH", options.path, "what to ask for, escaped, with its query")->required();
    app.add_flag("--tls", options.tls, "TLS (no ALPN, any certificate); plain TCP otherwise");
    app.add_option("-X", method, "GET (default), POST or DELETE")
        ->check(CLI::IsMember({"GET", "POST", "DELETE"}));
    app.add_option("-H", headers, "request header 'name: value'; repeatable")
        ->allow_extra_args(false);
    app.add_option("--volatile-header", volatileHeaders, "one that must not be indexed")
        ->allow_extra_args(false);
    auto* text = app.add_option("--data", data, "request body");
    app.add_option("--data-file", options.dataFile, "request body from a file; - is stdin")
        ->excludes(text);
    app.add_flag("-i", options.showHeaders, "print status and headers before the body");
    app.add_option("-o", options.outputFile, "write the body to a file");
    app.add_option("--timeout", options.timeoutMs, "milliseconds for each request (none)");
    app.add_option("--repeat", options.repeat, "successive requests on one connection")
        ->check(CLI::Range(1U, 1000000000U));
    app.add_flag("--blocking", options.blocking, "use the library's blocking call (to 1 MiB)");
    app.add_flag("-v", options.verbose, "the library's log and console lines on stderr");
    try {
        app.parse(argc, argv);
        options.method = method == "POST"     ? HTTP_POST
                         : method == "DELETE" ? HTTP_DELETE
                                              : HTTP_GET;
        if (app.count("--data") > 0) options.data = data;
        checkMeaning(app, options);
        for (const auto& header : headers) options.headers.push_back(parseHeader(header, false));
        for (const auto& header : volatileHeaders) {
            options.headers.push_back(parseHeader(header, true));
        }
        addHostHeader(options);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) return app.exit(error);
        std::cerr << "h2request: " << error.what() << "\nTry 'h2request --help'.\n";
        return EXIT_USAGE;
    }
    return std::nullopt;
}
