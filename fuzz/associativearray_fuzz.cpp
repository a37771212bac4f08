// Arbitrary bytes through the text form reader, by length and up to a NUL. Whatever reads must
// round-trip: written and read again, it gives the same pairs.
#include "Log.h"
#include "associativearray.h"

#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    nLog::gEnable("Error", false);  // every malformed input logs twice
    char const* const text = reinterpret_cast<char const*>(data);
    std::string const copy(text ? text : "", size);
    for (bool const byLength : {true, false}) {
        CAssociativeArray record, again;
        try {
            byLength ? record.FromString(text, static_cast<int>(size)) : record.FromStringZTS(copy.c_str());
        } catch (CIllegalAssoSyntaxException const&) {
            continue;
        }
        if (record.isEmpty()) continue;  // written as " ", which is no text form
        again.FromStringRef(record.ToStringRef(false, false));
        if (again.entries() != record.entries()) std::abort();
        RWHashDictionaryIterator next(record);
        while (RWCollectable* key = next()) {
            char const* value = nullptr;
            int length = 0;
            again.GetValueOfParameter(static_cast<RWCollectableString*>(key)->data(), value, length);
            if (static_cast<RWCollectableString*>(next.value())->view() != std::string_view(value, size_t(length)))
                std::abort();
        }
    }
    return 0;
}
