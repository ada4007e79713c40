#ifndef HTTP2CLIENT_HTTPCLIENTINTERFACE_H
#define HTTP2CLIENT_HTTPCLIENTINTERFACE_H

/// @file
/// The class that applications derive from. Two libraries have it, and a program links one of them:
/// libHttp2Client, the exact edition, and libHttp2ClientStandard, the standard edition. Where they
/// differ, the comments say what holds for each.

#include <stddef.h>
#include <stdint.h>

#include <map>
#include <string>

#include "PlatformDef.h"
#include "error.h"

namespace tiny {

class HttpClientInterfaceImpl;

/// One client of one server: derive from it, implement the four callbacks, connect, describe the
/// request, start it. The response arrives through the callbacks, or as the results of
/// blockedRequest. An object makes one request at a time.
///
/// Threads: the methods are called by the application, from one thread at a time for one object.
/// The callbacks come from the library's background thread and must be quick, since other requests
/// wait meanwhile. Exact edition: the thread holds the library's connection lock during a callback,
/// which must not call this object's (or another client's) methods nor destroy a client. Standard
/// edition: no lock is held, and a callback may call any method of any client, and destroy any
/// client, its own as its last act.
///
/// Destruction: the base class withdraws a running request, but by then the derived part is gone
/// and a callback in that moment has nothing left to call. Call cancelRequest() in the derived
/// class's destructor: after it has returned, no callback of this object runs or will run.
///
/// Connections. Exact edition: each object has its own, which outlives it and stays open until the
/// server closes it or it breaks; no call closes one. Reuse the object for further requests instead
/// of making a new one for each. Standard edition: clients of the same server share connections,
/// which are closed after a time without requests, and opened again when they are needed.
///
/// What neither edition does: redirects, cookies, decompression, server push. The exact edition
/// also lacks flow control of what it sends, certificate verification, and acknowledgement of the
/// server's SETTINGS and PING frames.
class HTTP2CLIENT_API HttpClientInterface {
public:
    /// One response header. Both texts end with a NUL byte and live only during the callback.
    struct HeaderDef {
        const char* m_headerName;   ///< as the server sent it; never null
        const char* m_headerValue;  ///< never null
    };

    /// A client without a connection and without a request.
    HttpClientInterface();

    /// Withdraws a running request; the connection stays open. See above for what the derived class
    /// has to do before.
    virtual ~HttpClientInterface();

    /// Not copyable.
    HttpClientInterface(const HttpClientInterface&) = delete;
    /// Not copyable.
    HttpClientInterface& operator=(const HttpClientInterface&) = delete;

    /// The connection is gone, and the request that was running on it has ended without its whole
    /// answer; the server may have processed it. Not called when no request was running.
    /// Exact edition: the server closed the connection, it broke, or it ended after the server's
    /// RST_STREAM or GOAWAY. Connect again before the next request; when no request was running,
    /// the next startRequest returns 2. Standard edition: the next startRequest opens another
    /// connection.
    virtual void onSocketClosed() = 0;

    /// The running request has failed. Exact edition: `err` is ERR_FETAL: the server reset the
    /// stream, or what it sent cannot be parsed; the connection is dropped in either case. Standard
    /// edition: this request alone has failed, for the reason that `err` names.
    virtual void onFailed(HTTP_ERROR err) = 0;

    /// The response's status and all headers received so far, `count` of them. The pseudo-header
    /// ":status" is among them. Called again, with the headers of both, when trailers arrive
    /// (RFC 9113, 8.1). Exact edition: in ascending order of their names; of a repeated name only
    /// the last value is kept; `status` is 0 when the server sent none. Standard edition: in the
    /// order in which they came, each repeated one by itself; interim responses (1xx) are passed
    /// over.
    virtual void onHeaderReceived(int status, const HeaderDef* headers, size_t count) = 0;

    /// `len` bytes of the response's body at `data`, valid only during the call. `more` is false
    /// with the chunk that ends the response (it may be empty) and true before. Exact edition: a
    /// response without a body (status 204 or 304, or content-length 0) may end without this call.
    /// The request then counts as running: call cancelRequest before the next one. Standard
    /// edition: every complete response ends with this call.
    virtual void onContentReceived(const char* data, size_t len, bool more) = 0;

    /// Connects to `port` (host order) of `ip`, on the calling thread: it waits for the TCP connect
    /// and, for HTTPS_2, for the TLS handshake.
    /// Exact edition: `ip` is an IPv4 address (dotted text). Each call opens a new connection,
    /// which the object uses from then on, and no other connection of the process sends or receives
    /// meanwhile. There is no time-out but the operating system's.
    /// Standard edition: `ip` is a host name, an IPv4 or an IPv6 address. The object joins a
    /// connection to the same server, or opens one within the connect time-out (10 s). In a
    /// callback nothing waits: 0 when a connection is there or under way, 4 for a host name that
    /// has not been connected to.
    /// @return 0: connected; 4 (ERR_SOCKET_CLOSED): the connect or handshake failed, or the process
    /// has no descriptor left (exact edition: none below 1024); -1: no request state (never for a
    /// live object).
    int connectToServer(HTTP_SCHEMA schema, const char* ip, uint16_t port);

    /// Clears URI, headers and body; the connection stays. Without a running request this call and
    /// the setters below wait for no other thread (standard edition: they never do). Exact edition:
    /// clears the response, too. Standard edition: clears the method, too; a running request is not
    /// touched by this call and the setters, which describe the next one.
    void clearClient();

    /// Sets the request's ":path" (sent as it is, so escape it) and method. A null `uri` counts as
    /// empty. Exact edition: at most 382 bytes, since servers cannot read longer ones. Standard
    /// edition: an absolute path and perhaps a query, up to 64 KiB together with the headers; an
    /// empty path is "/", for the method OPTIONS "*"; HTTP_METHOD_UNDEFINED leaves the method as it
    /// is.
    /// @return 0: stored; 4: not connected; 5 (ERR_URL_UNSET), standard edition only: not a path
    /// (without a "/" in front, with a fragment, blanks, control bytes, bytes above 0x7E, too
    /// long); -1: no request state.
    int setUri(const char* uri, HTTP_METHOD method);

    /// Adds a request header. `name` must be in lower case (RFC 9113, 8.2). `valueChangable` marks
    /// a value that must never enter a compression table (RFC 7541, 6.2.3). Headers stay for later
    /// requests until clearClient.
    /// Exact edition: a header with an empty name or value is not sent, and one above 382 bytes
    /// cannot be read by servers. Most servers need a "host" header, since no ":authority" is sent.
    /// Standard edition: what may not be sent is refused (upper case, control bytes,
    /// connection-specific fields, pseudo-headers; RFC 9113, 8.2; a "host" with user information),
    /// and so is what is beyond 64 KiB of headers and path in all, 32 bytes for each added. An
    /// empty value is sent. "host" becomes ":authority"; without it, the name and port connected to
    /// are sent.
    /// @return this object, or null when it is not connected or the header is refused.
    HttpClientInterface* addHeader(const char* name, const char* value, bool valueChangable);

    /// Sets the body as a block of `len` bytes, copied at once; a null `data` counts as empty.
    /// Exact edition: an empty body counts as none. Any other block goes out as pieces of 16384
    /// bytes, each with the block's bytes 16384 to 32767, and without what is left below 16384
    /// bytes. Programs rely on that; use the reader form. Standard edition: the whole block is
    /// sent, with a content-length.
    /// @return 0: stored; 4: not connected; -1: no request state.
    int setContent(const char* data, size_t len);

    /// Sets the body's source. `reader` is called on the background thread whenever the next piece
    /// of the body can go out: it writes at most `len` (16384) bytes to `buf` and returns how many.
    /// Fewer than `len`, or 0, ends the body. `opaque` is handed to it unchanged, and must stay
    /// valid until the request has ended. Exact edition: the library's locks are held during the
    /// call. Standard edition: `reader` may do what a callback may; a negative result, or one that
    /// contradicts a content-length header, ends the request with onFailed(ERR_CONTENT_UNSET).
    /// @return 0: stored; 4: not connected; -1: no request state.
    int setContent(int (*reader)(char* buf, size_t len, void* opaque), void* opaque);

    /// Starts the request; the response arrives through the callbacks. `errMsg` is not used.
    /// Standard edition: when the connection has gone meanwhile, another one is opened in the
    /// background; above the server's limit of concurrent streams, requests wait in their order.
    /// @return 0: started; 8 (ERR_BUSY): a request of this object is still running; 4: not
    /// connected; -1: no request state. Exact edition only: 2: the connection is gone (also when
    /// its descriptor belongs to another one now), connect again. Standard edition only: 5
    /// (ERR_URL_UNSET): no method was ever set; 7 (ERR_CONTENT_UNSET): a content-length header
    /// that is no number, or not the body's length.
    int startRequest(const char* errMsg);

    /// Ends the running request, if there is one: the server is sent a RST_STREAM, and when the
    /// call has returned, no callback of this object runs or will run (in a callback, none but that
    /// one). It waits for a callback that runs on another thread: hold no lock that this callback
    /// takes.
    /// Exact edition: when none is running, a RST_STREAM is sent all the same, for the last
    /// request's stream, or for stream 0 before the first request. Do not call it between
    /// connectToServer and the next startRequest, except in a destructor: the new connection has no
    /// such stream yet, and the server ends it (RFC 9113, 6.4). When this object's connection is
    /// gone, nothing is sent. Standard edition: a RST_STREAM is sent only for a stream that is
    /// open.
    /// @return 0: done; 4: not connected; 2: no request state.
    int cancelRequest();

    /// Sends the request and waits for the whole response; the callbacks are made as well.
    /// `errMsg` is made to point at a text that lives until the next call on this object.
    /// Exact edition: the body may have about 1 MiB (1,048,576 bytes and the chunk that crosses the
    /// mark). `timeout` is in milliseconds of the process's processor time, all threads together,
    /// as clock() counts it: an idle process waits much longer than that on the wall clock. Must
    /// not be called from a callback.
    /// Standard edition: the body may have 64 MiB (an option). `timeout` is in milliseconds on the
    /// wall clock; 0 stands for 10. Of a repeated header `headerMap` has all values, joined by ", "
    /// ("set-cookie": by a line feed). In a callback it returns 2.
    /// @return 0: complete, `status`, `headerMap` and `content` are set; 1: failed, or too large;
    /// 2: could not start (exact edition: `errMsg` is left as it was); 3: timed out when a part of
    /// the response (exact edition: of its body) had arrived.
    int blockedRequest(int& status, std::map<std::string, std::string>& headerMap,
                       std::string& content, const char*& errMsg, uint32_t timeout);

    /// The request's state. Of use inside the library only.
    HttpClientInterfaceImpl* ctx();

    /// Tells whether a request can be started. `errMsg` is not used.
    /// @return 0: yes; 8: one is still running; 4: not connected (exact edition: nothing is set
    /// yet, not even a connection).
    int parseHttpClientStatus(const char* errMsg);

private:
    HttpClientInterfaceImpl* m_impl;  // owned; never null between construction and destruction
};

}  // namespace tiny

#endif  // HTTP2CLIENT_HTTPCLIENTINTERFACE_H
