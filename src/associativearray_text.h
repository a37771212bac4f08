// The rules of the record's text form shared by the writer, the reader and the converters of
// the associativearray module. Not installed: the public interface is associativearray.h.
#ifndef COLLOQUY_ASSOCIATIVEARRAY_TEXT_H
#define COLLOQUY_ASSOCIATIVEARRAY_TEXT_H

#include "associativearray.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

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

// Appends `n` in decimal; appends the length prefix " '<n> " of a piece.
void appendDecimal(std::string& out, long long n);
void appendPrefix(std::string& out, size_t length);
// The number of bytes appendPrefix writes for `length`.
size_t prefixSize(size_t length);

// The bytes up to the first NUL: a key as a NUL-terminated key holds it, a text as read by NUL.
std::string_view upToNul(std::string_view piece);

// The value object stored for `key`, or null; the lookup makes no allocation.
RWCollectableString* storedValue(CAssociativeArray const& record, std::string_view key);

// Adds the pair, or replaces the value of an existing key (destroying the old value). The
// lookup makes no allocation; only the new objects are allocated.
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
    size_t const window = nDetail::available(cursor, nDetail::kMaxDigits + 1);
    // The writer's numbers: up to 9 digits and a blank, read in one pass.
    if (window > 1 && cursor.pos[0] >= '1' && cursor.pos[0] <= '9') {
        int number = 0;
        size_t i = 0;
        for (; i < window && i < 9 && cursor.pos[i] >= '0' && cursor.pos[i] <= '9'; ++i)
            number = number * 10 + (cursor.pos[i] - '0');
        if (i < window && cursor.pos[i] == ' ') {
            cursor.pos += i + 1;
            value = number;
            return true;
        }
    }
    char const* const token = cursor.pos;
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
