#ifndef HTTP2CLIENT_TESTS_STRESS_RANDOM_SERVER_H
#define HTTP2CLIENT_TESTS_STRESS_RANDOM_SERVER_H

#include <openssl/ssl.h>

#include <cstdint>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>

namespace h2test {

// A server that treats each request at random: it answers at once or in pieces, resets the stream,
// sends GOAWAY, closes or resets the connection, sends bytes that are no frame, or stays silent.
// One thread; TCP on 127.0.0.1, plain or with TLS.
class RandomServer {
public:
    RandomServer(uint32_t seed, bool tls);
    ~RandomServer();  // closes all connections
    RandomServer(const RandomServer&) = delete;
    RandomServer& operator=(const RandomServer&) = delete;

    uint16_t port() const { return m_port; }

private:
    template <auto free>
    struct FreeWith {
        template <typename T>
        void operator()(T* object) const {
            free(object);
        }
    };
    using Tls = std::unique_ptr<SSL, FreeWith<SSL_free>>;
    using TlsContext = std::unique_ptr<SSL_CTX, FreeWith<SSL_CTX_free>>;

    struct Connection {
        Tls tls;          // null on a plain connection
        std::string in;   // received, not yet cut into frames
        std::string out;  // to be sent
        bool prefaceSeen = false;
        bool closing = false;          // to be closed when `out` is gone
        bool waitsForRoom = true;      // for sending
        bool sendsCloseNotify = true;  // before it closes
    };

    void run();
    void accept();
    // False: the connection is over.
    bool serve(int fd, Connection& connection, short events);
    bool receive(int fd, Connection& connection);
    bool receiveTls(Connection& connection);
    void answerFrames(int fd, Connection& connection);
    void answer(int fd, Connection& connection, uint32_t streamId);
    bool flush(int fd, Connection& connection);
    bool flushTls(Connection& connection);

    std::mt19937 m_random;
    TlsContext m_tls;  // null: plain
    int m_listener;
    int m_wake;
    uint16_t m_port = 0;
    std::map<int, Connection> m_connections;  // of the thread
    std::thread m_thread;
};

}  // namespace h2test

#endif  // HTTP2CLIENT_TESTS_STRESS_RANDOM_SERVER_H
