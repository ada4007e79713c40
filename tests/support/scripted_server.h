#ifndef HTTP2CLIENT_TESTS_SUPPORT_SCRIPTED_SERVER_H
#define HTTP2CLIENT_TESTS_SUPPORT_SCRIPTED_SERVER_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "bytes.h"
#include "temp.h"
#include "wait.h"

namespace h2test {

// Ignores SIGPIPE in the whole process: the library writes without MSG_NOSIGNAL.
void ignoreSigpipe();

// Called on the server's thread, with no lock held, for each frame that connection `index` has
// sent whole (the preface is no frame). What it returns is sent to that connection; it may also
// call the server's methods, but not wait in them.
using Responder = std::function<std::string(size_t index, const WireFrame& frame)>;

struct ServerOptions {
    bool tls = false;
    std::optional<Certificate> certificate;  // for TLS; none: one made once for the process
    bool onlyTls12 = false;                  // refuse TLS 1.3
    bool alpn = true;                        // choose "h2" when the client offers it
    std::string greeting;                    // sent to each connection at once (in TLS, if `tls`)
    bool closeAfterGreeting = false;         // ends each connection, as close() does
    int receiveBuffer = 0;                   // SO_RCVBUF of the connections; 0: the system's
    bool keepReceived = true;                // false: received(), frames() stay empty (long runs)
    Responder responder;
};

// A server on 127.0.0.1 that does nothing by itself: it keeps every byte that its clients send, and
// sends what the test passes to it. It has no streams, settings or windows.
//
// Connections count from 0 in the order of their acceptance. The methods may be called from any
// thread. What is to be done with a connection is queued and carried out in order by the server's
// thread; a method that names a connection waits until it is there, and throws std::runtime_error
// when it does not come. Each `wait` method returns false when its limit has passed.
//
// Where TLS fails, the server drops its queue and sends FIN, as servers do.
// When a client has closed its side, the server closes its own as soon as its queue is empty; what
// was received stays.
//
// Making one ignores SIGPIPE in the whole process. Destruction drops what is queued, closes all
// connections and never hangs.
class ScriptedServer {
public:
    using Limit = std::chrono::milliseconds;

    explicit ScriptedServer(ServerOptions options = {});
    ~ScriptedServer();
    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;

    static constexpr const char* ip() { return "127.0.0.1"; }
    uint16_t port() const { return m_port; }

    // Sends `bytes`, over TLS in one SSL_write.
    void send(size_t index, std::string bytes);

    // Sends `bytes` in pieces that end at the ascending positions `cuts` and at the end; over TLS
    // each piece is one record. A piece goes out when the client has read all before it,
    // so that the client's reads see these very pieces. (That can be told for a client in this
    // process; for any other the pieces are merely separate writes. After 10 s the next piece goes
    // out in any case.)
    void sendCut(size_t index, std::string_view bytes, const std::vector<size_t>& cuts);
    void sendByteByByte(size_t index, std::string_view bytes);

    // Sends bytes past TLS, such as something that is no TLS record.
    void sendRaw(size_t index, std::string bytes);

    // TLS 1.3: new keys for both directions.
    void updateKeys(size_t index);
    // TLS 1.2: asks for a new handshake. A client that is then asked for a certificate and has none
    // gets a fatal alert.
    void renegotiate(size_t index, bool wantCertificate);

    // Sends a fatal TLS alert, as to a client whose last record did not decrypt, and then nothing
    // more; the connection stays open. What the client still sends is not decrypted.
    void sendFatalAlert(size_t index);

    // Sends a TLS close_notify; nothing on a plain connection.
    void sendCloseNotify(size_t index);

    // Ends the connection in order: close_notify when it is TLS, then FIN. What the client still
    // sends is read and dropped until it closes as well, so that it sees no reset.
    void close(size_t index);
    // The same, but a TLS connection ends without close_notify.
    void closeWithoutCloseNotify(size_t index);
    // Sends FIN alone; what the client sends is kept as before.
    void shutdownWrite(size_t index);
    // Ends the connection with a RST, when all that was queued before has gone out.
    void reset(size_t index);

    // Stops or resumes reading: the client's sends will fill the socket buffers.
    void stopReading(size_t index);
    void resumeReading(size_t index);

    // All that connection `index` has sent so far (over TLS: decrypted), preface and all.
    std::string received(size_t index);
    // The whole frames so far. None when it did not start with the connection preface.
    std::vector<WireFrame> frames(size_t index);
    // The whole frames of one type so far.
    std::vector<WireFrame> frames(size_t index, uint8_t type);

    size_t connections() const;
    bool closedByPeer(size_t index);         // the client has sent FIN or RST
    bool resetByPeer(size_t index);          // it was a RST
    bool closeNotifyReceived(size_t index);  // the client has ended TLS in order
    bool tlsFailed(size_t index);            // handshake or record layer broke

    [[nodiscard]] bool waitConnections(size_t count, Limit limit = kWaitLimit);
    [[nodiscard]] bool waitReceived(size_t index, size_t size, Limit limit = kWaitLimit);
    // `pred` gets all bytes received; it is called with the server's lock held.
    [[nodiscard]] bool waitReceived(size_t index,
                                    const std::function<bool(const std::string&)>& pred,
                                    Limit limit = kWaitLimit);
    [[nodiscard]] bool waitFrames(size_t index, size_t count, Limit limit = kWaitLimit);
    // Waits for `count` frames of this type.
    [[nodiscard]] bool waitFramesOf(size_t index, uint8_t type, size_t count = 1,
                                    Limit limit = kWaitLimit);
    // `pred` gets all whole frames; it is called with the server's lock held.
    [[nodiscard]] bool waitFramesThat(
        size_t index, const std::function<bool(const std::vector<WireFrame>&)>& pred,
        Limit limit = kWaitLimit);
    // Waits until all that was queued has been handed to the system.
    [[nodiscard]] bool waitSent(size_t index, Limit limit = kWaitLimit);
    [[nodiscard]] bool waitClosedByPeer(size_t index, Limit limit = kWaitLimit);

private:
    struct Connection;
    struct Step;
    struct Shared;

    void queue(size_t index, std::vector<Step> steps);
    void setReading(size_t index, bool on);
    template <typename Get>
    auto look(size_t index, Get get);
    template <typename Pred>
    bool waitConnection(size_t index, Limit limit, Pred pred);

    std::unique_ptr<Shared> m_shared;  // what the test's threads and the server's thread share
    uint16_t m_port;
    std::thread m_thread;  // runs Shared::run
};

// A port of 127.0.0.1 that refuses connections as long as this object lives.
class RefusingPort {
public:
    RefusingPort();
    ~RefusingPort();
    RefusingPort(const RefusingPort&) = delete;
    RefusingPort& operator=(const RefusingPort&) = delete;
    uint16_t port() const { return m_port; }

private:
    uint16_t m_port = 0;
    int m_socket;  // bound, never listening
};

}  // namespace h2test

#endif  // HTTP2CLIENT_TESTS_SUPPORT_SCRIPTED_SERVER_H
