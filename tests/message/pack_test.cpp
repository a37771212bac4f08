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

// A built buffer, freed at the end of a test; the reader on it must see what the builder recorded.
struct Built {
    explicit Built(c_Pack const& built) : pack(built) {
        c_Pack const read(built.theBuffer);
        EXPECT_EQ(read.theBuffer, built.theBuffer);
        EXPECT_EQ(read.theCount, built.theCount);
        EXPECT_EQ(read.thePackedMsgLen(), built.thePackedMsgLen());
        for (int i = 0; i < built.theCount && i < 10; ++i) {
            EXPECT_EQ(read.theLengths[i], built.theLengths[i]) << "field " << i;
            EXPECT_EQ(read.field(i), built.field(i)) << "field " << i;
        }
    }
    ~Built() { PCKFreeData(pack.theBuffer); }
    std::string bytes() const { return std::string(pack.theBuffer, pack.thePackedMsgLen()); }
    c_Pack const pack;
};

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
    EXPECT_EQ(PCKGetData(some), some);
    EXPECT_EQ(PCKGetDataVar(some), some);
    EXPECT_EQ(on.count("packmsg"), 2u);
    delete[] some;                           // the array delete may release a packed buffer
    EXPECT_EQ(PCKFreeData(new char[8]), 1);  // and PCKFreeData an array-new block
}

TEST(PackBuilder, ImagesAndTheirRecords) {
    char first[] = {'a', 'b', '\0'};
    struct {
        c_Pack (*build)(char*);
        std::string image;
        size_t records;
    } const cases[] = {
        {[](char* f) { return c_Pack(f, 3, "hello", 5, kEnd); }, std::string("2 3 5 ab\0hello", 14), 0},
        {[](char*) { return c_Pack("", 0, "x", 1, kEnd); }, "2 0 1 x", 1},  // an empty first field
        {[](char*) { return c_Pack(nullptr, 0, "x", 1, kEnd); }, "2 0 1 x", 1},
        {[](char*) { return c_Pack("ab", 2, "", 0, "cd", 2, kEnd); }, "3 2 0 2 abcd", 0},
        {[](char*) {
             return c_Pack("0", 1, "1", 1, "2", 1, "3", 1, "4", 1, "5", 1, "6", 1, "7", 1, "8", 1, "9", 1, kEnd);
         },
         "10 1 1 1 1 1 1 1 1 1 1 0123456789", 0},
        {[](char*) {  // fields past the tenth are dropped, and reported once
             return c_Pack("0", 1, "1", 1, "2", 1, "3", 1, "4", 1, "5", 1, "6", 1, "7", 1, "8", 1, "9", 1, "A", 1, "B",
                           1, kEnd);
         },
         "10 1 1 1 1 1 1 1 1 1 1 0123456789", 1},
    };
    for (auto const& c : cases) {
        ErrorRecords on;
        Built const built(c.build(first));
        EXPECT_EQ(built.bytes(), c.image);
        EXPECT_EQ(on.count("packmsg"), c.records) << c.image;
    }
    // The views refer to the packed copy: the caller's bytes may change.
    Built const two(cases[0].build(first));
    std::memcpy(first, "xy", 3);
    EXPECT_STREQ(two.pack.field(0), "ab");
    EXPECT_EQ(two.pack.field(1), two.pack.theBuffer + 9);
    Built const empty(cases[3].build(first));
    EXPECT_EQ(empty.pack.field(1), empty.pack.field(2));
    // Asking for slot 10 or above is reported; slot 10 holds null.
    ErrorRecords on;
    EXPECT_EQ(two.pack.field(10), nullptr);
    EXPECT_EQ(two.pack.field(11), nullptr);
    EXPECT_EQ(on.count("packmsg"), 2u);
    EXPECT_THROW(c_Pack("a", 1, "b", -1, kEnd), std::invalid_argument);
    EXPECT_THROW(c_Pack("a", 1, "b", 2147483600, kEnd), std::length_error);
}

TEST(PackReader, MapsFieldsInPlace) {
    c_Pack const none(static_cast<char const*>(nullptr));
    EXPECT_EQ(none.theCount, 0);
    EXPECT_EQ(none.theBuffer, nullptr);
    EXPECT_EQ(none.field(0), nullptr);
    // A count above ten maps ten fields: the rest is data.
    char const twelve[] = "12 1 1 1 1 1 1 1 1 1 1 1 1 abcdefghijkl";
    c_Pack const many(twelve);
    EXPECT_EQ(many.theCount, 12);
    EXPECT_EQ(many.theLengths[9], 1);
    EXPECT_EQ(many.field(0), twelve + 23);  // just after the tenth length item
    EXPECT_EQ(many.field(9), twelve + 32);
    EXPECT_EQ(many.thePackedMsgLen(), 33);
}

}  // namespace
