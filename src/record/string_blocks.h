// The key and value objects of the record, carved out of shared blocks. They are nearly
// always created together: a pair's two objects by AddCouple, all the objects of a text form
// (up to a limit) by the reader. Each object is still destroyed on its own with delete (by the
// record or by anyone it was handed to), which gives its part back; a block is freed with its
// last part. Not installed.
#ifndef COLLOQUY_RECORD_STRING_BLOCKS_H
#define COLLOQUY_RECORD_STRING_BLOCKS_H

#include "rwcollect.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <memory>
#include <new>
#include <string_view>
#include <typeinfo>

namespace nAssoText {

// A string object that lives in a block.
class cStoredString final : public RWCollectableString {
  public:
    explicit cStoredString(std::string_view bytes) : RWCollectableString(bytes.data(), bytes.size()) {}
    ~cStoredString() override = default;
    static void* operator new(size_t, void* where) noexcept { return where; }  // only inside a block
    static void operator delete(void* object);
};

namespace nDetail {

struct cBlock;
struct cPart {
    cBlock* block;
    alignas(cStoredString) unsigned char storage[sizeof(cStoredString)];
};

// A block's header, followed by its parts. `live` counts the parts not yet given back: an
// object gives its part back when destroyed, the maker gives back the parts it did not use
// (and its own hold) when it goes.
struct cBlock {
    std::atomic<size_t> live;
    size_t parts;
    size_t used = 0;
    explicit cBlock(size_t n) : live(n + 1), parts(n) {}  // each part, and the maker's hold
    cPart* part(size_t i) { return reinterpret_cast<cPart*>(this + 1) + i; }

    static cBlock* make(size_t n) {
        static_assert(sizeof(cBlock) % alignof(cPart) == 0, "the parts follow the header aligned");
        return new (::operator new(sizeof(cBlock) + n * sizeof(cPart))) cBlock(n);
    }
    // Gives `n` parts back; the block is freed with the last one.
    static void release(cBlock* block, size_t n) {
        // Holding every part left, nobody else can reach the block: no read-modify-write is needed.
        if (block->live.load(std::memory_order_acquire) == n ||
            block->live.fetch_sub(n, std::memory_order_acq_rel) == n) {
            block->~cBlock();
            ::operator delete(block);
        }
    }
};

inline cBlock* blockOf(cStoredString const* object) {
    auto const* bytes = reinterpret_cast<unsigned char const*>(object);
    return reinterpret_cast<cPart const*>(bytes - offsetof(cPart, storage))->block;
}

}  // namespace nDetail

// Makes objects out of blocks of up to `expected` objects each (at least 2, at most
// kMaxParts, so that one long-lived object never holds much memory). Parts left unused are
// given back when the maker goes. Inline: a maker lives for one AddCouple or one text form.
class cStringMaker {
  public:
    static constexpr size_t kMaxParts = 64;  // about 3.5 KiB on 64 bits
    explicit cStringMaker(size_t expected) : mParts(std::min(std::max<size_t>(expected, 2), kMaxParts)) {}
    ~cStringMaker() {
        if (mBlock) nDetail::cBlock::release(mBlock, mBlock->parts - mBlock->used + 1);
    }
    cStringMaker(cStringMaker const&) = delete;
    cStringMaker& operator=(cStringMaker const&) = delete;
    // From then on the object owns its part of the block.
    std::unique_ptr<RWCollectableString> make(std::string_view bytes) {
        if (!mBlock || mBlock->used == mBlock->parts) renew();
        nDetail::cPart* const part = mBlock->part(mBlock->used);
        part->block = mBlock;
        // Built before the part counts as used: when the copy throws, the part is still unused.
        auto* object = new (static_cast<void*>(part->storage)) cStoredString(bytes);
        ++mBlock->used;
        return std::unique_ptr<RWCollectableString>(object);
    }

  private:
    // Starts a new block. Every part of the old one is used: only the maker's hold is left.
    void renew() {
        nDetail::cBlock* const fresh = nDetail::cBlock::make(mParts);
        if (mBlock) nDetail::cBlock::release(mBlock, 1);
        mBlock = fresh;
    }
    nDetail::cBlock* mBlock = nullptr;
    size_t mParts;
};

// Destroys objects in bulk: the objects of one block given in a row give their parts back
// with one atomic step rather than one each. Objects of any other kind are deleted.
class cDestroyer {
  public:
    cDestroyer() = default;
    ~cDestroyer() { flush(); }
    cDestroyer(cDestroyer const&) = delete;
    cDestroyer& operator=(cDestroyer const&) = delete;
    void destroy(RWCollectable* object) {
        if (!object) return;
        if (typeid(*object) != typeid(cStoredString)) {
            delete object;
            return;
        }
        auto* const stored = static_cast<cStoredString*>(object);
        nDetail::cBlock* const block = nDetail::blockOf(stored);
        stored->~cStoredString();  // its part is given back below, with its neighbours'
        if (block != mBlock) {
            flush();
            mBlock = block;
        }
        ++mCount;
    }

  private:
    void flush();
    nDetail::cBlock* mBlock = nullptr;
    size_t mCount = 0;
};

}  // namespace nAssoText

#endif
