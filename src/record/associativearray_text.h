// The rules of the record's text form shared by the writer, the reader and the converters of
// the associativearray module. Not installed: the public interface is associativearray.h.
#ifndef COLLOQUY_ASSOCIATIVEARRAY_TEXT_H
#define COLLOQUY_ASSOCIATIVEARRAY_TEXT_H

#include "associativearray.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <typeinfo>

namespace nAssoText {

// The log module of every record of the associativearray module.
inline constexpr char const kModule[] = "associativearray";

// A read position in a text form and the end of the input. A null `end` is used only by the
// cursor-only entry points (gParseInt, gLoadString), whose callers vouch for the lengths:
// numbers are then read up to a NUL at most.
struct cCursor {
    char const* pos;
    char const* end;
};

// The text of the exception for the errors found in a number.
inline constexpr std::string_view kSyntaxError = "Error";

// Reads one decimal number of 1 to 18 characters ended by a blank and moves past the blank
// (also when the number is then refused). On a syntax error it returns false and sets `error`
// to the text the CIllegalAssoSyntaxException carries ("Error").
inline bool readInt(cCursor& cursor, int& value, std::string_view& error);

// Reads one piece "'<length> <bytes>" and steps over the byte after it, when there is one.
// The bytes stay in the input. On a syntax error it returns false with `error` set: the rest
// of the input when the apostrophe is missing, "Error" for a bad, negative or too large length.
inline bool readPiece(cCursor& cursor, std::string_view& piece, std::string_view& error);

// The same, throwing CIllegalAssoSyntaxException(error) on a syntax error.
inline int parseInt(cCursor& cursor);
inline std::string_view loadPiece(cCursor& cursor);
[[noreturn]] void throwSyntaxError(std::string_view error);

// ---- the writer's pieces ----

// The number of decimal digits of `n`.
inline size_t decimalDigits(size_t n) {
    size_t digits = 1;
    for (; n >= 10; n /= 10) ++digits;
    return digits;
}

// Writes the `digits` decimal digits of `n` at `out` and returns the end.
inline char* writeDecimal(char* out, size_t n, size_t digits) {
    char* const end = out + digits;
    for (char* p = end; p != out; n /= 10) *--p = static_cast<char>('0' + n % 10);
    return end;
}

// The length prefix " '<n> " of a piece: its size, and writing it at `out` (returning the end).
inline size_t prefixSize(size_t length) { return decimalDigits(length) + 3; }
inline char* writePrefix(char* out, size_t length) {
    *out++ = ' ';
    *out++ = '\'';
    out = writeDecimal(out, length, decimalDigits(length));
    *out++ = ' ';
    return out;
}

// A whole piece: its prefix and its bytes.
inline size_t pieceSize(std::string_view bytes) { return prefixSize(bytes.size()) + bytes.size(); }
inline char* writePiece(char* out, std::string_view bytes) {
    out = writePrefix(out, bytes.size());
    if (!bytes.empty()) std::memcpy(out, bytes.data(), bytes.size());  // an empty view may have no data
    return out + bytes.size();
}

// Appends `n` in decimal; appends the length prefix of a piece.
void appendDecimal(std::string& out, long long n);
void appendPrefix(std::string& out, size_t length);

// The bytes up to the first NUL: a key as a NUL-terminated key holds it, a text as read by NUL.
inline std::string_view upToNul(std::string_view piece) {
    size_t n = 0;
    while (n < piece.size() && piece[n] != '\0') ++n;  // pieces are short: a plain loop beats memchr
    return piece.substr(0, n);
}

// The value object stored for `key`, or null; the lookup makes no allocation.
RWCollectableString* storedValue(CAssociativeArray const& record, std::string_view key);

// ---- the key and value objects ----

// The key and value objects the record makes. They are carved out of shared blocks, as they
// are nearly always created together: a pair's two objects by AddCouple, all the objects of
// a text form (up to a limit) by the reader. Each object is still destroyed on its own with
// delete (by the record or by anyone it was handed to), which gives its part back; a block is
// freed with its last part.
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
// given back when the maker goes.
class cStringMaker {
  public:
    static constexpr size_t kMaxParts = 64;  // about 3.5 KiB on 64 bits
    explicit cStringMaker(size_t expected);
    ~cStringMaker();
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
    void renew();  // starts a new block
    nDetail::cBlock* mBlock = nullptr;
    size_t mParts;
};

// Destroys the record's objects in bulk: the objects of one block given in a row give their
// parts back with one atomic step rather than one each.
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

// The text of a key or value object: its bytes for a string, nothing for anything else. The
// record's own objects are recognised without a virtual call.
std::string_view foreignText(RWCollectable const* item);
inline std::string_view textOf(RWCollectable const* item) {
    if (item && typeid(*item) == typeid(cStoredString)) return static_cast<cStoredString const*>(item)->view();
    return foreignText(item);
}

// Matches a stored key object against key bytes without building a key object.
struct cKeyMatch {
    std::string_view key;
    bool operator()(RWCollectable const* stored) const {
        return stored->isA() == __RWCOLLECTABLESTRING && static_cast<RWCollectableString const*>(stored)->view() == key;
    }
};

// Adds the pair, or replaces the value of an existing key (destroying the old value). The
// lookup makes no allocation; only the new objects are made, by `maker`.
inline void addPair(CAssociativeArray& record, std::string_view key, std::string_view value, cStringMaker& maker) {
    std::unique_ptr<RWCollectableString> newValue = maker.make(value);
    RWCollectable* old = nullptr;
    // A new key gets a key object; an existing one keeps the first key object (the last value wins).
    RWCollectable const* storedKey = record.putValueIf(
        RWCString::hash(key.data(), key.size()), cKeyMatch{key}, newValue.get(),
        [&maker, key] { return maker.make(key).release(); }, old);
    newValue.release();
    if (storedKey && old != storedKey) delete old;
}
void addPair(CAssociativeArray& record, std::string_view key, std::string_view value);

// ---- inline definitions: the reader's inner loop ----

namespace nDetail {
// A number token is at most 18 characters, so the blank ending it is among the first 19.
constexpr size_t kMaxDigits = 18;

inline size_t available(cCursor const& cursor, size_t atMost) {
    if (cursor.end) return std::min(static_cast<size_t>(cursor.end - cursor.pos), atMost);
    return strnlen(cursor.pos, atMost);
}

// strtol of a token of at most kMaxDigits characters, clamped to int.
long long tokenValue(char const* token, size_t n);
}  // namespace nDetail

inline bool readInt(cCursor& cursor, int& value, std::string_view& error) {
    error = kSyntaxError;
    char const* const token = cursor.pos;
    // The writer's numbers (up to 9 digits, no needless leading zero, then a blank) are read
    // in one pass; anything else goes the general way below, which decides as strtol would.
    if (cursor.end) {
        size_t const window = static_cast<size_t>(cursor.end - token);
        size_t const digits = std::min(window, size_t{9});
        int number = 0;
        size_t i = 0;
        for (; i < digits && static_cast<unsigned>(token[i] - '0') <= 9u; ++i) number = number * 10 + (token[i] - '0');
        if (i > 0 && i < window && token[i] == ' ' && (token[0] != '0' || i == 1)) {
            cursor.pos = token + i + 1;
            value = number;
            return true;
        }
    }
    size_t const window = nDetail::available(cursor, nDetail::kMaxDigits + 1);
    size_t n = 0;
    while (n < window && token[n] != ' ') ++n;
    if (n == 0 || n == window) return false;  // empty, or no blank in reach
    cursor.pos = token + n + 1;
    long long const number = nDetail::tokenValue(token, n);
    // strtol gives 0 for any text without digits: only the token "0" really means zero.
    if (number == 0 && !(n == 1 && token[0] == '0')) return false;
    value = static_cast<int>(number);
    return true;
}

inline bool readPiece(cCursor& cursor, std::string_view& piece, std::string_view& error) {
    if (nDetail::available(cursor, 1) == 0 || *cursor.pos != '\'') {
        error = std::string_view(cursor.pos, nDetail::available(cursor, SIZE_MAX));
        return false;
    }
    ++cursor.pos;
    int length = 0;
    if (!readInt(cursor, length, error)) return false;
    auto const n = static_cast<size_t>(length);
    if (length < 0 || (cursor.end && n > static_cast<size_t>(cursor.end - cursor.pos))) return false;
    piece = std::string_view(cursor.pos, n);
    cursor.pos += n;
    // The byte after the piece (a blank from the writer) is skipped unread; at the very end
    // of the input it may be missing.
    if (!cursor.end || cursor.pos < cursor.end) ++cursor.pos;
    return true;
}

inline int parseInt(cCursor& cursor) {
    int value = 0;
    std::string_view error;
    if (!readInt(cursor, value, error)) throwSyntaxError(error);
    return value;
}

inline std::string_view loadPiece(cCursor& cursor) {
    std::string_view piece, error;
    if (!readPiece(cursor, piece, error)) throwSyntaxError(error);
    return piece;
}

}  // namespace nAssoText

#endif
