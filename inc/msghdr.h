// The 8-byte header in front of every typed message on a stream connection.
#ifndef COLLOQUY_MSGHDR_H
#define COLLOQUY_MSGHDR_H

#include "cplatformdefs.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

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

// The reverse: the fields of a received header in host order. Inline and free of the socket
// headers, so that they add nothing to the library's exported interface.
namespace nMessageHeaderDetail {
inline uint32_t fromBigEndian(void const* field, size_t size) {
    unsigned char bytes[4];
    std::memcpy(bytes, field, size);
    uint32_t value = 0;
    for (size_t i = 0; i < size; ++i) value = value << 8 | bytes[i];
    return value;
}
}  // namespace nMessageHeaderDetail
inline int32_t gBodyLengthOf(c_MessageHeader const& header) {
    return static_cast<int32_t>(nMessageHeaderDetail::fromBigEndian(&header.bodyLength, sizeof header.bodyLength));
}
inline short gMessageTypeOf(c_MessageHeader const& header) {
    return static_cast<short>(nMessageHeaderDetail::fromBigEndian(&header.messageType, sizeof header.messageType));
}
inline short gMessageSubTypeOf(c_MessageHeader const& header) {
    return static_cast<short>(
        nMessageHeaderDetail::fromBigEndian(&header.messageSubType, sizeof header.messageSubType));
}

#endif
