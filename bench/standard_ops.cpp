#include "standard_ops.h"

#include <memory>
#include <string>
#include <vector>

#include "standard_side.h"

namespace bench::standard {

namespace {

class Decode : public Job {
public:
    explicit Decode(const std::string& block) : m_block(block) {}
    void run() override {
        m_list.clear();
        check(m_decoder.decode(m_block, m_list));
    }
    size_t bytes() const override { return m_block.size(); }

private:
    const std::string m_block;
    hpack::Decoder m_decoder;
    hpack::FieldList m_list;
};

class Encode : public Job {
public:
    explicit Encode(const Fields& texts) : m_texts(texts) {
        for (const auto& [name, value] : m_texts) m_fields.push_back({name, value});
    }
    void run() override {
        m_out.clear();
        m_encoder.encode(m_out, m_fields);
    }
    size_t bytes() const override { return m_out.size(); }

private:
    const Fields m_texts;
    std::vector<hpack::Field> m_fields;
    hpack::Encoder m_encoder;
    Bytes m_out;
};

class Receive : public Job {
public:
    explicit Receive(const std::string& frames) : m_frames(frames) {
        m_side.submit();
        m_side.send();
        m_side.receive(h2test::headers(1, "\x88"));
    }
    void run() override {
        m_side.receive(m_frames);
        m_side.send();
    }
    size_t bytes() const override { return m_frames.size(); }

private:
    const std::string m_frames;
    Side m_side;
};

// GETs, and their answers of HEADERS and DATA, on a connection that has had as many before.
class Exchange : public Job {
public:
    Exchange() { makeAnswers(); }
    void run() override {
        for (uint32_t i = 0; i < kRequests; ++i) m_side.submit();
        m_side.send();
        m_side.receive(m_answers[m_next++]);
    }
    size_t bytes() const override { return m_answers[0].size(); }

private:
    static constexpr uint32_t kRequests = 32;

    void makeAnswers() {
        const std::string literals = incrementalBlock(answerFields());
        std::string indexed;
        for (uint64_t i = 0; i < 10; ++i) indexed += h2test::hpackIndexed(62 + 9 - i);
        for (uint32_t stream = 1; m_answers.size() < 2; stream += 2) {
            if (stream / 2 % kRequests == 0) m_answer.clear();
            m_answer += h2test::headers(stream, stream == 1 ? literals : indexed) +
                        h2test::data(stream, std::string(kSmallContent, 'd'), h2test::kEndStream);
            if (stream / 2 % kRequests == kRequests - 1) m_answers.push_back(m_answer);
        }
    }

    Side m_side;
    std::string m_answer;
    std::vector<std::string> m_answers;
    size_t m_next = 0;
};

}  // namespace

std::vector<std::pair<std::string, JobMaker>> operations() {
    return {
        {"standard_encode_8", make<Encode>(getFields())},
        {"standard_decode_10", make<Decode>(literalBlock(responseFields(10)))},
        {"standard_decode_40", make<Decode>(literalBlock(responseFields(40)))},
        {"standard_decode_40_indexed", make<Decode>(indexedBlock(40))},
        {"standard_receive_16k", make<Receive>(dataStream(16384))},
        {"standard_receive_64", make<Receive>(dataStream(64))},
        {"standard_exchange_32", make<Exchange>()},
    };
}

}  // namespace bench::standard
