#ifndef HTTP2CLIENT_EXAMPLES_HAS_BODY_H
#define HTTP2CLIENT_EXAMPLES_HAS_BODY_H

#include <Http2Client/HttpClientInterface.h>

#include <cstring>

// Whether a body follows these headers. An answer without a body may end with its headers, and no
// further callback comes then: onHeaderReceived is the end of the wait.
inline bool hasBody(int status, const tiny::HttpClientInterface::HeaderDef* headers, size_t count) {
    if (status == 204 || status == 304) return false;
    for (size_t i = 0; i < count; ++i) {
        if (std::strcmp(headers[i].m_headerName, "content-length") == 0 &&
            std::strcmp(headers[i].m_headerValue, "0") == 0) {
            return false;
        }
    }
    return true;
}

#endif  // HTTP2CLIENT_EXAMPLES_HAS_BODY_H
