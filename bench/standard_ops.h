#ifndef HTTP2CLIENT_BENCH_STANDARD_OPS_H
#define HTTP2CLIENT_BENCH_STANDARD_OPS_H

#include <string>
#include <utility>
#include <vector>

#include "job.h"

namespace bench::standard {

// The standard edition's operations whose instructions ops.cpp counts, by their names.
std::vector<std::pair<std::string, JobMaker>> operations();

}  // namespace bench::standard

#endif  // HTTP2CLIENT_BENCH_STANDARD_OPS_H
