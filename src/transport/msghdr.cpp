#include "msghdr.h"

#include <arpa/inet.h>

void SSMMakeMessageHeader(long length, short type, short subType, c_MessageHeader* header) {
    if (header == nullptr) return;
    // The conversions go through the unsigned types so that negative values keep their bits.
    header->bodyLength = static_cast<int32_t>(htonl(static_cast<uint32_t>(static_cast<unsigned long>(length))));
    header->messageType = static_cast<int16_t>(htons(static_cast<uint16_t>(type)));
    header->messageSubType = static_cast<int16_t>(htons(static_cast<uint16_t>(subType)));
}
