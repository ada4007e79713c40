#include "httpClientApi.h"

#include <pthread.h>
#include <signal.h>

#include <atomic>

#include "HttpContext.h"

using tiny::HttpContext;

struct http2ThreadParam {
    HttpContext* m_context;
    unsigned int m_pollTime;  // milliseconds
};

static std::atomic<bool> http2ClientThreadRun{false};
static std::atomic<http2ThreadParam*> http2ContextParam{nullptr};  // null when no thread runs

static bool http2ThreadJoinable = false;  // g_http2Thread is a thread not joined yet
pthread_t g_http2Thread;

static void* threadProc(void* param) {
    auto* threadParam = static_cast<http2ThreadParam*>(param);
    while (http2ClientThreadRun) threadParam->m_context->pollHttpClient(threadParam->m_pollTime);
    delete http2ContextParam.exchange(nullptr);
    return nullptr;
}

// The signals that a process is sent. The poll thread blocks them: the application's threads handle
// them, and none of them interrupts select, which would end every connection. Not blocked are the
// signals of a thread's own faults, and SIGPIPE, whose effect is up to the application.
static sigset_t signalsOfTheProcess() {
    sigset_t signals;
    sigfillset(&signals);
    for (const int number : {SIGPIPE, SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS}) {
        sigdelset(&signals, number);
    }
    return signals;
}

int initHttp2Client(unsigned int pollTime) {
    http2ClientThreadRun = true;
    if (http2ContextParam != nullptr) return 1;
    auto* param = new http2ThreadParam{HttpContext::instance(), pollTime};
    http2ContextParam = param;
    // The new thread inherits the mask.
    const sigset_t blocked = signalsOfTheProcess();
    sigset_t former;
    pthread_sigmask(SIG_BLOCK, &blocked, &former);
    http2ThreadJoinable = pthread_create(&g_http2Thread, nullptr, threadProc, param) == 0;
    pthread_sigmask(SIG_SETMASK, &former, nullptr);
    return 1;
}

int destroyHttp2Client() {
    http2ClientThreadRun = false;
    if (!http2ThreadJoinable) return 1;
    pthread_join(g_http2Thread, nullptr);
    http2ThreadJoinable = false;
    return 1;
}
