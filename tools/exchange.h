#ifndef HTTP2CLIENT_TOOLS_EXCHANGE_H
#define HTTP2CLIENT_TOOLS_EXCHANGE_H

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "Http2Client/HttpClientInterface.h"
#include "options.h"

using Deadline = std::optional<std::chrono::steady_clock::time_point>;

// The request's body: a text, or a file that is read while it is sent. Standard input is read to
// its end beforehand, since a reader that waits would stop the library.
class BodySource {
public:
    ~BodySource();
    // False, with a message on standard error, when the file cannot be read.
    bool open(const Options& options);
    bool exists() const { return m_exists; }
    bool failed() const { return m_failed; }
    void rewind();
    // The library's reader callback; `opaque` is the BodySource.
    static int read(char* buf, size_t len, void* opaque);

private:
    bool m_exists = false;
    bool m_failed = false;
    std::string m_text;
    size_t m_offset = 0;
    FILE* m_file = nullptr;  // owned; null when the body is in m_text
};

// What has come in since the last look. Ends are reported when all before them has been taken.
struct Arrived {
    enum End { NONE, COMPLETE, FAILED, CLOSED, TIMED_OUT };
    std::optional<int> status;  // with headers, when they have just come
    std::map<std::string, std::string> headers;
    std::string body;
    End end = NONE;
    bool endedByHeaders = false;  // the library still waits for a body; cancel the request
};

// A connection and its successive requests. The callbacks only store what comes, on the library's
// thread; the main thread takes it with wait.
class Exchange : public tiny::HttpClientInterface {
public:
    Exchange() = default;
    ~Exchange() override;

    // Hands the request to the library. Everything that stays the same is set once.
    bool connect(const Options& options);
    void describe(const Options& options);
    // The library's result code: 0 when started.
    int start(BodySource& body);
    // Waits for something to arrive; TIMED_OUT at the deadline.
    Arrived wait(const Deadline& deadline);

    // The callbacks' side of a blocking request: forget what an earlier one left.
    void reset();

    void onSocketClosed() override;
    void onFailed(HTTP_ERROR err) override;
    void onHeaderReceived(int status, const HeaderDef* headers, size_t count) override;
    void onContentReceived(const char* data, size_t len, bool more) override;

private:
    void finish(Arrived::End end);

    std::mutex m_mutex;
    std::condition_variable m_changed;
    Arrived m_arrived;  // guarded by m_mutex
};

#endif  // HTTP2CLIENT_TOOLS_EXCHANGE_H
