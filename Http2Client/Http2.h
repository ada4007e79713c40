#ifndef HTTP2CLIENT_HTTP2_H
#define HTTP2CLIENT_HTTP2_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "PlatformDef.h"
#include "frame.h"
#include "hpack.h"

namespace tiny {

class HttpClientInterfaceImpl;

// The bytes received on each stream and not yet credited to the server.
//
// The map belongs to the engine. A server may leave a million finished streams in it, so its sum
// and the streams that have changed are kept up to date: a call costs what has changed since the
// last one. If the map's size is not the counted one, it was changed by other means, and all of it
// is counted anew.
class ReceiveCredit {
public:
    using Counts = std::map<uint32_t, uint32_t>;

    explicit ReceiveCredit(Counts& counts) : m_counts(counts) {}

    void add(uint32_t streamId, uint32_t bytes);
    // The sum over all streams, modulo 2^32.
    uint32_t total();
    // Takes the entries of at least `threshold` bytes out of the map, in ascending stream order.
    std::vector<std::pair<uint32_t, uint32_t>> takeDue(uint32_t threshold);

private:
    void countAnewIfChanged();

    Counts& m_counts;
    size_t m_counted = 0;  // entries of m_counts that are in m_total
    uint32_t m_total = 0;
    std::set<uint32_t> m_changed;  // streams that takeDue has not looked at yet
};

// The protocol engine of one server connection: the registry of running requests, what goes out
// for them, and what the server's bytes mean to them.
//
// It is deliberately narrow: it acknowledges no SETTINGS and no PING, applies none of the
// server's settings, sends without flow control, ignores pushes, priorities and CONTINUATION
// frames, and answers RST_STREAM and GOAWAY by giving the connection up. It returns receive
// credit, and it resets every stream it is done with, also those the server has ended.
//
// addHttpClient, removeHttpClient and forgetHttpClient may be called from any thread; everything
// else is for the poll thread. Callbacks are made on the poll thread, all but the onFailed of a
// framing failure with m_httpClientLock held. A request that has ended is marked so before its
// callback: the thread that the callback wakes can start the next one.
class Http2 {
public:
    Http2();
    // Tells onSocketClosed to every request still registered, in ascending stream order.
    virtual ~Http2();
    Http2(const Http2&) = delete;
    Http2& operator=(const Http2&) = delete;

    // The next odd stream identifier; wraps past the last one. m_httpClientLock is held.
    uint32_t generateStreamId();

    // Registers a request under a new stream identifier, which it is told. `impl` must stay alive
    // until it is no longer registered. A null entry is kept and passed over everywhere.
    void addHttpClient(HttpClientInterfaceImpl* impl);

    // Queues a RST_STREAM with CANCEL for the request's stream, whether or not it is registered,
    // and ends its registration if that stream is registered to it. Null changes nothing.
    void removeHttpClient(HttpClientInterfaceImpl* impl);

    // Ends every registration of `impl`, also under streams it no longer knows. Sends nothing.
    void forgetHttpClient(HttpClientInterfaceImpl* impl);

    // Returns the next bytes to send, one kind of output a call, empty when there is nothing:
    // preface, SETTINGS, all queued RST_STREAM frames, one HEADERS frame, one DATA frame, or
    // credit. Sets `status` to CTX_NEED_CLOSE (-2) when a PING has not been answered in time and
    // the connection is to be dropped, and leaves it alone otherwise.
    std::string encodeFrame(int& status);

    // Consumes bytes from the server. Returns 0: the connection goes on; CTX_FETAL_ERROR (-1): the
    // bytes cannot be framed, and every request has been failed; CTX_NEED_CLOSE (-2): close the
    // connection, after the server's RST_STREAM or GOAWAY.
    int decodeFrame(char* data, size_t len);

    // Fill `frame` with the request's next HEADERS or DATA frame. False, with the frame as it was,
    // when the request has no such work left. m_httpClientLock is held.
    bool createHeaderFrame(HttpClientInterfaceImpl* impl, HeadersFrame& frame);
    bool createDataFrame(HttpClientInterfaceImpl* impl, DataFrame& frame);

    void makeRstStream(uint32_t streamId, int errorCode);   // does nothing
    void testWriteDataFrame(const char* data, size_t len);  // does nothing

private:
    using ClientMap = std::map<uint32_t, HttpClientInterfaceImpl*>;

    std::string encodeRstStreams();
    std::string encodeNextHeaders();
    std::string encodeNextData();
    std::string encodeCredit();
    std::string encodeKeepAlive(int& status);
    void appendFrame(std::string& bytes, Frame& frame);
    void appendWindowUpdate(std::string& bytes, uint32_t streamId, uint32_t increment);
    bool readContent(HttpClientInterfaceImpl* impl, DataFrame& frame);
    void queueRstStream(uint32_t streamId);

    int drainFrames(const char* data, size_t len);
    void recordWindowUpdates(uint32_t total,
                             const std::vector<std::pair<uint32_t, uint32_t>>& received);
    void dispatchFrame(Frame* frame);
    void failAllRequests();
    ClientMap::iterator registrationLocked(const HttpClientInterfaceImpl* impl);
    void eraseLocked(const HttpClientInterfaceImpl* impl, ClientMap::iterator entry);
    void endRequestLocked(HttpClientInterfaceImpl* impl, const std::function<void()>& lastCallback);
    void failRequestLocked(HttpClientInterfaceImpl* impl);
    void logFailure(const HttpClientInterfaceImpl* impl);
    void reportSocketClosedLocked(HttpClientInterfaceImpl* impl);

    void processDataFrame(Frame* frame);
    void processHeaderFrame(Frame* frame);
    void processPriorityFrame(Frame* frame);
    void processRstStreamFrame(Frame* frame);
    void processSettingFrame(Frame* frame);
    void processPushPromiseFrame(Frame* frame);
    void processPingFrame(Frame* frame);
    void processGoawayFrame(Frame* frame);
    void processWindowUpdateFrame(Frame* frame);
    void processContinuationFrame(Frame* frame);

    static constexpr int32_t pingTicker = 60000;   // counter value from which a PING is sent
    static constexpr int32_t pongTicker = 120000;  // and from which its answer is overdue

    bool m_prefaceSent = false;
    bool m_settingSent = false;
    bool m_settingReceived = true;  // starts true: sending never waits for the server's SETTINGS
    hpack::Table m_hpackTable;
    FrameCtx m_frameCtx;
    Lock m_httpClientLock;      // guards m_httpClientMap
    ClientMap m_httpClientMap;  // running requests by stream; not owned
    uint32_t m_streamIndex = 1;
    char* m_buffer = nullptr;    // m_bufferLen bytes; a body reader writes into it
    size_t m_bufferLen = 16384;  // also the largest DATA payload
    [[maybe_unused]] uint32_t m_initWndSize = 65536;
    uint32_t m_flowCtrlSize = 32768;  // received bytes from which credit is returned
    [[maybe_unused]] bool m_isManual = false;
    std::string m_flowCtrlMsg;  // credit as counted per call; never sent, grows with the connection
    std::map<uint32_t, uint32_t> m_flowControlMap;  // bytes not yet credited, by stream
    int32_t m_streamPingTicker = 0;  // counts calls, but only from pingTicker on: dormant
    bool m_waitPong = false;         // a PING is out
    // Written under m_httpClientLock or on the poll thread; what calls in from other threads is
    // kept apart from the poll thread by the context's connection lock.
    std::map<uint32_t, std::shared_ptr<RSTStreamFrame>> m_rstFrameMap;
    [[maybe_unused]] FILE* m_testfp = nullptr;

    ReceiveCredit m_receiveCredit{m_flowControlMap};
};

// Texts of HTTP_METHOD and HTTP_SCHEMA. Filled by the first engine's constructor.
extern std::map<int, std::string> m_methodMap;
extern std::map<int, std::string> m_versionMap;

}  // namespace tiny

#endif  // HTTP2CLIENT_HTTP2_H
