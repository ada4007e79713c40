// Prints the library's log in the application's own format, and makes one GET.
//
// Usage: custom_logging IP PORT PATH
//
// The library logs through a class CLogWrapper from libCLogWrapper.so. If the program defines a
// CLogWrapper, as here, the dynamic linker takes that one. Nothing else needs to be linked or
// configured.

#include <Http2Client/HttpClientInterface.h>
#include <Http2Client/error.h>
#include <Http2Client/httpClientApi.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <string>

#include "has_body.h"

// The two functions that the library calls, from any thread and with its locks held. They must not
// call the library.
class __attribute__((visibility("default"))) CLogWrapper {
public:
    // The lowest level that is logged: 20000 is information, 40000 is an error.
    static int GetLevel();
    static void Log(int level, const std::string& message, const char* file, const char* function,
                    int line);
};

int CLogWrapper::GetLevel() { return 20000; }

void CLogWrapper::Log(int level, const std::string& message, const char* file, const char*,
                      int line) {
    const char* slash = std::strrchr(file, '/');
    std::fprintf(stderr, "my log: %s %s:%d %s\n", level >= 40000 ? "error" : "info",
                 slash == nullptr ? file : slash + 1, line, message.c_str());
}

namespace {

class Client : public tiny::HttpClientInterface {
public:
    ~Client() override { cancelRequest(); }
    void onHeaderReceived(int status, const HeaderDef* headers, size_t count) override {
        std::fprintf(stderr, "status %d\n", status);
        if (!hasBody(status, headers, count)) finish(true);
    }
    void onContentReceived(const char*, size_t, bool more) override {
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

    std::promise<bool> m_complete;  // this client makes one request
    bool m_ended = false;           // used by callbacks only
};

bool get(char** arguments) {
    Client client;
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
    if (argc != 4) {
        std::fprintf(stderr, "usage: custom_logging IP PORT PATH\n");
        return 2;
    }
    std::signal(SIGPIPE, SIG_IGN);  // a lost connection must not end the process
    initHttp2Client(10);
    const bool complete = get(argv);
    destroyHttp2Client();
    std::fprintf(stderr, "%s\n", complete ? "complete" : "failed");
    return complete ? 0 : 1;
}
