#include "Http2ClientStandard/loop/loop.h"

#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

namespace h2 {

namespace {

constexpr size_t kEventsATurn = 256;

}  // namespace

Loop::Loop()
    : m_epoll(epoll_create1(EPOLL_CLOEXEC)),
      m_wake(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
      m_now(steadyNow()),
      m_events(kEventsATurn) {
    if (!ready()) return;
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.ptr = nullptr;  // the eventfd
    if (epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, m_wake.get(), &event) == -1) m_epoll.close();
}

Loop::~Loop() = default;

bool Loop::isLoopThread() const { return m_thread.load() == pthread_self(); }

void Loop::run() {
    m_thread.store(pthread_self());
    while (!m_stop.load()) turn();
    m_stop.store(false);
    m_thread.store(0);
}

void Loop::stop() {
    m_stop.store(true);
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(m_wake.get(), &one, sizeof one);
}

void Loop::post(std::function<void()> task) {
    {
        const std::lock_guard<std::mutex> hold(m_taskLock);
        m_tasks.push_back(std::move(task));
        if (m_tasks.size() > 1) return;  // whoever posted the first wakes the loop
    }
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(m_wake.get(), &one, sizeof one);
}

// Milliseconds until the earliest deadline, as epoll_wait takes them.
int Loop::timeout() const {
    if (m_timers.empty()) return -1;
    const Time deadline = m_timers.front()->m_deadline;
    const Time now = steadyNow();
    return deadline <= now ? 0 : static_cast<int>(std::min<Time>(deadline - now, INT_MAX));
}

void Loop::turn() {
    const int count =
        epoll_wait(m_epoll.get(), m_events.data(), static_cast<int>(m_events.size()), timeout());
    m_now = steadyNow();
    m_eventCount = count > 0 ? static_cast<size_t>(count) : 0;
    bool woken = false;
    for (size_t i = 0; i < m_eventCount && !m_stop.load(); ++i) {
        const epoll_event event = m_events[i];
        if (event.events == 0) continue;  // removed meanwhile
        if (event.data.ptr == nullptr) {
            woken = true;
        } else {
            static_cast<Handler*>(event.data.ptr)->onReady(event.events);
        }
    }
    m_eventCount = 0;
    if (woken) runTasks();
    if (!m_stop.load()) runDeadlines();
}

// Tasks posted by the tasks wait for the next turn: the loop stays fair to its descriptors.
void Loop::runTasks() {
    uint64_t count = 0;
    [[maybe_unused]] const ssize_t got = read(m_wake.get(), &count, sizeof count);
    {
        const std::lock_guard<std::mutex> hold(m_taskLock);
        m_running.swap(m_tasks);
    }
    for (const std::function<void()>& task : m_running) task();
    m_running.clear();
}

// At most as many as there are now: a handler that sets its deadline to this moment again waits for
// the next turn.
void Loop::runDeadlines() {
    for (size_t left = m_timers.size(); left > 0 && !m_timers.empty(); --left) {
        if (m_timers.front()->m_deadline > m_now) return;
        Handler& handler = *m_timers.front();
        eraseTimer(handler);
        handler.onDeadline();
    }
}

bool Loop::add(Handler& handler, int descriptor, uint32_t interest) {
    epoll_event event{};
    event.events = interest;
    event.data.ptr = &handler;
    if (epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, descriptor, &event) == -1) return false;
    handler.m_descriptor = descriptor;
    handler.m_interest = interest;
    return true;
}

void Loop::modify(Handler& handler, uint32_t interest) {
    if (handler.m_descriptor == -1 || handler.m_interest == interest) return;
    epoll_event event{};
    event.events = interest;
    event.data.ptr = &handler;
    epoll_ctl(m_epoll.get(), EPOLL_CTL_MOD, handler.m_descriptor, &event);
    handler.m_interest = interest;
}

void Loop::remove(Handler& handler) {
    if (handler.m_descriptor != -1) {
        epoll_ctl(m_epoll.get(), EPOLL_CTL_DEL, handler.m_descriptor, nullptr);
        handler.m_descriptor = -1;
        for (size_t i = 0; i < m_eventCount; ++i) {
            if (m_events[i].data.ptr == &handler) m_events[i].events = 0;
        }
    }
    eraseTimer(handler);
}

void Loop::setDeadline(Handler& handler, Time deadline) {
    if (deadline == handler.m_deadline) return;
    if (deadline == kNever) {
        eraseTimer(handler);
        return;
    }
    const bool later = deadline > handler.m_deadline;
    handler.m_deadline = deadline;
    if (handler.m_timerIndex == Handler::kNoTimer) {
        m_timers.push_back(&handler);
        handler.m_timerIndex = m_timers.size() - 1;
        siftUp(handler.m_timerIndex);
    } else if (later) {
        siftDown(handler.m_timerIndex);
    } else {
        siftUp(handler.m_timerIndex);
    }
}

void Loop::eraseTimer(Handler& handler) {
    const size_t index = handler.m_timerIndex;
    handler.m_deadline = kNever;
    if (index == Handler::kNoTimer) return;
    handler.m_timerIndex = Handler::kNoTimer;
    Handler* last = m_timers.back();
    m_timers.pop_back();
    if (last == &handler) return;
    place(last, index);
    siftDown(index);
    siftUp(last->m_timerIndex);
}

void Loop::place(Handler* handler, size_t index) {
    m_timers[index] = handler;
    handler->m_timerIndex = index;
}

void Loop::siftUp(size_t index) {
    Handler* handler = m_timers[index];
    while (index > 0) {
        const size_t parent = (index - 1) / 2;
        if (m_timers[parent]->m_deadline <= handler->m_deadline) break;
        place(m_timers[parent], index);
        index = parent;
    }
    place(handler, index);
}

void Loop::siftDown(size_t index) {
    Handler* handler = m_timers[index];
    while (true) {
        size_t child = 2 * index + 1;
        if (child >= m_timers.size()) break;
        if (child + 1 < m_timers.size() &&
            m_timers[child + 1]->m_deadline < m_timers[child]->m_deadline) {
            ++child;
        }
        if (handler->m_deadline <= m_timers[child]->m_deadline) break;
        place(m_timers[child], index);
        index = child;
    }
    place(handler, index);
}

}  // namespace h2
