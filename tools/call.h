#ifndef HTTP2CLIENT_TOOLS_CALL_H
#define HTTP2CLIENT_TOOLS_CALL_H

#include <chrono>
#include <future>
#include <optional>
#include <thread>
#include <utility>

#include "interrupt.h"
#include "message.h"

// Runs `call`, which may block inside the library, on a thread of its own. Returns its result, or
// nothing when `giveUp`, asked again and again, says so before. Then the thread is left alone, and
// all that it uses must live until the process ends.
template <typename Call, typename Stop>
auto callLibrary(Call call, Stop giveUp) -> std::optional<decltype(call())> {
    std::packaged_task<decltype(call())()> task(std::move(call));
    auto result = task.get_future();
    {
        const BlockedInterrupts blocked;
        std::thread(std::move(task)).detach();
    }
    while (result.wait_for(kLookPause) != std::future_status::ready) {
        if (giveUp()) return std::nullopt;
    }
    return result.get();
}

#endif  // HTTP2CLIENT_TOOLS_CALL_H
