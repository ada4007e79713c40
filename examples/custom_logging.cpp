// Takes the library's log into the application's own hands, and makes one GET.
//
// Usage: custom_logging IP PORT PATH
//
// The library logs through a class CLogWrapper, which libCLogWrapper.so brings along. A program
// that has a CLogWrapper of its own, as here, is asked first: the dynamic linker takes the
// program's definition, nothing else need be linked or configured.

#include <Http2Client/HttpClientInterface.h>
#include <Http2Client/error.h>
#include <Http2Client/httpClientApi.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <string>

// The two operations that the library calls, from any thread, with locks of its own held: neither
// may call the library.
class __attribute__((visibility("default"))) CLogWrapper {
public:
    // Messages of this level and above are wanted: 20000 is information, 40000 an error.
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
    void onHeaderReceived(int status, const HeaderDef*, size_t) override {
        std::fprintf(stderr, "status %d\n", status);
    }
    void onContentReceived(const char*, size_t, bool more) override {
        if (!more) m_complete.set_value(true);
    }
    void onFailed(HTTP_ERROR) override { m_complete.set_value(false); }
    void onSocketClosed() override { m_complete.set_value(false); }

    std::future<bool> completion() { return m_complete.get_future(); }

private:
    std::promise<bool> m_complete;  // of the one request that this client makes
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
    std::signal(SIGPIPE, SIG_IGN);
    initHttp2Client(10);
    const bool complete = get(argv);
    destroyHttp2Client();
    std::fprintf(stderr, "%s\n", complete ? "complete" : "failed");
    return complete ? 0 : 1;
}
