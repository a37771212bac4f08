// Replays fuzz inputs without libFuzzer: every file named on the command line, or found in a
// directory named there, is passed once to LLVMFuzzerTestOneInput. A crash or sanitizer
// report fails the run; otherwise it prints how many inputs it replayed.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size);

namespace {

bool replayFile(std::filesystem::path const& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // A copy of exactly the file's size, so that reading past the input is caught by ASan.
    std::vector<uint8_t> input(bytes.begin(), bytes.end());
    LLVMFuzzerTestOneInput(input.empty() ? nullptr : input.data(), input.size());
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    size_t replayed = 0;
    for (int i = 1; i < argc; ++i) {
        std::filesystem::path const path(argv[i]);
        if (std::filesystem::is_directory(path)) {
            for (auto const& entry : std::filesystem::recursive_directory_iterator(path))
                if (entry.is_regular_file() && replayFile(entry.path())) ++replayed;
        } else if (replayFile(path)) {
            ++replayed;
        } else {
            std::fprintf(stderr, "cannot read %s\n", argv[i]);
            return 1;
        }
    }
    if (replayed == 0) {
        std::fprintf(stderr, "no inputs to replay\n");
        return 1;
    }
    std::printf("replayed %zu inputs\n", replayed);
    return 0;
}
