// What --json prints.
#include <tuple>
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

class H2requestJson : public BothWays {
protected:
    static std::vector<std::string> with(std::vector<std::string> options = {}) {
        options.emplace_back("--json");
        return BothWays::with(options);
    }
};
H2TEST_BOTH_WAYS(H2requestJson);

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
    ASSERT_EQ(first.size(), 4u);
    EXPECT_GE(first.at("connect_ms"), 0.0);
    expectFigures(first);

    const Json second = takeTiming(objects[1]);
    EXPECT_EQ(objects[1].dump(),
              R"({"request":2,"status":200,"headers":{"server":"\"s\"","x-a":""},"body_size":7,)"
              R"("body":"body 2\n","timing":"taken","error":null})");
    EXPECT_TRUE(second.at("connect_ms").is_null());
    expectFigures(second);
}

TEST_P(H2requestJson, HasTheBodyAsTextOrInBase64OrNamesItsFile) {
    const TempDir dir;
    const std::string file = dir.path() + "/body";
    const std::vector<std::tuple<std::string, std::vector<std::string>, Json>> bodies = {
        {"\x1btext", {"-o", "-"}, {{"body", "\x1btext"}}},
        {{"\0\xff\x80 a", 5}, {}, {{"body_base64", "AP+AIGE="}}},
        {"in the file", {"-o", file}, {{"body_file", file}}},
    };
    for (const auto& [body, options, members] : bodies) {
        ScriptedServer server(answeringWith(200, body, {}, true));
        std::vector<std::string> all = with({"--tls", "-k"});
        all.insert(all.end(), options.begin(), options.end());
        std::vector<Json> objects = objectsOf(runTool(request(server, all)));
        ASSERT_EQ(objects.size(), 1u);
        EXPECT_GT(takeTiming(objects[0]).at("connect_ms"), 0.0);
        Json expected = {{"request", 1}, {"status", 200}, {"headers", Json::object()}};
        expected["body_size"] = body.size();
        expected.update(members);
        expected.update(Json{{"timing", "taken"}, {"error", nullptr}});
        EXPECT_EQ(objects[0].dump(), expected.dump());
    }
    EXPECT_EQ(contentOf(file), "in the file");
}

TEST_P(H2requestJson, TakesHeadersThatAreNotUtf8ForLatin1) {
    ScriptedServer server(answeringWith(200, "", field("x-a", "\xe4\x7f") + field("x-u", "ä")));
    const std::vector<Json> objects = objectsOf(runTool(request(server, with())));
    ASSERT_EQ(objects.size(), 1u);
    EXPECT_EQ(objects[0].at("headers"), Json({{"x-a", "ä\x7f"}, {"x-u", "ä"}}));
}

TEST_P(H2requestJson, IsTheSameForAnErrorStatus) {
    ScriptedServer server(answeringWith(404, "none"));
    const Ended ended = runTool(request(server, with()));
    expectComplaint(ended, kErrorStatus,
                    "answered with status 404; check PATH, -X and the headers\n");
    const std::vector<Json> objects = objectsOf(ended);
    ASSERT_EQ(objects.size(), 1u);
    EXPECT_EQ(objects[0].at("status"), 404);
    EXPECT_EQ(objects[0].at("body"), "none");
    EXPECT_TRUE(objects[0].at("error").is_null());
}

// An error's object: what is printed on standard error, and the exit code.
void expectError(const Json& object, const Ended& ended, const char* kind) {
    EXPECT_EQ(object.at("error").at("kind"), kind);
    EXPECT_EQ(object.at("error").at("exit_code"), ended.code);
    EXPECT_EQ("h2request: " + object.at("error").at("message").get<std::string>() + "\n",
              ended.errors);
}

TEST_P(H2requestJson, TellsWhyThereIsNoConnection) {
    const RefusingPort port;
    const Ended ended =
        runTool(with({"127.0.0.1", std::to_string(port.port()), "/", "--tls", "-k"}));
    EXPECT_EQ(ended.code, kCannotConnect);
    std::vector<Json> objects = objectsOf(ended);
    ASSERT_EQ(objects.size(), 1u);
    expectError(objects[0], ended, "cannot connect");
    EXPECT_TRUE(objects[0].at("status").is_null());
    EXPECT_EQ(objects[0].at("headers"), Json::object());
    EXPECT_EQ(objects[0].at("body_size"), 0);
    // There was no request.
    const Json timing = takeTiming(objects[0]);
    EXPECT_GE(timing.at("connect_ms"), 0.0);
    for (const char* figure : {"first_byte_ms", "total_ms", "bytes_per_second"}) {
        EXPECT_TRUE(timing.at(figure).is_null()) << figure;
    }
}

TEST_P(H2requestJson, IsPrintedWhenTheConnectHangs) {
    ScriptedServer server;  // accepts, and never answers the TLS handshake
    const Ended ended = runTool(request(server, with({"--tls", "-k", "--timeout", "300"})));
    EXPECT_EQ(ended.code, kTimedOut);
    std::vector<Json> objects = objectsOf(ended);
    ASSERT_EQ(objects.size(), 1u);
    expectError(objects[0], ended, "timed out");
    EXPECT_GE(takeTiming(objects[0]).at("connect_ms"), 300.0);
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

TEST_P(H2requestJson, KeepsBodiesUpToALimit) {
    const TempDir dir;
    ScriptedServer server(answeringWith(200, std::string(5, 'x')));
    EXPECT_EQ(runTool(request(server, with({"--max-body", "5"}))).code, kAnswered);
    EXPECT_EQ(runTool(request(server, with({"--max-body", "4", "-o", dir.path() + "/f"}))).code,
              kAnswered);
    const Ended ended = runTool(request(server, with({"--max-body", "4", "--repeat", "2"})));
    const std::vector<Json> objects = objectsOf(ended);
    ASSERT_EQ(objects.size(), 1u);
    expectError(objects[0], ended, "request failed");
    expectComplaint(ended, kRequestFailed,
                    "the body is over the 4 bytes that --json keeps; write it with -o FILE, or "
                    "allow more with --max-body");
    EXPECT_EQ(objects[0].at("body"), "");
}

TEST(H2requestJson, KeepsSixteenMebibytesUnlessToldOtherwise) {
    constexpr size_t kLimit = size_t{16} * 1024 * 1024;
    ScriptedServer server(answering([](uint32_t streamId, size_t nth) {
        return response(streamId, 200, std::string(nth == 1 ? kLimit : kLimit + 1, 'x'));
    }));
    const Ended ended = runTool(request(server, {"--json", "--repeat", "2"}));
    expectComplaint(ended, kRequestFailed, "over the 16777216 bytes");
    EXPECT_EQ(objectsOf(ended)[0].at("body").get<std::string>().size(), kLimit);
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

}  // namespace
}  // namespace h2test
