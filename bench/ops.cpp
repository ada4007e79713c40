// Operations whose instructions are counted: see bench/baseline.txt.
//
//   ops --list     the operations' names
//   ops NAME       does the operation twice; a profiler is to look at measured() only, which is the
//                  second time
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "own_jobs.h"
#include "standard_ops.h"

// A profiler knows it by this name.
extern "C" __attribute__((noinline)) void measured(bench::Job* job) { job->run(); }

namespace {

using namespace bench;

std::vector<std::pair<std::string, JobMaker>> allOperations() {
    using own::Console;
    const Fields get = requestFields(8, Text::kTypical);
    std::vector<std::pair<std::string, JobMaker>> all = {
        {"encode_8", make<own::Encode>(get)},
        {"encode_40", make<own::Encode>(requestFields(40, Text::kTypical))},
        {"decode_10", make<own::Decode>(literalBlock(responseFields(10)))},
        {"decode_40", make<own::Decode>(literalBlock(responseFields(40)))},
        {"decode_40_indexed", make<own::Decode>(indexedBlock(40))},
        {"receive_16k", make<own::Receive>(dataStream(16384), Console::kDropped)},
        {"receive_64", make<own::Receive>(dataStream(64), Console::kDropped)},
        {"receive_mixed", make<own::Receive>(mixedStream(), Console::kDropped)},
        {"produce_get", make<own::ProduceGet>(get)},
        {"produce_body", make<own::ProduceBody>()},
    };
    for (auto& operation : standard::operations()) all.push_back(std::move(operation));
    return all;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string wanted = argc == 2 ? argv[1] : "";
    for (const auto& [name, maker] : allOperations()) {
        if (wanted == "--list") std::printf("%s\n", name.c_str());
        if (wanted != name) continue;
        const std::unique_ptr<Job> job = maker();
        job->run();  // what is done only once in a process
        measured(job.get());
        return 0;
    }
    if (wanted == "--list") return 0;
    std::fprintf(stderr, "usage: ops --list | NAME\n");
    return 2;
}
