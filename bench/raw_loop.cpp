// The least that a client can do: sends the same request bytes again and again, and only counts the
// streams that have ended. What any HTTP/2 client costs above it is its own.
//
//   raw_loop requests PORT PATH STREAMS REQUESTS      one connection, so many streams at once
//   raw_loop download PORT PATH
//
// Plain TCP only. Prints figures to standard error, "name value" a line.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "figures.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kFrameHeader = 9;
constexpr size_t kReadSize = size_t{64} * 1024;

std::string word(uint32_t value) {
    const uint32_t bytes = htonl(value);
    return std::string(reinterpret_cast<const char*>(&bytes), sizeof bytes);
}

class RawClient {
public:
    RawClient(uint16_t port, const std::string& path) : m_socket(socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (connect(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            die("cannot connect");
        }
        const int on = 1;
        setsockopt(m_socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        // ":method: GET" and ":scheme: http" indexed, path and authority as literals.
        m_block = "\x82\x86\x04";
        m_block += static_cast<char>(path.size());
        m_block += path + "\x01\x09" + "localhost";
        // Windows that no answer uses up, and an acknowledgement of settings that are not read.
        m_out = "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n";
        m_out += word(6 << 8 | 4) + '\0' + word(0) + std::string("\0\x04", 2) + word(0x7fffffff);
        m_out += word(4 << 8 | 8) + '\0' + word(0) + word(0x7fffffff - 65535);
        m_out += word(4) + '\x01' + word(0);
    }
    ~RawClient() { close(m_socket); }
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    void request() {
        m_out += word(static_cast<uint32_t>(m_block.size()) << 8 | 1) + '\x05' + word(m_stream);
        m_out += m_block;
        m_stream += 2;
    }
    void send() {
        if (::send(m_socket, m_out.data(), m_out.size(), MSG_NOSIGNAL) !=
            static_cast<ssize_t>(m_out.size())) {
            die("cannot send");
        }
        m_out.clear();
    }
    // Returns how many streams have ended.
    size_t receive() {
        const ssize_t count = recv(m_socket, m_buffer.get(), kReadSize, 0);
        if (count <= 0) die("connection lost");
        m_received += static_cast<size_t>(count);
        return take(m_buffer.get(), static_cast<size_t>(count));
    }
    size_t received() const { return m_received; }

private:
    size_t take(const char* bytes, size_t size) {
        size_t ended = 0;
        while (size != 0) {
            if (m_skip == 0) {
                const size_t part = std::min(kFrameHeader - m_headerSize, size);
                std::memcpy(m_header + m_headerSize, bytes, part);
                m_headerSize += part;
                bytes += part;
                size -= part;
                if (m_headerSize < kFrameHeader) break;
                m_headerSize = 0;
                uint32_t length = 0;
                std::memcpy(&length, m_header, sizeof length);
                m_skip = ntohl(length) >> 8;
                if (m_header[3] <= 1 && (m_header[4] & 1) != 0) ++ended;
            }
            const size_t skipped = std::min(m_skip, size);
            m_skip -= skipped;
            bytes += skipped;
            size -= skipped;
        }
        return ended;
    }

    const int m_socket;
    std::string m_block;
    std::string m_out;
    uint32_t m_stream = 1;
    std::unique_ptr<char[]> m_buffer{new char[kReadSize]};
    size_t m_received = 0;
    size_t m_skip = 0;
    char m_header[kFrameHeader] = {};
    size_t m_headerSize = 0;
};

void run(RawClient& client, size_t streams, size_t requests) {
    size_t started = std::min(streams, requests);
    for (size_t i = 0; i < started; ++i) client.request();
    client.send();
    for (size_t done = 0; done < requests;) {
        const size_t ended = client.receive();
        done += ended;
        const size_t more = std::min(ended, requests - started);
        for (size_t i = 0; i < more; ++i) client.request();
        started += more;
        if (more != 0) client.send();
    }
}

void requests(RawClient& client, size_t streams, size_t total) {
    run(client, 1, 1);
    const Usage before;
    const Clock::time_point start = Clock::now();
    run(client, streams, total);
    const std::chrono::duration<double> wall = Clock::now() - start;
    report("requests_per_second", static_cast<double>(total) / wall.count());
    report("cpu_per_request", (Usage().cpu - before.cpu) / static_cast<double>(total));
}

void download(RawClient& client) {
    const Clock::time_point start = Clock::now();
    run(client, 1, 1);
    const std::chrono::duration<double> wall = Clock::now() - start;
    report("bytes_per_second", static_cast<double>(client.received()) / wall.count());
}

}  // namespace

int main(int argc, char** argv) {
    const std::string mode = argc >= 4 ? argv[1] : "";
    if ((mode == "requests" && argc == 6) || (mode == "download" && argc == 4)) {
        RawClient client(static_cast<uint16_t>(std::stoul(argv[2])), argv[3]);
        if (mode == "download") {
            download(client);
        } else {
            requests(client, std::stoull(argv[4]), std::stoull(argv[5]));
        }
        return 0;
    }
    std::fprintf(stderr, "usage: see the head of bench/raw_loop.cpp\n");
    return 2;
}
