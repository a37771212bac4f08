// Feeds arbitrary bytes to the text form reader, by length and as a NUL-terminated text, and
// checks the round trip: whatever parses, written again and read again, gives the same pairs.
#include "Log.h"
#include "associativearray.h"

#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

// Every pair of `a` is in `b` with the same value, and the counts agree.
bool samePairs(CAssociativeArray& a, CAssociativeArray const& b) {
    if (a.entries() != b.entries()) return false;
    RWHashDictionaryIterator next(a);
    while (RWCollectable* key = next()) {
        auto const& k = static_cast<RWCollectableString const&>(*key);
        auto const& v = static_cast<RWCollectableString const&>(*next.value());
        if (!b.KeyExists(k.data())) return false;
        if (b.GetStringValueOfParameter(k.data()) != v) return false;
    }
    return true;
}

void checkRoundTrip(CAssociativeArray& record) {
    if (record.isEmpty()) return;  // an empty record is written as " ", which does not read back
    std::string const text = record.ToStringRef(false, false).stdString();
    CAssociativeArray again;
    again.FromString(text.data(), static_cast<int>(text.size()));  // must not throw
    if (!samePairs(record, again)) std::abort();
}

template <class Read>
void readAndCheck(Read read) {
    CAssociativeArray record;
    try {
        read(record);
    } catch (CIllegalAssoSyntaxException const&) {
        return;
    }
    checkRoundTrip(record);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    nLog::gEnable("Error", false);  // every malformed input logs twice: keep the run quiet
    char const* const text = reinterpret_cast<char const*>(data);
    readAndCheck([&](CAssociativeArray& r) { r.FromString(text, static_cast<int>(size)); });
    std::string const copy(text ? text : "", size);  // c_str() adds the terminating NUL
    readAndCheck([&](CAssociativeArray& r) { r.FromStringZTS(copy.c_str()); });
    return 0;
}
