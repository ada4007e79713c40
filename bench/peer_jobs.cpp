#include "peer_jobs.h"

#include <algorithm>
#include <climits>
#include <cstdlib>

#include "tests/support/bytes.h"

namespace bench::peer {

namespace {

constexpr uint32_t kManyStreams = 1'000'000;
constexpr uint32_t kHugeWindow = INT_MAX;
constexpr uint32_t kInitialWindow = 65535;
constexpr uint16_t kSettingsInitialWindowSize = 4;

void check(bool good) {
    if (!good) std::abort();
}

const uint8_t* bytesOf(const std::string& text) {
    return reinterpret_cast<const uint8_t*>(text.data());
}

// The texts stay where `fields` has them, and are not copied on the way.
std::vector<nghttp2_nv> pairsOf(const Fields& fields) {
    constexpr uint8_t kFlags = NGHTTP2_NV_FLAG_NO_COPY_NAME | NGHTTP2_NV_FLAG_NO_COPY_VALUE;
    std::vector<nghttp2_nv> pairs;
    for (const auto& [name, value] : fields) {
        pairs.push_back({const_cast<uint8_t*>(bytesOf(name)), const_cast<uint8_t*>(bytesOf(value)),
                         name.size(), value.size(), kFlags});
    }
    return pairs;
}

int onHeader(nghttp2_session* /*session*/, const nghttp2_frame* /*frame*/, nghttp2_rcbuf* name,
             nghttp2_rcbuf* value, uint8_t /*flags*/, void* user) {
    auto* gathered = static_cast<Gathered*>(user);
    nghttp2_rcbuf_incref(name);
    nghttp2_rcbuf_incref(value);
    gathered->texts.push_back(name);
    gathered->texts.push_back(value);
    return 0;
}

int onFrame(nghttp2_session* /*session*/, const nghttp2_frame* /*frame*/, void* user) {
    auto* gathered = static_cast<Gathered*>(user);
    for (nghttp2_rcbuf* text : gathered->texts) {
        gathered->count += nghttp2_rcbuf_get_buf(text).len;
        nghttp2_rcbuf_decref(text);
    }
    gathered->texts.clear();
    gathered->count += gathered->data.size();
    gathered->data.clear();
    return 0;
}

int onData(nghttp2_session* /*session*/, uint8_t /*flags*/, int32_t /*stream*/, const uint8_t* data,
           size_t length, void* user) {
    auto* gathered = static_cast<Gathered*>(user);
    if (gathered->wholeFrames) {
        gathered->data.insert(gathered->data.end(), data, data + length);
    } else {
        gathered->count += length;
    }
    return 0;
}

// Sends what waits, and returns how much that was.
size_t send(nghttp2_session* session) {
    size_t total = 0;
    const uint8_t* bytes = nullptr;
    while (true) {
        const ssize_t count = nghttp2_session_mem_send(session, &bytes);
        check(count >= 0);
        if (count == 0) return total;
        total += static_cast<size_t>(count);
    }
}

void feed(nghttp2_session* session, const std::string& stream) {
    for (size_t at = 0; at < stream.size(); at += kReadChunk) {
        const size_t size = std::min(kReadChunk, stream.size() - at);
        const ssize_t used = nghttp2_session_mem_recv(session, bytesOf(stream) + at, size);
        check(used == static_cast<ssize_t>(size));
    }
}

// A session after both sides' opening, with a server that has room for everything.
Session openSession(Gathered& gathered) {
    nghttp2_session_callbacks* callbacks = nullptr;
    nghttp2_option* options = nullptr;
    nghttp2_session* session = nullptr;
    check(nghttp2_session_callbacks_new(&callbacks) == 0 && nghttp2_option_new(&options) == 0);
    nghttp2_session_callbacks_set_on_header_callback2(callbacks, onHeader);
    nghttp2_session_callbacks_set_on_frame_recv_callback(callbacks, onFrame);
    nghttp2_session_callbacks_set_on_data_chunk_recv_callback(callbacks, onData);
    nghttp2_option_set_no_http_messaging(options, 1);
    nghttp2_option_set_peer_max_concurrent_streams(options, kManyStreams);
    nghttp2_option_set_max_deflate_dynamic_table_size(options, 0);
    check(nghttp2_session_client_new2(&session, callbacks, &gathered, options) == 0);
    nghttp2_option_del(options);
    nghttp2_session_callbacks_del(callbacks);

    check(nghttp2_submit_settings(session, NGHTTP2_FLAG_NONE, nullptr, 0) == 0);
    check(nghttp2_session_set_local_window_size(session, NGHTTP2_FLAG_NONE, 0, kHugeWindow) == 0);
    feed(session, h2test::settings({{kSettingsInitialWindowSize, kHugeWindow}}) +
                      h2test::windowUpdate(0, kHugeWindow - kInitialWindow));
    send(session);
    return Session(session);
}

int32_t submit(nghttp2_session* session, const std::vector<nghttp2_nv>& pairs,
               const nghttp2_data_provider* body) {
    const int32_t stream =
        nghttp2_submit_request(session, nullptr, pairs.data(), pairs.size(), body, nullptr);
    check(stream > 0);
    return stream;
}

ssize_t readBody(nghttp2_session* /*session*/, int32_t /*stream*/, uint8_t* buffer, size_t length,
                 uint32_t* flags, nghttp2_data_source* source, void* /*user*/) {
    auto* body = static_cast<BodySource*>(source->ptr);
    const size_t count = body->read(reinterpret_cast<char*>(buffer), length);
    if (count < length) *flags |= NGHTTP2_DATA_FLAG_EOF;
    return static_cast<ssize_t>(count);
}

}  // namespace

Encode::Encode(const Fields& fields) : m_fields(fields), m_pairs(pairsOf(m_fields)) {
    nghttp2_hd_deflater* deflater = nullptr;
    check(nghttp2_hd_deflate_new(&deflater, 0) == 0);
    m_deflater.reset(deflater);
    m_block.resize(nghttp2_hd_deflate_bound(deflater, m_pairs.data(), m_pairs.size()));
}

void Encode::run() {
    const ssize_t size = nghttp2_hd_deflate_hd(m_deflater.get(), m_block.data(), m_block.size(),
                                               m_pairs.data(), m_pairs.size());
    check(size > 0);
    m_size = static_cast<size_t>(size);
}

Decode::Decode(const std::string& block) : m_block(block) {
    nghttp2_hd_inflater* inflater = nullptr;
    check(nghttp2_hd_inflate_new(&inflater) == 0);
    m_inflater.reset(inflater);
}

void Decode::run() {
    const uint8_t* at = bytesOf(m_block);
    size_t left = m_block.size();
    int flags = 0;
    size_t length = 0;
    while ((flags & NGHTTP2_HD_INFLATE_FINAL) == 0) {
        nghttp2_nv field;
        const ssize_t used = nghttp2_hd_inflate_hd2(m_inflater.get(), &field, &flags, at, left, 1);
        check(used >= 0);
        at += used;
        left -= static_cast<size_t>(used);
        if ((flags & NGHTTP2_HD_INFLATE_EMIT) != 0) length += field.namelen + field.valuelen;
    }
    check(left == 0 && length > 0);
    nghttp2_hd_inflate_end_headers(m_inflater.get());
}

Receive::Receive(const std::string& stream, Delivery delivery)
    : m_stream(stream),
      m_fields(requestFields(8, Text::kTypical)),
      m_session(openSession(m_gathered)) {
    m_gathered.wholeFrames = delivery == Delivery::kWholeFrames;
    const int32_t id = submit(m_session.get(), pairsOf(m_fields), nullptr);
    send(m_session.get());
    check(id == 1 && nghttp2_session_set_local_window_size(m_session.get(), NGHTTP2_FLAG_NONE, id,
                                                           kHugeWindow) == 0);
    feed(m_session.get(), openedStream());
    send(m_session.get());
}

void Receive::run() {
    const size_t before = m_gathered.count;
    feed(m_session.get(), m_stream);
    send(m_session.get());  // credit, once a GiB
    check(m_gathered.count > before + m_stream.size() / 2);
}

ProduceGet::ProduceGet(const Fields& fields) : m_fields(fields), m_pairs(pairsOf(m_fields)) {}

void ProduceGet::prepare() { m_session = openSession(m_gathered); }

void ProduceGet::run() {
    submit(m_session.get(), m_pairs, nullptr);
    m_bytes = send(m_session.get());
    check(m_bytes > 0);
}

ProduceBody::ProduceBody()
    : m_fields(requestFields(8, Text::kIncompressible)), m_pairs(pairsOf(m_fields)) {
    m_fields[0].second = "POST";
    m_pairs = pairsOf(m_fields);
}

void ProduceBody::prepare() { m_session = openSession(m_gathered); }

void ProduceBody::run() {
    nghttp2_data_provider provider{};
    provider.source.ptr = &m_body;
    provider.read_callback = readBody;
    m_body.rewind();
    submit(m_session.get(), m_pairs, &provider);
    check(send(m_session.get()) > kBodySize);
}

}  // namespace bench::peer
