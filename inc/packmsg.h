// Packed message buffers and the pack format of counted fields.
//
// A packed buffer is a plain heap byte array (array new) with no hidden header: the handle and
// the data pointer are the same address, and the buffer does not know its own length.
//
// The pack format: a decimal text header, then the field bytes back to back.
//     "<N> <L0> <L1> ... <LN-1> " field0 field1 ... fieldN-1
// N is the field count (1 to 10), Li the byte length of field i, each written as "%d" and
// followed by one blank. Nothing follows the last field byte. Example: the fields "ab\0" and
// "hello" pack as the 14 bytes "2 3 5 ab\0hello".
#ifndef COLLOQUY_PACKMSG_H
#define COLLOQUY_PACKMSG_H

#include "Log.h"
#include "cplatformdefs.h"

// Allocates `size` uninitialised bytes with the array new. A size of 0 writes an Error record
// and still returns a zero-length array. Allocation failure throws the allocator's exception.
COLLOQUY_EXPORT char* PCKAlloc(unsigned int size);

// Releases a buffer made by PCKAlloc (or by the array new). A null handle writes an Error
// record and frees nothing. Always returns 1.
COLLOQUY_EXPORT int PCKFreeData(char const* handle);

// The read-only data pointer of a buffer handle: the handle itself.
COLLOQUY_EXPORT char const* PCKGetData(char const* handle);

// The writable data pointer of a buffer handle: the handle itself.
COLLOQUY_EXPORT char* PCKGetDataVar(char* handle);

// Builds a packed buffer from up to ten fields, or reads the fields of a packed buffer.
// A c_Pack never frees theBuffer: whoever takes it from a builder owns it (PCKFreeData).
class COLLOQUY_EXPORT c_Pack {
  public:
    char* theBuffer = nullptr;       // the packed buffer (built here, or the reader's input)
    char const* theFields[11] = {};  // start of each field; slot 10 only ever holds null
    int theLengths[10] = {};         // byte length of each field
    int theCount = 0;                // number of fields
    int thePackedLength = 0;         // header plus field bytes

    // Builder: pairs (field pointer, int length), ended by a null field pointer with no length
    // after it, e.g. c_Pack(a, 3, b, 5, nullptr). Allocates the sum of the lengths plus 100
    // bytes (the room for the header), writes the header and copies each field once; the
    // field views then point into theBuffer, never at the caller's memory.
    // Error records (no text) when: the first pointer is null or its length 0; an eleventh
    // field is given (fields past the tenth are dropped); the header or the data runs past
    // the nominal end (sum + 100). A header longer than 100 bytes (lengths of many digits) is
    // still given room, so nothing is written outside the allocation.
    // Throws std::invalid_argument for a negative length and std::length_error when the
    // packed size does not fit an int.
    c_Pack(char const* data0, int len0, ...);

    // Reader: maps the fields of a packed buffer in place (nothing copied or allocated); the
    // buffer must outlive the views. A null buffer leaves theBuffer null and every field null.
    // The reader has no length: it trusts the header of a buffer the builder wrote. For bytes
    // from elsewhere use a reading bounded by the buffer's length (cColloquyMessage does).
    // A header token is read up to 11 characters and a count above 10 maps ten fields.
    explicit c_Pack(char const* buffer);

    // Start of field i (0 to 9, below theCount). An index above 9 writes an Error record;
    // slot 10 is still read (null) and any higher index yields null.
    char const* field(unsigned int i) const {
        if (i > 9) COLLOQUY_LOG(nLog::nBasic::sErrorTag_, "packmsg");
        return i <= 10 ? theFields[i] : nullptr;
    }

    int thePackedMsgLen() const;
};

#endif
