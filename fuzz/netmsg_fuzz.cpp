// Arbitrary bytes as a received message: made with the four-argument constructor or taken over
// from a typed message, then printed, re-addressed and read back again.
//
// Input: 2 bytes type, 2 bytes subtype, 1 byte "cut" (that many bytes are dropped from the end
// of the buffer), 1 byte of flags (bit 0: through ZEPTmo2Cqm), then the packed bytes. The
// buffer given to the message is a heap copy of exactly its length, so that any read past it
// is caught by AddressSanitizer.
#include "netmsg.h"
#include "zeppackmsg.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

constexpr std::size_t kPrefix = 6;

// A message re-packed from its members must read back to the same members.
void checkRoundTrip(cColloquyMessage const& m) {
    cColloquyMessage back(m.packedBuffer, m.packedLen, m.messageType, m.messageSubType);
    bool const same = std::strcmp(back.toHost, m.toHost) == 0 && std::strcmp(back.toName, m.toName) == 0 &&
                      std::strcmp(back.fromHost, m.fromHost) == 0 && std::strcmp(back.fromName, m.fromName) == 0 &&
                      back.qType == m.qType && back.bodyLen == m.bodyLen && back.userValue == m.userValue &&
                      back.formatStamp == m.formatStamp && std::memcmp(back.body, m.body, m.bodyLen) == 0;
    if (!same) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    nLog::gEnable("Error", false);  // records are tested elsewhere
    if (size < kPrefix) return 0;
    short const type = static_cast<short>(data[0] << 8 | data[1]);
    short const subType = static_cast<short>(data[2] << 8 | data[3]);
    std::size_t const rest = size - kPrefix;
    std::size_t const length = rest - std::min<std::size_t>(data[4], rest);
    bool const typed = (data[5] & 1) != 0;

    char* copy = new char[length];
    if (length > 0) std::memcpy(copy, data + kPrefix, length);
    std::unique_ptr<cColloquyMessage> m;
    if (typed) {
        m.reset(ZEPTmo2Cqm(new cTypedMessageObject(type, subType, copy, static_cast<unsigned int>(length))));
    } else {
        m.reset(new cColloquyMessage(copy, static_cast<unsigned int>(length), type, subType));
        delete[] copy;
    }
    if (std::strlen(m->printOnString()) >= 4096) std::abort();
    m->rePackMe(m->fromHost, m->fromName);  // a reply: arguments point into the buffer being replaced
    checkRoundTrip(*m);
    m->printOnString();
    return 0;
}
