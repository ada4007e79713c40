#include "httpClientApi.h"

#include <pthread.h>

#include <atomic>

#include "HttpContext.h"

using tiny::HttpContext;

struct http2ThreadParam {
    HttpContext* m_context;
    unsigned int m_pollTime;  // milliseconds
};

// Written by the application's threads and the poll thread, so accessed atomically throughout.
static bool http2ClientThreadRun = false;
static http2ThreadParam* http2ContextParam = nullptr;  // of the running thread; else null

static bool http2ThreadJoinable = false;  // g_http2Thread is a thread not joined yet
pthread_t g_http2Thread;

static void* threadProc(void* param) {
    auto* threadParam = static_cast<http2ThreadParam*>(param);
    while (std::atomic_ref<bool>(http2ClientThreadRun).load()) {
        threadParam->m_context->pollHttpClient(threadParam->m_pollTime);
    }
    delete std::atomic_ref<http2ThreadParam*>(http2ContextParam).exchange(nullptr);
    return nullptr;
}

int initHttp2Client(unsigned int pollTime) {
    std::atomic_ref<bool>(http2ClientThreadRun).store(true);
    std::atomic_ref<http2ThreadParam*> running(http2ContextParam);
    if (running.load() != nullptr) return 1;
    auto* param = new http2ThreadParam{HttpContext::instance(), pollTime};
    running.store(param);
    http2ThreadJoinable = pthread_create(&g_http2Thread, nullptr, threadProc, param) == 0;
    return 1;
}

int destroyHttp2Client() {
    std::atomic_ref<bool>(http2ClientThreadRun).store(false);
    if (!http2ThreadJoinable) return 1;
    pthread_join(g_http2Thread, nullptr);
    http2ThreadJoinable = false;
    return 1;
}
