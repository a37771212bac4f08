// RWCollection: the abstract collection of collectable pointers shared by the containers.
#ifndef COLLOQUY_RWCOLLECTION_H
#define COLLOQUY_RWCOLLECTION_H

#include "cplatformdefs.h"
#include "rwcollect.h"

#include <cstddef>

#define RW_NPOS (~static_cast<size_t>(0))

// Containers hold pointers and never copy the objects. Who owns the objects is the caller's
// business: clear() only forgets them, clearAndDestroy() deletes them.
class COLLOQUY_EXPORT RWCollection : public RWCollectable {
  public:
    static constexpr size_t DEFAULT_CAPACITY = 64;

    ~RWCollection() override;
    virtual void clear() = 0;
    virtual void clearAndDestroy() = 0;
    virtual size_t entries() const = 0;
    // The stored item equal to `target`, or null.
    virtual RWCollectable* find(RWCollectable const* target) const = 0;
    virtual RWCollectable* insert(RWCollectable* item) = 0;
    virtual bool isEmpty() const;
    // Removes the stored item equal to `target` and returns it (not destroyed), or null.
    virtual RWCollectable* remove(RWCollectable const* target) = 0;
    virtual void removeAndDestroy(RWCollectable const* target) = 0;

    bool contains(RWCollectable const* target) const { return find(target) != nullptr; }
};

#endif
