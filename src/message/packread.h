// Reading of a packed header bounded by the buffer's length: for bytes that came over the
// network, where the header cannot be trusted. Internal to the library.
#ifndef COLLOQUY_PACKREAD_H
#define COLLOQUY_PACKREAD_H

#include "packmsg.h"

#include <cstddef>
#include <optional>

namespace nPack {

// Returns what the c_Pack reader would make of `buffer` when it holds a well-formed
// header within `length` bytes: a count of 1 to 10 and that many lengths, each token being 1
// to 10 decimal digits (a value of at most INT_MAX) followed by exactly one blank, and every
// field within the buffer. Bytes after the last field are allowed and ignored.
// Returns nothing otherwise (also for a null buffer).
// Nothing outside [buffer, buffer + length) is read.
std::optional<c_Pack> readBounded(char const* buffer, std::size_t length);

}  // namespace nPack

#endif
