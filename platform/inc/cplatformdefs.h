// Definitions shared by every platform and library header.
#ifndef COLLOQUY_CPLATFORMDEFS_H
#define COLLOQUY_CPLATFORMDEFS_H

// Both libraries are built with hidden visibility; what the headers mark with
// COLLOQUY_EXPORT is the exported interface (classes: vtable, typeinfo and members).
#define COLLOQUY_EXPORT __attribute__((visibility("default")))

#endif
