// What --json prints.
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "tool_support.h"
#include "tools/json.h"

namespace h2test {
namespace {

using Json = nlohmann::ordered_json;

// The objects, one from each line.
std::vector<Json> objectsOf(const Ended& ended) {
    std::vector<Json> objects;
    for (const std::string& line : linesOf(ended.output)) objects.push_back(Json::parse(line));
    return objects;
}

// Takes out the timing, whose figures differ each time.
Json takeTiming(Json& object) {
    Json timing = object.at("timing");
    object["timing"] = "taken";
    return timing;
}

void expectFigures(const Json& timing) {
    EXPECT_GE(timing.at("first_byte_ms"), 0.0);
    EXPECT_GE(timing.at("total_ms"), timing.at("first_byte_ms"));
    EXPECT_TRUE(timing.at("bytes_per_second").is_number_unsigned());
}

class H2requestJson : public testing::TestWithParam<bool> {
protected:
    static std::vector<std::string> with(std::vector<std::string> options) {
        options.emplace_back("--json");
        if (GetParam()) options.emplace_back("--blocking");
        return options;
    }
};

INSTANTIATE_TEST_SUITE_P(Way, H2requestJson, testing::Bool(),
                         [](const auto& info) { return info.param ? "Blocking" : "Streaming"; });

TEST_P(H2requestJson, IsOneObjectALineForEachAnswer) {
    ScriptedServer server(answering([](uint32_t streamId, size_t nth) {
        return response(streamId, 200, "body " + std::to_string(nth) + "\n",
                        field("server", "\"s\"") + field("x-a", ""));
    }));
    const Ended ended = runTool(request(server, with({"--repeat", "2"})));
    EXPECT_EQ(ended.code, kAnswered);
    EXPECT_EQ(ended.errors, "");
    std::vector<Json> objects = objectsOf(ended);
    ASSERT_EQ(objects.size(), 2u);

    const Json first = takeTiming(objects[0]);
    EXPECT_EQ(objects[0].dump(),
              R"({"request":1,"status":200,"headers":{"server":"\"s\"","x-a":""},"body_size":7,)"
              R"("body":"body 1\n","timing":"taken","error":null})");
    ASSERT_EQ(first.size(), 5u);
    EXPECT_GE(first.at("connect_ms"), 0.0);
    EXPECT_TRUE(first.at("tls_ms").is_null());
    expectFigures(first);

    const Json second = takeTiming(objects[1]);
    EXPECT_EQ(objects[1].dump(),
              R"({"request":2,"status":200,"headers":{"server":"\"s\"","x-a":""},"body_size":7,)"
              R"("body":"body 2\n","timing":"taken","error":null})");
    EXPECT_TRUE(second.at("connect_ms").is_null());
    EXPECT_TRUE(second.at("tls_ms").is_null());
    expectFigures(second);
}

TEST_P(H2requestJson, TellsTheHandshakesTimeFromTheConnects) {
    ScriptedServer server(answeringWith(200, "secret", {}, true));
    std::vector<Json> objects = objectsOf(runTool(request(server, with({"--tls"}))));
    ASSERT_EQ(objects.size(), 1u);
    const Json timing = takeTiming(objects[0]);
    EXPECT_GE(timing.at("connect_ms"), 0.0);
    EXPECT_GT(timing.at("tls_ms"), 0.0);
    EXPECT_EQ(objects[0].at("body"), "secret");
}

TEST_P(H2requestJson, HasABinaryBodyInBase64) {
    ScriptedServer server(answeringWith(200, std::string("\0\xff\x80 a", 5)));
    const std::vector<Json> objects = objectsOf(runTool(request(server, with({}))));
    ASSERT_EQ(objects.size(), 1u);
    EXPECT_EQ(objects[0].at("body_base64"), "AP+AIGE=");
    EXPECT_EQ(objects[0].at("body_size"), 5);
    EXPECT_FALSE(objects[0].contains("body"));
}

TEST_P(H2requestJson, NamesTheFileThatHasTheBody) {
    const TempDir dir;
    const std::string file = dir.path() + "/body";
    ScriptedServer server(answeringWith(200, "in the file"));
    const std::vector<Json> objects = objectsOf(runTool(request(server, with({"-o", file}))));
    ASSERT_EQ(objects.size(), 1u);
    EXPECT_EQ(objects[0].at("body_file"), file);
    EXPECT_EQ(objects[0].at("body_size"), 11);
    EXPECT_FALSE(objects[0].contains("body"));
    std::ifstream in(file);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "in the file");
}

TEST_P(H2requestJson, TakesHeadersThatAreNotUtf8ForLatin1) {
    ScriptedServer server(answeringWith(200, "", field("x-a", "\xe4\x7f") + field("x-u", "ä")));
    const std::vector<Json> objects = objectsOf(runTool(request(server, with({}))));
    ASSERT_EQ(objects.size(), 1u);
    EXPECT_EQ(objects[0].at("headers").at("x-a"), "ä\x7f");
    EXPECT_EQ(objects[0].at("headers").at("x-u"), "ä");
}

TEST_P(H2requestJson, IsTheSameForAnErrorStatus) {
    ScriptedServer server(answeringWith(404, "none"));
    const Ended ended = runTool(request(server, with({})));
    expectComplaint(ended, kErrorStatus,
                    "answered with status 404; check PATH, -X and the headers\n");
    const std::vector<Json> objects = objectsOf(ended);
    ASSERT_EQ(objects.size(), 1u);
    EXPECT_EQ(objects[0].at("status"), 404);
    EXPECT_EQ(objects[0].at("body"), "none");
    EXPECT_TRUE(objects[0].at("error").is_null());
}

TEST_P(H2requestJson, KnowsAnswersWithoutABody) {
    ScriptedServer server(answering([](uint32_t streamId, size_t) {
        return headers(streamId, statusField(204), kEndHeaders | kEndStream);
    }));
    const Ended ended = runTool(request(server, with({})));
    EXPECT_EQ(ended.code, kAnswered);
    const std::vector<Json> objects = objectsOf(ended);
    ASSERT_EQ(objects.size(), 1u);
    EXPECT_EQ(objects[0].at("status"), 204);
    EXPECT_EQ(objects[0].at("body"), "");
}

// An error's object: what is printed on standard error, and the exit code.
void expectError(const Json& object, const Ended& ended, const char* kind) {
    EXPECT_EQ(object.at("error").at("kind"), kind);
    EXPECT_EQ(object.at("error").at("exit_code"), ended.code);
    EXPECT_EQ("h2request: " + object.at("error").at("message").get<std::string>() + "\n",
              withoutLog(ended.errors));
}

TEST_P(H2requestJson, TellsWhyThereIsNoConnection) {
    const RefusingPort port;
    const Ended ended = runTool(with({"127.0.0.1", std::to_string(port.port()), "/", "--tls"}));
    EXPECT_EQ(ended.code, kCannotConnect);
    std::vector<Json> objects = objectsOf(ended);
    ASSERT_EQ(objects.size(), 1u);
    expectError(objects[0], ended, "cannot connect");
    EXPECT_TRUE(objects[0].at("status").is_null());
    EXPECT_EQ(objects[0].at("headers"), Json::object());
    EXPECT_EQ(objects[0].at("body_size"), 0);
    // There was no handshake, and no request.
    const Json timing = takeTiming(objects[0]);
    EXPECT_GE(timing.at("connect_ms"), 0.0);
    for (const char* figure : {"tls_ms", "first_byte_ms", "total_ms", "bytes_per_second"}) {
        EXPECT_TRUE(timing.at(figure).is_null()) << figure;
    }
}

TEST_P(H2requestJson, IsPrintedWhenTheConnectHangs) {
    ScriptedServer server;  // accepts, and never answers the TLS handshake
    const Ended ended = runTool(request(server, with({"--tls", "--timeout", "300"})));
    EXPECT_EQ(ended.code, kTimedOut);
    std::vector<Json> objects = objectsOf(ended);
    ASSERT_EQ(objects.size(), 1u);
    expectError(objects[0], ended, "timed out");
    const Json timing = takeTiming(objects[0]);
    EXPECT_GE(timing.at("connect_and_tls_ms"), 300.0);
    EXPECT_FALSE(timing.contains("connect_ms"));
}

TEST(H2requestJson, HasWhatCameBeforeTheRequestFailed) {
    ScriptedServer server(answering([](uint32_t streamId, size_t) {
        return headers(streamId, statusField(200) + field("x-a", "1")) + data(streamId, "part") +
               rstStream(streamId, 2);
    }));
    const Ended ended = runTool(request(server, {"--json"}));
    EXPECT_EQ(ended.code, kRequestFailed);
    std::vector<Json> objects = objectsOf(ended);
    ASSERT_EQ(objects.size(), 1u);
    expectError(objects[0], ended, "request failed");
    EXPECT_EQ(objects[0].at("status"), 200);
    EXPECT_EQ(objects[0].at("headers"), Json({{"x-a", "1"}}));
    EXPECT_EQ(objects[0].at("body"), "part");
    EXPECT_EQ(objects[0].at("body_size"), 4);
    expectFigures(takeTiming(objects[0]));
}

TEST_P(H2requestJson, ComplainsOnceOfABrokenOutput) {
    ScriptedServer server(answeringWith(200, "body"));
    Streams streams;
    streams.outputFile = "/dev/full";
    const Ended ended = runTool(request(server, with({"--repeat", "2"})), {}, streams);
    expectComplaint(ended, kUsage, "cannot write the answer to standard output: No space left");
    EXPECT_EQ(linesOf(ended.errors).size(), 1u);
    EXPECT_EQ(server.frames(0, kHeaders).size(), 1u);
}

// RFC 4648, 10.
TEST(ToolJson, CodesBase64) {
    EXPECT_EQ(base64(""), "");
    EXPECT_EQ(base64("f"), "Zg==");
    EXPECT_EQ(base64("fo"), "Zm8=");
    EXPECT_EQ(base64("foo"), "Zm9v");
    EXPECT_EQ(base64("foob"), "Zm9vYg==");
    EXPECT_EQ(base64("fooba"), "Zm9vYmE=");
    EXPECT_EQ(base64("foobar"), "Zm9vYmFy");
    EXPECT_EQ(base64("\xfb\xff\xfe"), "+//+");
}

// The first and last of each length, and what lies just outside (RFC 3629, 3 and 4).
TEST(ToolJson, KnowsUtf8) {
    using namespace std::string_literals;
    for (const std::string& text : {""s, "\0\x7f"s, "\xc2\x80"s, "\xdf\xbf"s, "\xe0\xa0\x80"s,
                                    "\xed\x9f\xbf"s, "\xee\x80\x80"s, "\xef\xbf\xbf"s,
                                    "\xf0\x90\x80\x80"s, "\xf4\x8f\xbf\xbf"s, "a\xc3\xa4z"s}) {
        EXPECT_TRUE(isUtf8(text)) << toHex(text);
    }
    for (const std::string& text :
         {"\x80"s, "\xbf"s, "\xc0\x80"s, "\xc1\xbf"s, "\xc2"s, "\xc2\x7f"s, "\xc2\xc0"s,
          "\xe0\x9f\xbf"s, "\xe1\x80"s, "\xe1\x80\x7f"s, "\xed\xa0\x80"s, "\xf0\x8f\xbf\xbf"s,
          "\xf1\x80\x80"s, "\xf1\x80\x80\xc0"s, "\xf4\x90\x80\x80"s, "\xf5\x80\x80\x80"s, "\xff"s,
          "a\xe4z"s}) {
        EXPECT_FALSE(isUtf8(text)) << toHex(text);
    }
}

}  // namespace
}  // namespace h2test
