#include "standard_session_bench.h"

#include <benchmark/benchmark.h>
#include <nghttp2/nghttp2.h>

#include <climits>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Http2ClientStandard/session/session.h"
#include "inputs.h"
#include "tests/support/bytes.h"

namespace {

using namespace h2;
using bench::Fields;

constexpr size_t kChunk = 65536;        // what a session is given at once
constexpr uint32_t kManyStreams = 200;  // of one session, before it is renewed
constexpr uint32_t kHugeWindow = INT_MAX;
constexpr size_t kSmallContent = 1024;

void check(bool good) {
    if (!good) std::abort();
}

// The server's opening: as many streams as the jobs have, and windows that are never used up.
std::string serverOpening() {
    constexpr uint16_t kMaxConcurrentStreams = 3;
    return h2test::settings({{kMaxConcurrentStreams, 100'000}});
}

Fields getFields() {
    Fields fields = bench::requestFields(8, bench::Text::kTypical);
    fields[3] = {":authority", "www.example.com"};
    std::swap(fields[0], fields[2]);  // the path goes first: see RequestFields
    return fields;
}

Fields answerFields() {
    Fields fields = bench::responseFields(10);
    for (auto& [name, value] : fields) {
        if (name == "content-length") value = std::to_string(kSmallContent);
    }
    return fields;
}

class NoEvents : public Visitor {
public:
    void onHeaders(uint32_t, void*, uint32_t, const hpack::FieldList&) override {}
    void onData(uint32_t, void*, const char*, size_t, bool) override {}
    void onTrailers(uint32_t, void*, const hpack::FieldList&) override {}
    void onEnd(uint32_t, void*, const StreamEnd&) override {}
};

class Own {
public:
    Own() : m_session(m_visitor, options()) { receive(serverOpening()); }
    void submit() {
        Request request;
        request.fields = m_fields;
        request.kept = &m_kept;
        request.keptFrom = 1;
        check(m_session.submit(request) != 0);
    }
    void send() {
        m_output.clear();
        m_session.produce(m_output, kChunk, 0);
    }
    void receive(std::string_view bytes) {
        for (; !bytes.empty(); bytes.remove_prefix(std::min(kChunk, bytes.size()))) {
            m_session.receive(bytes.data(), std::min(kChunk, bytes.size()), 0);
        }
        check(m_session.error() == nullptr);
    }

private:
    static SessionOptions options() {
        SessionOptions options;
        options.streamWindow = options.connectionWindow = kHugeWindow;
        return options;
    }
    static std::vector<hpack::Field> fieldsOf(const Fields& fields) {
        std::vector<hpack::Field> own;
        for (const auto& [name, value] : fields) own.push_back({name, value});
        return own;
    }
    NoEvents m_visitor;
    Session m_session;
    Output m_output;
    hpack::KeptFields m_kept;
    const Fields m_texts = getFields();
    const std::vector<hpack::Field> m_fields = fieldsOf(m_texts);
};

uint8_t* bytesOf(const std::string& text) {
    return reinterpret_cast<uint8_t*>(const_cast<char*>(text.data()));
}

class Peer {
public:
    Peer() {
        nghttp2_session_callbacks* callbacks = nullptr;
        nghttp2_session* session = nullptr;
        check(nghttp2_session_callbacks_new(&callbacks) == 0);
        check(nghttp2_session_client_new(&session, callbacks, nullptr) == 0);
        nghttp2_session_callbacks_del(callbacks);
        m_session.reset(session);
        const nghttp2_settings_entry window{NGHTTP2_SETTINGS_INITIAL_WINDOW_SIZE, kHugeWindow};
        check(nghttp2_submit_settings(session, NGHTTP2_FLAG_NONE, &window, 1) == 0);
        check(nghttp2_session_set_local_window_size(session, NGHTTP2_FLAG_NONE, 0, kHugeWindow) ==
              0);
        for (const auto& [name, value] : m_texts) {
            m_fields.push_back(
                {bytesOf(name), bytesOf(value), name.size(), value.size(), NGHTTP2_NV_FLAG_NONE});
        }
        send();
        receive(serverOpening() + h2test::settingsAck());
    }
    void submit() {
        check(nghttp2_submit_request(m_session.get(), nullptr, m_fields.data(), m_fields.size(),
                                     nullptr, nullptr) > 0);
    }
    void send() {
        const uint8_t* bytes = nullptr;
        while (nghttp2_session_mem_send(m_session.get(), &bytes) > 0) {
        }
    }
    void receive(std::string_view bytes) {
        for (; !bytes.empty(); bytes.remove_prefix(std::min(kChunk, bytes.size()))) {
            const size_t size = std::min(kChunk, bytes.size());
            check(nghttp2_session_mem_recv(m_session.get(),
                                           reinterpret_cast<const uint8_t*>(bytes.data()),
                                           size) == static_cast<ssize_t>(size));
        }
    }

private:
    struct Release {
        void operator()(nghttp2_session* session) const { nghttp2_session_del(session); }
    };
    std::unique_ptr<nghttp2_session, Release> m_session;
    const Fields m_texts = getFields();
    std::vector<nghttp2_nv> m_fields;
};

// A MiB of DATA frames of one stream, which does not end.
template <class Side>
void receiveData(benchmark::State& state, const std::string& frames) {
    Side side;
    side.submit();
    side.send();
    side.receive(h2test::headers(1, "\x88"));
    for ([[maybe_unused]] auto iteration : state) {
        side.receive(frames);
        side.send();
    }
}

// Answers of HEADERS with 10 fields and one DATA frame, on streams of their own.
template <class Side>
void receiveAnswers(benchmark::State& state) {
    std::string first;  // has the fields enter the table
    std::string answers;
    const std::string fields = bench::incrementalBlock(answerFields());
    std::string indexed;
    for (uint64_t i = 0; i < 10; ++i) indexed += h2test::hpackIndexed(62 + 9 - i);
    const std::string content(kSmallContent, 'd');
    for (uint32_t i = 0; i < kManyStreams; ++i) {
        std::string& out = i == 0 ? first : answers;
        out += h2test::headers(2 * i + 1, i == 0 ? fields : indexed) +
               h2test::data(2 * i + 1, content, h2test::kEndStream);
    }
    for ([[maybe_unused]] auto iteration : state) {
        state.PauseTiming();
        std::optional<Side> side(std::in_place);
        for (uint32_t i = 0; i < kManyStreams; ++i) side->submit();
        side->send();
        side->receive(first);
        state.ResumeTiming();
        side->receive(answers);
        state.PauseTiming();
        side.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * (kManyStreams - 1));
}

// A GET's bytes, whose fields the table has.
template <class Side>
void produceGets(benchmark::State& state) {
    for ([[maybe_unused]] auto iteration : state) {
        state.PauseTiming();
        std::optional<Side> side(std::in_place);
        side->submit();
        side->send();
        state.ResumeTiming();
        for (uint32_t i = 1; i < kManyStreams; ++i) {
            side->submit();
            side->send();
        }
        state.PauseTiming();
        side.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * (kManyStreams - 1));
}

}  // namespace

void addSessions() {
    for (const size_t size : {16384, 1024, 64}) {
        const std::string frames = bench::dataStream(size);
        const std::string name = "receive_data_" + std::to_string(size);
        benchmark::RegisterBenchmark((name + "/own").c_str(), receiveData<Own>, frames);
        benchmark::RegisterBenchmark((name + "/libnghttp2").c_str(), receiveData<Peer>, frames);
    }
    benchmark::RegisterBenchmark("receive_answers/own", receiveAnswers<Own>);
    benchmark::RegisterBenchmark("receive_answers/libnghttp2", receiveAnswers<Peer>);
    benchmark::RegisterBenchmark("produce_gets/own", produceGets<Own>);
    benchmark::RegisterBenchmark("produce_gets/libnghttp2", produceGets<Peer>);
}
