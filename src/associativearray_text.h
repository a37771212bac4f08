// The rules of the record's text form shared by the writer, the reader and the converters of
// the associativearray module. Not installed: the public interface is associativearray.h.
#ifndef COLLOQUY_ASSOCIATIVEARRAY_TEXT_H
#define COLLOQUY_ASSOCIATIVEARRAY_TEXT_H

#include "associativearray.h"

#include <cstddef>
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

// Reads one decimal number of 1 to 18 characters ended by a blank and moves past the blank
// (also when the number is then refused). Throws CIllegalAssoSyntaxException("Error").
int parseInt(cCursor& cursor);

// Reads one piece "'<length> <bytes>" and steps over the byte after it, when there is one.
// The bytes stay in the input. Throws CIllegalAssoSyntaxException: with the rest of the input
// when the apostrophe is missing, with "Error" for a bad, negative or too large length.
std::string_view loadPiece(cCursor& cursor);

// Appends `n` in decimal; appends the length prefix " '<n> " of a piece.
void appendDecimal(std::string& out, long long n);
void appendPrefix(std::string& out, size_t length);
// The number of bytes appendPrefix writes for `length`.
size_t prefixSize(size_t length);

// The key as a NUL-terminated key would hold it: up to its first NUL.
std::string_view keyText(std::string_view piece);

// The value object stored for `key`, or null; the lookup makes no allocation.
RWCollectableString* storedValue(CAssociativeArray const& record, std::string_view key);

// Adds the pair, or replaces the value of an existing key (destroying the old value). The
// lookup makes no allocation; only the new objects are allocated.
void addPair(CAssociativeArray& record, std::string_view key, std::string_view value);

}  // namespace nAssoText

#endif
