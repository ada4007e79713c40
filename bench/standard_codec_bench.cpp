// What the standard edition's HPACK and session cost, each job beside libnghttp2's.
//
//   standard_codec_bench [Google Benchmark's options]
//
// A name is CASE/own or CASE/libnghttp2. The times of a case are to be compared within one run,
// with --benchmark_enable_random_interleaving=true.
#include <benchmark/benchmark.h>
#include <nghttp2/nghttp2.h>

#include <cstdlib>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "Http2ClientStandard/hpack/decoder.h"
#include "Http2ClientStandard/hpack/encoder.h"
#include "inputs.h"
#include "standard_session_bench.h"

namespace {

using namespace h2;
using bench::Fields;

constexpr size_t kTableSize = 4096;
constexpr size_t kFreshEncoders = 256;  // so many are made at once, outside of the time measured

void check(bool good) {
    if (!good) std::abort();
}

uint8_t* bytesOf(const std::string& text) {
    return reinterpret_cast<uint8_t*>(const_cast<char*>(text.data()));
}

struct Release {
    void operator()(nghttp2_hd_deflater* deflater) const { nghttp2_hd_deflate_del(deflater); }
    void operator()(nghttp2_hd_inflater* inflater) const { nghttp2_hd_inflate_del(inflater); }
};

class PeerEncoder {
public:
    PeerEncoder() {
        nghttp2_hd_deflater* deflater = nullptr;
        check(nghttp2_hd_deflate_new(&deflater, kTableSize) == 0);
        m_deflater.reset(deflater);
    }
    size_t encode(std::vector<uint8_t>& out, const std::vector<nghttp2_nv>& pairs) {
        const auto size = nghttp2_hd_deflate_hd(m_deflater.get(), out.data(), out.size(),
                                                pairs.data(), pairs.size());
        check(size > 0);
        return static_cast<size_t>(size);
    }

private:
    std::unique_ptr<nghttp2_hd_deflater, Release> m_deflater;
};

std::vector<nghttp2_nv> pairsOf(const Fields& fields) {
    std::vector<nghttp2_nv> pairs;
    for (const auto& [name, value] : fields) {
        pairs.push_back(
            {bytesOf(name), bytesOf(value), name.size(), value.size(), NGHTTP2_NV_FLAG_NONE});
    }
    return pairs;
}

std::vector<hpack::Field> ownFields(const Fields& fields) {
    std::vector<hpack::Field> own;
    for (const auto& [name, value] : fields) own.push_back({name, value});
    return own;
}

class PeerDecoder {
public:
    PeerDecoder() {
        nghttp2_hd_inflater* inflater = nullptr;
        check(nghttp2_hd_inflate_new(&inflater) == 0);
        m_inflater.reset(inflater);
    }
    size_t decode(const std::string& block) {
        const uint8_t* at = bytesOf(block);
        size_t left = block.size();
        size_t fields = 0;
        while (true) {
            nghttp2_nv field;
            int flags = 0;
            const auto used = nghttp2_hd_inflate_hd2(m_inflater.get(), &field, &flags, at, left, 1);
            check(used >= 0);
            at += used;
            left -= static_cast<size_t>(used);
            if ((flags & NGHTTP2_HD_INFLATE_EMIT) != 0) ++fields;
            if ((flags & NGHTTP2_HD_INFLATE_FINAL) != 0) break;
        }
        check(nghttp2_hd_inflate_end_headers(m_inflater.get()) == 0);
        return fields;
    }

private:
    std::unique_ptr<nghttp2_hd_inflater, Release> m_inflater;
};

void decodeOwn(benchmark::State& state, const std::string& first, const std::string& block,
               size_t count) {
    hpack::Decoder decoder;
    hpack::FieldList list;
    if (!first.empty()) check(decoder.decode(first, list));
    for ([[maybe_unused]] auto iteration : state) {
        list.clear();
        check(decoder.decode(block, list) && list.size() == count && !list.malformed());
    }
}

void decodePeer(benchmark::State& state, const std::string& first, const std::string& block,
                size_t count) {
    PeerDecoder decoder;
    if (!first.empty()) decoder.decode(first);
    for ([[maybe_unused]] auto iteration : state) check(decoder.decode(block) == count);
}

// Decodes `first` once, then `block` again and again.
void addDecoding(const std::string& name, const std::string& first, const std::string& block,
                 size_t count) {
    benchmark::RegisterBenchmark((name + "/own").c_str(), decodeOwn, first, block, count);
    benchmark::RegisterBenchmark((name + "/libnghttp2").c_str(), decodePeer, first, block, count);
}

void addDecodings() {
    for (const size_t count : {10, 40}) {
        const Fields fields = bench::responseFields(count);
        const auto pairs = pairsOf(fields);
        PeerEncoder encoder;
        std::vector<uint8_t> out(65536);
        const auto block = [&] {
            const size_t size = encoder.encode(out, pairs);
            return std::string(out.begin(), out.begin() + static_cast<ptrdiff_t>(size));
        };
        const std::string first = block();
        hpack::Encoder own;
        Bytes ownBlock;
        own.encode(ownBlock, ownFields(fields));
        const std::string suffix = "_" + std::to_string(count);
        addDecoding("decode_literals" + suffix, "", first, count);
        addDecoding("decode_own_literals" + suffix, "", std::string(ownBlock.view()), count);
        addDecoding("decode_plain_literals" + suffix, "", bench::literalBlock(fields), count);
        addDecoding("decode_static" + suffix, "", bench::indexedBlock(count), count);

        // Only what both enter into the table, so that the second block is all indexed.
        Fields steady;
        for (const auto& field : fields) {
            if (field.first != "content-length" && field.first != "etag") steady.push_back(field);
        }
        PeerEncoder steadyEncoder;
        const auto steadyPairs = pairsOf(steady);
        const auto steadyBlock = [&] {
            const size_t size = steadyEncoder.encode(out, steadyPairs);
            return std::string(out.begin(), out.begin() + static_cast<ptrdiff_t>(size));
        };
        const std::string steadyFirst = steadyBlock();
        const std::string steadySecond = steadyBlock();
        check(steadySecond.size() == steady.size());
        addDecoding("decode_indexed" + suffix, steadyFirst, steadySecond, steady.size());
    }
}

// A GET as a browser sends it.
Fields getFields(const std::string& path) {
    Fields fields = bench::requestFields(8, bench::Text::kTypical);
    fields[2].second = path;
    fields[3] = {":authority", "www.example.com"};
    return fields;
}

void encodeOwn(benchmark::State& state, const Fields& fields) {
    const auto own = ownFields(fields);
    hpack::Encoder encoder;
    Bytes out;
    encoder.encode(out, own);
    for ([[maybe_unused]] auto iteration : state) {
        out.clear();
        encoder.encode(out, own);
        benchmark::ClobberMemory();
    }
    state.counters["bytes"] = static_cast<double>(out.size());
}

void encodePeer(benchmark::State& state, const Fields& fields) {
    const auto pairs = pairsOf(fields);
    PeerEncoder encoder;
    std::vector<uint8_t> out(65536);
    size_t size = encoder.encode(out, pairs);
    for ([[maybe_unused]] auto iteration : state) {
        size = encoder.encode(out, pairs);
        benchmark::ClobberMemory();
    }
    state.counters["bytes"] = static_cast<double>(size);
}

// The whole of `fields` is kept, or all but the path, which comes first.
void encodeKept(benchmark::State& state, const Fields& fields, bool pathToo) {
    auto own = ownFields(fields);
    std::swap(own[0], own[2]);
    const std::span<const hpack::Field> all(own);
    hpack::Encoder encoder;
    hpack::KeptFields kept;
    Bytes out;
    for (int i = 0; i < 2; ++i) encoder.encode(out, all);
    for ([[maybe_unused]] auto iteration : state) {
        out.clear();
        encoder.begin(out);
        if (!pathToo) encoder.add(out, all.first(1));
        encoder.add(out, kept, pathToo ? all : all.subspan(1));
        benchmark::ClobberMemory();
    }
    state.counters["bytes"] = static_cast<double>(out.size());
}

template <class Encoder, class Encode>
void encodeFresh(benchmark::State& state, const Encode& encode) {
    std::deque<Encoder> encoders;
    for ([[maybe_unused]] auto iteration : state) {
        if (encoders.empty()) {
            state.PauseTiming();
            encoders.resize(kFreshEncoders);
            state.ResumeTiming();
        }
        encode(encoders.back());
        benchmark::ClobberMemory();
        encoders.pop_back();
    }
}

void encodeFreshOwn(benchmark::State& state, const Fields& fields) {
    const auto own = ownFields(fields);
    Bytes out;
    encodeFresh<hpack::Encoder>(state, [&](hpack::Encoder& encoder) {
        out.clear();
        encoder.encode(out, own);
    });
    state.counters["bytes"] = static_cast<double>(out.size());
}

void encodeFreshPeer(benchmark::State& state, const Fields& fields) {
    const auto pairs = pairsOf(fields);
    std::vector<uint8_t> out(65536);
    size_t size = 0;
    encodeFresh<PeerEncoder>(state,
                             [&](PeerEncoder& encoder) { size = encoder.encode(out, pairs); });
    state.counters["bytes"] = static_cast<double>(size);
}

void addEncodings() {
    const Fields page = getFields("/articles/2026/november/index.html?page=7");
    const Fields root = getFields("/");
    benchmark::RegisterBenchmark("encode_fresh/own", encodeFreshOwn, page);
    benchmark::RegisterBenchmark("encode_fresh/libnghttp2", encodeFreshPeer, page);
    benchmark::RegisterBenchmark("encode_literal_path/own", encodeOwn, page);
    benchmark::RegisterBenchmark("encode_literal_path/libnghttp2", encodePeer, page);
    benchmark::RegisterBenchmark("encode_literal_path/own_kept", encodeKept, page, false);
    benchmark::RegisterBenchmark("encode_indexed/own", encodeOwn, root);
    benchmark::RegisterBenchmark("encode_indexed/libnghttp2", encodePeer, root);
    benchmark::RegisterBenchmark("encode_indexed/own_kept", encodeKept, root, true);
}

}  // namespace

int main(int argc, char** argv) {
    addDecodings();
    addEncodings();
    addSessions();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
