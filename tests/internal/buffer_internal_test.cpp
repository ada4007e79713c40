// What growth requests from the allocator, and what happens when the request fails.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iomanip>
#include <iostream>

namespace {

// When set, every request is written to standard error and refused.
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

constexpr char kMessage[] = "Http2Client: out of memory\n";

// The process ends in the first request of `write`, which is for `size` bytes.
void expectRequest(const char* size, const std::function<void(Buffer&)>& write) {
    Buffer buffer("abc");
    const auto refused = [&] {
        refuseMemory = true;
        write(buffer);
    };
    EXPECT_EXIT(refused(), testing::KilledBySignal(SIGABRT),
                testing::HasSubstr(std::string("asked for ") + size + "\n" + kMessage));
}

// The process ends without a request.
void expectNoRequest(const std::function<void(Buffer&)>& write) {
    Buffer buffer("abc");
    const auto refused = [&] {
        refuseMemory = true;
        write(buffer);
    };
    EXPECT_EXIT(
        refused(), testing::KilledBySignal(SIGABRT),
        testing::AllOf(testing::HasSubstr(kMessage), testing::Not(testing::HasSubstr("asked"))));
}

TEST(BufferGrowthDeathTest, DoublesUpToTwoGigabytesAndThenTakesAllThatCounts) {
    const std::pair<unsigned int, const char*> cases[] = {{9, "16"},
                                                          {0x40000001, "2147483648"},
                                                          {0x80000000, "2147483648"},
                                                          {0x80000001, "4294967295"},
                                                          {0xFFFFFFFF, "4294967295"}};
    for (const auto& [size, asked] : cases) {
        expectRequest(asked, [size = size](Buffer& buffer) { buffer.Resize(size); });
    }
    expectRequest("8", [](Buffer&) { const Buffer made; });
}

TEST(BufferGrowthDeathTest, WritesAskForRoomUpToTheirLastByte) {
    const std::pair<unsigned int, const char*> cases[] = {{7, "16"},
                                                          {0x7FFFFFFE, "2147483648"},
                                                          {0x7FFFFFFF, "4294967295"},
                                                          {0xFFFFFFFD, "4294967295"}};
    for (const auto& [at, asked] : cases) {
        expectRequest(asked, [at = at](Buffer& buffer) { buffer.Copy("xy", 2, at); });
        expectRequest(asked, [at = at](Buffer& buffer) { buffer.Set('x', at + 1); });
    }
}

TEST(BufferGrowthDeathTest, NeverWrapsPastThirtyTwoBits) {
    const Buffer one("x");
    expectNoRequest([](Buffer& buffer) { buffer.Copy("xy", 2, 0xFFFFFFFE); });
    expectNoRequest([&](Buffer& buffer) { buffer.Copy(one, 0xFFFFFFFF); });
    expectNoRequest([](Buffer& buffer) { buffer.Append("x", 0xFFFFFFFF); });
    expectNoRequest([](Buffer& buffer) { buffer.Set('x', 0xFFFFFFFF); });
    expectNoRequest([](Buffer& buffer) { buffer.SetValue(1, 8, 0xFFFFFFF8); });
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
