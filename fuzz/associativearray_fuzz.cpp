// Feeds arbitrary bytes to the text form reader, by length and as a NUL-terminated text, and
// checks the round trip: whatever parses, written again and read again, gives the same pairs.
#include "Log.h"
#include "associativearray.h"

#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

template <class Read>
void readAndCheck(Read read) {
    CAssociativeArray record;
    try {
        read(record);
    } catch (CIllegalAssoSyntaxException const&) {
        return;
    }
    if (record.isEmpty()) return;  // an empty record is written as " ", which does not read back
    CAssociativeArray again;
    again.FromStringRef(record.ToStringRef(false, false));  // must not throw
    if (again.entries() != record.entries()) std::abort();
    RWHashDictionaryIterator next(record);
    while (RWCollectable* key = next()) {
        char const* data = nullptr;
        int length = 0;
        again.GetValueOfParameter(static_cast<RWCollectableString*>(key)->data(), data, length);
        if (static_cast<RWCollectableString*>(next.value())->view() != std::string_view(data, size_t(length)))
            std::abort();
    }
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
