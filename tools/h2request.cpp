// The library as a command: makes requests, prints the answers. See --help.

#include <csignal>

#include "CLogWrapper/CLogWrapper.h"
#include "Http2Client/httpClientApi.h"
#include "body.h"
#include "console_lines.h"
#include "edition.h"
#include "interrupt.h"
#include "message.h"
#include "options.h"
#include "output.h"
#include "parallel.h"
#include "successive.h"

namespace {

constexpr unsigned int kPollTimeMs = 5;

void setLogLevel([[maybe_unused]] bool verbose) {
#ifdef H2REQUEST_SETS_LOG_LEVEL
    constexpr int kInfo = 20000;
    constexpr int kNone = 60000;
    CLogWrapper::SetLevel(verbose ? kInfo : kNone);
#endif
}

// The library's thread, too, has nothing to do with Ctrl-C.
void startLibrary() {
    const BlockedInterrupts blocked;
    initHttp2Client(kPollTimeMs);
}

}  // namespace

int main(int argc, char** argv) {
    occupyStandardDescriptors();
    signal(SIGPIPE, SIG_IGN);
    if (const auto ended = edition::handOver(argc, argv)) return *ended;
    Options options;
    if (const auto ended = parseOptions(argc, argv, options)) return *ended;
    catchInterrupts();
    BodySource body;
    if (!body.open(options)) {
        if (!isInterrupted()) return EXIT_USAGE;
        complain("interrupted");
        return EXIT_INTERRUPTED;
    }
    Output output;
    if (!output.open(options)) return EXIT_USAGE;
    if (options.tls && !options.insecure && !edition::kIsStandard) {
        complain("note: the server's certificate is not verified (-k: leave out this note)");
    }
    setLogLevel(options.verbose);
    const ConsoleLines consoleLines(options.verbose);
    startLibrary();
    if (options.parallel == 0) runSuccessive(options, body, output);
    runParallel(options, body);
}
