// Converting text forms from code page 1252 to 65001 with gConvertX1_patch, beside iconv
// called directly on the same bytes in the same program: (a) a record of 16 short pairs,
// (b) a record with one 1 MiB value. Target: (b) within 1.5x of iconv.
#include "associativearray.h"
#include "ratio_report.h"

#include <iconv.h>
#include <string>
#include <vector>

namespace {

std::string const& smallText() {
    static std::string const text = [] {
        CAssociativeArray record;
        for (int i = 0; i < 16; ++i)
            record.AddCouple(("key" + std::to_string(i)).c_str(), ("caf\xe9 n\xb0" + std::to_string(i)).c_str());
        return record.ToStringRef(false, false).stdString();
    }();
    return text;
}

std::string const& bigText() {
    static std::string const text = [] {
        std::string value;
        while (value.size() < (1u << 20))
            value +=
                "Gr\xfc\xdf"
                "e aus K\xf6ln, caf\xe9 cr\xe8me \x80 10. ";
        value.resize(1u << 20);
        CAssociativeArray record;
        record.AddCouple("body", value.data(), static_cast<int>(value.size()));
        return record.ToStringRef(false, false).stdString();
    }();
    return text;
}

void convertWithLibrary(benchmark::State& state, std::string const& text) {
    RWCString out;
    for (auto _ : state) {
        gConvertX1_patch(1252, 65001, text.data(), static_cast<int>(text.size()), out);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

void convertWithIconv(benchmark::State& state, std::string const& text) {
    iconv_t const cd = iconv_open("UTF-8", "CP1252");
    std::vector<char> target(text.size() * 3 + 16);
    for (auto _ : state) {
        iconv(cd, nullptr, nullptr, nullptr, nullptr);
        auto* in = const_cast<char*>(text.data());
        size_t inLeft = text.size();
        char* out = target.data();
        size_t outLeft = target.size();
        iconv(cd, &in, &inLeft, &out, &outLeft);
        benchmark::DoNotOptimize(out);
        benchmark::ClobberMemory();
    }
    iconv_close(cd);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

void Convert_16(benchmark::State& state) { convertWithLibrary(state, smallText()); }
void Iconv_16(benchmark::State& state) { convertWithIconv(state, smallText()); }
void Convert_1MiB(benchmark::State& state) { convertWithLibrary(state, bigText()); }
void Iconv_1MiB(benchmark::State& state) { convertWithIconv(state, bigText()); }

}  // namespace

BENCHMARK(Iconv_16);
BENCHMARK(Convert_16);
BENCHMARK(Iconv_1MiB);
BENCHMARK(Convert_1MiB);

int main(int argc, char** argv) {
    return benchratio::runWithRatios(argc, argv,
                                     {{"Convert_16", "Iconv_16", "-"}, {"Convert_1MiB", "Iconv_1MiB", "<= 1.5"}});
}
