// The figures in docs/limits.md that are about what one party can read of the other.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/wire/wire_support.h"

namespace h2test {
namespace {

using HeaderList = Callback::HeaderList;

// The headers that a client hears of a response with this block, but for ":status".
HeaderList heard(const std::string& block) {
    const RunningLibrary library;
    ServerOptions options;
    options.responder = [&](size_t, const WireFrame& frame) {
        return frame.type == kHeaders ? headers(frame.streamId, hpackIndexed(8) + block) +
                                            data(frame.streamId, "ok", kEndStream)
                                      : std::string();
    };
    ScriptedServer server(options);
    RecordingClient client;
    EXPECT_EQ(connectTo(client, server), 0);
    EXPECT_EQ(client.setUri("/", HTTP_GET), 0);
    EXPECT_EQ(client.startRequest(nullptr), 0);
    EXPECT_TRUE(client.waitEnd());
    EXPECT_EQ(client.status(), 200);
    HeaderList list;
    for (const Callback& callback : client.callbacks()) {
        list.insert(list.end(), callback.headerList.begin(), callback.headerList.end());
    }
    std::erase_if(list, [](const auto& header) { return header.first == ":status"; });
    return list;
}

// A block of a field whose value's length stands at byte `at` of the whole block, and one behind
// it.
std::string blockWith(size_t at, const std::string& value) {
    // Before it: ":status" (1 byte), then a field of 3 bytes and its value, then 3 of its own.
    const size_t filler = at - 7;
    return hpackLiteral("f", std::string(filler - 1, 'x')) + hpackLiteral("v", value) +
           hpackLiteral("z", "behind");
}

HeaderList whole(size_t at, const std::string& value) {
    return {{"f", std::string(at - 8, 'x')}, {"v", value}, {"z", "behind"}};
}

TEST(Limits, ResponseValueOf126BytesArrivesAnywhere) {
    for (const size_t at : {size_t{20}, size_t{126}}) {
        const std::string value(126, 'v');
        EXPECT_EQ(heard(blockWith(at, value)), whole(at, value)) << at;
    }
    // Far behind in the block, too.
    const std::string value(126, 'v');
    std::string block;
    HeaderList list;
    for (char name = 'a'; name < 'f'; ++name) {
        block += hpackLiteral(std::string(1, name), value);
        list.emplace_back(std::string(1, name), value);
    }
    EXPECT_EQ(heard(block), list);
}

TEST(Limits, ResponseValueOfUpTo254BytesArrivesWhenItsLengthStandsEarly) {
    for (const size_t size : {size_t{127}, size_t{254}}) {
        const std::string value(size, 'v');
        // The two bytes of the length end at byte 127, the last one of the first 128.
        EXPECT_EQ(heard(blockWith(126, value)), whole(126, value)) << size;
        EXPECT_NE(heard(blockWith(127, value)), whole(127, value)) << size;
    }
}

TEST(Limits, ResponseValueOf255BytesDoesNotArrive) {
    const std::string value(255, 'v');
    EXPECT_NE(heard(blockWith(20, value)), whole(20, value));
}

}  // namespace
}  // namespace h2test
