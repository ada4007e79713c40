#ifndef HTTP2CLIENT_HTTPCLIENTAPI_H
#define HTTP2CLIENT_HTTPCLIENTAPI_H

/// @file
/// Starting and stopping the library.

#include "PlatformDef.h"

/// Starts the library's one background thread, which makes every callback. It blocks the signals
/// that a process is sent (SIGINT, SIGTERM, SIGCHLD and so on): other threads handle them. Exact
/// edition: it does all socket input and output after a connect, and does not block SIGPIPE, which
/// the application must ignore. Standard edition: it raises no SIGPIPE, and there can be several
/// threads (an option).
///
/// Call it before the first tiny::HttpClientInterface is used, and never at the same time as
/// destroyHttp2Client. A call while the thread runs changes nothing, `pollTime` included.
///
/// `pollTime`, exact edition: how many milliseconds the thread waits when it has no connection to
/// serve. A request that is started meanwhile starts that late. While a connection exists on which
/// a request was started, the thread wakes every millisecond. Standard edition: has no effect; the
/// thread wakes when there is something to do.
/// @return 1 in every case.
HTTP2CLIENT_API int initHttp2Client(unsigned int pollTime);

/// Stops the background thread and waits until it has ended. Connections and clients stay as they
/// are: a later initHttp2Client serves them again. Must not be called from a callback (standard
/// edition: it does nothing there but log an error).
/// @return 1 in every case, also when no thread runs.
HTTP2CLIENT_API int destroyHttp2Client();

#endif  // HTTP2CLIENT_HTTPCLIENTAPI_H
