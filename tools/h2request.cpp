// The library as a command: makes requests, prints the answers. See --help.

#include <csignal>

#include "CLogWrapper/CLogWrapper.h"
#include "Http2Client/httpClientApi.h"
#include "body.h"
#include "console_lines.h"
#include "interrupt.h"
#include "options.h"
#include "output.h"
#include "parallel.h"
#include "successive.h"

namespace {

constexpr unsigned int kPollTimeMs = 5;

}  // namespace

int main(int argc, char** argv) {
    occupyStandardDescriptors();
    signal(SIGPIPE, SIG_IGN);
    Options options;
    if (const auto ended = parseOptions(argc, argv, options)) return *ended;
    Interrupt interrupt;
    BodySource body;
    Output output;
    if (!body.open(options) || !output.open(options)) return EXIT_USAGE;
#ifdef H2REQUEST_SETS_LOG_LEVEL
    constexpr int kLogInfo = 20000;
    if (options.verbose) CLogWrapper::SetLevel(kLogInfo);
#endif

    const ConsoleLines consoleLines(options.verbose);
    initHttp2Client(kPollTimeMs);
    const int code = options.parallel == 0 ? runSuccessive(options, body, output, interrupt)
                                           : runParallel(options, body, interrupt);
    destroyHttp2Client();
    return code;
}
