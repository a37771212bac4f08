// Code pages: conversion of text between two numbered code pages, built on iconv.
#ifndef COLLOQUY_CODEPAGE_H
#define COLLOQUY_CODEPAGE_H

#include "cplatformdefs.h"

// Converts `source` from `fromCodePage` to `toCodePage`. `sourceLength` is the number of bytes
// to convert, or -1 for a NUL-terminated source. With a null `target` and `targetSize` 0 it
// returns the size of buffer the converted text needs, its terminating NUL included; given a
// buffer at least that large it writes the converted, NUL-terminated text and returns the same
// size. It returns 0 for an unknown code page, a null source or a buffer too small.
// Code pages: 65001 UTF-8, 20127 US-ASCII, 1250-1258, 874, 932, 936, 949, 950,
// 28591-28606 (ISO-8859-1 to -16), 20866 KOI8-R. A byte sequence with no counterpart in the
// target code page (or not valid in the source code page) becomes "?".
// Thread-safe; a size query followed by the conversion of the same text converts it once.
COLLOQUY_EXPORT int ANSIToANSI(unsigned int fromCodePage, unsigned int toCodePage, char const* source, int sourceLength,
                               char* target, int targetSize);

#endif
