#include <array>
#include <cstdint>
#include <string_view>

#include <unistd.h>

#include "Http2ClientStandard/Http2ClientOptions.h"
#include "edition.h"
#include "message.h"
#include "text.h"

namespace edition {

namespace {

constexpr int64_t kNoConnectLimit = 1000000000000;  // milliseconds; decades

// What to try when connecting failed, by a part of what the library says. The first that fits.
struct Advice {
    std::string_view part;
    const char* text;
    int code = EXIT_CANNOT_CONNECT;
};
constexpr std::array<Advice, 13> kAdvice = {{
    {"cannot find host", "check the name; `getent ahosts NAME` looks it up"},
    {"Connection refused",
     "nobody listens there: start the server, or see its ports with `ss -ltn`"},
    {"within the connect time-out",
     "check the address and the port, or allow more with --connect-timeout", EXIT_TIMED_OUT},
    {"mismatch", "use the name that it is for, or verify nothing with -k"},
    {"has expired", "have it renewed, or verify nothing with -k"},
    {"certificate is not accepted", "trust its CA with --cacert FILE, or verify nothing with -k"},
    {"does not offer HTTP/2", "use a port that speaks HTTP/2 over TLS"},
    {"does not speak TLS", "write http:// if it speaks HTTP/2 without TLS"},
    {"cannot load CA file", "check --cacert"},
    {"cannot load certificate", "check --cert"},
    {"cannot use key", "check --key and --cert"},
    {"Too many open files", "allow more with `ulimit -n`, or use fewer connections"},
    {"TLS handshake", "see the server's log"},
}};
constexpr Advice kOtherAdvice = {"", "check the address, and whether a firewall is in between"};

const Advice& adviceFor(std::string_view error) {
    for (const Advice& advice : kAdvice) {
        if (error.find(advice.part) != std::string_view::npos) return advice;
    }
    return kOtherAdvice;
}

// On the library's threads, too.
void showFrame(const char* text, void* /*opaque*/) {
    const std::string lines = std::string(text) + "\n";
    writeWhole(STDERR_FILENO, lines.data(), lines.size());
}

void setText(tiny::HttpClientInterface& client, HTTP2_TEXT_OPTION option, const std::string& text) {
    if (!text.empty()) setHttp2TextOption(&client, option, text.c_str());
}

}  // namespace

const bool kIsStandard = true;

std::optional<int> handOver(int /*argc*/, char** /*argv*/) { return std::nullopt; }

void configure(tiny::HttpClientInterface& client, const Options& options) {
    if (options.verbose) setHttp2Trace(&client, &showFrame, nullptr);
    if (options.insecure) setHttp2Option(&client, HTTP2_VERIFY, 0);
    setText(client, HTTP2_CA_FILE, options.caFile);
    setText(client, HTTP2_CERTIFICATE_FILE, options.certificateFile);
    setText(client, HTTP2_KEY_FILE, options.keyFile);
    if (const auto limit = options.connectLimitMs()) {
        setHttp2Option(&client, HTTP2_CONNECT_TIMEOUT, *limit == 0 ? kNoConnectLimit : *limit);
    }
    if (options.maxStreams == 0) return;
    const unsigned int connections =
        (options.parallel + options.maxStreams - 1) / options.maxStreams;
    setHttp2Option(&client, HTTP2_CONNECTIONS_PER_SERVER, connections);
}

bool setMethod(tiny::HttpClientInterface& client, const std::string& method) {
    return setHttp2TextOption(&client, HTTP2_METHOD, method.c_str()) == 0;
}

std::string lastError(tiny::HttpClientInterface& client) {
    return printable(getHttp2Text(&client, HTTP2_ERROR));
}

bool joinedConnection(tiny::HttpClientInterface& client) {
    return getHttp2Number(&client, HTTP2_SHARED) == 1;
}

std::optional<ConnectTimes> connectTimes(tiny::HttpClientInterface& client) {
    const auto time = [&client](HTTP2_NUMBER number) {
        return std::chrono::microseconds(getHttp2Number(&client, number));
    };
    const ConnectTimes times{time(HTTP2_NAME_TIME), time(HTTP2_CONNECT_TIME), time(HTTP2_TLS_TIME)};
    if (times.name < Duration::zero()) return std::nullopt;
    return times;
}

Outcome failToConnect(const Options& options, const std::string& error) {
    const Advice& advice = adviceFor(error);
    Outcome outcome = cannotConnect(options, error + "; " + advice.text);
    outcome.code = advice.code;
    return outcome;
}

void explainFailure(const Options& options, Outcome& outcome) {
    constexpr std::string_view kNoHttp2 = "does not start with SETTINGS";
    if (outcome.message.find(kNoHttp2) == std::string::npos) return;
    const std::string advice = options.tls ? "use another port" : "try https://, or another port";
    fail(outcome, EXIT_REQUEST_FAILED,
         "request failed: the server does not speak HTTP/2 on this port (it does not start with "
         "SETTINGS); " +
             advice);
}

}  // namespace edition
