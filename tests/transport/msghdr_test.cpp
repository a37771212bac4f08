// The wire image of the message header, in both word sizes.
#include "msghdr.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

// Each header is written between guard bytes, which must stay as they were, and reads back as
// the low 32 bits of the length and the two classifiers.
TEST(MessageHeader, EightBigEndianBytesWithOnlyTheLowThirtyTwoBitsOfTheLength) {
    struct Case {
        long long length;
        short type, subType;
        Bytes image;
    } const cases[] = {
        {0x01020304, 0x0506, -0x8000, {1, 2, 3, 4, 5, 6, 0x80, 0x00}},
        {-0x7fffffffLL - 1, 0x7fff, 0, {0x80, 0, 0, 0, 0x7f, 0xff, 0, 0}},
        // Where long has 64 bits the high half is dropped; with 32 the conversion keeps the same bits.
        {0x123456789LL, 1, 1, {0x23, 0x45, 0x67, 0x89, 0, 1, 0, 1}},
        {-0x100000000LL + 7, 0, 0, {0, 0, 0, 7, 0, 0, 0, 0}},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.length);
        alignas(c_MessageHeader) unsigned char memory[16];
        std::memset(memory, 0x5A, sizeof memory);
        auto* const header = reinterpret_cast<c_MessageHeader*>(memory + 4);
        SSMMakeMessageHeader(static_cast<long>(c.length), c.type, c.subType, header);
        EXPECT_EQ(Bytes(memory, memory + 4), Bytes(4, 0x5A));
        EXPECT_EQ(Bytes(memory + 4, memory + 12), c.image);
        EXPECT_EQ(Bytes(memory + 12, memory + 16), Bytes(4, 0x5A));
        EXPECT_EQ(gBodyLengthOf(*header), static_cast<int32_t>(static_cast<uint32_t>(c.length)));
        EXPECT_EQ(gMessageTypeOf(*header), c.type);
        EXPECT_EQ(gMessageSubTypeOf(*header), c.subType);
    }
    SSMMakeMessageHeader(1, 2, 3, nullptr);  // ignored
}

}  // namespace
