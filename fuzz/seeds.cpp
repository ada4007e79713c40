// Writes the seeds of every harness, a file each: fuzz_seeds DIRECTORY makes
// DIRECTORY/HARNESS/NAME. They are small and hold each construct once, so that a fuzzer has what to
// mix.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "tests/support/bytes.h"

namespace {

using namespace h2test;  // the vocabulary of wire bytes
using std::string;

std::filesystem::path directory;

void write(const string& harness, const string& name, const string& bytes) {
    const auto file = directory / harness / name;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream out(file, std::ios::binary);
    out << bytes;
    out.close();
    if (!out) {
        std::perror(file.c_str());
        std::exit(1);
    }
}

// Bytes with their count before them, as the harnesses read them.
string counted(const string& bytes) { return be8(static_cast<uint32_t>(bytes.size())) + bytes; }
string countedWord(const string& bytes) {
    return be16(static_cast<uint32_t>(bytes.size())) + bytes;
}

const string kResponse = hpackIndexed(8) + hpackLiteral(31, "text/plain", Literal::kIncremental) +
                         hpackLiteral("x-a", "b", Literal::kNeverIndexed) + hpackLiteral(28, "5");

void blocks() {
    const std::pair<const char*, string> all[] = {
        {"indexed", hpackIndexed(2) + hpackIndexed(61)},
        {"response", kResponse},
        {"dynamic", hpackLiteral("n", "v", Literal::kIncremental) + hpackIndexed(62) +
                        hpackLiteral(62, "w", Literal::kIncremental) + hpackIndexed(63)},
        {"size_updates", hex("3F E1 1F 20 3F 00") + hpackLiteral("n", "v", Literal::kIncremental)},
        {"endless_integer", hex("FF FF FF FF FF FF FF FF FF FF")},
        {"overflow", hex("7F FF FF FF FF 0F 00 00")},
        {"beyond_block", hex("40 7E 61 62")},
        {"huffman", hex("40 82 94 E7 03 62 61 72")},
        {"empty_huffman", hex("40 80 80")},
        {"empty_names", hex("40 00 00 40 00 00 00 00 00")},
        {"long", hpackLiteral("n", string(200, 'v')) + hpackIndexed(4)},
        {"cut", hex("40")},
        {"index_zero", hex("80")},
    };
    for (const auto& [name, block] : all) {
        write("hpack_decode", name, counted(block));
        write("hpack_decode", string(name) + "_twice", counted(block) + counted(block));
        write("standard_hpack", name, counted(block));
        write("standard_hpack", string(name) + "_resized",
              counted(block) + hex("00 0000 00 0100") + counted(hex("20 3F E1 01") + block));
        write("frame_ctx", string("block_") + name, counted("") + headers(1, block));
    }
    write("hpack_roundtrip", "names",
          hex("04 01 01 61 01 62  08 02 01 63  10 03 00  00 00 04") + "/abc" + hex("20 04 01 64"));
    write("hpack_roundtrip", "flags", hex("07 01 03 616263 02 6465  03 00 01 66"));
    write("hpack_roundtrip", "long",
          hex("04 02 7F") + string(127, 'n') + hex("FF") + string(255, 'v'));
}

struct Exchange {
    const char* name;
    string bytes;
};

std::vector<Exchange> exchanges() {
    const string open = settings({{3, 100}, {4, 65535}}) + settingsAck();
    return {
        {"get", open + headers(1, kResponse) + data(1, "hello", kEndStream)},
        {"two_chunks", open + headers(1, kResponse) + data(1, "he") + data(1, "llo", kEndStream)},
        {"padded", headers(1, kResponse) + dataPadded(1, "hello", 3, kEndStream)},
        {"too_much_padding", frame(kData, kPadded, 1, hex("FF 61 62"))},
        {"priority_block",
         frame(kHeaders, kEndHeaders | kPriorityFlag, 1, hex("80 00 00 00 10") + kResponse)},
        {"short_priority", frame(kHeaders, kPriorityFlag, 1, hex("80 00"))},
        {"trailers", headers(1, kResponse) + data(1, "x") + headers(1, hpackLiteral("t", "1"), 5)},
        {"continuation", headers(1, kResponse, 0) + continuation(1, hpackLiteral("c", "d"))},
        {"ping", ping(0x0102030405060708) + ping(1, kAck)},
        {"window", windowUpdate(0, 1) + windowUpdate(1, 0x7FFFFFFF)},
        {"reset", headers(1, kResponse) + rstStream(1, 8)},
        {"goaway", headers(1, kResponse) + goaway(1, 0, "bye") + data(1, "late")},
        {"goaway_own_stream", frame(kGoaway, 0, 1, be32(0) + be32(2))},
        {"push", frame(kPushPromise, kEndHeaders, 1, be32(2) + hpackIndexed(2)) + ping(7)},
        {"short_push", frame(kPushPromise, 0, 1, hex("00 00"))},
        {"priority", frame(kPriority, 0, 3, be32(1) + be8(15))},
        {"unknown", frame(0x0A, 0, 0, "abc") + ping(1)},
        {"short_frames", frame(kPing, 0, 0, "abc") + frame(kGoaway, 0, 0, "abcd") +
                             frame(kWindowUpdate, 0, 0, "ab") + frame(kRstStream, 0, 1, "a")},
        {"odd_settings", frame(kSettings, 0, 0, "abcde") + frame(kSettings, kAck, 0, "abcdef")},
        {"unknown_streams", data(7, "x") + headers(2, kResponse) + data(0x7FFFFFFF, "y")},
        {"empty_data", data(1, "") + data(1, "", kEndStream)},
        {"half", frameWithLength(100, kData, 0, 1, "abc")},
        {"credit", headers(1, kResponse) + data(1, string(40000, 'c')) + data(1, "", kEndStream)},
    };
}

void streams() {
    for (const auto& [name, bytes] : exchanges()) {
        write("frame_ctx", string(name) + "_whole", counted("") + bytes);
        write("frame_ctx", string(name) + "_bytewise", counted(string(200, '\x81')) + bytes);
        write("frame_ctx", string(name) + "_nines", counted(string(100, '\x09')) + bytes);

        // A request with a header; the preface, the SETTINGS and the HEADERS; then the answer.
        const string get = hex("00 05") + counted("/") + hex("01 04") + "host" + hex("01 61 00");
        write("engine", string("get_") + name,
              get + hex("07 03") + counted(bytes.substr(0, 255)) + hex("07 06"));
        const string post = hex("00 86") + counted("/p") + hex("00 02 0005 4000");
        write("engine", string("post_") + name,
              post + get + hex("07 07") + hex("03") + counted(bytes.substr(0, 255)) + hex("07"));

        // Three requests, one with content, whose HEADERS are sent; the server's bytes; output.
        const string start = hex("00 00  04 04 05 08 4000 09 FFFF") + hex("00") +
                             counted(settings({{4, 65535}}) + settingsAck());
        string answer;
        for (size_t at = 0; at < bytes.size() && at < 2000; at += 200) {
            answer += hex("00") + counted(bytes.substr(at, 200));
        }
        write("standard_session", name, start + answer + hex("09 FFFF"));
        write("standard_session", string(name) + "_bounds",
              hex("7F 1F") + start.substr(2) + answer + hex("0A 7000 06 01 07 03 08 03 0B"));

        write("client", string("get_") + name,
              hex("02 2F61 01 07") + countedWord(bytes) + hex("01"));
        write("client", string("post_") + name,
              hex("22 2F61 0100 01 00 10 06") + counted(bytes.substr(0, 200)) +
                  hex("01 03 01 2F 01"));
        write("client", string("bytewise_") + name, hex("02 2F61 FD") + bytes);
    }
    write("engine", "block_body", hex("00 46") + counted("/b") + hex("00 9C40 07 07 07"));
    write("engine", "withdrawn", hex("00 05 01 2F 00 01 00 07 00 05 01 2F 00 02 00 07"));
    write("engine", "frames", hex("00 05 01 2F 00 07 04 01 04 01 01 88 05 00 01 01 02 6162 07"));
    write("engine", "big_headers",
          hex("00 25 01 2F 03 01 61 1F") + string(31, 'v') + hex("00 01 62 1F") + string(31, 'w') +
              hex("00 01 63 01 78 00 07 07"));
    write("client", "cancelled", hex("02 2F61 02 03 02 2F62 01"));
}

void payloads() {
    for (uint32_t type = 0; type <= 9; ++type) {
        for (const uint32_t flags : {0x00u, 0x01u, 0x08u, 0x2Cu}) {
            const string head =
                hex("00 01020304") + be8(type) + be8(flags) + be32(1) + hex("00 01");
            const string name = std::to_string(type) + "_" + std::to_string(flags);
            write("frame_payload", name + "_empty", head);
            write("frame_payload", name + "_eight", head + hex("80 00 00 01 00 00 00 08"));
            write("frame_payload", name + "_block", head + hex("02 00000003 0F") + kResponse);
        }
    }
    write("frame_payload", "settings",
          hex("00 00000000 04 00 00000000 00 01") +
              settings({{1, 0}, {2, 0}, {3, 1}, {4, 0xFFFFFFFF}, {5, 16384}, {6, 1}, {7, 7}})
                  .substr(9));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: fuzz_seeds DIRECTORY\n");
        return 2;
    }
    directory = argv[1];
    blocks();
    streams();
    payloads();
    return 0;
}
