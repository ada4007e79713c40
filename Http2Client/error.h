#ifndef HTTP2CLIENT_ERROR_H
#define HTTP2CLIENT_ERROR_H

/// @file
/// Schemas, methods and codes.

/// What a connection speaks. HTTP/2 always; the value chooses what lies under it.
enum HTTP_SCHEMA : int {
    HTTP_VERSION_UNDEFINED = 0,  ///< not chosen yet; connecting with it uses TLS
    HTTP_2 = 1,                  ///< plain TCP, HTTP/2 with prior knowledge (RFC 9113, 3.3)
    HTTPS_2 = 2                  ///< TLS, without ALPN and without certificate verification
};

/// The request methods that the client can send.
enum HTTP_METHOD : int {
    HTTP_METHOD_UNDEFINED = 0,  ///< no method text: the request's ":method" is empty
    HTTP_GET = 1,               ///< ":method" is GET
    HTTP_POST = 2,              ///< ":method" is POST
    HTTP_DELETE = 3             ///< ":method" is DELETE
};

/// Argument of HttpClientInterface::onFailed, and the meaning of several int results.
enum HTTP_ERROR : int {
    ERR_OK = 0,             ///< all went well
    ERR_RECV_ERR = 1,       ///< not reported by this version
    ERR_FETAL = 2,          ///< the server reset the stream, or the connection cannot be parsed
    ERR_TIMEOUT = 3,        ///< not passed to onFailed; blockedRequest returns the value
    ERR_SOCKET_CLOSED = 4,  ///< there is no connection, or it could not be made
    ERR_URL_UNSET = 5,      ///< not reported by this version
    ERR_HEADER_UNSET = 6,   ///< not reported by this version
    ERR_CONTENT_UNSET = 7,  ///< not reported by this version
    ERR_BUSY = 8            ///< a request of this object is still running
};

#endif  // HTTP2CLIENT_ERROR_H
