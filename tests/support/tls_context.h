#ifndef HTTP2CLIENT_TESTS_SUPPORT_TLS_CONTEXT_H
#define HTTP2CLIENT_TESTS_SUPPORT_TLS_CONTEXT_H

#include <openssl/ssl.h>

#include "temp.h"

namespace h2test {

// Made once for the process.
const Certificate& sharedCertificate();

// A server's context, which the caller frees. Ends the process where there can be none. `alpn`: it
// chooses "h2" when the client offers protocols; false: it takes no part in that.
SSL_CTX* makeTlsContext(const Certificate& certificate, bool onlyTls12 = false, bool alpn = true);

}  // namespace h2test

#endif  // HTTP2CLIENT_TESTS_SUPPORT_TLS_CONTEXT_H
