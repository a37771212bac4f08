// Record write and read beside the established serialisation libraries found at build time
// (nlohmann::json, RapidJSON, msgpack-c), on the same string-to-string pairs: 16 short
// pairs and one 1 MiB value (bench/record_workload.h), with memcpy of the record's text form
// as the floor of the large value. Benchmarks are named <Operation><Size>/<library>; the
// libraries' versions are in the context of the output. Targets: Write16/ours and
// Read16/ours faster than each other library; Write1MiB/ours and Read1MiB/ours within 1.5x
// of memcpy.
#include "ratio_report.h"
#include "record_codecs.h"

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

namespace {

using namespace benchpeers;

struct cSize {
    char const* name;
    tPairs const& (*pairs)();
    bool floor;  // compared with memcpy rather than with the other libraries
};

template <class Codec>
void Write(benchmark::State& state, tPairs const& (*pairs)()) {
    Codec codec(pairs());
    size_t const bytes = codec.text().size();
    for (auto _ : state) benchmark::DoNotOptimize(codec.write());
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}

template <class Codec>
void Read(benchmark::State& state, tPairs const& (*pairs)()) {
    Codec codec(pairs());
    std::string const text = codec.text();
    for (auto _ : state) benchmark::DoNotOptimize(codec.read(text));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

// Registers every operation on every size for every codec, and lists the ratios to print.
std::vector<benchratio::cComparison> registerAll() {
    std::vector<benchratio::cComparison> comparisons;
    for (cSize const size : {cSize{"16", smallPairs, false}, cSize{"1MiB", bigPairs, true}})
        for (std::string const operation : {"Write", "Read"}) {
            std::string const workload = operation + size.name + "/";
            forEachCodec(size.floor, [&](auto tag) {
                using Codec = typename decltype(tag)::type;
                std::string const name = workload + Codec::kName;
                auto* const run = operation == "Write" ? &Write<Codec> : &Read<Codec>;
                benchmark::RegisterBenchmark(name.c_str(), run, size.pairs);
                if (name == workload + cOurs::kName) return;
                bool const floor = std::string(Codec::kName) == cMemcpy::kName;
                if (size.floor == floor)
                    comparisons.push_back({workload + cOurs::kName, name, floor ? "<= 1.5" : "< 1"});
            });
        }
    forEachCodec(true, [](auto tag) {
        using Codec = typename decltype(tag)::type;
        benchmark::AddCustomContext(std::string("version ") + Codec::kName, Codec::version());
    });
    return comparisons;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<benchratio::cComparison> const comparisons = registerAll();
    return benchratio::runWithRatios(argc, argv, comparisons);
}
