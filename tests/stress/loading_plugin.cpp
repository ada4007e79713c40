// A module that uses the library, as an application loads one at run time.
#include <atomic>
#include <chrono>
#include <thread>

#include "Http2Client/HttpClientInterface.h"
#include "Http2Client/httpClientApi.h"

namespace {

class Client : public tiny::HttpClientInterface {
public:
    ~Client() override { cancelRequest(); }
    void onSocketClosed() override { m_ended = true; }
    void onFailed(HTTP_ERROR /*err*/) override { m_ended = true; }
    void onHeaderReceived(int status, const HeaderDef* /*headers*/, size_t /*count*/) override {
        m_status = status;
    }
    void onContentReceived(const char* /*data*/, size_t /*len*/, bool more) override {
        if (!more) m_ended = true;
    }
    // Makes a request and waits for its end. Returns the response's status, or 0.
    int request() {
        m_ended = false;
        m_status = 0;
        if (startRequest(nullptr) != 0) return 0;
        while (!m_ended) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return m_status;
    }

private:
    std::atomic<bool> m_ended{false};
    std::atomic<int> m_status{0};
};

}  // namespace

// Starts the library, makes one request that is answered and one that the server answers by
// closing, stops the library. Returns the first response's status, or -1 when something went wrong.
extern "C" __attribute__((visibility("default"))) int useLibrary(int tls, unsigned short port) {
    initHttp2Client(1);
    int status = -1;
    {
        Client client;
        if (client.connectToServer(tls != 0 ? HTTPS_2 : HTTP_2, "127.0.0.1", port) == 0) {
            client.setUri("/", HTTP_GET);
            client.addHeader("host", "loading", false);
            status = client.request();
            if (client.request() != 0) status = -1;
        }
    }
    destroyHttp2Client();
    return status;
}
