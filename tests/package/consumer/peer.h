#ifndef HTTP2CLIENT_TESTS_PACKAGE_CONSUMER_PEER_H
#define HTTP2CLIENT_TESTS_PACKAGE_CONSUMER_PEER_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

// An HTTP/2 server of one connection and one request, which it answers with status 200 and a text
// of at most 255 bytes. It listens on a port of 127.0.0.1 that the kernel chooses, keeps the
// connection open until hangUp() or the client's end of it, and gives up on a client that keeps
// silent for 30 s.
class Peer {
public:
    explicit Peer(const std::string& text) : m_listener(socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address;
        memset(&address, 0, sizeof address);
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        sockaddr* any = reinterpret_cast<sockaddr*>(&address);
        const timeval limit = {30, 0};
        if (setsockopt(m_listener, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) != 0 ||
            bind(m_listener, any, size) != 0 || listen(m_listener, 1) != 0 ||
            getsockname(m_listener, any, &size) != 0) {
            perror("peer");
            exit(2);
        }
        m_port = ntohs(address.sin_port);
        m_thread = std::thread([this, text] { serve(text); });
    }
    ~Peer() {
        m_thread.join();
        if (m_connection >= 0) close(m_connection);
        close(m_listener);
    }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    uint16_t port() const { return m_port; }

    // When the client has its answer.
    void hangUp() { shutdown(m_connection, SHUT_RD); }

private:
    enum Frame { DATA = 0, HEADERS = 1, SETTINGS = 4 };

    static bool receive(int fd, std::string& bytes, size_t count) {
        bytes.resize(count);
        return count == 0 || recv(fd, &bytes[0], count, MSG_WAITALL) == static_cast<ssize_t>(count);
    }

    static std::string frame(Frame type, char flags, const std::string& stream,
                             const std::string& payload) {
        std::string bytes(2, '\0');
        bytes += static_cast<char>(payload.size());
        bytes += static_cast<char>(type);
        bytes += flags;
        return bytes + stream + payload;
    }

    // Reads a frame. False at the end of input.
    static bool receiveFrame(int fd, std::string& header) {
        std::string payload;
        if (!receive(fd, header, 9)) return false;
        const size_t length = static_cast<size_t>(static_cast<uint8_t>(header[0])) << 16 |
                              static_cast<size_t>(static_cast<uint8_t>(header[1])) << 8 |
                              static_cast<uint8_t>(header[2]);
        return receive(fd, payload, length);
    }

    void serve(const std::string& text) {
        const int fd = accept(m_listener, nullptr, nullptr);
        m_connection = fd;
        if (fd < 0) return;
        const timeval limit = {30, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        std::string header;
        bool open = receive(fd, header, 24);
        while (open && (open = receiveFrame(fd, header))) {
            if (header[3] != HEADERS) continue;
            const std::string stream = header.substr(5, 4);
            const std::string answer = frame(SETTINGS, 0, std::string(4, '\0'), "") +
                                       frame(HEADERS, 4, stream, "\x88") +  // :status: 200
                                       frame(DATA, 1, stream, text);
            open = send(fd, answer.data(), answer.size(), MSG_NOSIGNAL) ==
                   static_cast<ssize_t>(answer.size());
        }
    }

    const int m_listener;
    std::atomic<int> m_connection{-1};
    uint16_t m_port;
    std::thread m_thread;
};

#endif  // HTTP2CLIENT_TESTS_PACKAGE_CONSUMER_PEER_H
