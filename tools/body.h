#ifndef HTTP2CLIENT_TOOLS_BODY_H
#define HTTP2CLIENT_TOOLS_BODY_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

#include "options.h"

// What the requests have as their body: a text, or a file that is read while it is sent.
//
// What cannot be read again and at any speed (standard input, a pipe) goes into a temporary file
// first: the library asks for the body on the thread that does all its work, so a source that
// waits would stop everything, and further requests need it once more.
class BodySource {
public:
    BodySource() = default;
    ~BodySource();
    BodySource(const BodySource&) = delete;
    BodySource& operator=(const BodySource&) = delete;

    // False when the source cannot be read, with a message on standard error, or after Ctrl-C.
    bool open(const Options& options);
    bool exists() const { return m_exists; }
    uint64_t size() const { return m_size; }  // bytes when it was opened

    // Copies what lies at `offset`, at most `len` bytes, and less only at the end. Returns how
    // many; -1 and errno when reading fails. From any thread.
    int64_t readAt(uint64_t offset, char* buf, size_t len) const;

private:
    bool openFile(const std::string& name);
    bool spool(int from, const std::string& name);

    bool m_exists = false;
    uint64_t m_size = 0;
    std::string m_text;
    int m_file = -1;  // owned; -1 when the body is in m_text
};

// Hands the body to the successive requests of one connection.
class BodyReader {
public:
    explicit BodyReader(const BodySource& source) : m_source(source) {}  // `source` outlives it
    BodyReader(const BodyReader&) = delete;
    BodyReader& operator=(const BodyReader&) = delete;

    bool exists() const { return m_source.exists(); }
    uint64_t size() const { return m_source.size(); }

    // Starts again, for the next request. No request may be running.
    void rewind() { m_offset = 0; }

    // The library's reader callback; `opaque` is the BodyReader.
    //
    // Once the source has failed it hands out zeros without end: the server must not take the part
    // for the whole, so the body stays open until the request is cancelled.
    static int read(char* buf, size_t len, void* opaque);

    // These two from any thread.
    uint64_t sent() const { return m_offset; }
    int error() const { return m_error; }  // errno of a failed read; 0 for none

private:
    size_t take(char* buf, size_t len);

    const BodySource& m_source;
    std::atomic<uint64_t> m_offset{0};
    std::atomic<int> m_error{0};
};

#endif  // HTTP2CLIENT_TOOLS_BODY_H
