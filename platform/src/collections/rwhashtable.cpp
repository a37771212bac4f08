#include "rwhashtable.h"

#include "rwhashdict.h"

#include <utility>

RWCollection::~RWCollection() = default;

bool RWCollection::isEmpty() const { return entries() == 0; }

namespace {

size_t roundUpToPowerOfTwo(size_t n) {
    size_t p = 8;
    while (p < n) p <<= 1;
    return p;
}

unsigned log2Of(size_t powerOfTwo) {
    unsigned bits = 0;
    while ((static_cast<size_t>(1) << bits) < powerOfTwo) ++bits;
    return bits;
}

}  // namespace

RWHashTable::RWHashTable(size_t buckets) : mInitialCapacity(roundUpToPowerOfTwo(buckets)) {}

RWHashTable::RWHashTable(RWHashTable const& other) : RWCollection(other), mInitialCapacity(other.mInitialCapacity) {
    *this = other;
}

RWHashTable& RWHashTable::operator=(RWHashTable const& other) {
    if (this == &other) return *this;
    if (other.mCapacity == 0) {
        mSlots.reset();
        mCapacity = mCount = mRemoved = 0;
        mShift = 32;
        return *this;
    }
    std::unique_ptr<cSlot[]> slots(new cSlot[other.mCapacity]);
    std::copy(other.mSlots.get(), other.mSlots.get() + other.mCapacity, slots.get());
    mSlots = std::move(slots);
    mCapacity = other.mCapacity;
    mCount = other.mCount;
    mRemoved = other.mRemoved;
    mShift = other.mShift;
    return *this;
}

RWHashTable::~RWHashTable() = default;

RWClassID RWHashTable::isA() const { return __RWHASHTABLE; }

void RWHashTable::clear() {
    mSlots.reset();
    mCapacity = mCount = mRemoved = 0;
    mShift = 32;
}

void RWHashTable::clearAndDestroy() {
    // Detach first: a destructor that looks at the table must not see half-deleted items.
    std::unique_ptr<cSlot[]> slots = std::move(mSlots);
    size_t const capacity = mCapacity;
    clear();
    for (size_t i = 0; i < capacity; ++i)
        if (slots[i].state == kFull) delete slots[i].key;
}

long RWHashTable::findSlotOf(RWCollectable const* target) const {
    if (!target) return -1;
    auto matches = [target](RWCollectable const* stored) { return target->isEqual(stored); };
    return findSlot(target->hash(), matches);
}

RWCollectable* RWHashTable::find(RWCollectable const* target) const {
    long i = findSlotOf(target);
    return i < 0 ? nullptr : mSlots[static_cast<size_t>(i)].key;
}

RWCollectable* RWHashTable::insert(RWCollectable* item) {
    if (!item) return nullptr;
    addSlot(item, nullptr, item->hash());
    return item;
}

RWCollectable* RWHashTable::remove(RWCollectable const* target) {
    long i = findSlotOf(target);
    if (i < 0) return nullptr;
    RWCollectable* item = mSlots[static_cast<size_t>(i)].key;
    removeSlot(static_cast<size_t>(i));
    return item;
}

void RWHashTable::removeAndDestroy(RWCollectable const* target) { delete remove(target); }

size_t RWHashTable::capacityFor(size_t count, size_t capacity) {
    while (count * 2 > capacity) capacity <<= 1;
    return capacity;
}

void RWHashTable::reserve(size_t count) {
    // The same rule as addSlot's, so that the insertions that follow find the table big enough.
    if (count <= mCount || (count + mRemoved) * 10 <= mCapacity * 7) return;
    size_t const capacity = capacityFor(count, mCapacity ? mCapacity : mInitialCapacity);
    if (capacity != mCapacity || mRemoved) rehash(capacity);
}

size_t RWHashTable::probeCount() const {
    size_t probes = 0;
    for (size_t i = 0; i < mCapacity; ++i)
        if (mSlots[i].state == kFull) probes += ((i - home(mSlots[i].hash)) & (mCapacity - 1)) + 1;
    return probes;
}

void RWHashTable::grow() { rehash(capacityFor(mCount + 1, mCapacity ? mCapacity : mInitialCapacity)); }

RWHashTable::cSlot& RWHashTable::vacancyAfterGrowing(unsigned hash) {
    grow();
    size_t const mask = mCapacity - 1;
    size_t i = home(hash);
    while (mSlots[i].state == kFull) i = (i + 1) & mask;  // a fresh table has no removed slots
    return mSlots[i];
}

RWHashTable::cSlot& RWHashTable::addSlot(RWCollectable* key, RWCollectable* value, unsigned hash) {
    // Keep live and removed slots under 70% so that every probe meets an empty slot soon.
    if ((mCount + mRemoved + 1) * 10 > mCapacity * 7) grow();
    size_t const mask = mCapacity - 1;
    size_t i = home(hash);
    while (mSlots[i].state == kFull) i = (i + 1) & mask;
    fillSlot(mSlots[i], key, value, hash);
    return mSlots[i];
}

void RWHashTable::removeSlot(size_t i) {
    mSlots[i].state = kRemoved;
    mSlots[i].key = mSlots[i].value = nullptr;
    --mCount;
    ++mRemoved;
}

void RWHashTable::rehash(size_t newCapacity) {
    std::unique_ptr<cSlot[]> old = std::move(mSlots);
    size_t const oldCapacity = mCapacity;
    mSlots.reset(new cSlot[newCapacity]());
    mCapacity = newCapacity;
    mShift = 32 - log2Of(newCapacity);
    mRemoved = 0;
    size_t const mask = newCapacity - 1;
    for (size_t j = 0; j < oldCapacity; ++j) {
        if (old[j].state != kFull) continue;
        size_t i = home(old[j].hash);
        while (mSlots[i].state == kFull) i = (i + 1) & mask;
        mSlots[i] = old[j];
    }
}

RWHashTableIterator::~RWHashTableIterator() = default;

bool RWHashTableIterator::atItem() const {
    return mPos < mTable->mCapacity && mTable->mSlots[mPos].state == RWHashTable::kFull;
}

RWCollectable* RWHashTableIterator::operator()() {
    size_t i = (mPos == kBefore) ? 0 : mPos + 1;
    while (i < mTable->mCapacity && mTable->mSlots[i].state != RWHashTable::kFull) ++i;
    mPos = i < mTable->mCapacity ? i : mTable->mCapacity;
    return atItem() ? mTable->mSlots[mPos].key : nullptr;
}

RWCollectable* RWHashTableIterator::key() const { return atItem() ? mTable->mSlots[mPos].key : nullptr; }

RWCollectable* RWHashTableIterator::remove() {
    if (!atItem()) return nullptr;
    RWCollectable* item = mTable->mSlots[mPos].key;
    mTable->removeSlot(mPos);
    return item;
}

// ---- RWHashDictionary ----

RWHashDictionary::~RWHashDictionary() = default;

RWClassID RWHashDictionary::isA() const { return __RWHASHDICTIONARY; }

void RWHashDictionary::clearAndDestroy() {
    clearAndDestroyWith([](RWCollectable* object) { delete object; });
}

RWCollectable* RWHashDictionary::insert(RWCollectable* key) {
    if (!key) return nullptr;
    if (RWCollectable* stored = find(key)) return stored;
    addSlot(key, nullptr, key->hash());
    return key;
}

RWCollectable* RWHashDictionary::remove(RWCollectable const* key) {
    RWCollectable* value = nullptr;
    return removeKeyAndValue(key, value);
}

void RWHashDictionary::removeAndDestroy(RWCollectable const* key) {
    RWCollectable* value = nullptr;
    RWCollectable* stored = removeKeyAndValue(key, value);
    if (value != stored) delete value;
    delete stored;
}

RWCollectable* RWHashDictionary::insertKeyAndValue(RWCollectable* key, RWCollectable* value) {
    if (!key || findSlotOf(key) >= 0) return nullptr;
    addSlot(key, value, key->hash());
    return key;
}

RWCollectable* RWHashDictionary::findValue(RWCollectable const* key) const {
    long i = findSlotOf(key);
    return i < 0 ? nullptr : mSlots[static_cast<size_t>(i)].value;
}

RWCollectable* RWHashDictionary::findValue(RWCollectable const* key, RWCollectable* newValue) {
    long i = findSlotOf(key);
    if (i < 0) return nullptr;
    return std::exchange(mSlots[static_cast<size_t>(i)].value, newValue);
}

RWCollectable* RWHashDictionary::findKeyAndValue(RWCollectable const* key, RWCollectable*& value) const {
    long i = findSlotOf(key);
    if (i < 0) return nullptr;
    value = mSlots[static_cast<size_t>(i)].value;
    return mSlots[static_cast<size_t>(i)].key;
}

RWCollectable* RWHashDictionary::removeKeyAndValue(RWCollectable const* key, RWCollectable*& value) {
    long i = findSlotOf(key);
    if (i < 0) return nullptr;
    RWCollectable* stored = mSlots[static_cast<size_t>(i)].key;
    value = mSlots[static_cast<size_t>(i)].value;
    removeSlot(static_cast<size_t>(i));
    return stored;
}

RWHashDictionaryIterator::~RWHashDictionaryIterator() = default;

RWCollectable* RWHashDictionaryIterator::value() const { return atItem() ? mTable->mSlots[mPos].value : nullptr; }

RWCollectable* RWHashDictionaryIterator::value(RWCollectable* newValue) {
    if (!atItem()) return nullptr;
    return std::exchange(mTable->mSlots[mPos].value, newValue);
}
