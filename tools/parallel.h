#ifndef HTTP2CLIENT_TOOLS_PARALLEL_H
#define HTTP2CLIENT_TOOLS_PARALLEL_H

#include "body.h"
#include "interrupt.h"
#include "options.h"

// Shares the requests among connections, each with a thread, and prints a summary: on standard
// output, or on standard error when the answers are printed as JSON. A failed request is counted,
// and a lost connection replaced. Returns the exit code: that of the first failure, if there is
// one; else EXIT_ERROR_STATUS if there was such an answer.
int runParallel(const Options& options, const BodySource& source, Interrupt& interrupt);

#endif  // HTTP2CLIENT_TOOLS_PARALLEL_H
