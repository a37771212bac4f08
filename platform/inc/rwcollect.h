// RWCollectable, the base of everything the collections hold, and its string and int forms.
#ifndef COLLOQUY_RWCOLLECT_H
#define COLLOQUY_RWCOLLECT_H

#include "cplatformdefs.h"
#include "rwcstring.h"

typedef unsigned short RWClassID;

#define __RWCOLLECTABLE 0x8000
#define __RWCOLLECTABLESTRING 0x8001
#define __RWCOLLECTABLEINT 0x8002
#define __RWHASHTABLE 0x8010
#define __RWHASHDICTIONARY 0x8011
#define __RWORDERED 0x8012

// A collectable object. Collections find items through hash() and isEqual(); the defaults
// give identity: an object equals only itself.
class COLLOQUY_EXPORT RWCollectable {
  public:
    RWCollectable() = default;
    RWCollectable(RWCollectable const&) = default;
    RWCollectable& operator=(RWCollectable const&) = default;
    virtual ~RWCollectable();
    virtual RWClassID isA() const;
    virtual unsigned hash() const;
    virtual bool isEqual(RWCollectable const* other) const;
    // Negative, zero or positive; the default orders by address.
    virtual int compareTo(RWCollectable const* other) const;
};

// A collectable string: equal to another collectable string with the same bytes. Its hash()
// is keyed with a random key chosen once per process, so that a sender of keys cannot choose
// keys that collide in a hash table: it differs from RWCString::hash() (which keeps its value)
// and from one process to the next.
class COLLOQUY_EXPORT RWCollectableString : public RWCollectable, public RWCString {
  public:
    RWCollectableString() = default;
    RWCollectableString(char const* text) : RWCString(text) {}
    RWCollectableString(char const* bytes, size_t length) : RWCString(bytes, length) {}
    RWCollectableString(RWCString const& text) : RWCString(text) {}
    ~RWCollectableString() override;
    RWClassID isA() const override;
    unsigned hash() const override;
    // The hash RWCollectableString::hash() gives for these bytes (lets callers look up a string
    // key without making a key object).
    static unsigned hash(char const* bytes, size_t length);
    bool isEqual(RWCollectable const* other) const override;
    int compareTo(RWCollectable const* other) const override;
};

// A collectable int: equal to another collectable int with the same value.
class COLLOQUY_EXPORT RWCollectableInt : public RWCollectable {
  public:
    RWCollectableInt(int value = 0) : mValue(value) {}
    ~RWCollectableInt() override;
    RWClassID isA() const override;
    unsigned hash() const override;
    bool isEqual(RWCollectable const* other) const override;
    int compareTo(RWCollectable const* other) const override;

    int value() const { return mValue; }
    int value(int newValue) {
        int old = mValue;
        mValue = newValue;
        return old;
    }

  private:
    int mValue;
};

#endif
