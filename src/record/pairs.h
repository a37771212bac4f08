// The record's pairs: finding a value by key bytes, the text of a stored object, and adding a
// pair with objects made in blocks. Lookups make no allocation. Not installed.
#ifndef COLLOQUY_RECORD_PAIRS_H
#define COLLOQUY_RECORD_PAIRS_H

#include "associativearray.h"
#include "record/string_blocks.h"

#include <memory>
#include <string_view>
#include <typeinfo>

namespace nAssoText {

// Matches a stored key object against key bytes without building a key object.
struct cKeyMatch {
    std::string_view key;
    bool operator()(RWCollectable const* stored) const {
        return stored->isA() == __RWCOLLECTABLESTRING && static_cast<RWCollectableString const*>(stored)->view() == key;
    }
};

// The value object stored for `key`, or null.
RWCollectableString* storedValue(CAssociativeArray const& record, std::string_view key);

// The bytes of a key or value object: its bytes for a string, nothing for anything else. The
// record's own objects are recognised without a virtual call.
std::string_view foreignBytes(RWCollectable const* item);
inline std::string_view bytesOf(RWCollectable const* item) {
    if (item && typeid(*item) == typeid(cStoredString)) return static_cast<cStoredString const*>(item)->view();
    return foreignBytes(item);
}

// Adds the pair, or replaces the value of an existing key (destroying the old value). Only the
// new objects are made, by `maker`.
inline void addPair(CAssociativeArray& record, std::string_view key, std::string_view value, cStringMaker& maker) {
    std::unique_ptr<RWCollectableString> newValue = maker.make(value);
    RWCollectable* old = nullptr;
    // A new key gets a key object; an existing one keeps the first key object (the last value wins).
    RWCollectable const* storedKey = record.putValueIf(
        RWCollectableString::hash(key.data(), key.size()), cKeyMatch{key}, newValue.get(),
        [&maker, key] { return maker.make(key).release(); }, old);
    newValue.release();
    if (storedKey && old != storedKey) delete old;
}
// The same for one pair on its own.
void addPair(CAssociativeArray& record, std::string_view key, std::string_view value);

}  // namespace nAssoText

#endif
