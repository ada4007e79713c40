#ifndef HTTP2CLIENT_HTTPCONTEXT_H
#define HTTP2CLIENT_HTTPCONTEXT_H

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <thread>

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
// then reports to its requests. Until that is over, no other thread may touch a request that the
// engine could still reach: lockRequests waits for it.
class HttpContext {
public:
    // Result of addHttpClientImpl.
    static constexpr int kNoConnection = 2;

    // The one instance, never destroyed. The first call makes it and must not race with another.
    static HttpContext* instance();

    // Opens a new connection, on the calling thread and with m_httpIolock held throughout. Returns
    // its descriptor, or -1 when it cannot be made or select cannot hold its descriptor.
    int getHttpSocket(HTTP_SCHEMA schema, const char* ip, uint16_t port);

    // As above, and sets `serial` to the connection's serial number, or 0 when there is none.
    int openConnection(HTTP_SCHEMA schema, const char* ip, uint16_t port, uint64_t& serial);

    // Registers a request with its connection. Returns 0, or kNoConnection when that is gone.
    int addHttpClientImpl(HttpClientInterfaceImpl* impl);

    // Withdraws a request from its connection: no callback is made for it after the return.
    // Returns 0, also when the connection is gone.
    int removeHttpClientImpl(HttpClientInterfaceImpl* impl);

    // As above, and ends the request's registrations on its former connections. Called before a
    // request is destroyed.
    void forgetHttpClientImpl(HttpClientInterfaceImpl* impl);

    // Takes m_httpIolock for an application thread, at a moment when no connection is being
    // destroyed. Inside a callback it waits for no connection's end, and takes nothing if the
    // calling thread has the lock already.
    std::unique_lock<Lock> lockRequests();
    // The same for a change to one request. Takes nothing, and waits for nobody, if the request
    // has no open stream, or inside a callback.
    static std::unique_lock<Lock> lockRequest(const HttpClientInterfaceImpl* impl);

    // One step: applies the queued changes to the poller, waits up to `pollTime` milliseconds for
    // ready sockets, serves them, and sleeps a millisecond.
    void pollHttpClient(uint32_t pollTime);
    void httpCron();

    // Serve one ready descriptor; the event may be older than the connection. False: the connection
    // was dropped. (errorEventHandler returns true all the same.) Poll thread only.
    bool readEventHandler(int fd);
    bool writeEventHandler(int fd);
    bool errorEventHandler(int fd);

private:
    class Handler;

    HttpContext();
    ~HttpContext();
    HttpContext(const HttpContext&) = delete;
    HttpContext& operator=(const HttpContext&) = delete;

    std::shared_ptr<HttpIO> findLocked(int fd);
    std::shared_ptr<HttpIO> findLocked(const HttpClientInterfaceImpl* impl);
    void queueRemoval(int fd);
    bool isHandlerThread() const { return m_handlerThread.load() == std::this_thread::get_id(); }

    ev* m_pollPtr;      // owned; used by the poll thread only
    Lock m_httpIolock;  // guards m_httpIoMap, and with it every engine and cache
    std::map<int, std::shared_ptr<HttpIO>> m_httpIoMap;  // live connections by descriptor
    Lock m_removeLock;                                   // guards m_removedHttp2Set
    std::set<int> m_removedHttp2Set;                     // to be deregistered at the next step
    Lock m_newLock;                                      // guards m_newHttp2Set
    std::set<int> m_newHttp2Set;                         // to be registered at the next step
    char* m_buffer;                                      // read buffer of all connections
    size_t m_bufferLen;                                  // its size

    std::atomic<std::thread::id> m_handlerThread{};  // the thread inside a handler, if there is one
    // Whether that thread is destroying a dropped connection, without m_httpIolock. Changed by it
    // only, with m_httpIolock held.
    bool m_dropping = false;
    std::condition_variable_any m_dropOver;
};

}  // namespace tiny

#endif  // HTTP2CLIENT_HTTPCONTEXT_H
