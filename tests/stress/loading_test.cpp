// The library loaded at run time, used and unloaded, again and again.
#include <dlfcn.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/capture.h"
#include "tests/support/descriptors.h"
#include "tests/support/scripted_server.h"
#include "tests/support/threads.h"

namespace h2test {
namespace {

constexpr int kRounds = 100;
// The context is 9 KiB; the scripted server, in this process too, keeps its end of each connection.
[[maybe_unused]] constexpr size_t kPlainKiB = 32;
[[maybe_unused]] constexpr size_t kTlsKiB = 80;

// Lines of the process's memory map that name `text`.
size_t mappings(const std::string& text) {
    std::ifstream maps("/proc/self/maps");
    size_t count = 0;
    for (std::string line; std::getline(maps, line);) {
        if (line.find(text) != std::string::npos) ++count;
    }
    return count;
}

size_t residentKiB() {
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
        size_t size = 0;
        if (word == "VmRSS:" && status >> size) return size;
    }
    return 0;
}

class Loading : public testing::TestWithParam<bool> {
protected:
    // Loads, uses and unloads the library once.
    void round() {
        std::unique_ptr<void, int (*)(void*)> module(dlopen(LOADING_PLUGIN, RTLD_NOW | RTLD_LOCAL),
                                                     dlclose);
        ASSERT_NE(module, nullptr) << dlerror();
        ASSERT_GT(mappings("libHttp2Client"), 0U);
        const auto use =
            reinterpret_cast<int (*)(int, unsigned short)>(dlsym(module.get(), "useLibrary"));
        ASSERT_NE(use, nullptr);
        ASSERT_EQ(use(GetParam() ? 1 : 0, m_server.port()), 200);
        ASSERT_EQ(dlclose(module.release()), 0);
    }

    // Answers a connection's first request and ends the connection at the second.
    ServerOptions options() {
        ServerOptions options;
        options.tls = GetParam();
        options.responder = [this](size_t index, const WireFrame& frame) {
            if (frame.type != kHeaders) return std::string();
            if (frame.streamId == 1) {
                return headers(1, hpackIndexed(8)) + data(1, "ok", kEndStream);
            }
            m_server.close(index);
            return std::string();
        };
        return options;
    }

    NullCout m_quiet;
    ScriptedServer m_server{options()};
};

INSTANTIATE_TEST_SUITE_P(Transport, Loading, testing::Bool(),
                         [](const auto& info) { return info.param ? "Tls" : "Plain"; });

TEST_P(Loading, LeavesNothingBehindButTheContext) {
    for (int i = 0; i < 5 && !HasFatalFailure(); ++i) round();  // what is set up once is set up now
    const size_t threadsBefore = threadsOfThisProcess();
    [[maybe_unused]] const size_t memoryBefore = residentKiB();
    const size_t descriptorsBefore = openDescriptors();
    for (int i = 0; i < kRounds && !HasFatalFailure(); ++i) round();

    EXPECT_EQ(threadsOfThisProcess(), threadsBefore);
    EXPECT_EQ(mappings("libHttp2Client"), 0U);
    EXPECT_EQ(mappings("loading_plugin"), 0U);
    EXPECT_TRUE(waitFor([&] { return openDescriptors() == descriptorsBefore; }));
#ifdef NDEBUG  // a sanitizer's own memory grows
    EXPECT_LT(residentKiB(), memoryBefore + (GetParam() ? kTlsKiB : kPlainKiB) * kRounds);
#endif
}

}  // namespace
}  // namespace h2test
