// The record's costs beside baselines run in the same program: AddCouple, lookups, ToString
// and FromString on (a) 16 short pairs, compared with std::unordered_map<std::string,
// std::string> built and searched the same way, and (b) one 1 MiB value, compared with
// memcpy of the same bytes. Targets: (b) ToString and FromString within 1.5x of memcpy;
// (a) FromString within 1.5x of building the map.
#include "associativearray.h"
#include "ratio_report.h"
#include "record_workload.h"

#include <cstring>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

using benchrecord::bigText;
using benchrecord::bigValue;
using benchrecord::cSmall;
using benchrecord::small;

// ---- (a) 16 short pairs ----

void AddCouple_16(benchmark::State& state) {
    cSmall const& s = small();
    for (auto _ : state) {
        CAssociativeArray record;
        for (size_t i = 0; i < s.keys.size(); ++i) record.AddCouple(s.keys[i].c_str(), s.values[i].c_str());
        benchmark::DoNotOptimize(record.entries());
    }
}

void MapBuild_16(benchmark::State& state) {
    cSmall const& s = small();
    for (auto _ : state) {
        std::unordered_map<std::string, std::string> map;
        for (size_t i = 0; i < s.keys.size(); ++i) map[s.keys[i]] = s.values[i];
        benchmark::DoNotOptimize(map.size());
    }
}

void Lookup_16(benchmark::State& state) {
    cSmall const& s = small();
    CAssociativeArray record;
    record.FromStringZ1(s.text);
    for (auto _ : state)
        for (std::string const& key : s.keys)
            benchmark::DoNotOptimize(record.GetValueOfParameter(key.c_str(), nullptr));
}

void MapLookup_16(benchmark::State& state) {
    cSmall const& s = small();
    std::unordered_map<std::string, std::string> map;
    for (size_t i = 0; i < s.keys.size(); ++i) map[s.keys[i]] = s.values[i];
    for (auto _ : state)
        for (std::string const& key : s.keys) {
            // Searched the same way: by a NUL-terminated key.
            auto const found = map.find(std::string_view(key.c_str()).data());
            benchmark::DoNotOptimize(found == map.end() ? nullptr : found->second.c_str());
        }
}

void ToString_16(benchmark::State& state) {
    CAssociativeArray record;
    record.FromStringZ1(small().text);
    for (auto _ : state) benchmark::DoNotOptimize(record.ToString(false, false));
}

void FromString_16(benchmark::State& state) {
    std::string const& text = small().text;
    for (auto _ : state) {
        CAssociativeArray record;
        record.FromString(text.data(), static_cast<int>(text.size()));
        benchmark::DoNotOptimize(record.entries());
    }
}

// ---- (b) one 1 MiB value ----

void Memcpy_1MiB(benchmark::State& state) {
    std::string const& text = bigText();
    std::vector<char> target(text.size());
    for (auto _ : state) {
        std::memcpy(target.data(), text.data(), text.size());
        benchmark::DoNotOptimize(target.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

void AddCouple_1MiB(benchmark::State& state) {
    std::string const& value = bigValue();
    CAssociativeArray record;
    for (auto _ : state) record.AddCouple("body", value.data(), static_cast<int>(value.size()));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * value.size()));
}

void ToString_1MiB(benchmark::State& state) {
    CAssociativeArray record;
    record.FromStringZ1(bigText());
    for (auto _ : state) {
        benchmark::DoNotOptimize(record.ToString(false, false));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bigText().size()));
}

void FromString_1MiB(benchmark::State& state) {
    std::string const& text = bigText();
    for (auto _ : state) {
        CAssociativeArray record;  // a new record per text, as a receiver reads each message
        record.FromString(text.data(), static_cast<int>(text.size()));
        benchmark::DoNotOptimize(record.entries());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

void Lookup_1MiB(benchmark::State& state) {
    CAssociativeArray record;
    record.FromStringZ1(bigText());
    for (auto _ : state) benchmark::DoNotOptimize(record.GetValueOfParameter("body"));
}

}  // namespace

BENCHMARK(AddCouple_16);
BENCHMARK(MapBuild_16);
BENCHMARK(Lookup_16);
BENCHMARK(MapLookup_16);
BENCHMARK(ToString_16);
BENCHMARK(FromString_16);
BENCHMARK(Memcpy_1MiB);
BENCHMARK(AddCouple_1MiB);
BENCHMARK(ToString_1MiB);
BENCHMARK(FromString_1MiB);
BENCHMARK(Lookup_1MiB);

int main(int argc, char** argv) {
    return benchratio::runWithRatios(argc, argv,
                                     {{"FromString_16", "MapBuild_16", "<= 1.5"},
                                      {"AddCouple_16", "MapBuild_16", "-"},
                                      {"Lookup_16", "MapLookup_16", "-"},
                                      {"ToString_1MiB", "Memcpy_1MiB", "<= 1.5"},
                                      {"FromString_1MiB", "Memcpy_1MiB", "<= 1.5"},
                                      {"AddCouple_1MiB", "Memcpy_1MiB", "-"}});
}
