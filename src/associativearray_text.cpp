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
    out.append(" '", 2);
    appendDecimal(out, static_cast<long long>(length));
    out.push_back(' ');
}

size_t prefixSize(size_t length) {
    size_t digits = 1;
    for (; length >= 10; length /= 10) ++digits;
    return digits + 3;
}

std::string_view upToNul(std::string_view piece) {
    size_t n = 0;
    while (n < piece.size() && piece[n] != '\0') ++n;  // pieces are short: a plain loop beats memchr
    return piece.substr(0, n);
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

namespace {

// The key and value objects of a pair are made in one allocation, as they are nearly always
// created together; each is still destroyed on its own with delete (by the record or by
// anyone it was handed to), which gives its part back, and the block is freed with its last
// part. This halves the allocations of filling a record.
class cStoredString final : public RWCollectableString {
public:
    cStoredString(std::string_view bytes) : RWCollectableString(bytes.data(), bytes.size()) {}
    ~cStoredString() override = default;
    static void* operator new(size_t, void* where) noexcept { return where; }  // only inside a block
    static void operator delete(void* object);
};

struct cBlock;
struct cPart {
    cBlock* block;
    alignas(cStoredString) unsigned char storage[sizeof(cStoredString)];
};
struct cBlock {
    std::atomic<int> live{0};
    cPart parts[2];
};

void cStoredString::operator delete(void* object) {
    auto* part = reinterpret_cast<cPart*>(static_cast<unsigned char*>(object) - offsetof(cPart, storage));
    cBlock* block = part->block;
    // The last live part needs no read-modify-write: nobody else can reach the block then.
    if (block->live.load(std::memory_order_acquire) == 1 || block->live.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        block->~cBlock();
        ::operator delete(block);
    }
}

// Owns a block while its objects are being built; frees it when nothing was built.
class cBlockBuilder {
public:
    cBlockBuilder() : mBlock(new (::operator new(sizeof(cBlock))) cBlock) {}
    ~cBlockBuilder() {
        if (mBlock && mBlock->live == 0) {
            mBlock->~cBlock();
            ::operator delete(mBlock);
        }
    }
    cBlockBuilder(cBlockBuilder const&) = delete;
    cBlockBuilder& operator=(cBlockBuilder const&) = delete;
    // Builds the next object; from then on it owns its part of the block.
    std::unique_ptr<RWCollectableString> make(std::string_view bytes) {
        // The block is not shared yet: plain stores suffice.
        int const built = mBlock->live.load(std::memory_order_relaxed);
        cPart& part = mBlock->parts[built];
        part.block = mBlock;
        auto* object = new (static_cast<void*>(part.storage)) cStoredString(bytes);
        mBlock->live.store(built + 1, std::memory_order_relaxed);
        return std::unique_ptr<RWCollectableString>(object);
    }

private:
    cBlock* mBlock;
};

}  // namespace

void addPair(CAssociativeArray& record, std::string_view key, std::string_view value) {
    unsigned const hash = RWCString::hash(key.data(), key.size());
    cKeyMatch const matches{key};
    cBlockBuilder block;
    std::unique_ptr<RWCollectableString> newValue = block.make(value);
    if (RWCollectable const* storedKey = record.findIf(hash, matches)) {
        // The first key object stays; the last value wins.
        RWCollectable* old = record.replaceValueIf(hash, matches, newValue.release());
        if (old != storedKey) delete old;
        return;
    }
    std::unique_ptr<RWCollectableString> newKey = block.make(key);
    record.insertNewKeyAndValue(newKey.get(), newValue.get(), hash);
    newKey.release();
    newValue.release();
}

}  // namespace nAssoText
