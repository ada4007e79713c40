#ifndef HTTP2CLIENT_TOOLS_PARALLEL_H
#define HTTP2CLIENT_TOOLS_PARALLEL_H

#include "body.h"
#include "options.h"

// Shares the requests among connections, each with a thread, and prints a summary: on standard
// output, or on standard error when the answers are printed as JSON. A failed request is counted,
// and a lost connection replaced. Ends the process, whatever the library is doing then; the exit
// code is that of the first failure, if there is one; else EXIT_ERROR_STATUS if there was such an
// answer.
[[noreturn]] void runParallel(const Options& options, const BodySource& source);

#endif  // HTTP2CLIENT_TOOLS_PARALLEL_H
