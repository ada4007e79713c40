#ifndef HTTP2CLIENT_BENCH_OWN_JOBS_H
#define HTTP2CLIENT_BENCH_OWN_JOBS_H

#include <cstdio>
#include <memory>
#include <streambuf>
#include <string>
#include <vector>

#include "Http2Client/Http2.h"
#include "Http2Client/HttpClientInterface.h"
#include "Http2Client/frame.h"
#include "Http2Client/hpack.h"
#include "inputs.h"
#include "job.h"

// This library's side of each comparison.
namespace bench::own {

// Encodes a request's header list, with the representations that the engine asks for.
class Encode : public Job {
public:
    explicit Encode(const Fields& fields);
    void run() override;
    size_t bytes() const override { return m_block.Length(); }

private:
    std::vector<hpack::HeaderFieldRepresentation> m_list;
    hpack::Table m_table;
    Buffer m_block;
};

// Decodes a header block against a table of its own, as reassembly does for what one read brings.
class Decode : public Job {
public:
    explicit Decode(const std::string& block);
    void run() override;
    size_t bytes() const override { return m_block.Length(); }

private:
    const hpack::Table m_empty;
    Buffer m_block;
};

// Cuts and decodes frames, and hands them to nobody.
class Reassemble : public Job {
public:
    explicit Reassemble(const std::string& stream);
    ~Reassemble() override;
    void run() override;
    size_t bytes() const override { return m_stream.size(); }

private:
    std::string m_stream;
    std::unique_ptr<std::streambuf> m_console;
    std::streambuf* m_formerConsole;
    hpack::Table m_table;
    tiny::FrameCtx m_context;
};

enum class Console { kDropped, kDevNull };

// Takes in what a server sends, up to the callbacks of the request on stream 1.
class Receive : public Job {
public:
    Receive(const std::string& stream, Console console);
    ~Receive() override;
    void run() override;
    size_t bytes() const override { return m_stream.size(); }

private:
    std::string m_stream;
    FILE* m_devNull;
    std::unique_ptr<std::streambuf> m_console;
    std::streambuf* m_formerConsole;
    std::unique_ptr<tiny::HttpClientInterface> m_client;
    tiny::Http2 m_engine;  // ends before the client, which it tells so
};

// Makes the lines that Receive writes to the console and writes them there, each in one call, and
// does nothing else: what receiving can hardly cost less than.
class WriteLines : public Job {
public:
    explicit WriteLines(const std::string& stream);
    ~WriteLines() override;
    void run() override;
    size_t bytes() const override { return m_size; }

private:
    struct FrameLines {
        std::string type;
        uint32_t stream;
        uint32_t length;
        Fields fields;  // of a HEADERS frame
    };

    size_t m_size;
    std::vector<FrameLines> m_frames;
    std::unique_ptr<std::streambuf> m_console;
    std::streambuf* m_formerConsole;
};

// Registers a GET request, makes its bytes and ends its registration.
class ProduceGet : public Job {
public:
    explicit ProduceGet(const Fields& fields);
    void run() override;
    size_t bytes() const override { return m_bytes; }

private:
    std::unique_ptr<tiny::HttpClientInterface> m_client;
    tiny::Http2 m_engine;
    size_t m_bytes = 0;
};

// The same with a POST request whose body comes from a reader.
class ProduceBody : public Job {
public:
    ProduceBody();
    void run() override;
    size_t bytes() const override { return kBodySize; }

private:
    std::unique_ptr<tiny::HttpClientInterface> m_client;
    BodySource m_body;
    tiny::Http2 m_engine;
};

}  // namespace bench::own

#endif  // HTTP2CLIENT_BENCH_OWN_JOBS_H
