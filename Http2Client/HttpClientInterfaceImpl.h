#ifndef HTTP2CLIENT_HTTPCLIENTINTERFACEIMPL_H
#define HTTP2CLIENT_HTTPCLIENTINTERFACEIMPL_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "HttpClientInterface.h"
#include "error.h"

namespace tiny {

// Bits of a client's status.
enum HTTP_CLIENT_STATUS {
    CLI_STATE_NONE = 0,
    CLI_STATUS_CONNECTED = 1,
    CLI_STATUS_URI = 2,
    CLI_STATUS_HEADER = 4,
    CLI_STATUS_CONTENT = 8,
    CLI_STATUS_INITIALIZED = 15,
    CLI_STATUS_REQUESTING = 256,
    CLI_STATUS_ACQUIRED = 512
};

// How far the response's body has come.
enum RECV_STATUS {
    RECV_STATUS_UNDEFINED = 0,
    RECV_STATUS_START = 1,
    RECV_STATUS_END = 2,
    RECV_STATUS_FAILED = 3,
    RECV_STATUS_CONTENT_OVERFLOW = 4
};

// The received headers as the array that onHeaderReceived hands over.
//
// A server may send its headers one by one, and each is reported with all before it. To build the
// array anew each time would cost a walk over the whole map, so it is kept, in the map's order, and
// new headers are merged into it. If the map's size is not the counted one, it was changed by other
// means, and the array is built anew.
class ReceivedHeaderRecords {
public:
    using Map = std::map<std::string, std::string>;

    explicit ReceivedHeaderRecords(Map& headers) : m_headers(headers) {}

    // Stores a header in the map; a repeated name replaces the earlier value.
    void store(const std::string& name, const std::string& value);
    // One record for each entry of the map, in its order. The texts are the map's own. Valid until
    // the map changes.
    const std::vector<HttpClientInterface::HeaderDef>& all();
    // Empties the map, too.
    void clear();

private:
    void buildAnewIfChanged();
    size_t positionOf(const std::string& name, size_t count) const;

    Map& m_headers;
    std::vector<const Map::value_type*> m_recorded;         // entries that have a record
    std::vector<HttpClientInterface::HeaderDef> m_records;  // theirs, in the same order
    std::vector<const Map::value_type*> m_new;              // entries that have none yet
};

// One client's request and response: what the application has set, the cursors through which the
// engine consumes it, and what has come back.
//
// No input or output, no logging, no lock. The application's thread fills the request and reads
// the response, the poll thread does the reverse. As long as the request has an open stream,
// HttpContext::lockRequests keeps the two apart; the client status, the body's status and the
// number of open streams are atomic, since one thread reads them while the other writes.
class HttpClientInterfaceImpl {
public:
    // One request header.
    class HttpHeader {
    public:
        // A null text counts as empty.
        HttpHeader(const char* name, const char* value, bool valueChangable);
        std::string name() const { return m_name; }
        std::string value() const { return m_value; }
        bool isValueChangable() const { return m_valueChangable; }

    private:
        friend class HttpClientInterfaceImpl;  // measures the texts without copying them
        std::string m_name;
        std::string m_value;
        bool m_valueChangable;
    };

    class Stream {
    public:
        void setStreamId(uint32_t streamId) { m_streamId = streamId; }
        uint32_t streamId() const { return m_streamId; }

    private:
        uint32_t m_streamId = 0;
    };

    using ContentReader = int (*)(char* buffer, size_t length, void* opaque);

    explicit HttpClientInterfaceImpl(HttpClientInterface* httpClient);

    HttpClientInterface* client() const { return m_httpClient; }

    int clientStatus() const { return m_httpClientStatus; }
    void addClientStatus(HTTP_CLIENT_STATUS status) { m_httpClientStatus |= status; }
    void removeClientStatus(HTTP_CLIENT_STATUS status) { m_httpClientStatus &= ~status; }
    void resetClientStatus(HTTP_CLIENT_STATUS status) { m_httpClientStatus = status; }

    uint32_t streamId() const { return m_stream.streamId(); }
    void setStreamId(uint32_t streamId) { m_stream.setStreamId(streamId); }
    // Counted by the engines: how many of their streams are registered to this request. Once there
    // is none, no engine uses it.
    void streamOpened() { ++m_openStreams; }
    void streamClosed() { --m_openStreams; }
    bool hasOpenStream() const { return m_openStreams != 0; }

    // The connection: its descriptor, and its serial number, since the system gives a closed
    // connection's descriptor to another one. setSocket stands for whatever connection has that
    // descriptor.
    void setConnection(int sock, uint64_t serial) {
        m_socket = sock;
        m_serial = serial;
    }
    void setSocket(int sock) { setConnection(sock, kAnySerial); }
    int getSocket() const { return m_socket; }
    // Whether the connection with this serial number may be the request's.
    bool accepts(uint64_t serial) const { return m_serial == kAnySerial || m_serial == serial; }
    HTTP_SCHEMA httpVersion() const { return m_version; }
    void setHttpVersion(HTTP_SCHEMA ver) { m_version = ver; }

    // The request. Both cursors are 0 for a new request; all ones marks one as finished.

    HTTP_METHOD httpMethod() const { return m_method; }
    void setHttpMethod(HTTP_METHOD method) { m_method = method; }
    std::string uri() const { return m_uri; }
    void setUri(const std::string& uri);
    // Whether the request's first HEADERS frame has been made.
    bool httpHandshake() const { return m_handshake; }
    void sethttpHandshake(bool isSent) { m_handshake = isSent; }

    void addHttpHeader(std::shared_ptr<HttpHeader> header);
    // Length of name and value of the header under the cursor; 0 when there is none.
    uint32_t nextHeaderLength();
    // Copies the header under the cursor and moves on; false when there is none.
    bool takeHttpHeader(HttpHeader& header);
    void resetHeaderIndex() { m_headerOffset = 0; }
    void resetHeaders();

    void setContent(const std::string& str);
    void setContent(ContentReader reader, void* opaque);
    // Null when the body is a block or there is none.
    ContentReader contentReader() const { return ctxReader; }
    void* contentOpaque() const { return m_opaque; }
    // Bytes of the block not taken yet; 0 when there are none. Never looks at the reader.
    uint32_t nextContentLength();
    // Points `buf` into the block and returns `maxLen`, or returns 0. Exactly `maxLen` bytes are
    // handed out or none, and always from the block's start plus `maxLen`: every chunk of a block
    // carries the same bytes, and a remainder below `maxLen` is never sent. To send a body as it
    // is, use a reader. `maxLen` bytes can be read from `buf` until the next call on this object;
    // what lies past the block's end is zeros.
    size_t takeHttpContent(const char*& buf, size_t maxLen);
    void resetContentIndex() { m_contentOffset = 0; }
    // Whether body remains to be sent.
    bool hasPendingContent();
    void setContentFinished(bool isFinished) { m_noMoreContent = isFinished; }

    // The response.

    const std::map<std::string, std::string>& receivedHttpHeaders() const {
        return m_receivedHeaderMap;
    }
    // The same as records, in the same order. Valid until the response changes.
    const std::vector<HttpClientInterface::HeaderDef>& receivedHeaderRecords() {
        return m_receivedRecords.all();
    }
    // A repeated name replaces the earlier value.
    void addReceivedHttpHeader(const std::string& headerName, const std::string& headerValue) {
        m_receivedRecords.store(headerName, headerValue);
    }
    void setReceivedHttpStatus(int status) { m_receivedStatus = status; }
    int receivedHttpStatus() const { return m_receivedStatus; }

    void setReceivedHttpContentCacheEnabled(bool isCacheEnabled) { m_saveContent = isCacheEnabled; }
    bool receivedHttpContentCacheEnabled() const { return m_saveContent; }
    int receivedHttpContentStatus() const { return m_recvContentStatus; }  // a RECV_STATUS
    void setReceiveContentBegin() { m_recvContentStatus = RECV_STATUS_START; }
    void setReceiveContentDone() { m_recvContentStatus = RECV_STATUS_END; }
    void setReceivedContentOverflow() { m_recvContentStatus = RECV_STATUS_CONTENT_OVERFLOW; }
    // Keeps the bytes when the cache is enabled and holds less than 1 MiB; a full cache drops them
    // and marks the overflow.
    void appendReceivedContent(const char* content, size_t len);
    const std::string& receivedHttpContent() const { return m_recvContentStr; }

    std::string errorMessage() const { return m_errMsg; }
    // Valid until the error message changes.
    const char* errorText() const { return m_errMsg.c_str(); }
    void setErrorMessage(const char* errMsg);

    // Prepares a new exchange of the same request: rewinds the cursors, clears the response and
    // CLI_STATUS_REQUESTING.
    void resetToRequest();
    // Clears the request too; only the connection stays.
    void clear();

private:
    static constexpr uint64_t kAnySerial = 0;

    std::string m_errMsg;
    HttpClientInterface* m_httpClient;           // the owner of this object
    std::atomic<int32_t> m_httpClientStatus{0};  // HTTP_CLIENT_STATUS bits
    Stream m_stream;
    int32_t m_socket = -1;  // descriptor of the connection; -1 before the first connect
    HTTP_SCHEMA m_version = HTTP_VERSION_UNDEFINED;
    HTTP_METHOD m_method = HTTP_METHOD_UNDEFINED;
    std::string m_uri;
    bool m_handshake = false;
    size_t m_headerOffset = 0;
    std::vector<std::shared_ptr<HttpHeader>> m_headerLst;
    std::string m_content;
    size_t m_contentOffset = 0;
    bool m_noMoreContent = false;
    ContentReader ctxReader = nullptr;
    void* m_opaque = nullptr;
    int32_t m_receivedStatus = 0;
    std::map<std::string, std::string> m_receivedHeaderMap;
    bool m_saveContent = false;
    std::atomic<int32_t> m_recvContentStatus{RECV_STATUS_UNDEFINED};
    std::string m_recvContentStr;

    ReceivedHeaderRecords m_receivedRecords{m_receivedHeaderMap};
    std::string m_chunk;  // the chunk last handed out, when it reached past the block's end
    uint64_t m_serial = kAnySerial;  // of the connection
    std::atomic<int> m_openStreams{0};
};

}  // namespace tiny

#endif  // HTTP2CLIENT_HTTPCLIENTINTERFACEIMPL_H
