#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Http2ClientStandard/loop/loop.h"
#include "tests/support/wait.h"

namespace {

using h2::Handler;
using h2::Loop;
using testing::ElementsAre;

struct Recorder : Handler {
    void onReady(uint32_t events) override {
        if (ready) ready(events);
    }
    void onDeadline() override {
        if (deadline) deadline();
    }
    std::function<void(uint32_t)> ready;
    std::function<void()> deadline;
};

struct Ends {
    Ends() {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
        ours = h2::Socket(ends[0]);
        theirs = h2::Socket(ends[1]);
    }
    void send() const { EXPECT_EQ(write(theirs.get(), "x", 1), 1); }
    h2::Socket ours;
    h2::Socket theirs;
};

TEST(Loop, TellsWhatADescriptorIsReadyFor) {
    Loop loop;
    ASSERT_TRUE(loop.ready());
    const Ends ends;
    Recorder handler;
    std::vector<uint32_t> seen;
    handler.ready = [&](uint32_t events) {
        seen.push_back(events);
        if (seen.size() == 1) {
            loop.modify(handler, EPOLLIN);  // no longer interested in writing
            ends.send();
        } else {
            loop.stop();
        }
    };
    ASSERT_TRUE(loop.add(handler, ends.ours.get(), EPOLLIN | EPOLLOUT));
    loop.run();
    EXPECT_THAT(seen, ElementsAre(EPOLLOUT, EPOLLIN));
    loop.remove(handler);
}

TEST(Loop, RefusesWhatEpollRefuses) {
    Loop loop;
    Recorder handler;
    EXPECT_FALSE(loop.add(handler, -1, EPOLLIN));
    loop.remove(handler);
}

TEST(Loop, CallsDeadlinesInTheirOrder) {
    Loop loop;
    std::vector<h2::Time> order;
    std::vector<std::unique_ptr<Recorder>> handlers;
    const h2::Time start = loop.now();
    // 7 and 100 have no common divisor: every value once, in a jumble.
    const auto deadlineOf = [start](size_t i) { return start + 1 + i * 7 % 100; };
    for (size_t i = 0; i < 100; ++i) {
        handlers.push_back(std::make_unique<Recorder>());
        handlers[i]->deadline = [&order, i, deadlineOf] { order.push_back(deadlineOf(i)); };
        loop.setDeadline(*handlers[i], deadlineOf(i));
    }
    std::vector<h2::Time> expected;
    for (size_t i = 0; i < 100; ++i) {
        if (i % 3 == 0) {
            loop.setDeadline(*handlers[i], h2::kNever);
            continue;
        }
        expected.push_back(deadlineOf(i));
        if (i % 3 == 1) continue;
        loop.setDeadline(*handlers[i], start + 100000);  // later, and back
        loop.setDeadline(*handlers[i], deadlineOf(i));
    }
    Recorder end;
    end.deadline = [&] { loop.stop(); };
    loop.setDeadline(end, start + 101);
    loop.run();
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(order, expected);
}

TEST(Loop, CallsADeadlineOnceAndNotBeforeItsTime) {
    Loop loop;
    Recorder early;
    Recorder late;
    int calls = 0;
    const h2::Time start = h2::steadyNow();
    early.deadline = [&] { ++calls; };
    late.deadline = [&] { loop.stop(); };
    loop.setDeadline(early, start + 5);
    loop.setDeadline(late, start + 40);
    loop.run();
    EXPECT_EQ(calls, 1);
    EXPECT_GE(h2::steadyNow(), start + 40);
}

// The trap: the second of two ready handlers is gone when its turn comes.
TEST(Loop, DoesNotCallAHandlerThatWasRemovedInTheSameTurn) {
    Loop loop;
    const Ends one;
    const Ends two;
    auto first = std::make_unique<Recorder>();
    auto second = std::make_unique<Recorder>();
    int calls = 0;
    const auto endOther = [&](std::unique_ptr<Recorder>& other) {
        ++calls;
        loop.remove(*other);
        other.reset();
        loop.stop();
    };
    first->ready = [&](uint32_t) { endOther(second); };
    second->ready = [&](uint32_t) { endOther(first); };
    ASSERT_TRUE(loop.add(*first, one.ours.get(), EPOLLIN));
    ASSERT_TRUE(loop.add(*second, two.ours.get(), EPOLLIN));
    one.send();
    two.send();
    loop.run();
    EXPECT_EQ(calls, 1);
    if (first) loop.remove(*first);
    if (second) loop.remove(*second);
}

TEST(Loop, LetsAHandlerDestroyItselfInItsDeadline) {
    Loop loop;
    auto handler = std::make_unique<Recorder>();
    handler->deadline = [&] {
        loop.stop();
        loop.remove(*handler);
        const auto last = std::move(handler);
    };
    loop.setDeadline(*handler, loop.now());
    loop.run();
    EXPECT_EQ(handler, nullptr);
}

TEST(Loop, ServesDescriptorsBetweenDeadlinesThatAreAlwaysDue) {
    Loop loop;
    const Ends ends;
    Recorder eager;
    Recorder reader;
    eager.deadline = [&] { loop.setDeadline(eager, loop.now()); };
    reader.ready = [&](uint32_t) { loop.stop(); };
    ASSERT_TRUE(loop.add(reader, ends.ours.get(), EPOLLIN));
    loop.setDeadline(eager, loop.now());
    ends.send();
    loop.run();
    loop.remove(eager);
    loop.remove(reader);
}

TEST(Loop, RunsTasksOfOtherThreadsOnItsOwn) {
    Loop loop;
    constexpr int kThreads = 4;
    constexpr int kTasks = 1000;
    int done = 0;
    bool elsewhere = false;
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            for (int task = 0; task < kTasks; ++task) {
                loop.post([&] {
                    if (!loop.isLoopThread()) elsewhere = true;
                    if (++done == kThreads * kTasks) loop.stop();
                });
            }
        });
    }
    loop.run();
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(done, kThreads * kTasks);
    EXPECT_FALSE(elsewhere);
    EXPECT_FALSE(loop.isLoopThread());
}

TEST(Loop, KeepsTasksAndDescriptorsForTheNextRun) {
    Loop loop;
    const Ends ends;
    Recorder handler;
    bool ready = false;
    bool task = false;
    handler.ready = [&](uint32_t) {
        ready = true;
        loop.stop();
    };
    ASSERT_TRUE(loop.add(handler, ends.ours.get(), EPOLLIN));
    loop.post([&] { loop.stop(); });
    loop.run();
    EXPECT_FALSE(ready);
    loop.post([&] { task = true; });
    ends.send();
    loop.run();
    EXPECT_TRUE(ready);
    loop.post([&] { loop.stop(); });
    loop.run();
    EXPECT_TRUE(task);
    loop.remove(handler);
}

TEST(Loop, StopsFromAnyThread) {
    Loop loop;
    std::thread thread([&] { loop.run(); });
    EXPECT_TRUE(h2test::waitFor([&] { return !loop.isLoopThread(); }));
    loop.stop();
    thread.join();
}

// Voluntary context switches of the loop's thread count how often it went to sleep.
TEST(Loop, DoesNotWakeWhileNothingIsReadyAndNoDeadlineHasCome) {
    Loop loop;
    const Ends ends;
    Recorder idle;
    Recorder end;
    idle.ready = [](uint32_t) { FAIL() << "not ready"; };
    ASSERT_TRUE(loop.add(idle, ends.ours.get(), EPOLLIN));
    const auto sleeps = [] {
        rusage usage{};
        getrusage(RUSAGE_THREAD, &usage);
        return usage.ru_nvcsw;
    };
    long before = 0;
    long after = 0;
    end.deadline = [&] {
        after = sleeps();
        loop.stop();
    };
    loop.post([&] {
        before = sleeps();
        loop.setDeadline(end, loop.now() + 300);
    });
    std::thread thread([&] { loop.run(); });
    thread.join();
    EXPECT_LE(after - before, 2);
    loop.remove(idle);
}

}  // namespace
