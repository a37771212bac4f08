#include "rwcollect.h"

#include <cstdint>

RWCollectable::~RWCollectable() = default;

RWClassID RWCollectable::isA() const { return __RWCOLLECTABLE; }

unsigned RWCollectable::hash() const {
    auto const address = reinterpret_cast<uintptr_t>(this);
    return static_cast<unsigned>(address ^ (address >> 16));
}

bool RWCollectable::isEqual(RWCollectable const* other) const { return this == other; }

int RWCollectable::compareTo(RWCollectable const* other) const {
    auto const a = reinterpret_cast<uintptr_t>(this), b = reinterpret_cast<uintptr_t>(other);
    return a == b ? 0 : (a < b ? -1 : 1);
}

RWCollectableString::~RWCollectableString() = default;

RWClassID RWCollectableString::isA() const { return __RWCOLLECTABLESTRING; }

unsigned RWCollectableString::hash() const { return RWCString::hash(); }

bool RWCollectableString::isEqual(RWCollectable const* other) const {
    return other && other->isA() == __RWCOLLECTABLESTRING &&
           static_cast<RWCString const&>(*this) == static_cast<RWCollectableString const&>(*other);
}

int RWCollectableString::compareTo(RWCollectable const* other) const {
    if (!other || other->isA() != __RWCOLLECTABLESTRING) return RWCollectable::compareTo(other);
    return RWCString::compareTo(static_cast<RWCollectableString const&>(*other));
}

RWCollectableInt::~RWCollectableInt() = default;

RWClassID RWCollectableInt::isA() const { return __RWCOLLECTABLEINT; }

unsigned RWCollectableInt::hash() const { return static_cast<unsigned>(mValue); }

bool RWCollectableInt::isEqual(RWCollectable const* other) const {
    return other && other->isA() == __RWCOLLECTABLEINT && static_cast<RWCollectableInt const*>(other)->mValue == mValue;
}

int RWCollectableInt::compareTo(RWCollectable const* other) const {
    if (!other || other->isA() != __RWCOLLECTABLEINT) return RWCollectable::compareTo(other);
    int const v = static_cast<RWCollectableInt const*>(other)->mValue;
    return mValue == v ? 0 : (mValue < v ? -1 : 1);
}
