// Arbitrary bytes as a received message (made directly or through a typed message), printed, re-addressed
// as a reply and re-packed, which must read back to the same members. Input: type (2 bytes), subtype (2),
// cut (1: bytes dropped from the end), flags (1: bit 0, through ZEPTmo2Cqm), then the packed bytes.
#include "netmsg.h"
#include "zeppackmsg.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    nLog::gEnable("Error", false);  // records are tested elsewhere
    if (size < 6) return 0;
    auto const type = static_cast<short>(data[0] << 8 | data[1]), subType = static_cast<short>(data[2] << 8 | data[3]);
    size_t const length = size - 6 - std::min<size_t>(data[4], size - 6);
    char* copy = new char[length];  // exactly that long, so that ASan catches a read past it
    if (length > 0) std::memcpy(copy, data + 6, length);
    std::unique_ptr<cColloquyMessage> m;
    if (data[5] & 1) {
        m.reset(ZEPTmo2Cqm(new cTypedMessageObject(type, subType, copy, static_cast<unsigned>(length))));
    } else {
        m.reset(new cColloquyMessage(copy, static_cast<unsigned>(length), type, subType));
        delete[] copy;
    }
    if (std::strlen(m->printOnString()) >= 4096) std::abort();
    m->rePackMe(m->fromHost, m->fromName);  // the arguments point into the buffer being replaced
    cColloquyMessage const back(m->packedBuffer, m->packedLen, m->messageType, m->messageSubType);
    if (std::strcmp(back.toHost, m->toHost) || std::strcmp(back.toName, m->toName) ||
        std::strcmp(back.fromHost, m->fromHost) || std::strcmp(back.fromName, m->fromName) || back.qType != m->qType ||
        back.bodyLen != m->bodyLen || back.userValue != m->userValue || back.formatStamp != m->formatStamp ||
        std::memcmp(back.body, m->body, m->bodyLen))
        std::abort();
    m->printOnString();
    return 0;
}
