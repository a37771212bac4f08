// The wire image of the message header, in both word sizes.
#include "msghdr.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <vector>

namespace {

std::vector<unsigned char> image(long length, short type, short subType) {
    c_MessageHeader header;
    std::memset(&header, 0xAA, sizeof header);
    SSMMakeMessageHeader(length, type, subType, &header);
    std::vector<unsigned char> out(sizeof header);
    std::memcpy(out.data(), &header, sizeof header);
    return out;
}

using Bytes = std::vector<unsigned char>;

TEST(MessageHeader, LayoutIsEightBytesWithoutPadding) {
    EXPECT_EQ(sizeof(c_MessageHeader), 8u);
    EXPECT_EQ(offsetof(c_MessageHeader, bodyLength), 0u);
    EXPECT_EQ(offsetof(c_MessageHeader, messageType), 4u);
    EXPECT_EQ(offsetof(c_MessageHeader, messageSubType), 6u);
}

TEST(MessageHeader, FieldsAreStoredBigEndian) {
    EXPECT_EQ(image(1, 2, 3), (Bytes{0, 0, 0, 1, 0, 2, 0, 3}));
    EXPECT_EQ(image(0x01020304, 0x0506, 0x0708), (Bytes{1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_EQ(image(0, 0, 0), Bytes(8, 0));
    EXPECT_EQ(image(0x7fffffff, 0x7fff, -0x8000), (Bytes{0x7f, 0xff, 0xff, 0xff, 0x7f, 0xff, 0x80, 0x00}));
}

TEST(MessageHeader, NegativeValuesKeepTheirTwosComplementBits) {
    EXPECT_EQ(image(-1, -1, -1), Bytes(8, 0xFF));
    EXPECT_EQ(image(-2, -3, 5), (Bytes{0xFF, 0xFF, 0xFF, 0xFE, 0xFF, 0xFD, 0, 5}));
    EXPECT_EQ(image(static_cast<long>(-0x7fffffff - 1), 0, 0), (Bytes{0x80, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(MessageHeader, OnlyTheLowThirtyTwoBitsOfTheLengthAreStored) {
    // Where long has 64 bits, the high half is dropped; where it has 32, the same low bits
    // arrive through the conversion to long.
    EXPECT_EQ(image(static_cast<long>(0x123456789LL), 1, 1), (Bytes{0x23, 0x45, 0x67, 0x89, 0, 1, 0, 1}));
    EXPECT_EQ(image(static_cast<long>(0x100000000LL + 7), 0, 0), (Bytes{0, 0, 0, 7, 0, 0, 0, 0}));
    EXPECT_EQ(image(static_cast<long>(-0x100000000LL + 7), 0, 0), (Bytes{0, 0, 0, 7, 0, 0, 0, 0}));
}

TEST(MessageHeader, TouchesOnlyTheHeader) {
    alignas(c_MessageHeader) unsigned char memory[16];
    std::memset(memory, 0x5A, sizeof memory);
    SSMMakeMessageHeader(1, 2, 3, reinterpret_cast<c_MessageHeader*>(memory + 4));
    EXPECT_EQ(Bytes(memory, memory + 16),
              (Bytes{0x5A, 0x5A, 0x5A, 0x5A, 0, 0, 0, 1, 0, 2, 0, 3, 0x5A, 0x5A, 0x5A, 0x5A}));
    SSMMakeMessageHeader(1, 2, 3, nullptr);  // ignored
}

}  // namespace
