// The key dump sent to the message hub: a list of key/value strings written straight into the
// associative array's text form, with the sender in front under the key "$FROM".
//
//   DumpHubArray("agent", "mode", "fast", (char const*)nullptr)
//     gives "2 '5 $FROM '5 agent '4 mode '4 fast"
//
// The text is a new heap array that the caller releases with FreeHubDumpArray.
#ifndef COLLOQUY_SEND2HUB_H
#define COLLOQUY_SEND2HUB_H

#include "cplatformdefs.h"

#include <cstdarg>

// `from` is the sender; then pairs of `char const*` key and value, ended by a null key.
// Returns the text, or null when a key has a null value (or the sender is null).
COLLOQUY_EXPORT char* DumpHubArray(char const* from, ...);
// The same with the pairs given as a va_list.
COLLOQUY_EXPORT char* DumpHubVArray(char const* from, va_list args);
// Releases a text made by DumpHubArray or DumpHubVArray; does nothing for null.
COLLOQUY_EXPORT void FreeHubDumpArray(char const* text);

#endif
