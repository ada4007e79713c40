#ifndef HTTP2CLIENT_BENCH_STANDARD_SIDE_H
#define HTTP2CLIENT_BENCH_STANDARD_SIDE_H

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Http2ClientStandard/session/session.h"
#include "inputs.h"
#include "tests/support/bytes.h"

// A session of the standard edition as benchmarks use it, and the data that it works on.
namespace bench::standard {

using namespace h2;

constexpr size_t kChunk = 65536;  // what a session is given at once
constexpr uint32_t kHugeWindow = INT_MAX;
constexpr size_t kSmallContent = 1024;

inline void check(bool good) {
    if (!good) std::abort();
}

// The server's opening: as many streams as the jobs have, and windows that are never used up.
inline std::string serverOpening() {
    constexpr uint16_t kMaxConcurrentStreams = 3;
    return h2test::settings({{kMaxConcurrentStreams, 100'000}});
}

inline Fields getFields() {
    Fields fields = bench::requestFields(8, bench::Text::kTypical);
    fields[3] = {":authority", "www.example.com"};
    std::swap(fields[0], fields[2]);  // the path goes first: see RequestFields
    return fields;
}

inline Fields answerFields() {
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

// As an application that does nothing but send GETs and look at no answer.
class Side {
public:
    Side() : m_session(m_visitor, options()) { receive(serverOpening()); }
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
            // cppcheck-suppress danglingTemporaryLifetime ; a temporary lives during the whole call
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

}  // namespace bench::standard

#endif  // HTTP2CLIENT_BENCH_STANDARD_SIDE_H
