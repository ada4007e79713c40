#ifndef HTTP2CLIENTSTANDARD_HTTP2CLIENTOPTIONS_H
#define HTTP2CLIENTSTANDARD_HTTP2CLIENTOPTIONS_H

/// @file
/// What the standard edition offers beyond tiny::HttpClientInterface: options, and questions about
/// a client's connection and its last request. The exact edition has none of these functions.

#include <stdint.h>

#include "Http2Client/HttpClientInterface.h"

/// Options with a number. Times are in milliseconds.
enum HTTP2_OPTION : int {
    HTTP2_VERIFY = 1,                  ///< 1: verify the server's certificate (default); 0: do not
    HTTP2_MIN_TLS_VERSION = 2,         ///< 12: TLS 1.2 (default); 13: TLS 1.3
    HTTP2_OWN_CONNECTION = 3,          ///< 1: share no connection with other clients; 0 (default)
    HTTP2_CONNECTIONS_PER_SERVER = 4,  ///< shared ones, opened by connectToServer; 1 (default)
    HTTP2_BACKGROUND_THREADS = 5,      ///< 1 (default) to 64; for the process, before the first
                                       ///< initHttp2Client; connections are spread over them
    HTTP2_CONNECT_TIMEOUT = 6,         ///< TCP and TLS together; 10000 (default)
    HTTP2_FIRST_BYTE_TIMEOUT = 7,      ///< until the first header of the answer; 0: none (default)
    HTTP2_REQUEST_TIMEOUT = 8,         ///< of the whole request; 0: none (default)
    HTTP2_SILENCE_TIMEOUT = 9,         ///< between two pieces of an answer; 0: none (default)
    HTTP2_PING_AFTER = 10,             ///< silence of a connection on which requests run, before a
                                       ///< PING; 30000 (default), 0: never
    HTTP2_PING_TIMEOUT = 11,           ///< wait for its answer, before the connection is given up;
                                       ///< 15000 (default)
    HTTP2_IDLE_TIMEOUT = 12,           ///< a connection without requests is closed after this;
                                       ///< 90000 (default), 0: never
    HTTP2_STREAM_WINDOW = 13,          ///< receive window of an answer in bytes; 32 MiB (default)
    HTTP2_CONNECTION_WINDOW = 14,      ///< of all answers of a connection; 64 MiB (default)
    HTTP2_MAX_HEADERS = 15,            ///< size of an answer's headers, 32 bytes for each included;
                                       ///< 131072 (default)
    HTTP2_MAX_BLOCKED_BODY = 16        ///< size of a body that blockedRequest takes; 64 MiB
                                       ///< (default)
};

/// Options with a text.
enum HTTP2_TEXT_OPTION : int {
    HTTP2_CA_FILE = 101,           ///< certificates to trust, PEM; none: the system's store
    HTTP2_CA_DIRECTORY = 102,      ///< the same as a directory that c_rehash has made
    HTTP2_CERTIFICATE_FILE = 103,  ///< the client's own certificate with its chain, PEM
    HTTP2_KEY_FILE = 104,          ///< its key, PEM; none: it is in the certificate's file
    HTTP2_SERVER_NAME = 105,       ///< the name or address that the server's certificate must have;
                                   ///< none: the one that is connected to
    HTTP2_METHOD = 106             ///< the request's method, in place of setUri's: any token but
                                   ///< CONNECT. Only for a client that is connected
};

/// Questions with a number for an answer. Times are in microseconds, those of the connection in
/// steps of a thousand.
enum HTTP2_NUMBER : int {
    HTTP2_SHARED = 201,        ///< 1: the last connectToServer joined a connection; 0: opened one
    HTTP2_NAME_TIME = 202,     ///< that it took to find the server's address
    HTTP2_CONNECT_TIME = 203,  ///< that TCP took
    HTTP2_TLS_TIME = 204,      ///< that the TLS handshake took
    HTTP2_FIRST_BYTE_TIME = 205,  ///< from the last request's start to its answer's headers
    HTTP2_TOTAL_TIME = 206        ///< from the last request's start to its end
};

/// Questions with a text for an answer.
enum HTTP2_TEXT : int {
    HTTP2_ERROR = 301,        ///< why the last call or request failed; empty: it did not
    HTTP2_PROTOCOL = 302,     ///< "h2" over TLS, "h2c" over TCP
    HTTP2_TLS_VERSION = 303,  ///< such as "TLSv1.3"; empty over TCP
    HTTP2_PEER = 304          ///< the server's address
};

/// Sets an option of `client`, or the default of clients made from now on when `client` is null.
/// What concerns a connection holds for those that this client opens from then on: a connection
/// that it joins stays as it is. Clients whose TLS options differ never share a connection.
/// @return 0, or -1: no such option, or the value is out of its range.
HTTP2CLIENT_API int setHttp2Option(tiny::HttpClientInterface* client, HTTP2_OPTION option,
                                   int64_t value);

/// The same for an option with a text, which is copied; null counts as empty.
/// @return 0, or -1: no such option, or not a valid text.
HTTP2CLIENT_API int setHttp2TextOption(tiny::HttpClientInterface* client, HTTP2_TEXT_OPTION option,
                                       const char* text);

/// Gets a text for people about each frame that a connection sends or receives: a line, and further
/// ones for settings and headers, without a line end behind the last. Values of authorization,
/// proxy-authorization, cookie and set-cookie are masked. It is called on the thread that sends or
/// receives, of several connections at the same time, and must call nothing of this library.
typedef void (*Http2Trace)(const char* text, void* opaque);

/// Lets `trace` see the frames of connections that `client` opens from now on, or that clients made
/// from now on do when `client` is null. Null for `trace`: none, which costs nothing (default).
HTTP2CLIENT_API void setHttp2Trace(tiny::HttpClientInterface* client, Http2Trace trace,
                                   void* opaque);

/// Stops giving the server leave to send more of the running answer. What is under way arrives
/// nevertheless: at most HTTP2_STREAM_WINDOW bytes. May be called in callbacks.
/// @return 0, or -1: no request is running.
HTTP2CLIENT_API int pauseHttp2Response(tiny::HttpClientInterface* client);

/// Ends the pause.
/// @return 0, or -1: no request is running.
HTTP2CLIENT_API int resumeHttp2Response(tiny::HttpClientInterface* client);

/// @return the answer, or -1: not known (yet).
HTTP2CLIENT_API int64_t getHttp2Number(tiny::HttpClientInterface* client, HTTP2_NUMBER number);

/// @return the answer, which lives until the next call of a function for this client; never null,
/// empty when it is not known.
HTTP2CLIENT_API const char* getHttp2Text(tiny::HttpClientInterface* client, HTTP2_TEXT text);

#endif  // HTTP2CLIENTSTANDARD_HTTP2CLIENTOPTIONS_H
