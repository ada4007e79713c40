#ifndef HTTP2CLIENT_HTTPSOCKETORI_H
#define HTTP2CLIENT_HTTPSOCKETORI_H

#include "HttpSocketBase.h"

namespace tiny {

// The plain TCP transport.
class HttpSocketOri : public HttpSocketBase {
public:
    HttpSocketOri(HTTP_SCHEMA ver, const std::string& ip, uint16_t port);

    bool initialization() override;
    int readData(char* buf, size_t len) override;
    int writeData(const char* buf, size_t len) override;
};

}  // namespace tiny

#endif  // HTTP2CLIENT_HTTPSOCKETORI_H
