#ifndef HTTP2CLIENT_TESTS_SUPPORT_RECORDING_CLIENT_H
#define HTTP2CLIENT_TESTS_SUPPORT_RECORDING_CLIENT_H

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <ostream>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "Http2Client/HttpClientInterface.h"
#include "bytes.h"
#include "wait.h"

namespace h2test {

// One callback of a client, with copies of its arguments. Compare whole sequences of them:
//   EXPECT_EQ(client.callbacks(), (std::vector<Callback>{
//       Callback::headers(200, {{":status", "200"}}), Callback::content("ok", false)}));
struct Callback {
    enum class Kind { kHeaders, kContent, kFailed, kClosed };
    using HeaderList = std::vector<std::pair<std::string, std::string>>;

    Kind kind = Kind::kClosed;
    int status = 0;             // of kHeaders
    HeaderList headerList;      // of kHeaders, in the order handed over
    std::string bytes;          // of kContent
    bool more = false;          // of kContent
    HTTP_ERROR error = ERR_OK;  // of kFailed

    static Callback headers(int status, HeaderList list) {
        Callback out;
        out.kind = Kind::kHeaders;
        out.status = status;
        out.headerList = std::move(list);
        return out;
    }
    static Callback content(std::string_view bytes, bool more) {
        Callback out;
        out.kind = Kind::kContent;
        out.bytes = bytes;
        out.more = more;
        return out;
    }
    static Callback failed(HTTP_ERROR error) {
        Callback out;
        out.kind = Kind::kFailed;
        out.error = error;
        return out;
    }
    static Callback closed() { return {}; }

    bool operator==(const Callback& other) const = default;
};

// Readable form for failure messages: gtest finds it by its name.
inline void PrintTo(const Callback& callback, std::ostream* out) {
    switch (callback.kind) {
        case Callback::Kind::kHeaders:
            *out << "onHeaderReceived(" << callback.status;
            for (const auto& [name, value] : callback.headerList) {
                *out << ", \"" << name << "\"=\"" << value << "\"";
            }
            *out << ")";
            break;
        case Callback::Kind::kContent:
            *out << "onContentReceived(" << callback.bytes.size() << " bytes ["
                 << toHex(std::string_view(callback.bytes).substr(0, 32)) << "], "
                 << (callback.more ? "true" : "false") << ")";
            break;
        case Callback::Kind::kFailed: *out << "onFailed(" << callback.error << ")"; break;
        case Callback::Kind::kClosed: *out << "onSocketClosed()"; break;
    }
}

// A client that keeps its callbacks, in order. Callbacks may come from any thread; the other
// methods may be called from any thread but a callback.
//
// Each wait returns false when its limit has passed. They look at the callbacks since the last
// clear(), so clear() between two requests.
class RecordingClient : public tiny::HttpClientInterface {
public:
    using Limit = std::chrono::milliseconds;

    RecordingClient() = default;
    // `hook` is called in each callback, before it is recorded: on the library's thread, with the
    // library's locks held. After the record this object is not used any more, since a thread that
    // has waited for the record may destroy the client.
    explicit RecordingClient(std::function<void(const Callback&)> hook) : m_hook(std::move(hook)) {}
    ~RecordingClient() override { cancelRequest(); }

    std::vector<Callback> callbacks() const {
        const std::lock_guard<std::mutex> hold(m_lock);
        return m_callbacks;
    }
    size_t count(Callback::Kind kind) const {
        const std::lock_guard<std::mutex> hold(m_lock);
        return countLocked(kind);
    }
    // The status of the last onHeaderReceived; -1 when there was none.
    int status() const {
        const std::lock_guard<std::mutex> hold(m_lock);
        int out = -1;
        for (const Callback& callback : m_callbacks) {
            if (callback.kind == Callback::Kind::kHeaders) out = callback.status;
        }
        return out;
    }
    // All chunks of the body in one.
    std::string body() const {
        const std::lock_guard<std::mutex> hold(m_lock);
        std::string out;
        for (const Callback& callback : m_callbacks) out += callback.bytes;
        return out;
    }
    // The threads that made callbacks.
    std::set<std::thread::id> threads() const {
        const std::lock_guard<std::mutex> hold(m_lock);
        return m_threads;
    }
    void clear() {
        const std::lock_guard<std::mutex> hold(m_lock);
        m_callbacks.clear();
        m_threads.clear();
    }

    // Waits for the `count`-th onHeaderReceived.
    [[nodiscard]] bool waitHeaders(size_t count = 1, Limit limit = kWaitLimit) {
        return waitCount(Callback::Kind::kHeaders, count, limit);
    }
    // Waits for the `count`-th onContentReceived.
    [[nodiscard]] bool waitContent(size_t count = 1, Limit limit = kWaitLimit) {
        return waitCount(Callback::Kind::kContent, count, limit);
    }
    // Waits for the chunk that ends the response.
    [[nodiscard]] bool waitEnd(Limit limit = kWaitLimit) {
        return waitUntil(
            [this] {
                return std::any_of(m_callbacks.begin(), m_callbacks.end(), [](const Callback& c) {
                    return c.kind == Callback::Kind::kContent && !c.more;
                });
            },
            limit);
    }
    [[nodiscard]] bool waitFailed(Limit limit = kWaitLimit) {
        return waitCount(Callback::Kind::kFailed, 1, limit);
    }
    [[nodiscard]] bool waitClosed(Limit limit = kWaitLimit) {
        return waitCount(Callback::Kind::kClosed, 1, limit);
    }
    // Waits for `count` callbacks of any kind.
    [[nodiscard]] bool waitCallbacks(size_t count, Limit limit = kWaitLimit) {
        return waitUntil([&] { return m_callbacks.size() >= count; }, limit);
    }

    void onSocketClosed() override { record(Callback::closed()); }
    void onFailed(HTTP_ERROR err) override { record(Callback::failed(err)); }
    void onHeaderReceived(int status, const HeaderDef* headers, size_t count) override {
        Callback::HeaderList list;
        for (size_t i = 0; i < count; ++i) {
            list.emplace_back(headers[i].m_headerName, headers[i].m_headerValue);
        }
        record(Callback::headers(status, std::move(list)));
    }
    void onContentReceived(const char* data, size_t len, bool more) override {
        record(
            Callback::content(len == 0 ? std::string_view() : std::string_view(data, len), more));
    }

private:
    size_t countLocked(Callback::Kind kind) const {
        size_t out = 0;
        for (const Callback& callback : m_callbacks) out += callback.kind == kind ? 1 : 0;
        return out;
    }
    template <typename Pred>
    bool waitUntil(Pred pred, Limit limit) {
        std::unique_lock<std::mutex> hold(m_lock);
        return m_changed.wait_for(hold, limit, pred);
    }
    bool waitCount(Callback::Kind kind, size_t count, Limit limit) {
        return waitUntil([&] { return countLocked(kind) >= count; }, limit);
    }
    void record(Callback callback) {
        if (m_hook) m_hook(callback);
        const std::lock_guard<std::mutex> hold(m_lock);
        m_threads.insert(std::this_thread::get_id());
        m_callbacks.push_back(std::move(callback));
        m_changed.notify_all();
    }

    const std::function<void(const Callback&)> m_hook;  // may be empty
    mutable std::mutex m_lock;                          // guards what follows
    std::condition_variable m_changed;
    std::vector<Callback> m_callbacks;
    std::set<std::thread::id> m_threads;
};

}  // namespace h2test

#endif  // HTTP2CLIENT_TESTS_SUPPORT_RECORDING_CLIENT_H
