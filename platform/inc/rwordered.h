// RWOrdered: a growable sequence of collectable pointers, in order of insertion.
#ifndef COLLOQUY_RWORDERED_H
#define COLLOQUY_RWORDERED_H

#include "cplatformdefs.h"
#include "rwcollection.h"

#include <stdexcept>
#include <vector>

// Thrown for a position outside the sequence.
class COLLOQUY_EXPORT RWBoundsErr : public std::out_of_range {
  public:
    explicit RWBoundsErr(std::string const& what) : std::out_of_range(what) {}
    ~RWBoundsErr() override;
};

class COLLOQUY_EXPORT RWOrdered : public RWCollection {
  public:
    explicit RWOrdered(size_t capacity = DEFAULT_CAPACITY);
    ~RWOrdered() override;  // forgets the items, destroys none

    RWClassID isA() const override;
    void clear() override { mItems.clear(); }
    void clearAndDestroy() override;
    size_t entries() const override { return mItems.size(); }
    bool isEmpty() const override { return mItems.empty(); }
    RWCollectable* find(RWCollectable const* target) const override;
    RWCollectable* insert(RWCollectable* item) override;  // appends; returns `item`
    RWCollectable* remove(RWCollectable const* target) override;
    void removeAndDestroy(RWCollectable const* target) override;

    RWCollectable* append(RWCollectable* item) { return insert(item); }
    RWCollectable* insertAt(size_t position, RWCollectable* item);  // RWBoundsErr past the end
    // Position of the first item equal to `target` (isEqual), or RW_NPOS.
    size_t index(RWCollectable const* target) const;
    // Removes and returns the item at `position`; RWBoundsErr when out of range.
    RWCollectable* removeAt(size_t position);
    RWCollectable* at(size_t position) const;  // RWBoundsErr when out of range
    RWCollectable* operator[](size_t position) const { return at(position); }
    RWCollectable* first() const { return at(0); }
    RWCollectable* last() const { return mItems.empty() ? at(0) : mItems.back(); }

  private:
    std::vector<RWCollectable*> mItems;
};

#endif
