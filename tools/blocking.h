#ifndef HTTP2CLIENT_TOOLS_BLOCKING_H
#define HTTP2CLIENT_TOOLS_BLOCKING_H

#include "request.h"

// One request through blockedRequest. That call counts processor time, and hears of no lost
// connection nor of an answer that ends with its headers, so callbacks and wall clock are watched
// beside it. `isLast` tells that no further request follows.
Outcome runBlocking(const RequestContext& context, bool isLast);

#endif  // HTTP2CLIENT_TOOLS_BLOCKING_H
