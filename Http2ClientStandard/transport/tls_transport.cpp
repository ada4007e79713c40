#include "Http2ClientStandard/transport/tls_transport.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/x509_vfy.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <string_view>

namespace h2 {

namespace {

constexpr size_t kReceiveBuffer = size_t{64} * 1024;
constexpr size_t kRecord = 16384;  // the largest plaintext of a record (RFC 8446, 5.1)
// Ciphertext gathered for one send.
constexpr size_t kSendBatch = size_t{256} * 1024;
// A peer that asks for answers (key updates) and reads none is not let fill the memory.
constexpr size_t kMaxUnsent = 2 * kSendBatch;
// Buffers above this are given back when they are empty.
constexpr size_t kKeptCapacity = 4096;

// Of the thread: every connection that it serves uses them in turn, within one call. Null: there is
// no memory.
char* receiveBuffer() {
    static thread_local std::unique_ptr<char[]> buffer;
    if (!buffer) buffer.reset(new (std::nothrow) char[kReceiveBuffer]);
    return buffer.get();
}

char* recordBuffer() {
    static thread_local const std::unique_ptr<char[]> buffer(new char[kRecord]);
    return buffer.get();
}

}  // namespace

// OpenSSL's view of the transport.
struct TlsTransport::Bio {
    static TlsTransport* self(BIO* bio) { return static_cast<TlsTransport*>(BIO_get_data(bio)); }

    static int read(BIO* bio, char* to, int size) {
        BIO_clear_retry_flags(bio);
        if (size <= 0) return 0;
        TlsTransport* transport = self(bio);
        const size_t moved = transport->receive(to, static_cast<size_t>(size));
        if (moved != 0) return static_cast<int>(moved);
        if (transport->m_ended) return 0;
        if (transport->m_errno == 0) BIO_set_retry_read(bio);
        return -1;
    }

    static int write(BIO* bio, const char* from, int size) {
        BIO_clear_retry_flags(bio);
        if (size <= 0) return 0;
        TlsTransport* transport = self(bio);
        if (transport->m_out.size() - transport->m_outSent > kMaxUnsent) {
            BIO_set_retry_write(bio);
            return -1;
        }
        try {
            transport->m_out.append(from, static_cast<size_t>(size));
        } catch (const std::bad_alloc&) {  // OpenSSL knows of no exceptions
            transport->m_errno = ENOMEM;
            return -1;
        }
        return size;
    }

    static long control(BIO* bio, int command, long /*number*/, void* /*pointer*/) {
        if (command == BIO_CTRL_FLUSH) return 1;
        if (command == BIO_CTRL_EOF) return self(bio)->m_ended ? 1 : 0;
        return 0;
    }

    static BIO_METHOD* method() {
        static BIO_METHOD* const made = [] {
            BIO_METHOD* method = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "h2");
            if (method == nullptr) return method;
            BIO_meth_set_read(method, &Bio::read);
            BIO_meth_set_write(method, &Bio::write);
            BIO_meth_set_ctrl(method, &Bio::control);
            return method;
        }();
        return made;
    }
};

std::unique_ptr<TlsTransport> TlsTransport::create(Socket socket,
                                                   std::shared_ptr<TlsContext> context,
                                                   const std::string& host, uint16_t port,
                                                   std::string& error) {
    std::unique_ptr<TlsTransport> transport(
        new TlsTransport(std::move(socket), std::move(context)));
    transport->m_ssl = transport->m_context->newConnection(host, port, error);
    if (transport->m_ssl == nullptr) return nullptr;
    BIO* bio = Bio::method() == nullptr ? nullptr : BIO_new(Bio::method());
    if (bio == nullptr) {
        error = tlsErrorText();
        return nullptr;
    }
    BIO_set_data(bio, transport.get());
    BIO_set_init(bio, 1);
    SSL_set_bio(transport->m_ssl, bio, bio);
    SSL_set_connect_state(transport->m_ssl);
    return transport;
}

TlsTransport::~TlsTransport() {
    sayGoodbye();
    // OpenSSL would resume no session whose connection has just broken off, which is when there is
    // a next one.
    if (m_ready) SSL_set_shutdown(m_ssl, SSL_SENT_SHUTDOWN | SSL_RECEIVED_SHUTDOWN);
    SSL_free(m_ssl);
}

void TlsTransport::endWriting() {
    sayGoodbye();
    shutdown(descriptor(), SHUT_WR);
}

// Sends close_notify, once.
void TlsTransport::sayGoodbye() {
    if (!m_ready || !error().empty() || m_ended || TlsTransport::wantsWrite() || m_saidGoodbye)
        return;
    m_saidGoodbye = true;
    ERR_clear_error();
    SSL_shutdown(m_ssl);
    TlsTransport::flush();
}

// Moves received ciphertext to OpenSSL, asking the socket when there is none and it may have some.
size_t TlsTransport::receive(char* to, size_t size) {
    if (m_inSize == 0 && !refill()) return 0;
    const size_t moved = std::min(size, m_inSize);
    std::memcpy(to, m_in, moved);
    m_in += moved;
    m_inSize -= moved;
    return moved;
}

bool TlsTransport::refill() {
    if (m_drained || m_ended || m_errno != 0) return false;
    char* const buffer = receiveBuffer();
    if (buffer == nullptr) {
        m_errno = ENOMEM;
        return false;
    }
    ssize_t result = -1;
    do {
        result = recv(descriptor(), buffer, kReceiveBuffer, 0);
    } while (result == -1 && errno == EINTR);
    if (result > 0) {
        m_in = buffer;
        m_inSize = static_cast<size_t>(result);
        m_drained = m_inSize < kReceiveBuffer;
        return true;
    }
    if (result == 0) {
        m_ended = true;
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
        m_drained = true;
    } else {
        m_errno = errno;
    }
    return false;
}

// The thread's buffer is another connection's after the call.
void TlsTransport::keepLeftover() {
    if (m_inSize == 0) {
        m_leftover.clear();
        if (m_leftover.capacity() > kKeptCapacity) std::string().swap(m_leftover);
        return;
    }
    m_leftover = std::string(m_in, m_inSize);
    m_in = m_leftover.data();
}

IoResult TlsTransport::handshake() {
    if (m_ready) return {IoStatus::kDone};
    ERR_clear_error();
    m_drained = false;
    const int result = SSL_connect(m_ssl);
    const int sslError = result == 1 ? SSL_ERROR_NONE : SSL_get_error(m_ssl, result);
    keepLeftover();
    const IoResult sent = flush();
    if (sslError == SSL_ERROR_WANT_READ || sslError == SSL_ERROR_WANT_WRITE) {
        return sent.status == IoStatus::kFailed ? sent : IoResult{IoStatus::kAgain};
    }
    if (sslError != SSL_ERROR_NONE) return failHandshake();
    if (sent.status == IoStatus::kFailed) return sent;
    const unsigned char* protocol = nullptr;
    unsigned int length = 0;
    SSL_get0_alpn_selected(m_ssl, &protocol, &length);
    if (std::string_view(reinterpret_cast<const char*>(protocol), length) != "h2") {
        return fail("the server does not offer HTTP/2 (it did not choose \"h2\" by ALPN)");
    }
    m_ready = true;
    return {IoStatus::kDone};
}

IoResult TlsTransport::failHandshake() {
    const long verdict = SSL_get_verify_result(m_ssl);
    if (m_context->options().verify && verdict != X509_V_OK) {
        return fail(std::string("the server's certificate is not accepted: ") +
                    X509_verify_cert_error_string(verdict));
    }
    if (m_errno != 0) return fail("TLS handshake: " + systemError(m_errno));
    const int reason = ERR_GET_REASON(ERR_peek_last_error());
    if (reason == SSL_R_TLSV1_ALERT_NO_APPLICATION_PROTOCOL) {
        return fail("the server does not offer HTTP/2 (it refused \"h2\" by ALPN)");
    }
    if (m_ended) return fail("the server ended the connection during the TLS handshake");
    if (reason == SSL_R_WRONG_VERSION_NUMBER) return fail("the server does not speak TLS");
    return fail("TLS handshake: " + tlsErrorText());
}

// What a failed SSL_read or SSL_write means. `moved` bytes were moved before.
IoResult TlsTransport::status(int error, size_t moved) {
    if (moved != 0) return {IoStatus::kDone, moved};
    switch (error) {
        case SSL_ERROR_WANT_READ: return {IoStatus::kAgain};
        case SSL_ERROR_ZERO_RETURN:
            // The end of file is read only behind all that was sent: no close_notify was.
            if (m_ended) return fail("the server ended the connection without TLS's close_notify");
            return {IoStatus::kClosed};
        // Its requests would be left unread, and the socket ready for reading, for as long as it
        // likes.
        case SSL_ERROR_WANT_WRITE:
            return fail("the server asks for TLS answers that it does not read");
        default: break;
    }
    if (m_errno != 0) return fail(systemError(m_errno));
    return fail("TLS: " + tlsErrorText());
}

// An end or a failure behind bytes that were read is reported by the next call: OpenSSL repeats it.
IoResult TlsTransport::read(char* to, size_t size) {
    ERR_clear_error();
    m_drained = false;
    size_t moved = 0;
    int error = SSL_ERROR_NONE;
    while (moved < size) {
        size_t got = 0;
        if (SSL_read_ex(m_ssl, to + moved, size - moved, &got) != 1) {
            error = SSL_get_error(m_ssl, 0);
            if (error == SSL_ERROR_WANT_WRITE && flush().status == IoStatus::kDone) continue;
            break;
        }
        moved += got;
    }
    const IoResult result = status(error, moved);
    keepLeftover();
    // OpenSSL may have answered something of its own, such as a key update.
    if (wantsWrite()) flush();
    return result;
}

bool TlsTransport::writeRecord(const char* data, size_t size) {
    size_t taken = 0;
    return SSL_write_ex(m_ssl, data, size, &taken) == 1 && taken == size;
}

// Encrypts segments from byte `offset` of them all on, in records as large as can be, until a
// send's worth is gathered. Returns how many bytes that were.
size_t TlsTransport::takeSegments(std::span<const iovec> segments, size_t offset, bool& failed) {
    size_t taken = 0;
    size_t gathered = 0;
    char* const record = recordBuffer();
    const auto flushRecord = [&] {
        if (gathered != 0 && !writeRecord(record, gathered)) failed = true;
        gathered = 0;
    };
    for (const iovec& segment : segments) {
        if (offset >= segment.iov_len) {
            offset -= segment.iov_len;
            continue;
        }
        const char* data = static_cast<const char*>(segment.iov_base) + offset;
        size_t left = segment.iov_len - offset;
        offset = 0;
        while (left != 0 && !failed && m_out.size() - m_outSent < kSendBatch) {
            const size_t part = std::min(left, kRecord - gathered);
            if (gathered == 0 && part == kRecord) {
                failed = !writeRecord(data, part);
            } else {
                std::memcpy(record + gathered, data, part);
                gathered += part;
                if (gathered == kRecord) flushRecord();
            }
            data += part;
            left -= part;
            taken += part;
        }
        if (failed || left != 0) break;
    }
    flushRecord();
    return taken;
}

IoResult TlsTransport::write(std::span<const iovec> segments) {
    ERR_clear_error();
    size_t total = 0;
    for (const iovec& segment : segments) total += segment.iov_len;
    size_t taken = 0;
    IoResult sent = flush();
    while (sent.status == IoStatus::kDone && taken < total) {
        bool failed = false;
        taken += takeSegments(segments, taken, failed);
        if (failed) return fail("TLS: " + tlsErrorText());
        sent = flush();
    }
    if (sent.status == IoStatus::kFailed) return sent;
    return {taken == 0 && total != 0 ? IoStatus::kAgain : IoStatus::kDone, taken};
}

IoResult TlsTransport::flush() {
    while (m_outSent < m_out.size()) {
        const ssize_t result =
            send(descriptor(), m_out.data() + m_outSent, m_out.size() - m_outSent, MSG_NOSIGNAL);
        if (result >= 0) {
            m_outSent += static_cast<size_t>(result);
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            if (m_outSent >= kSendBatch) {
                m_out.erase(0, m_outSent);
                m_outSent = 0;
            }
            return {IoStatus::kAgain};
        } else if (errno != EINTR) {
            return fail(systemError(errno));
        }
    }
    m_outSent = 0;
    m_out.clear();
    return {IoStatus::kDone};
}

void TlsTransport::trim() {
    if (m_out.empty()) std::string().swap(m_out);
}

}  // namespace h2
