#ifndef HTTP2CLIENT_ERROR_H
#define HTTP2CLIENT_ERROR_H

/// @file
/// Schemas, methods and codes.

/// What a connection speaks. HTTP/2 always; the value chooses what lies under it.
enum HTTP_SCHEMA : int {
    HTTP_VERSION_UNDEFINED = 0,  ///< not chosen yet; connecting with it uses TLS
    HTTP_2 = 1,                  ///< plain TCP, HTTP/2 with prior knowledge (RFC 9113, 3.3)
    HTTPS_2 = 2  ///< TLS. Exact edition: without ALPN and without certificate verification.
                 ///< Standard edition: with both
};

/// The request methods that the client can send. The standard edition's HTTP2_METHOD adds others.
enum HTTP_METHOD : int {
    HTTP_METHOD_UNDEFINED = 0,  ///< exact edition: the request's ":method" is empty; standard
                                ///< edition: the method stays as it is
    HTTP_GET = 1,               ///< ":method" is GET
    HTTP_POST = 2,              ///< ":method" is POST
    HTTP_DELETE = 3             ///< ":method" is DELETE
};

/// Argument of HttpClientInterface::onFailed, and the meaning of several int results. The exact
/// edition reports ERR_OK, ERR_FETAL, ERR_SOCKET_CLOSED and ERR_BUSY only.
enum HTTP_ERROR : int {
    ERR_OK = 0,             ///< all went well
    ERR_RECV_ERR = 1,       ///< the server reset the stream
    ERR_FETAL = 2,          ///< exact edition: the server reset the stream, or the connection
                            ///< cannot be parsed; standard edition: the answer breaks the
                            ///< protocol or exceeds a limit
    ERR_TIMEOUT = 3,        ///< a time-out of the request has passed; in both editions the value
                            ///< that blockedRequest returns
    ERR_SOCKET_CLOSED = 4,  ///< there is no connection, or it could not be made; to onFailed: the
                            ///< server has certainly not processed the request
    ERR_URL_UNSET = 5,      ///< setUri: not a path; startRequest: no method
    ERR_HEADER_UNSET = 6,   ///< not reported
    ERR_CONTENT_UNSET = 7,  ///< content-length and body differ, or the body's reader failed
    ERR_BUSY = 8            ///< a request of this object is still running
};

#endif  // HTTP2CLIENT_ERROR_H
