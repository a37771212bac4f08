// Arbitrary texts, cut at NUL bytes, as a sender and up to four pairs: the hub dump must read back as
// those pairs plus "$FROM" (a repeated key's last value wins), and the sender as an address must keep
// its text and split into parts free of "@" that join again.
#include "associativearray.h"
#include "send2hub.h"
#include "zepnames.h"

#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    std::vector<std::string> p(1);
    for (size_t i = 0; i < size; ++i) data[i] ? void(p.back() += char(data[i])) : void(p.emplace_back());
    CColloquyAddress const split(p[0].c_str()), joined(split.namePart.c_str(), split.hostPart.c_str());
    if (split.fullAddress != p[0] || (split.namePart + split.hostPart).find('@') != std::string::npos ||
        joined.fullAddress != split.namePart + "@" + split.hostPart)
        std::abort();

    size_t const pairs = std::min<size_t>((p.size() - 1) / 2, 4);
    std::map<std::string, std::string> expected{{"$FROM", p[0]}};
    for (size_t i = 0; i < pairs; ++i) expected[p[1 + 2 * i]] = p[2 + 2 * i];
    auto s = [&](size_t i) { return i < 1 + 2 * pairs ? p[i].c_str() : nullptr; };  // a null key ends the list
    char* const text = DumpHubArray(s(0), s(1), s(2), s(3), s(4), s(5), s(6), s(7), s(8), (char const*)nullptr);
    CAssociativeArray record(8);
    record.FromStringZTS(text);
    FreeHubDumpArray(text);
    if (record.entries() != expected.size()) std::abort();
    for (auto const& [key, value] : expected) {
        char const* bytes = nullptr;
        int length = 0;
        record.GetValueOfParameter(key.c_str(), bytes, length);
        if (std::string(bytes, static_cast<size_t>(length)) != value) std::abort();
    }
    return 0;
}
