// The main function of a harness that no fuzzer drives: runs it once over each of the files named,
// and over all files below each directory named (but for git's place holders). Fails when there is
// none.
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz_support.h"

namespace {

void replay(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    h2fuzz::require(in.good(), "the input can be read");
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::fprintf(stderr, "%s: %zu bytes\n", file.c_str(), bytes.size());
    const h2fuzz::ExactBytes exact(bytes);
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(exact.data()), exact.size());
}

}  // namespace

int main(int argc, char** argv) {
    size_t count = 0;
    for (int i = 1; i < argc; ++i) {
        if (!std::filesystem::is_directory(argv[i])) {
            replay(argv[i]);
            ++count;
            continue;
        }
        std::vector<std::filesystem::path> files;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(argv[i])) {
            if (entry.is_regular_file() && entry.path().filename() != ".gitkeep") {
                files.push_back(entry.path());
            }
        }
        std::sort(files.begin(), files.end());
        for (const auto& file : files) replay(file);
        count += files.size();
    }
    std::fprintf(stderr, "replayed %zu inputs\n", count);
    return count == 0 ? 1 : 0;
}
