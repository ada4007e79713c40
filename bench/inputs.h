#ifndef HTTP2CLIENT_BENCH_INPUTS_H
#define HTTP2CLIENT_BENCH_INPUTS_H

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

// The data that both sides of a comparison work on.
namespace bench {

using Fields = std::vector<std::pair<std::string, std::string>>;

// What a request's texts consist of: what browsers send, or characters that Huffman coding does not
// shorten, so that an encoder which chooses by length sends them plain. The lengths are the same.
enum class Text { kTypical, kIncompressible };

// A GET request's fields, `count` of them: at least 8, of which 3 are pseudo-header fields.
Fields requestFields(size_t count, Text text);
// A response's fields, ":status" first. All texts are shorter than 127 bytes.
Fields responseFields(size_t count);

// Header blocks. No string in them is Huffman-coded.
std::string literalBlock(const Fields& fields);      // names in full, without indexing
std::string incrementalBlock(const Fields& fields);  // the same, with incremental indexing
std::string indexedBlock(size_t count);              // entries of the static table

// What a server sends on stream 1 before the bytes below: SETTINGS, and a response's headers.
std::string openedStream();
// About a MiB of stream 1, none of which ends it. DATA frames of `frameSize` bytes; or in turn a
// HEADERS frame of 10 literal fields and a DATA frame of 1000 bytes.
std::string dataStream(size_t frameSize);
std::string mixedStream();
Fields mixedStreamFields();  // of each HEADERS frame

// How much one call gets: what the client reads from a socket at once.
constexpr size_t kReadChunk = 8192;

// A body, and the source that hands it out again and again.
constexpr size_t kBodySize = size_t{1} << 20;
class BodySource {
public:
    // Copies the next piece of the body, up to `size` bytes, and returns its length; 0 at the end.
    size_t read(char* buffer, size_t size);
    bool atEnd() const { return m_offset == m_body.size(); }
    void rewind() { m_offset = 0; }

private:
    std::string m_body = std::string(kBodySize, 'b');
    size_t m_offset = 0;
};

}  // namespace bench

#endif  // HTTP2CLIENT_BENCH_INPUTS_H
