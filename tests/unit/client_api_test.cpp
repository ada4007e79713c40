// The library's two functions and the thread behind them.

#include "Http2Client/httpClientApi.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <thread>

#include <gtest/gtest.h>
#include <pthread.h>

#include "Http2Client/HttpContext.h"
#include "tests/support/threads.h"
#include "tests/support/wait.h"

extern pthread_t g_http2Thread;

namespace h2test {
namespace {

using tiny::HttpContext;

constexpr int kMark = 900;  // an unused descriptor
constexpr std::chrono::milliseconds kNotNow{100};

// A poll step removes the mark.
void setMark() {
    HttpContext* const context = HttpContext::instance();
    SingleLock hold(&context->m_removeLock);
    context->m_removedHttp2Set.insert(kMark);
}
bool waitMarkTaken(std::chrono::milliseconds limit = kWaitLimit) {
    HttpContext* const context = HttpContext::instance();
    return waitFor(
        [&] {
            SingleLock hold(&context->m_removeLock);
            return context->m_removedHttp2Set.count(kMark) == 0;
        },
        limit);
}
bool polls(std::chrono::milliseconds limit = kWaitLimit) {
    setMark();
    return waitMarkTaken(limit);
}

// How long three steps take, of which the first may have begun before.
std::chrono::milliseconds timeOfThreeSteps() {
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 3; ++i) {
        if (!polls()) std::cerr << "no step\n";
    }
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 start);
}

// Each test runs in a process of its own: one of them leaves a record without a thread, which
// nothing removes.
class ClientApiDeathTest : public testing::Test {
protected:
    ClientApiDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

    // Runs `test` in the child process, which ends with code 1 when a check fails.
    static void expectSuccess(void (*test)()) {
        EXPECT_EXIT((test(), std::exit(0)), testing::ExitedWithCode(0), "");
    }
    static void check(bool ok, const char* what) {
        if (ok) return;
        std::cerr << "failed: " << what << std::endl;
        std::exit(1);
    }
};

#define CHECK_THAT(condition) check((condition), #condition)

TEST_F(ClientApiDeathTest, StartsOneThreadThatPolls) {
    expectSuccess([] {
        CHECK_THAT(initHttp2Client(1) == 1);
        const pthread_t thread = g_http2Thread;
        CHECK_THAT(pthread_equal(thread, pthread_self()) == 0);
        CHECK_THAT(polls());
        const size_t threads = threadsOfThisProcess();
        CHECK_THAT(initHttp2Client(1) == 1);
        CHECK_THAT(pthread_equal(thread, g_http2Thread) != 0);
        CHECK_THAT(threadsOfThisProcess() == threads);
        CHECK_THAT(polls());
        CHECK_THAT(destroyHttp2Client() == 1);
        CHECK_THAT(!polls(kNotNow));
    });
}

TEST_F(ClientApiDeathTest, StopsAndStartsAgain) {
    expectSuccess([] {
        for (int i = 0; i < 20; ++i) {
            CHECK_THAT(initHttp2Client(1) == 1);
            CHECK_THAT(polls());
            CHECK_THAT(destroyHttp2Client() == 1);
            setMark();
            CHECK_THAT(!waitMarkTaken(std::chrono::milliseconds(5)));
            CHECK_THAT(destroyHttp2Client() == 1);
        }
    });
}

TEST_F(ClientApiDeathTest, DestroysNothingWhenNothingRuns) {
    expectSuccess([] {
        CHECK_THAT(destroyHttp2Client() == 1);
        CHECK_THAT(destroyHttp2Client() == 1);
        CHECK_THAT(initHttp2Client(1) == 1);
        CHECK_THAT(polls());
        CHECK_THAT(destroyHttp2Client() == 1);
    });
}

TEST_F(ClientApiDeathTest, JoinsItsThreadOnlyOnce) {
    expectSuccess([] {
        initHttp2Client(1);
        destroyHttp2Client();
        // The system gives the ended thread's handle to the next one made.
        Event release;
        std::atomic<bool> ended{false};
        std::thread other([&] {
            static_cast<void>(release.wait());
            ended = true;
        });
        CHECK_THAT(destroyHttp2Client() == 1);
        CHECK_THAT(!ended);
        CHECK_THAT(other.joinable());
        release.set();
        other.join();
    });
}

TEST_F(ClientApiDeathTest, HandsThePollTimeToEachStep) {
    expectSuccess([] {
        initHttp2Client(200);
        initHttp2Client(0);  // the thread runs already: ignored
        CHECK_THAT(timeOfThreeSteps() >= std::chrono::milliseconds(2 * 200));
        destroyHttp2Client();
        // A new thread takes the new time: a poll time of hours would be noticed.
        initHttp2Client(1);
        CHECK_THAT(polls());
        CHECK_THAT(polls());
        destroyHttp2Client();
    });
}

TEST_F(ClientApiDeathTest, StopWaitsForTheStepUnderWay) {
    expectSuccess([] {
        const auto start = std::chrono::steady_clock::now();
        initHttp2Client(300);
        CHECK_THAT(polls());  // the step has begun, and lasts for 300 ms
        destroyHttp2Client();
        CHECK_THAT(std::chrono::steady_clock::now() - start >= std::chrono::milliseconds(300));
    });
}

TEST_F(ClientApiDeathTest, NeverPollsAfterItsThreadCouldNotBeMade) {
    expectSuccess([] {
        // A stack larger than the address space: pthread_create fails.
        pthread_attr_t former;
        pthread_attr_t huge;
        CHECK_THAT(pthread_getattr_default_np(&former) == 0);
        CHECK_THAT(pthread_attr_init(&huge) == 0);
        CHECK_THAT(pthread_attr_setstacksize(&huge, size_t{1} << 48) == 0);
        CHECK_THAT(pthread_setattr_default_np(&huge) == 0);
        const size_t threads = threadsOfThisProcess();
        CHECK_THAT(initHttp2Client(1) == 1);
        CHECK_THAT(pthread_setattr_default_np(&former) == 0);
        CHECK_THAT(threadsOfThisProcess() == threads);
        CHECK_THAT(!polls(kNotNow));
        // The record exists, so no further thread is made.
        CHECK_THAT(initHttp2Client(1) == 1);
        CHECK_THAT(threadsOfThisProcess() == threads);
        CHECK_THAT(!waitMarkTaken(kNotNow));
        CHECK_THAT(destroyHttp2Client() == 1);
        CHECK_THAT(destroyHttp2Client() == 1);
        CHECK_THAT(initHttp2Client(1) == 1);
        CHECK_THAT(!waitMarkTaken(kNotNow));
        CHECK_THAT(destroyHttp2Client() == 1);
    });
}

#undef CHECK_THAT

TEST(ClientApi, TheContextIsThereAfterTheFirstStart) {
    EXPECT_EQ(initHttp2Client(1), 1);
    HttpContext* const context = HttpContext::instance();
    ASSERT_NE(context, nullptr);
    EXPECT_EQ(context->m_bufferLen, 8192u);
    EXPECT_EQ(destroyHttp2Client(), 1);
    EXPECT_EQ(HttpContext::instance(), context);
}

}  // namespace
}  // namespace h2test
