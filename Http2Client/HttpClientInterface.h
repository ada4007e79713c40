#ifndef HTTP2CLIENT_HTTPCLIENTINTERFACE_H
#define HTTP2CLIENT_HTTPCLIENTINTERFACE_H

/// @file
/// The class that applications derive from.

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
/// blockedRequest. Successive requests of one object travel on its connection one after another.
///
/// Threads: the methods are called by the application, from one thread at a time for one object.
/// The callbacks come from the library's background thread, which holds the library's connection
/// lock meanwhile: a callback must be quick, and must not call this object's (or another client's)
/// methods nor destroy a client.
///
/// Destruction: the base class withdraws a running request, but by then the derived part is gone
/// and a callback in that moment has nothing left to call. Call cancelRequest() in the derived
/// class's destructor: after it has returned, no callback of this object runs or will run.
///
/// A connection outlives its client, and no call closes one: it stays open until the server closes
/// it or it breaks. Reuse the object for further requests instead of making a new one for each.
///
/// What it does not do: redirects, cookies, decompression, connection reuse between objects,
/// flow control of what it sends, certificate verification, acknowledgement of the server's
/// SETTINGS and PING frames.
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

    /// The connection is gone (closed by the server, broken, or ended after the server's
    /// RST_STREAM or GOAWAY), and the request that was running on it has ended without an answer.
    /// Connect again before the next request. Not called when no request was running: then the next
    /// startRequest returns 2.
    virtual void onSocketClosed() = 0;

    /// The running request has failed. `err` is ERR_FETAL: the server reset the stream, or what it
    /// sent cannot be parsed. The connection is dropped in either case.
    virtual void onFailed(HTTP_ERROR err) = 0;

    /// The response's status and all headers received so far, `count` of them, in ascending order
    /// of their names; of a repeated name only the last value is kept. The pseudo-header ":status"
    /// is among them. `status` is 0 when the server sent none. Called again, with the headers of
    /// both, when trailers arrive (RFC 9113, 8.1).
    virtual void onHeaderReceived(int status, const HeaderDef* headers, size_t count) = 0;

    /// `len` bytes of the response's body at `data`, valid only during the call. `more` is false
    /// with the chunk that ends the response (it may be empty) and true before. A response without
    /// a body (status 204 or 304, or content-length 0) may end without this call. The request then
    /// counts as running: call cancelRequest before the next one.
    virtual void onContentReceived(const char* data, size_t len, bool more) = 0;

    /// Opens a new connection to the IPv4 address `ip` (dotted text) and `port` (host order), on
    /// the calling thread: it waits for the TCP connect and, for HTTPS_2, for the TLS handshake,
    /// and no other connection of the process sends or receives meanwhile. There is no time-out but
    /// the operating system's. A second call opens a second connection and uses that one from then
    /// on.
    /// @return 0: connected; 4 (ERR_SOCKET_CLOSED): the connect or handshake failed, or the process
    /// has no descriptor below 1024 left; -1: no request state (never for a live object).
    int connectToServer(HTTP_SCHEMA schema, const char* ip, uint16_t port);

    /// Clears URI, headers, body and response; the connection stays. Without a running request this
    /// call and the setters below wait for no other thread.
    void clearClient();

    /// Sets the request's ":path" (sent as it is, so escape it; at most 382 bytes, since servers
    /// cannot read longer ones) and method. A null `uri` counts as empty.
    /// @return 0: stored; 4: not connected; -1: no request state.
    int setUri(const char* uri, HTTP_METHOD method);

    /// Adds a request header. `name` must be in lower case (RFC 9113, 8.2). `valueChangable` marks
    /// a value that must never enter a compression table (RFC 7541, 6.2.3). A header with an empty
    /// name or value is not sent, and one above 382 bytes cannot be read by servers. Headers stay
    /// for later requests until clearClient. Most servers need a "host" header, since no
    /// ":authority" is sent.
    /// @return this object, or null when it is not connected.
    HttpClientInterface* addHeader(const char* name, const char* value, bool valueChangable);

    /// Sets the body as a block of `len` bytes, copied at once; a null `data` counts as empty, and
    /// an empty body as none. Any other block goes out as pieces of 16384 bytes, each with the
    /// block's bytes 16384 to 32767, and without what is left below 16384 bytes. Programs rely on
    /// that; use the reader form.
    /// @return 0: stored; 4: not connected; -1: no request state.
    int setContent(const char* data, size_t len);

    /// Sets the body's source. `reader` is called on the background thread, with the library's
    /// locks held, whenever the next piece of the body can go out: it writes at most `len` (16384)
    /// bytes to `buf` and returns how many. Fewer than `len`, or 0, ends the body. `opaque` is
    /// handed to it unchanged, and must stay valid until the request has ended.
    /// @return 0: stored; 4: not connected; -1: no request state.
    int setContent(int (*reader)(char* buf, size_t len, void* opaque), void* opaque);

    /// Starts the request; the response arrives through the callbacks. `errMsg` is not used.
    /// @return 0: started; 8 (ERR_BUSY): a request of this object is still running; 4: not
    /// connected; 2: the connection is gone (also when its descriptor belongs to another one now),
    /// connect again; -1: no request state.
    int startRequest(const char* errMsg);

    /// Ends the running request, if there is one: the server is sent a RST_STREAM and no further
    /// callback is made. When none is running, a RST_STREAM is sent all the same, for the last
    /// request's stream, or for stream 0 before the first request. Do not call it between
    /// connectToServer and the next startRequest, except in a destructor: the new connection has no
    /// such stream yet, and the server ends it (RFC 9113, 6.4). When this object's connection is
    /// gone, nothing is sent.
    /// @return 0: done; 4: not connected; 2: no request state.
    int cancelRequest();

    /// Sends the request and waits for the whole response; the callbacks are made as well. The
    /// body may have about 1 MiB (1,048,576 bytes and the chunk that crosses the mark).
    /// `timeout` is in milliseconds of the process's processor time, all threads together, as
    /// clock() counts it: an idle process waits much longer than that on the wall clock.
    /// `errMsg` is made to point at a text that lives until the next call on this object. Must not
    /// be called from a callback.
    /// @return 0: complete, `status`, `headerMap` and `content` are set; 1: failed, or too large;
    /// 2: could not start (not connected, busy, connection gone; `errMsg` is left as it was);
    /// 3: timed out when a part of the body had arrived.
    int blockedRequest(int& status, std::map<std::string, std::string>& headerMap,
                       std::string& content, const char*& errMsg, uint32_t timeout);

    /// The request's state. Of use inside the library only.
    HttpClientInterfaceImpl* ctx();

    /// Tells whether a request can be started. `errMsg` is not used.
    /// @return 0: yes; 8: one is still running; 4: nothing is set yet, not even a connection.
    int parseHttpClientStatus(const char* errMsg);

private:
    HttpClientInterfaceImpl* m_impl;  // owned; never null between construction and destruction
};

}  // namespace tiny

#endif  // HTTP2CLIENT_HTTPCLIENTINTERFACE_H
