// Runs one record operation of one codec a given number of times, for callgrind to count the
// instructions it takes (a figure free of the machine's noise):
//   valgrind --tool=callgrind --collect-atstart=no record_instructions Write16 ours 1000
// Only the loop is collected (the codec's set-up and one warm-up call are not). Without an
// argument it lists the "<operation><size> <library>" pairs this build has.
#include "record_codecs.h"

#include <valgrind/callgrind.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

using namespace benchpeers;

tPairs const& pairsOf(std::string const& size) { return size == "16" ? smallPairs() : bigPairs(); }

template <class Codec>
size_t measure(std::string const& operation, std::string const& size, long iterations) {
    Codec codec(pairsOf(size));
    std::string const text = codec.text();
    bool const write = operation == "Write";
    size_t sum = write ? codec.write() : codec.read(text);
    CALLGRIND_TOGGLE_COLLECT;
    for (long i = 0; i < iterations; ++i) sum += write ? codec.write() : codec.read(text);
    CALLGRIND_TOGGLE_COLLECT;
    return sum;
}

}  // namespace

int main(int argc, char** argv) {
    bool found = false;
    for (std::string const size : {"16", "1MiB"})
        for (std::string const operation : {"Write", "Read"})
            forEachCodec(size == "1MiB", [&](auto tag) {
                using Codec = typename decltype(tag)::type;
                if (argc < 4) {
                    std::printf("%s%s %s\n", operation.c_str(), size.c_str(), Codec::kName);
                    return;
                }
                if (argv[1] != operation + size || argv[2] != std::string(Codec::kName)) return;
                found = true;
                size_t const sum = measure<Codec>(operation, size, std::atol(argv[3]));
                std::printf("%s %s: %zu\n", argv[1], argv[2], sum);
            });
    if (argc >= 4 && !found) {
        std::fprintf(stderr, "record_instructions: no %s %s in this build\n", argv[1], argv[2]);
        return 1;
    }
    return 0;
}
