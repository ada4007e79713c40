#ifndef HTTP2CLIENT_BENCH_PEER_JOBS_H
#define HTTP2CLIENT_BENCH_PEER_JOBS_H

#include <nghttp2/nghttp2.h>

#include <memory>
#include <string>
#include <vector>

#include "inputs.h"
#include "job.h"

// The same jobs done by libnghttp2, in its leanest form for each: its encoder stores nothing in its
// table, its sessions do not check HTTP semantics, and its windows never fill.
//
// What still differs: its encoder Huffman-codes each text that becomes shorter by it, and cannot be
// told not to; a session checks stream states and counts flow control, where this client does
// neither.
namespace bench::peer {

struct Release {
    void operator()(nghttp2_hd_deflater* deflater) const { nghttp2_hd_deflate_del(deflater); }
    void operator()(nghttp2_hd_inflater* inflater) const { nghttp2_hd_inflate_del(inflater); }
    void operator()(nghttp2_session* session) const { nghttp2_session_del(session); }
};

using Session = std::unique_ptr<nghttp2_session, Release>;

class Encode : public Job {
public:
    explicit Encode(const Fields& fields);
    void run() override;
    size_t bytes() const override { return m_size; }

private:
    Fields m_fields;
    std::vector<nghttp2_nv> m_pairs;
    std::unique_ptr<nghttp2_hd_deflater, Release> m_deflater;
    std::vector<uint8_t> m_block;
    size_t m_size = 0;
};

// Its decoder keeps its dynamic table from run to run, where ours has a new one each time.
class Decode : public Job {
public:
    explicit Decode(const std::string& block);
    void run() override;
    size_t bytes() const override { return m_block.size(); }

private:
    std::string m_block;
    std::unique_ptr<nghttp2_hd_inflater, Release> m_inflater;
};

// What a session's callbacks gather.
struct Gathered {
    bool wholeFrames = true;
    std::vector<nghttp2_rcbuf*> texts;  // of the header block that is coming in
    std::vector<uint8_t> data;          // of the DATA frame that is coming in
    size_t count = 0;                   // of bytes taken in
};

// A session hands out fields one by one, and DATA in the pieces in which it arrives. This client
// hands out a block's fields at once, and each DATA frame whole: to do the same, the callbacks
// gather them. With kPieces they do so for the fields only, and no byte of DATA is ever copied.
enum class Delivery { kWholeFrames, kPieces };

class Receive : public Job {
public:
    Receive(const std::string& stream, Delivery delivery);
    void run() override;
    size_t bytes() const override { return m_stream.size(); }

private:
    std::string m_stream;
    Fields m_fields;
    Gathered m_gathered;
    Session m_session;
};

// A session keeps each stream until the server ends it, so it is renewed from time to time.
class ProduceGet : public Job {
public:
    explicit ProduceGet(const Fields& fields);
    size_t runsPerPreparation() const override { return 64; }
    void prepare() override;
    void run() override;
    size_t bytes() const override { return m_bytes; }

private:
    Fields m_fields;
    std::vector<nghttp2_nv> m_pairs;
    Gathered m_gathered;
    Session m_session;
    size_t m_bytes = 0;
};

class ProduceBody : public Job {
public:
    ProduceBody();
    size_t runsPerPreparation() const override { return 16; }
    void prepare() override;
    void run() override;
    size_t bytes() const override { return kBodySize; }

private:
    Fields m_fields;
    std::vector<nghttp2_nv> m_pairs;
    BodySource m_body;
    Gathered m_gathered;
    Session m_session;
};

}  // namespace bench::peer

#endif  // HTTP2CLIENT_BENCH_PEER_JOBS_H
