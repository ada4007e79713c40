#ifndef HTTP2CLIENT_TOOLS_OPTIONS_H
#define HTTP2CLIENT_TOOLS_OPTIONS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// What h2request exits with. In `--help`, so never renumbered.
enum ExitCode {
    EXIT_ANSWERED = 0,  // status below 400
    EXIT_USAGE = 2,     // also: a file cannot be read or written
    EXIT_CANNOT_CONNECT = 3,
    EXIT_REQUEST_FAILED = 4,
    EXIT_CONNECTION_LOST = 5,
    EXIT_TIMED_OUT = 6,
    EXIT_ERROR_STATUS = 22,  // status 400 and above
    EXIT_INTERRUPTED = 130   // as shells have it for SIGINT
};

constexpr int kFirstErrorStatus = 400;

struct Header {
    std::string name;
    std::string value;
    bool isVolatile;  // must not enter a compression table
};

struct Options {
    std::string host;  // exact edition: an IPv4 address; else a name or any address
    uint16_t port = 0;
    std::string path;
    bool tls = false;
    bool insecure = false;  // no certificate is verified, and the user knows
    std::string caFile;     // these three: PEM files; empty for none
    std::string certificateFile;
    std::string keyFile;
    std::string method = "GET";
    std::vector<Header> headers;  // exact edition: a host header is among them
    std::optional<std::string> data;
    std::optional<std::string> dataFile;  // "-" for standard input
    bool showHeaders = false;
    std::string outputFile;                        // empty for standard output
    std::optional<unsigned int> timeoutMs;         // of a connect, and of a request; 0 for none
    std::optional<unsigned int> connectTimeoutMs;  // of a connect alone
    unsigned int idleMs = 60000;  // without progress; used when timeoutMs is not set
    unsigned int repeat = 1;
    // Exact edition: connections that share the requests. Else requests at a time. 0: none of that.
    unsigned int parallel = 0;
    unsigned int maxStreams = 0;  // requests at a time on one connection; 0 for no limit
    bool blocking = false;
    bool json = false;
    uint64_t maxBody = uint64_t{16} * 1024 * 1024;  // bytes of a body that --json keeps
    bool timing = false;
    bool verbose = false;

    std::optional<unsigned int> connectLimitMs() const {
        return connectTimeoutMs ? connectTimeoutMs : timeoutMs;
    }
    // Whether bodies are kept for a JSON object.
    bool keepsBody() const { return json && outputFile.empty(); }
};

// Fills `options` from the command line. Returns nothing when the program goes on, and its exit
// code when it ends here: after --help, or with a message on standard error.
std::optional<int> parseOptions(int argc, char** argv, Options& options);

#endif  // HTTP2CLIENT_TOOLS_OPTIONS_H
