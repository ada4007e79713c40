#include "standard_session_bench.h"

#include <benchmark/benchmark.h>
#include <nghttp2/nghttp2.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "inputs.h"
#include "standard_side.h"
#include "tests/support/bytes.h"

namespace {

using namespace bench::standard;
using bench::Fields;

constexpr uint32_t kManyStreams = 200;  // of one session, before it is renewed

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
template <class AnySide>
void receiveData(benchmark::State& state, const std::string& frames) {
    AnySide side;
    side.submit();
    side.send();
    side.receive(h2test::headers(1, "\x88"));
    for ([[maybe_unused]] auto iteration : state) {
        side.receive(frames);
        side.send();
    }
}

// Answers of HEADERS with 10 fields and one DATA frame, on streams of their own.
template <class AnySide>
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
        std::optional<AnySide> side(std::in_place);
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
template <class AnySide>
void produceGets(benchmark::State& state) {
    for ([[maybe_unused]] auto iteration : state) {
        state.PauseTiming();
        std::optional<AnySide> side(std::in_place);
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
        benchmark::RegisterBenchmark((name + "/own").c_str(), receiveData<Side>, frames);
        benchmark::RegisterBenchmark((name + "/libnghttp2").c_str(), receiveData<Peer>, frames);
    }
    benchmark::RegisterBenchmark("receive_answers/own", receiveAnswers<Side>);
    benchmark::RegisterBenchmark("receive_answers/libnghttp2", receiveAnswers<Peer>);
    benchmark::RegisterBenchmark("produce_gets/own", produceGets<Side>);
    benchmark::RegisterBenchmark("produce_gets/libnghttp2", produceGets<Peer>);
}
