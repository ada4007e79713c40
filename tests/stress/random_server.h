#ifndef HTTP2CLIENT_TESTS_STRESS_RANDOM_SERVER_H
#define HTTP2CLIENT_TESTS_STRESS_RANDOM_SERVER_H

#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <thread>

namespace h2test {

// A server that treats each request as chance will have it: answers at once or in pieces, resets
// the stream, says goodbye, closes or resets the connection, sends what is no frame, or keeps
// silent. One thread; plain TCP on 127.0.0.1.
class RandomServer {
public:
    explicit RandomServer(uint32_t seed);
    ~RandomServer();  // closes all connections
    RandomServer(const RandomServer&) = delete;
    RandomServer& operator=(const RandomServer&) = delete;

    uint16_t port() const { return m_port; }

private:
    struct Connection {
        std::string in;   // received, not yet cut into frames
        std::string out;  // to be sent
        bool prefaceSeen = false;
        bool closing = false;  // to be closed when `out` is gone
    };

    void run();
    void accept();
    bool serve(int fd, Connection& connection, short events);  // false: it is over
    bool receive(int fd, Connection& connection);
    void answerFrames(int fd, Connection& connection);
    void answer(int fd, Connection& connection, uint32_t streamId);
    bool flush(int fd, Connection& connection);

    std::mt19937 m_random;
    int m_listener;
    int m_wake;
    uint16_t m_port = 0;
    std::map<int, Connection> m_connections;  // of the thread
    std::thread m_thread;
};

}  // namespace h2test

#endif  // HTTP2CLIENT_TESTS_STRESS_RANDOM_SERVER_H
