#ifndef HTTP2CLIENTSTANDARD_POOL_PAUSE_H
#define HTTP2CLIENTSTANDARD_POOL_PAUSE_H

#include <functional>
#include <utility>

#include "Http2ClientStandard/base/ref.h"
#include "Http2ClientStandard/loop/loop.h"

namespace h2 {

// Does something on a loop's thread after a time.
class Pause final : public RefCounted, private Handler {
public:
    // `length` in milliseconds. Any thread.
    static void begin(Loop& loop, Time length, std::function<void()> then) {
        const Ref<Pause> pause(new Pause(loop, std::move(then)));
        pause->m_self = pause;
        const Time end = steadyNow() + length;
        loop.post([&begun = *pause, end] { begun.m_loop.setDeadline(begun, end); });
    }

private:
    Pause(Loop& loop, std::function<void()> then) : m_loop(loop), m_then(std::move(then)) {}

    void onReady(uint32_t /*events*/) override {}
    void onDeadline() override {
        const Ref<Pause> self = std::move(m_self);
        m_then();
    }

    Loop& m_loop;
    const std::function<void()> m_then;
    Ref<Pause> m_self;  // until it is over
};

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_POOL_PAUSE_H
