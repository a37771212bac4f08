// The text form's out-of-line pieces: number formatting, the rare paths of the reader, the
// lookup and the pair insertion that the reader and AddCouple share.
#include "associativearray_text.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <typeinfo>

namespace nAssoText {

namespace nDetail {

// strtol of the token (at most kMaxDigits characters); results beyond int are clamped, as
// strtol does where long has 32 bits.
long long tokenValue(char const* token, size_t n) {
    // Plain digit strings (all the writer makes) are read directly.
    if (n <= 9) {
        long long value = 0;
        size_t i = 0;
        for (; i < n && token[i] >= '0' && token[i] <= '9'; ++i) value = value * 10 + (token[i] - '0');
        if (i == n) return value;
    }
    char copy[kMaxDigits + 1];
    std::memcpy(copy, token, n);
    copy[n] = '\0';
    long long const value = std::strtol(copy, nullptr, 10);
    return std::max<long long>(INT_MIN, std::min<long long>(INT_MAX, value));
}

}  // namespace nDetail

void throwSyntaxError(std::string_view error) { throw CIllegalAssoSyntaxException(error); }

void appendDecimal(std::string& out, long long n) {
    char digits[24];
    auto const result = std::to_chars(digits, digits + sizeof digits, n);
    out.append(digits, static_cast<size_t>(result.ptr - digits));
}

void appendPrefix(std::string& out, size_t length) {
    char prefix[32];
    out.append(prefix, static_cast<size_t>(writePrefix(prefix, length) - prefix));
}

namespace {

// Matches a stored key object against key bytes without building a key object.
struct cKeyMatch {
    std::string_view key;
    bool operator()(RWCollectable const* stored) const {
        return stored->isA() == __RWCOLLECTABLESTRING && static_cast<RWCollectableString const*>(stored)->view() == key;
    }
};

}  // namespace

RWCollectableString* storedValue(CAssociativeArray const& record, std::string_view key) {
    RWCollectable* value = record.findValueIf(RWCString::hash(key.data(), key.size()), cKeyMatch{key});
    return value && value->isA() == __RWCOLLECTABLESTRING ? static_cast<RWCollectableString*>(value) : nullptr;
}

std::string_view foreignText(RWCollectable const* item) {
    if (!item || item->isA() != __RWCOLLECTABLESTRING) return std::string_view();
    return static_cast<RWCollectableString const*>(item)->view();
}

// ---- blocks of key and value objects ----

// The most objects one block holds (about 3.5 KiB on 64 bits): a text form with many pairs is
// made in several blocks, and one object kept alive holds no more than that.
constexpr size_t kMaxParts = 64;

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
    cBlock(size_t n) : live(n + 1), parts(n) {}  // each part, and the maker's hold
    cPart* part(size_t i) { return reinterpret_cast<cPart*>(this + 1) + i; }

    static cBlock* make(size_t n) {
        static_assert(sizeof(cBlock) % alignof(cPart) == 0, "the parts follow the header aligned");
        return new (::operator new(sizeof(cBlock) + n * sizeof(cPart))) cBlock(n);
    }
    // Gives `n` parts back; the block is freed with the last one.
    static void release(cBlock* block, size_t n) {
        // Holding every part left, nobody else can reach the block: no read-modify-write is needed.
        if (block->live.load(std::memory_order_acquire) == n || block->live.fetch_sub(n, std::memory_order_acq_rel) == n) {
            block->~cBlock();
            ::operator delete(block);
        }
    }
};

namespace {

cBlock* blockOf(cStoredString const* object) {
    auto const* bytes = reinterpret_cast<unsigned char const*>(object);
    return reinterpret_cast<cPart const*>(bytes - offsetof(cPart, storage))->block;
}

}  // namespace

void cStoredString::operator delete(void* object) { cBlock::release(blockOf(static_cast<cStoredString*>(object)), 1); }

cStringMaker::cStringMaker(size_t expected) : mParts(std::min(std::max<size_t>(expected, 2), kMaxParts)) {}

cStringMaker::~cStringMaker() {
    if (mBlock) cBlock::release(mBlock, mBlock->parts - mBlock->used + 1);
}

std::unique_ptr<RWCollectableString> cStringMaker::make(std::string_view bytes) {
    if (!mBlock || mBlock->used == mBlock->parts) {
        cBlock* const fresh = cBlock::make(mParts);
        if (mBlock) cBlock::release(mBlock, 1);  // every part is used: only the maker's hold is left
        mBlock = fresh;
    }
    cPart* const part = mBlock->part(mBlock->used);
    part->block = mBlock;
    // Built before the part counts as used: when the copy throws, the part is still unused.
    auto* object = new (static_cast<void*>(part->storage)) cStoredString(bytes);
    ++mBlock->used;
    return std::unique_ptr<RWCollectableString>(object);
}

void cDestroyer::destroy(RWCollectable* object) {
    if (!object) return;
    if (typeid(*object) != typeid(cStoredString)) {
        delete object;
        return;
    }
    auto* const stored = static_cast<cStoredString*>(object);
    cBlock* const block = blockOf(stored);
    stored->~cStoredString();  // its part is given back below, with its neighbours'
    if (block != mBlock) {
        flush();
        mBlock = block;
    }
    ++mCount;
}

void cDestroyer::flush() {
    if (mBlock) cBlock::release(mBlock, mCount);
    mBlock = nullptr;
    mCount = 0;
}

void addPair(CAssociativeArray& record, std::string_view key, std::string_view value, cStringMaker& maker) {
    unsigned const hash = RWCString::hash(key.data(), key.size());
    cKeyMatch const matches{key};
    std::unique_ptr<RWCollectableString> newValue = maker.make(value);
    if (RWCollectable const* storedKey = record.findIf(hash, matches)) {
        // The first key object stays; the last value wins.
        RWCollectable* old = record.replaceValueIf(hash, matches, newValue.release());
        if (old != storedKey) delete old;
        return;
    }
    std::unique_ptr<RWCollectableString> newKey = maker.make(key);
    record.insertNewKeyAndValue(newKey.get(), newValue.get(), hash);
    newKey.release();
    newValue.release();
}

void addPair(CAssociativeArray& record, std::string_view key, std::string_view value) {
    cStringMaker maker(2);
    addPair(record, key, value, maker);
}

}  // namespace nAssoText
