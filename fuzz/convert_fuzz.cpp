// Arbitrary bytes through the old and the current converter (the first byte picks the code
// pages), and whatever they make through the reader, which must take it or refuse it cleanly.
#include "Log.h"
#include "associativearray.h"

#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    nLog::gEnable("Error", false);  // malformed inputs log at every level
    static constexpr unsigned kPairs[][2] = {{1252, 65001},  {65001, 1252},  {932, 65001},
                                             {65001, 20127}, {20866, 28605}, {1252, 4242}};
    if (size == 0) return 0;
    unsigned const* const pages = kPairs[data[0] % (sizeof kPairs / sizeof kPairs[0])];
    std::string const text(reinterpret_cast<char const*>(data) + 1, size - 1);
    for (int mode : {1, 2}) {
        RWCString out;
        gConvert_patch(mode, pages[0], pages[1], text.c_str(), static_cast<int>(text.size()), out);
        CAssociativeArray record;
        try {
            record.FromString(out.data(), static_cast<int>(out.length()));
        } catch (CIllegalAssoSyntaxException const&) {
        }
    }
    return 0;
}
