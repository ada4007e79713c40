// What the codec and the engine cost, each job beside its peer's: libnghttp2's, or memcpy's.
//
//   codec_bench [Google Benchmark's options]
//
// A name is CASE/own or CASE/PEER, or for a variant of either CASE/own_VARIANT. The times of a case
// are to be compared within one run, with --benchmark_enable_random_interleaving=true.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "own_jobs.h"
#include "peer_jobs.h"

namespace {

using namespace bench;

// Copies a stream's bytes once, as they arrive, to where the last frame's were.
class CopyOnce : public Job {
public:
    explicit CopyOnce(const std::string& stream) : m_stream(stream) {}
    void run() override {
        for (size_t at = 0; at < m_stream.size(); at += kReadChunk) {
            const size_t size = std::min(kReadChunk, m_stream.size() - at);
            std::memcpy(m_frame.data() + at % m_frame.size(), m_stream.data() + at, size);
            benchmark::ClobberMemory();
        }
    }
    size_t bytes() const override { return m_stream.size(); }

private:
    std::string m_stream;
    std::vector<char> m_frame = std::vector<char>(2 * kReadChunk);
};

void measure(benchmark::State& state, const JobMaker& maker) {
    const std::unique_ptr<Job> job = maker();
    size_t runsLeft = 0;
    for ([[maybe_unused]] auto iteration : state) {
        if (job->runsPerPreparation() != 0 && runsLeft-- == 0) {
            state.PauseTiming();
            job->prepare();
            runsLeft = job->runsPerPreparation() - 1;
            state.ResumeTiming();
        }
        job->run();
    }
    state.SetBytesProcessed(static_cast<int64_t>(job->bytes()) * state.iterations());
}

void add(const std::string& name, const JobMaker& maker) {
    benchmark::RegisterBenchmark(name.c_str(), measure, maker);
}

void addPair(const std::string& name, const JobMaker& own, const JobMaker& peer) {
    add(name + "/own", own);
    add(name + "/libnghttp2", peer);
}

void addEncoding() {
    for (const size_t count : {8, 40}) {
        const std::string name = "encode_" + std::to_string(count);
        const Fields plain = requestFields(count, Text::kIncompressible);
        const Fields typical = requestFields(count, Text::kTypical);
        addPair(name, make<own::Encode>(plain), make<peer::Encode>(plain));
        addPair(name + "_typical", make<own::Encode>(typical), make<peer::Encode>(typical));
    }
}

void addDecoding() {
    const auto pair = [](const char* name, const std::string& block) {
        addPair(name, make<own::Decode>(block), make<peer::Decode>(block));
    };
    pair("decode_10", literalBlock(responseFields(10)));
    pair("decode_10_incremental", incrementalBlock(responseFields(10)));
    pair("decode_40", literalBlock(responseFields(40)));
    pair("decode_40_indexed", indexedBlock(40));
}

void addReceiving() {
    const auto all = [](const std::string& name, const std::string& stream) {
        addPair(name, make<own::Receive>(stream, own::Console::kDropped),
                make<peer::Receive>(stream, peer::Delivery::kWholeFrames));
        add(name + "/own_console", make<own::Receive>(stream, own::Console::kDevNull));
        add(name + "/libnghttp2_pieces", make<peer::Receive>(stream, peer::Delivery::kPieces));
        add(name + "/lines_alone", make<own::WriteLines>(stream));
    };
    all("receive_16k", dataStream(16384));
    all("receive_64", dataStream(64));
    all("receive_mixed", mixedStream());
    add("reassemble_16k/own", make<own::Reassemble>(dataStream(16384)));
    add("reassemble_16k/memcpy", make<CopyOnce>(dataStream(16384)));
}

void addProducing() {
    const Fields plain = requestFields(8, Text::kIncompressible);
    const Fields typical = requestFields(8, Text::kTypical);
    addPair("produce_get", make<own::ProduceGet>(plain), make<peer::ProduceGet>(plain));
    addPair("produce_get_typical", make<own::ProduceGet>(typical), make<peer::ProduceGet>(typical));
    addPair("produce_body", make<own::ProduceBody>(), make<peer::ProduceBody>());
}

}  // namespace

int main(int argc, char** argv) {
    addEncoding();
    addDecoding();
    addReceiving();
    addProducing();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
