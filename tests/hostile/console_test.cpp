// How much a server can have written to standard output.
#include <algorithm>
#include <string>
#include <vector>

#include "hostile_support.h"
#include "tests/support/capture.h"

namespace h2test {
namespace {

// One half of the block is a field's text, the other half references to it: each is a line with the
// whole text, so the lines grow with the square of the block.
TEST(HostileConsole, FieldIsWrittenOnceForEachReference) {
    constexpr size_t kReferences = 4096;
    const std::string value(4094, 'v');
    const std::string block = hex("40 01 6E")    // incremental indexing, new name "n"
                              + hex("7F FF 1F")  // 127 - 1 + 31 * 128 bytes
                              + value + std::string(kReferences, '\xBE');
    ASSERT_EQ(block.size(), 8196U);
    CoutCapture console;
    {
        const LibraryThread library;
        ScriptedServer server;
        RecordingClient client;
        startGet(client, server);
        server.send(0, headers(1, block) + okResponse(1));
        ASSERT_TRUE(client.waitEnd());
    }
    const std::vector<std::string> lines = console.lines();
    const std::string line = "n    " + value;
    const auto written = static_cast<size_t>(std::count(lines.begin(), lines.end(), line));
    EXPECT_EQ(written, 1 + kReferences);
    EXPECT_EQ(written * (line.size() + 1), 16'797'700U);  // bytes, line ends included
}

}  // namespace
}  // namespace h2test
