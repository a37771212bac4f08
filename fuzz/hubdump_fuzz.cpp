// Arbitrary texts through the hub dump and the address: the input is cut at NUL bytes into a
// sender and up to four key/value pairs. The dump must read back through the associative
// array's reader as exactly those pairs plus "$FROM" (the last value of a repeated key wins);
// the sender, read as an address, must split into parts free of "@" and keep its whole text.
#include "associativearray.h"
#include "send2hub.h"
#include "zepnames.h"

#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

namespace {

constexpr size_t kMaxPairs = 4;

char* dump(std::vector<std::string> const& p, size_t pairs) {
    auto s = [&](size_t i) { return i < 1 + 2 * pairs ? p[i].c_str() : nullptr; };  // ended by a null key
    return DumpHubArray(s(0), s(1), s(2), s(3), s(4), s(5), s(6), s(7), s(8), static_cast<char const*>(nullptr));
}

void checkDump(std::vector<std::string> const& pieces) {
    size_t const pairs = std::min((pieces.size() - 1) / 2, kMaxPairs);
    std::map<std::string, std::string> expected{{"$FROM", pieces[0]}};
    for (size_t i = 0; i < pairs; ++i) expected[pieces[1 + 2 * i]] = pieces[2 + 2 * i];

    char* const text = dump(pieces, pairs);
    if (text == nullptr) std::abort();
    CAssociativeArray record(8);
    record.FromStringZTS(text);  // must not throw
    FreeHubDumpArray(text);
    if (record.entries() != expected.size()) std::abort();
    for (auto const& [key, value] : expected) {
        char const* data = nullptr;
        int length = 0;
        record.GetValueOfParameter(key.c_str(), data, length);
        if (std::string(data, static_cast<size_t>(length)) != value) std::abort();
    }
}

void checkAddress(std::string const& text) {
    CColloquyAddress const split(text.c_str());
    if (split.fullAddress != text) std::abort();
    if (split.namePart.find('@') != std::string::npos || split.hostPart.find('@') != std::string::npos) std::abort();
    if (text.find('@') == std::string::npos && split.namePart != text) std::abort();
    if (split.namePart.empty() && !split.hostPart.empty()) std::abort();
    CColloquyAddress const joined(split.namePart.c_str(), split.hostPart.c_str());
    if (joined.fullAddress != split.namePart + "@" + split.hostPart) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    std::vector<std::string> pieces(1);
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == 0)
            pieces.emplace_back();
        else
            pieces.back().push_back(static_cast<char>(data[i]));
    }
    checkAddress(pieces[0]);
    checkDump(pieces);
    return 0;
}
