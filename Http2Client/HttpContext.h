#ifndef HTTP2CLIENT_HTTPCONTEXT_H
#define HTTP2CLIENT_HTTPCONTEXT_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <set>

#include "PlatformDef.h"
#include "error.h"

namespace tiny {

class HttpClientInterfaceImpl;
class HttpIO;
class ev;

// The process-wide hub: owns every connection and the poller, and runs one step of the poll loop
// at a time. Application threads open connections and start and withdraw requests here; the poll
// thread does all the rest.
//
// Locks, in this order and never reversed: m_httpIolock, m_removeLock, m_newLock, and each
// engine's own below m_httpIolock. The handlers hold m_httpIolock for the whole of their work,
// callbacks included.
//
// A dropped connection is destroyed after its handler has released m_httpIolock, and its engine
// then tells its requests. Until that is over, nobody but the poll thread may touch a request that
// the engine could still reach: RequestGuard sees to it.
class HttpContext {
public:
    // The one instance; made by the first call, which must not have company, and never destroyed.
    static HttpContext* instance();

    // Holds the requests still, for a thread of the application: takes m_httpIolock at a moment
    // when no connection is being destroyed. A callback's thread holds them still already, so
    // there it does nothing.
    class RequestGuard {
    public:
        explicit RequestGuard(HttpContext* context);
        ~RequestGuard();
        RequestGuard(const RequestGuard&) = delete;
        RequestGuard& operator=(const RequestGuard&) = delete;

    private:
        HttpContext* m_context;  // null when there was nothing to take
    };

    // Opens a new connection, on the calling thread and with m_httpIolock held all the while.
    // Returns its descriptor, or -1 when it cannot be made, or its descriptor is one that select
    // cannot hold.
    int getHttpSocket(HTTP_SCHEMA schema, const char* ip, uint16_t port);

    // Registers a request with the connection of its socket. Returns 0, or 2 when there is no such
    // connection.
    int addHttpClientImpl(HttpClientInterfaceImpl* impl);

    // Withdraws a request from the connection of its socket: no callback is made for it after the
    // return. Returns 0, also when there is no such connection.
    int removeHttpClientImpl(HttpClientInterfaceImpl* impl);

    // As above, and makes every connection forget the request, also those it has no socket of any
    // more. Called before it is destroyed.
    void forgetHttpClientImpl(HttpClientInterfaceImpl* impl);

    // One step: applies the queued changes to the poller, waits up to `pollTime` milliseconds for
    // ready sockets, serves them, and sleeps a millisecond.
    void pollHttpClient(uint32_t pollTime);
    void httpCron();

    // Serve one ready descriptor, which may be a stale one. False: the connection was dropped.
    // (errorEventHandler returns true all the same.)
    bool readEventHandler(int fd);
    bool writeEventHandler(int fd);
    bool errorEventHandler(int fd);

private:
    class Drop;
    class DropGate;

    HttpContext();
    ~HttpContext();
    HttpContext(const HttpContext&) = delete;
    HttpContext& operator=(const HttpContext&) = delete;

    std::shared_ptr<HttpIO> findLocked(int fd);  // m_httpIolock is held
    void queueRemoval(int fd);                   // takes m_removeLock
    bool sendCacheLocked(int fd, HttpIO& io, Drop& drop);

    ev* m_pollPtr;      // owned; used by the poll thread only
    Lock m_httpIolock;  // guards m_httpIoMap, and with it every engine and cache
    std::map<int, std::shared_ptr<HttpIO>> m_httpIoMap;  // live connections by descriptor
    Lock m_removeLock;                                   // guards m_removedHttp2Set
    std::set<int> m_removedHttp2Set;                     // to be deregistered at the next step
    Lock m_newLock;                                      // guards m_newHttp2Set
    std::set<int> m_newHttp2Set;                         // to be registered at the next step
    char* m_buffer;                                      // read buffer of all connections
    size_t m_bufferLen;                                  // its size
    DropGate* m_dropGate;  // owned; closed while dropped connections are being destroyed
};

}  // namespace tiny

#endif  // HTTP2CLIENT_HTTPCONTEXT_H
