// Replays fuzz inputs without libFuzzer: each file named, or found below a directory named, goes once
// to LLVMFuzzerTestOneInput. A crash, an unreadable file or no input at all fails the run.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size);

int main(int argc, char** argv) {
    size_t replayed = 0;
    auto const replay = [&replayed](std::filesystem::path const& path) {
        std::ifstream in(path, std::ios::binary);
        if (!in) std::fprintf(stderr, "cannot read %s\n", path.c_str()), std::exit(1);
        // Exactly the file's size, so that AddressSanitizer catches a read past the input.
        std::vector<uint8_t> const input((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        LLVMFuzzerTestOneInput(input.empty() ? nullptr : input.data(), input.size());
        ++replayed;
    };
    for (int i = 1; i < argc; ++i) {
        if (!std::filesystem::is_directory(argv[i])) replay(argv[i]);
        if (std::filesystem::is_directory(argv[i]))
            for (auto const& entry : std::filesystem::recursive_directory_iterator(argv[i]))
                if (entry.is_regular_file()) replay(entry.path());
    }
    std::printf("replayed %zu inputs\n", replayed);
    return replayed == 0;
}
