#ifndef HTTP2CLIENT_TOOLS_SUCCESSIVE_H
#define HTTP2CLIENT_TOOLS_SUCCESSIVE_H

#include "body.h"
#include "options.h"
#include "output.h"

// Makes the requests one after another on one connection, and prints each answer. Ends the process,
// whatever the library is doing then; its connection ends with it.
[[noreturn]] void runSuccessive(const Options& options, const BodySource& source, Output& output);

#endif  // HTTP2CLIENT_TOOLS_SUCCESSIVE_H
