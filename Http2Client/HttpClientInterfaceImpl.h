#ifndef HTTP2CLIENT_HTTPCLIENTINTERFACEIMPL_H
#define HTTP2CLIENT_HTTPCLIENTINTERFACEIMPL_H

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

// One client's request and response: what the application has set, the cursors through which the
// engine consumes it, and what has come back.
//
// No input or output, no logging, no lock. The application's thread fills the request and reads
// the response, the poll thread does the reverse; HttpContext::RequestGuard keeps them apart. The
// client status and the body's status are read by one thread while the other writes them, so
// each access to those two is atomic.
class HttpClientInterfaceImpl {
public:
    // One request header.
    class HttpHeader {
    public:
        // A null text counts as empty.
        HttpHeader(const char* name, const char* value, bool valueChangable);
        const std::string& name() const { return m_name; }
        const std::string& value() const { return m_value; }
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

    int clientStatus() const;
    void addClientStatus(HTTP_CLIENT_STATUS status);
    void removeClientStatus(HTTP_CLIENT_STATUS status);
    void resetClientStatus(HTTP_CLIENT_STATUS status);

    uint32_t streamId() const { return m_stream.streamId(); }
    void setStreamId(uint32_t streamId) { m_stream.setStreamId(streamId); }
    void setSocket(int sock) { m_socket = sock; }
    int getSocket() const { return m_socket; }
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
    // Whether the end of the headers has not been found yet.
    bool hasPendingHeaders() const;
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
    // carries the same bytes, and a remainder below `maxLen` is never sent. Whoever wants a body
    // sent as it is uses a reader. `maxLen` bytes can be read from `buf` until the next call on
    // this object; what lies past the block's end is zeros.
    size_t takeHttpContent(const char*& buf, size_t maxLen);
    void resetContentIndex() { m_contentOffset = 0; }
    // Whether body remains to be sent.
    bool hasPendingContent();
    void setContentFinished(bool isFinished) { m_noMoreContent = isFinished; }

    // The response.

    const std::map<std::string, std::string>& receivedHttpHeaders() const {
        return m_receivedHeaderMap;
    }
    // The same as records, in the same order; their texts are the map's own. Valid until the
    // response changes. The records are kept, so that a server that sends its headers one by one
    // does not make each of them cost a walk over all.
    const std::vector<HttpClientInterface::HeaderDef>& receivedHeaderDefs();
    // A repeated name replaces the earlier value.
    void addReceivedHttpHeader(const std::string& headerName, const std::string& headerValue);
    void setReceivedHttpStatus(int status) { m_receivedStatus = status; }
    int receivedHttpStatus() const { return m_receivedStatus; }

    void setReceivedHttpContentCacheEnabled(bool isCacheEnabled) { m_saveContent = isCacheEnabled; }
    bool receivedHttpContentCacheEnabled() const { return m_saveContent; }
    int receivedHttpContentStatus() const;  // a RECV_STATUS
    void setReceiveContentBegin();
    void setReceiveContentDone();
    void setReceivedContentOverflow();
    // Keeps the bytes when the cache is enabled and holds less than 1 MiB; a full cache drops them
    // and marks the overflow.
    void appendReceivedContent(const char* content, size_t len);
    const std::string& receivedHttpContent() const { return m_recvContentStr; }

    std::string errorMessage() const { return m_errMsg; }
    // Valid until the error message changes.
    const char* errorText() const { return m_errMsg.c_str(); }
    void setErrorMessage(const char* errMsg);

    // Makes ready for a new exchange of the same request: rewinds the cursors, forgets the
    // response, drops CLI_STATUS_REQUESTING.
    void resetToRequest();
    // Forgets the request too; only the connection stays.
    void clear();

private:
    using ReceivedHeader = std::map<std::string, std::string>::value_type;

    void storeContentStatus(RECV_STATUS status);
    size_t headerPosition(const std::string& headerName) const;
    void forgetReceivedHeaders();

    std::string m_errMsg;
    HttpClientInterface* m_httpClient;  // the owner of this object
    int32_t m_httpClientStatus = 0;     // HTTP_CLIENT_STATUS bits; accessed atomically
    Stream m_stream;
    int32_t m_socket = -1;  // key of the connection; -1 before the first connect
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
    // Entries of the map: those that have records, in their order, with the records; and those that
    // have none yet.
    std::vector<const ReceivedHeader*> m_recordedHeaders;
    std::vector<HttpClientInterface::HeaderDef> m_headerDefs;
    std::vector<const ReceivedHeader*> m_unrecordedHeaders;
    bool m_saveContent = false;
    int32_t m_recvContentStatus = RECV_STATUS_UNDEFINED;  // accessed atomically
    std::string m_recvContentStr;
    std::string m_chunk;  // the chunk last handed out, when it reached past the block's end
};

}  // namespace tiny

#endif  // HTTP2CLIENT_HTTPCLIENTINTERFACEIMPL_H
