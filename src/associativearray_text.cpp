// The text form's pieces: numbers, length-prefixed pieces, and the pair insertion that the
// reader and AddCouple share.
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

namespace {

// A number token is at most 18 characters, so the blank ending it is among the first 19.
constexpr size_t kMaxDigits = 18;

size_t available(cCursor const& cursor, size_t atMost) {
    if (cursor.end) return std::min(static_cast<size_t>(cursor.end - cursor.pos), atMost);
    return strnlen(cursor.pos, atMost);
}

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

}  // namespace

int parseInt(cCursor& cursor) {
    size_t const window = available(cursor, kMaxDigits + 1);
    char const* const token = cursor.pos;
    size_t n = 0;
    while (n < window && token[n] != ' ') ++n;
    if (n == 0 || n == window) throw CIllegalAssoSyntaxException("Error");  // empty, or no blank in reach
    cursor.pos = token + n + 1;
    long long const value = tokenValue(token, n);
    // strtol gives 0 for any text without digits: only the token "0" really means zero.
    if (value == 0 && !(n == 1 && token[0] == '0')) throw CIllegalAssoSyntaxException("Error");
    return static_cast<int>(value);
}

std::string_view loadPiece(cCursor& cursor) {
    if (available(cursor, 1) == 0 || *cursor.pos != '\'') {
        throw CIllegalAssoSyntaxException(std::string_view(cursor.pos, available(cursor, SIZE_MAX)));
    }
    ++cursor.pos;
    int const length = parseInt(cursor);
    if (length < 0) throw CIllegalAssoSyntaxException("Error");
    auto const n = static_cast<size_t>(length);
    if (cursor.end && n > static_cast<size_t>(cursor.end - cursor.pos)) throw CIllegalAssoSyntaxException("Error");
    std::string_view const piece(cursor.pos, n);
    cursor.pos += n;
    // The byte after the piece (a blank from the writer) is skipped unread; at the very end
    // of the input it may be missing.
    if (!cursor.end || cursor.pos < cursor.end) ++cursor.pos;
    return piece;
}

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

std::string_view keyText(std::string_view piece) { return piece.substr(0, piece.find('\0')); }

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
