// Feeds arbitrary bytes to the converters: FromStringConvert (with the switch set to the
// current converter by a settings file written before the first input), gConvertOld_patch
// and gConvertX1_patch. The first byte chooses the pair of code pages.
#include "Log.h"
#include "associativearray.h"

#include <unistd.h>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

namespace {

// Writes "vantage.ini" selecting mode 2 into a scratch directory named by QR_BIN, removed at exit.
struct Settings {
    std::string directory;
    Settings() {
        char pattern[] = "/tmp/convert_fuzz_XXXXXX";
        if (!mkdtemp(pattern)) std::abort();
        directory = pattern;
        std::ofstream(directory + "/vantage.ini") << "ColloquyAnsiConversion_patch=2\n";
        setenv("QR_BIN", directory.c_str(), 1);
    }
    ~Settings() {
        std::remove((directory + "/vantage.ini").c_str());
        rmdir(directory.c_str());
    }
} const gSettings;

constexpr unsigned kPairs[][2] = {{1252, 65001},  {65001, 1252},  {932, 65001},
                                  {65001, 20127}, {20866, 28605}, {1252, 4242}};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    nLog::gEnable("Error", false);  // malformed inputs log at every level: keep the run quiet
    if (size == 0) return 0;
    unsigned const* const pair = kPairs[data[0] % (sizeof kPairs / sizeof kPairs[0])];
    std::string const text(reinterpret_cast<char const*>(data) + 1, size - 1);
    CAssociativeArray record;
    try {
        record.FromStringConvert(pair[0], pair[1], text.data(), static_cast<int>(text.size()));
    } catch (CIllegalAssoSyntaxException const&) {
    }
    RWCString out;
    gConvertOld_patch(pair[0], pair[1], text.c_str(), out);
    gConvertX1_patch(pair[0], pair[1], text.data(), static_cast<int>(text.size()), out);
    return 0;
}
