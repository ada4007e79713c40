#ifndef HTTP2CLIENT_TOOLS_SUCCESSIVE_H
#define HTTP2CLIENT_TOOLS_SUCCESSIVE_H

#include "body.h"
#include "interrupt.h"
#include "options.h"
#include "output.h"

// Makes the requests one after another on one connection, and prints each answer. Returns the
// exit code.
int runSuccessive(const Options& options, const BodySource& source, Output& output,
                  Interrupt& interrupt);

#endif  // HTTP2CLIENT_TOOLS_SUCCESSIVE_H
