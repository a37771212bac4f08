// Packed buffers and the pack format: byte images of the builder, the reader on the same bytes,
// and the Error records of each check.
#include "packmsg.h"

#include "tagscope.h"

#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>
#include <string>

namespace {

using nTagScope::ErrorRecords;

char const* const kEnd = nullptr;

std::string packedBytes(c_Pack const& pack) { return std::string(pack.theBuffer, pack.thePackedMsgLen()); }

// Frees the builder's buffer at the end of a test.
struct Owned {
    char* buffer;
    ~Owned() { PCKFreeData(buffer); }
};

// The reader on a buffer must see what the builder recorded.
void expectReadsBack(c_Pack const& built) {
    c_Pack const read(built.theBuffer);
    EXPECT_EQ(read.theBuffer, built.theBuffer);
    ASSERT_EQ(read.theCount, built.theCount);
    EXPECT_EQ(read.thePackedMsgLen(), built.thePackedMsgLen());
    for (int i = 0; i < built.theCount; ++i) {
        EXPECT_EQ(read.theLengths[i], built.theLengths[i]) << "field " << i;
        EXPECT_EQ(read.field(i), built.field(i)) << "field " << i;
    }
}

TEST(PackedBuffer, AllocAndFreeLogOnlyForZeroSizeAndNullHandle) {
    ErrorRecords on;
    char* empty = PCKAlloc(0);
    EXPECT_NE(empty, nullptr);
    EXPECT_EQ(on.count("packmsg"), 1u);
    EXPECT_EQ(on.records()[0].text, "");
    EXPECT_EQ(PCKFreeData(empty), 1);
    EXPECT_EQ(on.count("packmsg"), 1u);

    EXPECT_EQ(PCKFreeData(nullptr), 1);
    EXPECT_EQ(on.count("packmsg"), 2u);

    char* some = PCKAlloc(16);
    EXPECT_EQ(on.count("packmsg"), 2u);
    delete[] some;                           // the array delete may release a packed buffer
    EXPECT_EQ(PCKFreeData(new char[8]), 1);  // and PCKFreeData an array-new block
}

TEST(PackBuilder, TwoFieldsPackFourteenBytes) {
    ErrorRecords on;
    char first[] = {'a', 'b', '\0'};
    char second[] = {'h', 'e', 'l', 'l', 'o'};
    c_Pack const pack(first, 3, second, 5, kEnd);
    Owned owned{pack.theBuffer};
    EXPECT_EQ(packedBytes(pack), std::string("2 3 5 ab\0hello", 14));
    EXPECT_EQ(pack.field(1), pack.theBuffer + 9);

    // The views refer to the packed copy: the caller's bytes may change.
    std::memcpy(first, "xy", 3);
    EXPECT_STREQ(pack.field(0), "ab");
    expectReadsBack(pack);
    EXPECT_EQ(on.total(), 0u);
}

TEST(PackBuilder, EmptyFirstFieldPacksAndLogsOnce) {
    for (bool null : {false, true}) {  // a null first field of length 0 as well
        ErrorRecords on;
        c_Pack const pack(null ? nullptr : "", 0, "x", 1, kEnd);
        Owned owned{pack.theBuffer};
        EXPECT_EQ(packedBytes(pack), "2 0 1 x");
        EXPECT_EQ(on.count("packmsg"), 1u);
        expectReadsBack(pack);
    }
}

TEST(PackBuilder, EmptyLaterFieldHasOnlyItsHeaderItem) {
    c_Pack const pack("ab", 2, "", 0, "cd", 2, kEnd);
    Owned owned{pack.theBuffer};
    EXPECT_EQ(packedBytes(pack), "3 2 0 2 abcd");
    EXPECT_EQ(pack.field(1), pack.field(2));
    expectReadsBack(pack);
}

TEST(PackBuilder, TenFieldsAreTheLimitAndAnEleventhIsReported) {
    ErrorRecords on;
    c_Pack const ten("0", 1, "1", 1, "2", 1, "3", 1, "4", 1, "5", 1, "6", 1, "7", 1, "8", 1, "9", 1, kEnd);
    Owned ownedTen{ten.theBuffer};
    EXPECT_EQ(packedBytes(ten), "10 1 1 1 1 1 1 1 1 1 1 0123456789");
    EXPECT_EQ(on.total(), 0u);
    expectReadsBack(ten);

    c_Pack const eleven("0", 1, "1", 1, "2", 1, "3", 1, "4", 1, "5", 1, "6", 1, "7", 1, "8", 1, "9", 1, "A", 1, "B", 1,
                        kEnd);
    Owned ownedEleven{eleven.theBuffer};
    EXPECT_EQ(on.count("packmsg"), 1u);
    EXPECT_EQ(packedBytes(eleven), packedBytes(ten));  // fields past the tenth are dropped
    EXPECT_EQ(eleven.field(10), nullptr);
    EXPECT_EQ(on.count("packmsg"), 2u);  // asking for slot 10 is reported too
    EXPECT_EQ(eleven.field(11), nullptr);
    EXPECT_EQ(on.count("packmsg"), 3u);
}

TEST(PackBuilder, LengthsOutsideTheIntRangeAreRefused) {
    EXPECT_THROW(c_Pack("a", 1, "b", -1, kEnd), std::invalid_argument);
    EXPECT_THROW(c_Pack("a", 1, "b", 2147483600, kEnd), std::length_error);
}

TEST(PackReader, MapsFieldsInPlace) {
    c_Pack const none(static_cast<char const*>(nullptr));
    EXPECT_EQ(none.theCount, 0);
    EXPECT_EQ(none.field(0), nullptr);
    // A count above ten maps ten fields: the rest is data.
    char const twelve[] = "12 1 1 1 1 1 1 1 1 1 1 1 1 abcdefghijkl";
    c_Pack const many(twelve);
    EXPECT_EQ(many.theCount, 12);
    EXPECT_EQ(many.theLengths[9], 1);
    EXPECT_EQ(many.field(0), twelve + 23);  // just after the tenth length item
    EXPECT_EQ(many.field(9), twelve + 32);
}

}  // namespace
