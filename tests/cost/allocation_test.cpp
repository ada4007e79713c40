#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "bench/growth_cases.h"
#include "counting.h"

namespace growth {

// gtest finds it by its name.
void PrintTo(const Case& chosen, std::ostream* out) { *out << chosen.name; }

}  // namespace growth

namespace {

using growth::Case;
using growth::Growth;
using growth::Work;
using h2test::allocations;
using h2test::Allocations;

// How many times as much may be allocated at 8n as at n: eight times, twice that for a vector or
// string that has just doubled at the one and not at the other. Quadratic growth is 64 times.
constexpr size_t kLimit = 16;
// A server's byte holds no more than this many bytes of memory, the queue of one read's frames and
// what a run needs once aside.
constexpr size_t kHeldForAByte = 160;
constexpr size_t kHeldAnyway = size_t{512} * 1024;
constexpr size_t kCallsAnyway = 64;

struct Usage {
    size_t calls;
    size_t bytes;
    size_t peak;
    size_t input;  // bytes that the measured call was given
};

Usage usageOf(const Case& chosen, size_t n) {
    Work work;
    chosen.prepare(work, n);
    const size_t before = allocations.held;
    allocations = Allocations{0, 0, before, before};
    measured(&work);
    const Allocations after = allocations;
    return {after.calls, after.bytes, after.peak - before,
            work.bytesAreMeasured ? work.bytes.size() : 0};
}

class CostOf : public testing::TestWithParam<Case> {
protected:
    // The console's lines are no memory of the library's, and there are millions of them.
    static void SetUpTestSuite() { growth::silenceConsole(); }
};

TEST_P(CostOf, AllocatesInProportionToTheInput) {
    const Case& chosen = GetParam();
    usageOf(chosen, chosen.quick());  // what is made only once
    const Usage few = usageOf(chosen, chosen.quick());
    const Usage many = usageOf(chosen, 8 * chosen.quick());
    RecordProperty("calls", std::to_string(few.calls) + " and " + std::to_string(many.calls));
    RecordProperty("bytes", std::to_string(few.bytes) + " and " + std::to_string(many.bytes));
    RecordProperty("peak", std::to_string(few.peak) + " and " + std::to_string(many.peak));
    if (chosen.growth == Growth::kConstant) {
        EXPECT_EQ(many.calls, few.calls);
        EXPECT_EQ(many.bytes, few.bytes);
        EXPECT_EQ(many.peak, few.peak);
        return;
    }
    EXPECT_LE(many.calls, kLimit * few.calls + kCallsAnyway);
    EXPECT_LE(many.bytes, kLimit * few.bytes);
    EXPECT_LE(many.peak, kLimit * few.peak);
    EXPECT_LE(many.peak, kHeldForAByte * many.input + kHeldAnyway);
}

INSTANTIATE_TEST_SUITE_P(Hostile, CostOf, testing::ValuesIn(growth::allCases()),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
