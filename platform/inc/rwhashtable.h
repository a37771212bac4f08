// RWHashTable: a hash table of collectable pointers, and its iterator.
#ifndef COLLOQUY_RWHASHTABLE_H
#define COLLOQUY_RWHASHTABLE_H

#include "cplatformdefs.h"
#include "rwcollection.h"

#include <cstdint>
#include <memory>

// Open addressing with linear probing. Each slot keeps the item's hash, so a lookup calls
// isEqual() only on real candidates and never allocates. The table grows (doubling) as it
// fills; removal leaves a marker, so removing through an iterator never moves other items.
// Items are found through their own hash() and isEqual(); duplicates are allowed.
class COLLOQUY_EXPORT RWHashTable : public RWCollection {
  public:
    explicit RWHashTable(size_t buckets = DEFAULT_CAPACITY);
    RWHashTable(RWHashTable const& other);             // shallow: refers to the same objects
    RWHashTable& operator=(RWHashTable const& other);  // shallow
    ~RWHashTable() override;                           // forgets the items, destroys none

    RWClassID isA() const override;
    void clear() override;
    void clearAndDestroy() override;
    size_t entries() const override { return mCount; }
    bool isEmpty() const override { return mCount == 0; }
    RWCollectable* find(RWCollectable const* target) const override;
    // Adds `item` (even when an equal one is stored) and returns it; null is refused.
    RWCollectable* insert(RWCollectable* item) override;
    RWCollectable* remove(RWCollectable const* target) override;
    void removeAndDestroy(RWCollectable const* target) override;
    // Makes room for `count` items in all, so that adding up to that many rehashes no more.
    void reserve(size_t count);
    // The slots that finding each stored item visits, summed over the items: how well the
    // items spread (the number of items when none had to move aside). For tests and diagnostics.
    size_t probeCount() const;

  protected:
    friend class RWHashTableIterator;
    friend class RWHashDictionaryIterator;
    enum : unsigned char { kEmpty = 0, kFull = 1, kRemoved = 2 };
    struct cSlot {
        RWCollectable* key;
        RWCollectable* value;  // used by RWHashDictionary
        unsigned hash;
        unsigned char state;
    };

    // Index of the first full slot with this hash that `matches`, or -1.
    template <class Matches>
    long findSlot(unsigned hash, Matches& matches) const {
        if (mCount == 0) return -1;
        size_t const mask = mCapacity - 1;
        for (size_t i = home(hash);; i = (i + 1) & mask) {
            cSlot const& s = mSlots[i];
            if (s.state == kEmpty) return -1;
            if (s.state == kFull && s.hash == hash && matches(static_cast<RWCollectable const*>(s.key)))
                return static_cast<long>(i);
        }
    }
    // The first full slot with this hash that `matches` (`found` true), or else the slot a new
    // entry with this hash takes (`found` false). Room is made for the new entry only when
    // nothing matches, so that finding never changes the table's layout.
    template <class Matches>
    cSlot& findSlotOrVacancy(unsigned hash, Matches& matches, bool& found) {
        if (mCapacity == 0) grow();
        size_t const mask = mCapacity - 1;
        cSlot* vacancy = nullptr;
        for (size_t i = home(hash);; i = (i + 1) & mask) {
            cSlot& s = mSlots[i];
            if (s.state == kEmpty) break;
            if (s.state == kRemoved) {
                if (!vacancy) vacancy = &s;
            } else if (s.hash == hash && matches(static_cast<RWCollectable const*>(s.key))) {
                found = true;
                return s;
            }
        }
        found = false;
        if ((mCount + mRemoved + 1) * 10 > mCapacity * 7) return vacancyAfterGrowing(hash);
        if (vacancy) return *vacancy;
        for (size_t i = home(hash);; i = (i + 1) & mask)
            if (mSlots[i].state == kEmpty) return mSlots[i];
    }
    // Stores an entry in a slot that findSlotOrVacancy gave as vacant.
    void fillSlot(cSlot& slot, RWCollectable* key, RWCollectable* value, unsigned hash) {
        if (slot.state == kRemoved) --mRemoved;
        slot = cSlot{key, value, hash, kFull};
        ++mCount;
    }
    long findSlotOf(RWCollectable const* target) const;
    // Stores a new entry (the caller has checked for duplicates where it must) and returns its slot.
    cSlot& addSlot(RWCollectable* key, RWCollectable* value, unsigned hash);
    void removeSlot(size_t i);
    // The hash is mixed before its top bits pick the slot, so that hashes which are already
    // multiples of some constant (or small sequential numbers) still spread over the table.
    size_t home(unsigned hash) const {
        uint32_t h = static_cast<uint32_t>(hash);
        h ^= h >> 16;
        h *= 0x85EBCA6Bu;
        h ^= h >> 13;
        h *= 0xC2B2AE35u;
        return static_cast<size_t>(h >> mShift);
    }

    std::unique_ptr<cSlot[]> mSlots;
    size_t mCapacity = 0;  // 0 until the first insertion, then a power of two
    size_t mCount = 0;
    size_t mRemoved = 0;
    size_t mInitialCapacity;
    unsigned mShift = 32;

  private:
    // The capacity the growth rule gives for `count` items, starting from `capacity`.
    static size_t capacityFor(size_t count, size_t capacity);
    void rehash(size_t newCapacity);
    // Makes room for one more entry.
    void grow();
    cSlot& vacancyAfterGrowing(unsigned hash);
};

// Walks a hash table. operator() advances and returns the next item, or null at the end.
// Items may be removed through remove() during the walk; inserting into the table while
// walking is not supported.
class COLLOQUY_EXPORT RWHashTableIterator {
  public:
    explicit RWHashTableIterator(RWHashTable& table) : mTable(&table) {}
    virtual ~RWHashTableIterator();
    virtual RWCollectable* operator()();
    virtual RWCollectable* key() const;  // the current item, or null
    virtual RWCollectable* remove();     // removes the current item and returns it (not destroyed)
    virtual void reset() { mPos = kBefore; }

  protected:
    static constexpr size_t kBefore = ~static_cast<size_t>(0);
    bool atItem() const;
    RWHashTable* mTable;
    size_t mPos = kBefore;
};

#endif
