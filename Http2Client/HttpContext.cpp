#include "HttpContext.h"

#include <sys/select.h>
#include <sys/time.h>
#include <unistd.h>

#include <iostream>
#include <list>
#include <string>

#include "Http2.h"
#include "HttpClientInterfaceImpl.h"
#include "HttpIO.h"
#include "Sock.h"
#include "ev.h"
#include "ev_select.h"
#include "log.h"

namespace tiny {

namespace {

constexpr size_t kReadBufferLength = 8192;
constexpr useconds_t kStepPauseMicroseconds = 1000;

HttpContext* m_context = nullptr;

bool isFatal(int result) {
    return result == FrameCtx::CTX_FETAL_ERROR || result == FrameCtx::CTX_NEED_CLOSE;
}

}  // namespace

// The work of one handler on descriptor `fd`: takes m_httpIolock and looks the connection up, and
// at the end releases the lock and then destroys the connection, if the handler has dropped it.
class HttpContext::Handler {
public:
    Handler(HttpContext& context, int fd)
        : m_context(context), m_lock(context.m_httpIolock), m_fd(fd), m_io(context.findLocked(fd)) {
        m_context.m_handlerThread = std::this_thread::get_id();
        if (!m_io) m_context.queueRemoval(fd);
    }
    ~Handler() {
        if (m_dropped) {
            m_context.m_dropping = true;
            m_lock.unlock();
            m_io.reset();
            m_lock.lock();
            m_context.m_dropping = false;
            m_context.m_dropOver.notify_all();
        }
        m_context.m_handlerThread = std::thread::id();
    }
    Handler(const Handler&) = delete;  // Not copyable.
    Handler& operator=(const Handler&) = delete;

    // The connection; null when the descriptor has none.
    HttpIO* io() const { return m_io.get(); }

    // Takes the connection out of the map and deregisters its descriptor with the next step.
    //
    // A request may have queued the descriptor for registration since the last step. That is
    // undone: additions come after removals, so a closed descriptor would end registered, and the
    // next select would fail for all connections.
    void drop() {
        m_context.queueRemoval(m_fd);
        {
            SingleLock lock(&m_context.m_newLock);
            m_context.m_newHttp2Set.erase(m_fd);
        }
        m_context.m_httpIoMap.erase(m_fd);
        m_dropped = true;
    }

private:
    HttpContext& m_context;
    std::unique_lock<Lock> m_lock;
    const int m_fd;
    std::shared_ptr<HttpIO> m_io;
    bool m_dropped = false;
};

std::unique_lock<Lock> HttpContext::lockRequests() {
    const bool inCallback = isHandlerThread();
    if (inCallback && !m_dropping) return {};
    std::unique_lock<Lock> lock(m_httpIolock);
    if (!inCallback) m_dropOver.wait(lock, [this] { return !m_dropping; });
    return lock;
}

std::unique_lock<Lock> HttpContext::lockRequest(const HttpClientInterfaceImpl* impl) {
    if (!impl->hasOpenStream() || instance()->isHandlerThread()) return {};
    return instance()->lockRequests();
}

HttpContext* HttpContext::instance() {
    if (m_context == nullptr) m_context = new HttpContext;
    return m_context;
}

HttpContext::HttpContext()
    : m_pollPtr(new ev_select), m_buffer(nullptr), m_bufferLen(kReadBufferLength) {
    std::cout << m_pollPtr->poolApiName() << std::endl;
    m_buffer = new char[m_bufferLen];
}

// The read buffer is left alone: a poll step may still be using it.
HttpContext::~HttpContext() { delete m_pollPtr; }

int HttpContext::getHttpSocket(HTTP_SCHEMA schema, const char* ip, uint16_t port) {
    uint64_t serial = 0;
    return openConnection(schema, ip, port, serial);
}

int HttpContext::openConnection(HTTP_SCHEMA schema, const char* ip, uint16_t port,
                                uint64_t& serial) {
    SingleLock lock(&m_httpIolock);
    serial = 0;
    const std::shared_ptr<HttpIO> io = HttpIO::createHttpIO(schema, ip, port);
    if (!io) return -1;
    const int sock = io->httpSocket();
    if (sock >= FD_SETSIZE) return -1;  // select could never report it
    m_httpIoMap[sock] = io;
    serial = io->serial();
    return sock;
}

int HttpContext::addHttpClientImpl(HttpClientInterfaceImpl* impl) {
    const std::unique_lock<Lock> lock = lockRequests();
    const std::shared_ptr<HttpIO> io = findLocked(impl);
    if (!io) return kNoConnection;
    io->httpParser()->addHttpClient(impl);
    const int sock = io->httpSocket();
    {
        SingleLock newLock(&m_newLock);
        m_newHttp2Set.insert(sock);
    }
    Sock::setNonblocked(sock, true);
    return 0;
}

int HttpContext::removeHttpClientImpl(HttpClientInterfaceImpl* impl) {
    const std::unique_lock<Lock> lock = lockRequests();
    const std::shared_ptr<HttpIO> io = findLocked(impl);
    if (io) io->httpParser()->removeHttpClient(impl);
    return 0;
}

void HttpContext::forgetHttpClientImpl(HttpClientInterfaceImpl* impl) {
    removeHttpClientImpl(impl);
    const std::unique_lock<Lock> lock = lockRequests();
    for (const auto& [sock, io] : m_httpIoMap) io->httpParser()->forgetHttpClient(impl);
}

void HttpContext::pollHttpClient(uint32_t pollTime) {
    httpCron();
    timeval timeout{};
    timeout.tv_sec = pollTime / 1000;
    timeout.tv_usec = static_cast<suseconds_t>(pollTime % 1000) * 1000;
    for (const ev::ActiveSocket& active : m_pollPtr->poll(&timeout)) {
        bool ok = true;
        if ((active.m_mask & ev::kRead) != 0) ok = readEventHandler(active.m_socket);
        if ((active.m_mask & ev::kWrite) != 0 && ok) ok = writeEventHandler(active.m_socket);
        if ((active.m_mask & ev::kError) != 0 && ok) errorEventHandler(active.m_socket);
    }
    usleep(kStepPauseMicroseconds);
}

// Removals come first: a descriptor that the system has given to a new connection since its old
// one was dropped ends registered.
void HttpContext::httpCron() {
    SingleLock removeLock(&m_removeLock);
    for (const int fd : m_removedHttp2Set) m_pollPtr->removeEvent(fd, ev::kRead | ev::kWrite);
    m_removedHttp2Set.clear();
    SingleLock newLock(&m_newLock);
    for (const int fd : m_newHttp2Set) m_pollPtr->addEvent(fd, ev::kRead | ev::kWrite);
    m_newHttp2Set.clear();
}

bool HttpContext::readEventHandler(int fd) {
    Handler handler(*this, fd);
    HttpIO* const io = handler.io();
    if (io == nullptr) return true;
    int ret = 0;
    int err = 0;
    while (!isFatal(err)) {
        ret = io->read(m_buffer, m_bufferLen);
        if (ret <= 0) break;
        err = io->httpParser()->decodeFrame(m_buffer, static_cast<size_t>(ret));
    }
    if (ret != 0 && !isFatal(err)) return true;
    HTTP2CLIENT_LOG_INFO("IO error, err = " << err << ", m_httpIoMap.size()" << m_httpIoMap.size()
                                            << ",err ip:" << io->httpIp());
    handler.drop();
    return false;
}

// After a partial write the bytes just written are kept and the rest is discarded. A server that
// reads slowly sees the client's stream repeat itself; that is how it has always behaved.
bool HttpContext::writeEventHandler(int fd) {
    Handler handler(*this, fd);
    HttpIO* const io = handler.io();
    if (io == nullptr) return true;
    std::string& cache = io->buffer();
    int err = 0;
    if (!io->bufferOverLimit()) cache += io->httpParser()->encodeFrame(err);
    if (err == FrameCtx::CTX_NEED_CLOSE) {
        HTTP2CLIENT_LOG_INFO("http link Error Need Close!");
        HTTP2CLIENT_LOG_INFO("IO error, err = " << err << ", m_httpIoMap.size()"
                                                << m_httpIoMap.size());
        handler.drop();
        return false;
    }
    if (cache.empty()) return true;
    const int ret = io->write(cache.data(), cache.size());
    if (ret > 0) {
        const auto written = static_cast<size_t>(ret);
        if (written == cache.size()) {
            cache.clear();
        } else {
            cache.erase(written);
        }
    }
    if (ret != 0) return true;
    std::cout << "write failed" << std::endl;
    HTTP2CLIENT_LOG_INFO("IO error, err ");
    handler.drop();
    return false;
}

bool HttpContext::errorEventHandler(int fd) {
    Handler handler(*this, fd);
    if (handler.io() == nullptr) return true;
    HTTP2CLIENT_LOG_INFO("IO error, err ");
    handler.drop();
    return true;
}

std::shared_ptr<HttpIO> HttpContext::findLocked(int fd) {
    const auto found = m_httpIoMap.find(fd);
    return found == m_httpIoMap.end() ? nullptr : found->second;
}

std::shared_ptr<HttpIO> HttpContext::findLocked(const HttpClientInterfaceImpl* impl) {
    std::shared_ptr<HttpIO> io = findLocked(impl->getSocket());
    return io && impl->accepts(io->serial()) ? io : nullptr;
}

void HttpContext::queueRemoval(int fd) {
    SingleLock lock(&m_removeLock);
    m_removedHttp2Set.insert(fd);
}

}  // namespace tiny
