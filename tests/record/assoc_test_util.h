// The pairs of a record in short form, and the texts of captured records, for the record tests.
#ifndef ASSOC_TEST_UTIL_H
#define ASSOC_TEST_UTIL_H

#include "Log.h"
#include "associativearray.h"
#include "tagscope.h"

#include <map>
#include <string>
#include <vector>

namespace assoctest {

// Every pair of the record, walked with the dictionary's own iterator, as "key=value" lines sorted by key.
inline std::string pairsOf(CAssociativeArray& record) {
    std::map<std::string, std::string> pairs;
    RWHashDictionaryIterator next(record);
    while (RWCollectable* key = next())
        pairs.emplace(static_cast<RWCollectableString&>(*key).stdString(),
                      static_cast<RWCollectableString&>(*next.value()).stdString());
    std::string text;
    for (auto const& [key, value] : pairs) text += key + "=" + value + "\n";
    return text;
}

inline std::vector<std::string> texts(std::vector<nLog::cRecord> const& records) {
    std::vector<std::string> texts;
    for (nLog::cRecord const& r : records) texts.push_back(r.text);
    return texts;
}

}  // namespace assoctest

#endif
