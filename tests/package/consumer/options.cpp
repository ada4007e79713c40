// An application that needs the standard edition: it sets options and asks why a call has failed.

#include <stdio.h>
#include <string.h>

#include <Http2Client/Http2ClientOptions.h>
#include <Http2Client/httpClientApi.h>

namespace {

class Application : public tiny::HttpClientInterface {
public:
    ~Application() override { cancelRequest(); }
    void onSocketClosed() override {}
    void onFailed(HTTP_ERROR) override {}
    void onHeaderReceived(int, const HeaderDef*, size_t) override {}
    void onContentReceived(const char*, size_t, bool) override {}
};

}  // namespace

int main() {
    initHttp2Client(10);
    int failures = 0;
    {
        Application application;
        failures += setHttp2Option(&application, HTTP2_CONNECT_TIMEOUT, 5000) != 0;
        failures += setHttp2TextOption(&application, HTTP2_CA_FILE, "/nowhere/ca.pem") != 0;
        failures += application.connectToServer(HTTPS_2, "localhost", 443) != ERR_SOCKET_CLOSED;
        const char* reason = getHttp2Text(&application, HTTP2_ERROR);
        printf("%s\n", reason);
        failures += strstr(reason, "/nowhere/ca.pem") == nullptr;
    }
    destroyHttp2Client();
    return failures == 0 ? 0 : 1;
}
