// RWHashDictionary: a hash table of (key, value) pairs of collectable pointers, and its iterator.
#ifndef COLLOQUY_RWHASHDICT_H
#define COLLOQUY_RWHASHDICT_H

#include "cplatformdefs.h"
#include "rwhashtable.h"

#include <cstddef>
#include <memory>
#include <utility>

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

    // Lookup without a key object: `hash` is what the stored key's hash() gives, and
    // `matches(RWCollectable const*)` decides among the keys with that hash. The value, or null.
    template <class Matches>
    RWCollectable* findValueIf(unsigned hash, Matches&& matches) const {
        long i = findSlot(hash, matches);
        return i < 0 ? nullptr : mSlots[static_cast<size_t>(i)].value;
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
    // Calls visit(key, value) for every pair, in the iterator's order.
    template <class Visit>
    void forEachPair(Visit&& visit) const {
        for (size_t i = 0; i < mCapacity; ++i)
            if (mSlots[i].state == kFull) visit(mSlots[i].key, mSlots[i].value);
    }
    // What clearAndDestroy() does, with destroy(object) in place of delete: every key, and
    // every value that is not its own key. The pairs are forgotten first, so that no destructor
    // sees a half-destroyed table.
    template <class Destroy>
    void clearAndDestroyWith(Destroy&& destroy) {
        std::unique_ptr<cSlot[]> const slots = std::move(mSlots);
        size_t const capacity = mCapacity;
        clear();
        for (size_t i = 0; i < capacity; ++i) {
            if (slots[i].state != kFull) continue;
            if (slots[i].value != slots[i].key) destroy(slots[i].value);
            destroy(slots[i].key);
        }
    }
};

class COLLOQUY_EXPORT RWHashDictionaryIterator : public RWHashTableIterator {
  public:
    explicit RWHashDictionaryIterator(RWHashDictionary& dictionary) : RWHashTableIterator(dictionary) {}
    ~RWHashDictionaryIterator() override;
    RWCollectable* value() const;                   // the current pair's value, or null
    RWCollectable* value(RWCollectable* newValue);  // replaces it; returns the old value
};

#endif
