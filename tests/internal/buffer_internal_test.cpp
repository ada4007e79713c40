// What growth asks the allocator for, and what becomes of a refusal.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <iostream>

namespace {

// With this set, every request is written to standard error and refused.
bool refuseMemory = false;

void* observedRealloc(void* block, size_t size) {
    if (!refuseMemory) return std::realloc(block, size);
    std::fprintf(stderr, "asked for %zu\n", size);
    return nullptr;
}

}  // namespace

#define realloc observedRealloc
#include "Http2Client/buffer.cpp"  // NOLINT(bugprone-suspicious-include): see the CMakeLists.txt
#undef realloc

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::KilledBySignal;
using testing::Not;

constexpr char kMessage[] = "Http2Client: out of memory\n";

// The process ends in the first request, which is for `size` bytes.
auto endsAskingFor(const char* size) {
    return HasSubstr(std::string("asked for ") + size + "\n" + kMessage);
}

auto endsWithoutAsking() { return AllOf(HasSubstr(kMessage), Not(HasSubstr("asked for"))); }

TEST(BufferGrowthDeathTest, DoublesUpToTwoGigabytesAndThenTakesAllThatCounts) {
    Buffer buffer("abc");
    const auto resize = [&buffer](unsigned int size) {
        refuseMemory = true;
        buffer.Resize(size);
    };
    EXPECT_EXIT(resize(9), KilledBySignal(SIGABRT), endsAskingFor("16"));
    EXPECT_EXIT(resize(0x40000001), KilledBySignal(SIGABRT), endsAskingFor("2147483648"));
    EXPECT_EXIT(resize(0x7FFFFFFF), KilledBySignal(SIGABRT), endsAskingFor("2147483648"));
    EXPECT_EXIT(resize(0x80000000), KilledBySignal(SIGABRT), endsAskingFor("2147483648"));
    EXPECT_EXIT(resize(0x80000001), KilledBySignal(SIGABRT), endsAskingFor("4294967295"));
    EXPECT_EXIT(resize(0xFFFFFFFF), KilledBySignal(SIGABRT), endsAskingFor("4294967295"));
}

TEST(BufferGrowthDeathTest, WritesAskForRoomUpToTheirLastByte) {
    Buffer buffer("abc");
    const auto copy = [&buffer](unsigned int at) {
        refuseMemory = true;
        buffer.Copy("xy", 2, at);
    };
    EXPECT_EXIT(copy(7), KilledBySignal(SIGABRT), endsAskingFor("16"));
    EXPECT_EXIT(copy(0x7FFFFFFE), KilledBySignal(SIGABRT), endsAskingFor("2147483648"));
    EXPECT_EXIT(copy(0x7FFFFFFF), KilledBySignal(SIGABRT), endsAskingFor("4294967295"));
    EXPECT_EXIT(copy(0xFFFFFFFD), KilledBySignal(SIGABRT), endsAskingFor("4294967295"));
    const auto set = [&buffer](unsigned int at) {
        refuseMemory = true;
        buffer.Set('x', at);
    };
    EXPECT_EXIT(set(0x80000000), KilledBySignal(SIGABRT), endsAskingFor("4294967295"));
    EXPECT_EXIT(set(0xFFFFFFFE), KilledBySignal(SIGABRT), endsAskingFor("4294967295"));
}

TEST(BufferGrowthDeathTest, NeverWrapsPastThirtyTwoBits) {
    Buffer buffer("abc");
    const Buffer one("x");
    const auto refused = [](const auto& write) {
        refuseMemory = true;
        write();
    };
    EXPECT_EXIT(refused([&] { buffer.Copy("xy", 2, 0xFFFFFFFE); }), KilledBySignal(SIGABRT),
                endsWithoutAsking());
    EXPECT_EXIT(refused([&] { buffer.Copy(one, 0xFFFFFFFF); }), KilledBySignal(SIGABRT),
                endsWithoutAsking());
    EXPECT_EXIT(refused([&] { buffer.Append("x", 0xFFFFFFFF); }), KilledBySignal(SIGABRT),
                endsWithoutAsking());
    EXPECT_EXIT(refused([&] { buffer.Set('x', 0xFFFFFFFF); }), KilledBySignal(SIGABRT),
                endsWithoutAsking());
    EXPECT_EXIT(refused([&] { buffer.SetValue(1, 8, 0xFFFFFFF8); }), KilledBySignal(SIGABRT),
                endsWithoutAsking());
}

TEST(BufferGrowthDeathTest, EndsTheProcessWhenANewBufferGetsNoMemory) {
    const auto make = [] {
        refuseMemory = true;
        const Buffer buffer;
    };
    EXPECT_EXIT(make(), KilledBySignal(SIGABRT), endsAskingFor("8"));
}

TEST(BufferGrowth, AsksForNothingWhileTheCapacityFits) {
    Buffer buffer("12345678");
    refuseMemory = true;
    buffer.Resize(3);
    buffer.Append("abcde", 5);
    buffer.SetValue(0x5A, 1, 7);
    buffer.Clear();
    refuseMemory = false;
    EXPECT_EQ(std::string(buffer.buffer, buffer.max_len), "123abcdZ");
}

}  // namespace
