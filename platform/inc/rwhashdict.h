// RWHashDictionary: a hash table of (key, value) pairs of collectable pointers, and its iterator.
#ifndef COLLOQUY_RWHASHDICT_H
#define COLLOQUY_RWHASHDICT_H

#include "cplatformdefs.h"
#include "rwhashtable.h"

// At most one pair per key (keys compared by hash() and isEqual()). The dictionary holds
// pointers: clear() forgets the pairs, clearAndDestroy() and removeAndDestroy() delete keys
// and values.
class COLLOQUY_EXPORT RWHashDictionary : public RWHashTable {
  public:
    explicit RWHashDictionary(size_t buckets = DEFAULT_CAPACITY) : RWHashTable(buckets) {}
    RWHashDictionary(RWHashDictionary const& other) = default;  // shallow
    RWHashDictionary& operator=(RWHashDictionary const& other) = default;
    ~RWHashDictionary() override;

    RWClassID isA() const override;
    void clearAndDestroy() override;
    // A key with no value; when an equal key is stored, that key is returned and nothing is added.
    RWCollectable* insert(RWCollectable* key) override;
    // Removes the pair and returns its stored key; the value is not destroyed.
    RWCollectable* remove(RWCollectable const* key) override;
    void removeAndDestroy(RWCollectable const* key) override;

    // Adds the pair and returns `key`; returns null and adds nothing when the key is stored.
    RWCollectable* insertKeyAndValue(RWCollectable* key, RWCollectable* value);
    // The value stored for `key`, or null.
    RWCollectable* findValue(RWCollectable const* key) const;
    // Puts `newValue` in place of the value of `key` and returns the old one; null (and no
    // change) when the key is not stored.
    RWCollectable* findValue(RWCollectable const* key, RWCollectable* newValue);
    // The stored key, with its value in `value`; null when absent.
    RWCollectable* findKeyAndValue(RWCollectable const* key, RWCollectable*& value) const;
    RWCollectable* removeKeyAndValue(RWCollectable const* key, RWCollectable*& value);

    // Lookup without a key object (see RWHashTable::findIf): the value, or null.
    template <class Matches>
    RWCollectable* findValueIf(unsigned hash, Matches&& matches) const {
        long i = findSlot(hash, matches);
        return i < 0 ? nullptr : mSlots[i].value;
    }
    // Replaces the value of the pair found as by findValueIf; returns the old value, or null
    // when there is no such pair (then `newValue` is not stored).
    template <class Matches>
    RWCollectable* replaceValueIf(unsigned hash, Matches&& matches, RWCollectable* newValue) {
        long i = findSlot(hash, matches);
        if (i < 0) return nullptr;
        RWCollectable* old = mSlots[i].value;
        mSlots[i].value = newValue;
        return old;
    }
    // Adding or replacing in one probe. When a pair is found as by findValueIf, `value` takes
    // the place of its value: the old value is put in `old` and the stored key returned. Else
    // the pair (makeKey(), value) is added and null returned; makeKey is called only then, and
    // when it throws (or making room does), nothing is stored and `value` stays the caller's.
    template <class Matches, class MakeKey>
    RWCollectable* putValueIf(unsigned hash, Matches&& matches, RWCollectable* value, MakeKey&& makeKey,
                              RWCollectable*& old) {
        bool found = false;
        cSlot& slot = findSlotOrVacancy(hash, matches, found);
        if (found) {
            old = slot.value;
            slot.value = value;
            return slot.key;
        }
        old = nullptr;
        fillSlot(slot, makeKey(), value, hash);
        return nullptr;
    }
    // Adds a pair whose key the caller knows is absent, with its precomputed hash.
    void insertNewKeyAndValue(RWCollectable* key, RWCollectable* value, unsigned hash) { addSlot(key, value, hash); }
};

class COLLOQUY_EXPORT RWHashDictionaryIterator : public RWHashTableIterator {
  public:
    explicit RWHashDictionaryIterator(RWHashDictionary& dictionary) : RWHashTableIterator(dictionary) {}
    ~RWHashDictionaryIterator() override;
    RWCollectable* value() const;                   // the current pair's value, or null
    RWCollectable* value(RWCollectable* newValue);  // replaces it; returns the old value
};

#endif
