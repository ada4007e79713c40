#ifndef HTTP2CLIENTSTANDARD_TRANSPORT_TLS_TRANSPORT_H
#define HTTP2CLIENTSTANDARD_TRANSPORT_TLS_TRANSPORT_H

#include <openssl/ssl.h>

#include <memory>
#include <string>

#include "Http2ClientStandard/transport/tls_context.h"
#include "Http2ClientStandard/transport/transport.h"

namespace h2 {

// TLS over TCP. Takes a connected socket.
//
// OpenSSL reads and writes through a BIO of ours: received ciphertext lies in a buffer of the
// thread, which every connection of the thread uses in turn, and what is written is gathered so
// that one send carries all records of a turn. A read asks the socket once, or until it has less
// than was asked for.
class TlsTransport : public Transport {
public:
    // Null on failure; `error` then says why. `host` is the name or address that was connected to.
    static std::unique_ptr<TlsTransport> create(Socket socket, std::shared_ptr<TlsContext> context,
                                                const std::string& host, uint16_t port,
                                                std::string& error);
    // Tells the peer that no more bytes follow (close_notify), if the socket takes that at once.
    ~TlsTransport() override;

    // Fails, too, when the server's certificate does not verify or it does not choose "h2".
    IoResult handshake() override;
    IoResult read(char* to, size_t size) override;
    IoResult write(std::span<const iovec> segments) override;
    IoResult flush() override;
    void endWriting() override;
    bool wantsWrite() const override { return m_outSent < m_out.size(); }
    void trim() override;

    // "TLSv1.3"; of use after the handshake.
    std::string version() const { return SSL_get_version(m_ssl); }
    bool resumed() const { return SSL_session_reused(m_ssl) == 1; }

private:
    struct Bio;

    TlsTransport(Socket socket, std::shared_ptr<TlsContext> context)
        : Transport(std::move(socket)), m_context(std::move(context)) {}

    size_t receive(char* to, size_t size);
    bool refill();
    void keepLeftover();
    bool writeRecord(const char* data, size_t size);
    size_t takeSegments(std::span<const iovec> segments, size_t offset, bool& failed);
    IoResult status(int error, size_t moved);
    IoResult failHandshake();
    void sayGoodbye();

    std::shared_ptr<TlsContext> m_context;  // outlives m_ssl
    SSL* m_ssl = nullptr;                   // owned
    bool m_ready = false;                   // the handshake is over
    bool m_saidGoodbye = false;             // close_notify has been written

    // Ciphertext received and not yet taken by OpenSSL: in the thread's buffer during a call, in
    // m_leftover between two calls (which is rare: a call takes all it can).
    const char* m_in = nullptr;
    size_t m_inSize = 0;
    std::string m_leftover;
    bool m_drained = false;  // the socket had less than was asked for
    bool m_ended = false;    // end of file
    int m_errno = 0;         // of a failed recv or send

    std::string m_out;     // ciphertext to be sent, from m_outSent on
    size_t m_outSent = 0;  // <= m_out.size()
};

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_TRANSPORT_TLS_TRANSPORT_H
