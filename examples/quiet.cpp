// Sends the library's console lines to a file, so that standard output has nothing but the body.
//
// Usage: quiet IP PORT PATH CONSOLE_FILE
//
// The library writes the names of frames and all headers to std::cout. They go where the stream
// buffer of std::cout sends them: here to a file. std::cout.rdbuf(nullptr) would drop them.

#include <Http2Client/HttpClientInterface.h>
#include <Http2Client/error.h>
#include <Http2Client/httpClientApi.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <future>
#include <iostream>
#include <string>

#include "has_body.h"

namespace {

// Gives std::cout another buffer during this object's lifetime. The library's thread writes to it:
// start and stop the library within that time.
class Redirection {
public:
    explicit Redirection(std::streambuf* other) : m_original(std::cout.rdbuf(other)) {}
    ~Redirection() { std::cout.rdbuf(m_original); }
    Redirection(const Redirection&) = delete;
    Redirection& operator=(const Redirection&) = delete;

    // The buffer that std::cout had before: the process's standard output.
    std::streambuf* original() const { return m_original; }

private:
    std::streambuf* m_original;
};

class Client : public tiny::HttpClientInterface {
public:
    explicit Client(std::ostream* out) : m_out(out) {}
    ~Client() override { cancelRequest(); }

    void onHeaderReceived(int status, const HeaderDef* headers, size_t count) override {
        if (!hasBody(status, headers, count)) finish(true);
    }
    void onContentReceived(const char* data, size_t len, bool more) override {
        m_out->write(data, static_cast<std::streamsize>(len));
        if (!more) finish(true);
    }
    void onFailed(HTTP_ERROR) override { finish(false); }
    void onSocketClosed() override { finish(false); }

    std::future<bool> completion() { return m_complete.get_future(); }

private:
    // The first call counts: an empty body may be reported twice.
    void finish(bool complete) {
        if (!m_ended) m_complete.set_value(complete);
        m_ended = true;
    }

    std::ostream* m_out;            // outlives this object
    std::promise<bool> m_complete;  // this client makes one request
    bool m_ended = false;           // used by callbacks only
};

bool get(char** arguments, std::ostream* out) {
    Client client(out);
    const auto port = static_cast<uint16_t>(std::atoi(arguments[2]));
    if (client.connectToServer(HTTP_2, arguments[1], port) != 0) return false;
    client.setUri(arguments[3], HTTP_GET);
    client.addHeader("host", arguments[1], false);
    std::future<bool> complete = client.completion();
    if (client.startRequest(nullptr) != 0) return false;
    return complete.wait_for(std::chrono::seconds(30)) == std::future_status::ready &&
           complete.get();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        std::cerr << "usage: quiet IP PORT PATH CONSOLE_FILE\n";
        return 2;
    }
    std::ofstream console(argv[4]);
    if (!console) {
        std::cerr << "cannot write " << argv[4] << "\n";
        return 1;
    }
    std::signal(SIGPIPE, SIG_IGN);  // a lost connection must not end the process
    const Redirection redirection(console.rdbuf());
    std::ostream out(redirection.original());
    initHttp2Client(10);
    const bool complete = get(argv, &out);
    destroyHttp2Client();
    out.flush();
    if (!complete) std::cerr << "failed\n";
    return complete ? 0 : 1;
}
