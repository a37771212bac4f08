#include "rwordered.h"

#include <string>

RWBoundsErr::~RWBoundsErr() = default;

namespace {
[[noreturn]] void throwBounds(size_t position, size_t entries) {
    throw RWBoundsErr("RWOrdered: position " + std::to_string(position) + " is out of range (" +
                      std::to_string(entries) + " entries)");
}
}  // namespace

RWOrdered::RWOrdered(size_t capacity) { mItems.reserve(capacity); }

RWOrdered::~RWOrdered() = default;

RWClassID RWOrdered::isA() const { return __RWORDERED; }

void RWOrdered::clearAndDestroy() {
    std::vector<RWCollectable*> items;
    items.swap(mItems);
    for (RWCollectable* item : items) delete item;
}

RWCollectable* RWOrdered::find(RWCollectable const* target) const {
    size_t i = index(target);
    return i == RW_NPOS ? nullptr : mItems[i];
}

RWCollectable* RWOrdered::insert(RWCollectable* item) {
    mItems.push_back(item);
    return item;
}

RWCollectable* RWOrdered::remove(RWCollectable const* target) {
    size_t i = index(target);
    return i == RW_NPOS ? nullptr : removeAt(i);
}

void RWOrdered::removeAndDestroy(RWCollectable const* target) { delete remove(target); }

RWCollectable* RWOrdered::insertAt(size_t position, RWCollectable* item) {
    if (position > mItems.size()) throwBounds(position, mItems.size());
    mItems.insert(mItems.begin() + static_cast<std::ptrdiff_t>(position), item);
    return item;
}

size_t RWOrdered::index(RWCollectable const* target) const {
    for (size_t i = 0; i < mItems.size(); ++i) {
        RWCollectable const* item = mItems[i];
        if (item == target || (item && item->isEqual(target))) return i;
    }
    return RW_NPOS;
}

RWCollectable* RWOrdered::removeAt(size_t position) {
    if (position >= mItems.size()) throwBounds(position, mItems.size());
    RWCollectable* item = mItems[position];
    mItems.erase(mItems.begin() + static_cast<std::ptrdiff_t>(position));
    return item;
}

RWCollectable* RWOrdered::at(size_t position) const {
    if (position >= mItems.size()) throwBounds(position, mItems.size());
    return mItems[position];
}
