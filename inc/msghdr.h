// The 8-byte header in front of every typed message on a stream connection.
#ifndef COLLOQUY_MSGHDR_H
#define COLLOQUY_MSGHDR_H

#include "cplatformdefs.h"

#include <cstdint>

// The header exactly as it travels: every field in network byte order (big-endian), no padding.
//   offset 0: bodyLength      number of body bytes that follow the header
//   offset 4: messageType     first classifier, carried unchanged
//   offset 6: messageSubType  second classifier, carried unchanged
struct c_MessageHeader {
    int32_t bodyLength;
    int16_t messageType;
    int16_t messageSubType;
};
static_assert(sizeof(c_MessageHeader) == 8, "the wire header has 8 bytes");

// Fills `header` from host-order values. The low 32 bits of `length` are stored as they are
// (a negative length in two's complement); nothing is checked. A null `header` is ignored.
COLLOQUY_EXPORT void SSMMakeMessageHeader(long length, short type, short subType, c_MessageHeader* header);

#endif
