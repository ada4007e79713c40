#include "Http2ClientStandard/client/runtime.h"

#include "Http2Client/httpClientApi.h"
#include "Http2Client/log.h"

namespace h2 {

Runtime& Runtime::get() {
    static Runtime* const runtime = new Runtime;
    return *runtime;
}

}  // namespace h2

int initHttp2Client(unsigned int /*pollTime*/) {
    h2::Runtime& runtime = h2::Runtime::get();
    if (!runtime.threads().start(runtime.defaults().threads)) {
        HTTP2CLIENT_LOG_ERROR("the system gives no background thread");
    }
    return 1;
}

int destroyHttp2Client() {
    if (h2::LoopThreads::isLoopThread()) {
        HTTP2CLIENT_LOG_ERROR("destroyHttp2Client does nothing inside a callback");
        return 1;
    }
    h2::Runtime::get().threads().stop();
    return 1;
}
