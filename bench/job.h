#ifndef HTTP2CLIENT_BENCH_JOB_H
#define HTTP2CLIENT_BENCH_JOB_H

#include <cstddef>
#include <functional>
#include <memory>

namespace bench {

// A piece of work that can be done again and again. What its constructor does is not measured.
class Job {
public:
    Job() = default;
    virtual ~Job() = default;
    Job(const Job&) = delete;
    Job& operator=(const Job&) = delete;

    virtual void run() = 0;
    // The bytes that one run works on.
    virtual size_t bytes() const = 0;

    // How many runs follow on one preparation, which is not measured; 0: the constructor's
    // suffices.
    virtual size_t runsPerPreparation() const { return 0; }
    virtual void prepare() {}
};

using JobMaker = std::function<std::unique_ptr<Job>()>;

template <class SomeJob, class... Arguments>
JobMaker make(Arguments... arguments) {
    return [=] { return std::make_unique<SomeJob>(arguments...); };
}

}  // namespace bench

#endif  // HTTP2CLIENT_BENCH_JOB_H
