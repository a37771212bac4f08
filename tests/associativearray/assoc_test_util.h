// Helpers shared by the record tests: the pairs of a record as a sorted map, and a scope that
// switches a log tag for one test.
#ifndef ASSOC_TEST_UTIL_H
#define ASSOC_TEST_UTIL_H

#include "Log.h"
#include "associativearray.h"

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

class TagScope {
public:
    TagScope(char const* tag, bool on) : mTag(tag), mWas(nLog::gIsEnabled(tag)) { nLog::gEnable(tag, on); }
    ~TagScope() { nLog::gEnable(mTag, mWas); }
    TagScope(TagScope const&) = delete;
    TagScope& operator=(TagScope const&) = delete;

private:
    char const* mTag;
    bool mWas;
};

inline std::string bytes(char const* text, size_t n) { return std::string(text, n); }

}  // namespace assoctest

#endif
