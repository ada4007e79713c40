#include <array>
#include <cerrno>
#include <climits>
#include <cstring>

#include <unistd.h>

#include "edition.h"
#include "message.h"
#include "probe.h"

namespace edition {

namespace {

#ifdef H2REQUEST_STANDARD_PROGRAMS
// The folder of this program; empty when the system does not tell.
std::string ownFolder() {
    std::array<char, PATH_MAX> path{};
    const ssize_t size = readlink("/proc/self/exe", path.data(), path.size());
    if (size <= 0 || static_cast<size_t>(size) == path.size()) return {};
    const std::string self(path.data(), static_cast<size_t>(size));
    return self.substr(0, self.rfind('/') + 1);
}

int becomeStandard(char** argv) {
    const std::string folder = ownFolder();
    std::string tried;
    // Beside this program in the build tree; where it is installed, from there.
    for (const char* program : {H2REQUEST_STANDARD_PROGRAMS}) {
        const std::string path = folder + program;
        execv(path.c_str(), argv);
        if (errno != ENOENT) {
            complain("cannot start " + path + ": " + std::strerror(errno));
            return EXIT_USAGE;
        }
        tried += (tried.empty() ? "" : " or ") + path;
    }
    complain("the standard edition's program is missing: no " + tried + "; install it");
    return EXIT_USAGE;
}
#else
int becomeStandard(char** /*argv*/) {
    complain(
        "this program was built without the standard edition; build it with "
        "-DHTTP2CLIENT_BUILD_STANDARD=ON");
    return EXIT_USAGE;
}
#endif

}  // namespace

const bool kIsStandard = false;

std::optional<int> handOver(int argc, char** argv) {
    if (argc < 2 || std::string_view(argv[1]) != "--standard") return std::nullopt;
    return becomeStandard(argv);
}

void configure(tiny::HttpClientInterface& /*client*/, const Options& /*options*/) {}

bool setMethod(tiny::HttpClientInterface& /*client*/, const std::string& /*method*/) {
    return true;
}

std::string lastError(tiny::HttpClientInterface& /*client*/) { return {}; }

bool joinedConnection(tiny::HttpClientInterface& /*client*/) { return false; }

std::optional<ConnectTimes> connectTimes(tiny::HttpClientInterface& /*client*/) { return {}; }

Outcome failToConnect(const Options& options, const std::string& /*error*/) {
    const Probe probe = probeServer(options);
    std::string reason = probe.finding;
    if (probe.error == ECONNREFUSED) {
        reason = "nobody listens there; start the server, or see its ports with `ss -ltn`";
    } else if (probe.error == EMFILE || probe.error == ENFILE) {
        reason = "no descriptor is left; allow more with `ulimit -n`, or use fewer";
    } else if (probe.error != 0) {
        reason = std::string(std::strerror(probe.error)) +
                 "; check the address, and whether a firewall is in between";
    } else if (reason.empty()) {
        reason =
            "a second try reached the server: try again, with fewer connections if there were "
            "hundreds";
    }
    return cannotConnect(options, reason);
}

void explainFailure(const Options& options, Outcome& outcome) {
    const Probe probe = probeServer(options);
    if (!probe.finding.empty()) {
        fail(outcome, outcome.code, std::string(kindOf(outcome.code)) + ": " + probe.finding);
    }
}

}  // namespace edition
