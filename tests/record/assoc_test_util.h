// The pairs of a record as a sorted map, for the record tests.
#ifndef ASSOC_TEST_UTIL_H
#define ASSOC_TEST_UTIL_H

#include "Log.h"
#include "associativearray.h"
#include "tagscope.h"

#include <map>
#include <string>

namespace assoctest {

using Pairs = std::map<std::string, std::string>;

// Every pair of the record, walked with the dictionary's own iterator.
inline Pairs pairsOf(CAssociativeArray& record) {
    Pairs pairs;
    RWHashDictionaryIterator next(record);
    while (RWCollectable* key = next()) {
        auto const& k = static_cast<RWCollectableString const&>(*key);
        auto const& v = static_cast<RWCollectableString const&>(*next.value());
        pairs.emplace(k.stdString(), v.stdString());
    }
    return pairs;
}

}  // namespace assoctest

#endif
