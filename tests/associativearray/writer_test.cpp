// The text form writer: byte-exact images, the two flags that leave bulky values out, and
// the cache that every writer call rewrites.
#include "assoc_test_util.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace {

std::string written(CAssociativeArray const& record, bool skipResponseBody = false, bool skipProxyPostData = false) {
    char const* text = nullptr;
    int length = -1;
    record.ToString(text, length, skipResponseBody, skipProxyPostData);
    return std::string(text, static_cast<size_t>(length));
}

TEST(AssociativeArrayWriter, ImagesOfSmallRecords) {
    CAssociativeArray record;
    EXPECT_EQ(written(record), " ");  // no pairs: no count either
    record.AddCouple("ab", "xyz");
    EXPECT_EQ(written(record), "1 '2 ab '3 xyz ");
    EXPECT_STREQ(record.ToString(false, false), "1 '2 ab '3 xyz ");
    EXPECT_EQ(record.ToStringRef(false, false).stdString(), "1 '2 ab '3 xyz ");

    CAssociativeArray two;
    two.AddCouple("a", "b");
    two.AddCouple("key", "");
    // The order is the dictionary's own: either is a correct image.
    std::set<std::string> const images{"2 '1 a '1 b '3 key '0  ", "2 '3 key '0  '1 a '1 b "};
    EXPECT_EQ(images.count(written(two)), 1u) << written(two);
}

TEST(AssociativeArrayWriter, BinaryValuesAreWrittenByLength) {
    CAssociativeArray record;
    record.AddCouple("k", "a\0b", 3);
    EXPECT_EQ(written(record), std::string("1 '1 k '3 a\0b ", 14));

    // Text that looks like the format stays inside its slot.
    CAssociativeArray tricky;
    tricky.AddCouple("v", " '5 x");
    EXPECT_EQ(written(tricky), "1 '1 v '5  '5 x ");
    CAssociativeArray back;
    back.FromStringZ1(tricky.ToStringRef(false, false));
    EXPECT_STREQ(back.GetValueOfParameter("v"), " '5 x");

    // A long value: the length prefix has as many digits as it needs.
    CAssociativeArray big;
    std::string const value(12345, '\0');
    big.AddCouple("big", value.data(), static_cast<int>(value.size()));
    EXPECT_EQ(written(big), "1 '3 big '12345 " + value + " ");
}

TEST(AssociativeArrayWriter, FlagsLeaveBulkyValuesOut) {
    CAssociativeArray body;
    body.AddCouple("$RESPONSEBODY", "hello");
    EXPECT_EQ(written(body, true, false), "1 '13 $RESPONSEBODY '0  ");
    EXPECT_EQ(written(body, true, true), "1 '13 $RESPONSEBODY '0  ");
    EXPECT_EQ(written(body, false, true), "1 '13 $RESPONSEBODY '5 hello ");
    EXPECT_EQ(written(body, false, false), "1 '13 $RESPONSEBODY '5 hello ");

    CAssociativeArray post;
    post.AddCouple("$PROXYPOSTDATA", "x");
    EXPECT_EQ(written(post, true, false), "1 '14 $PROXYPOSTDATA '1 x ");
    EXPECT_EQ(written(post, false, true), "1 '14 $PROXYPOSTDATA '1 x ");
    EXPECT_EQ(written(post, true, true), "1 '14 $PROXYPOSTDATA '0  ");

    CAssociativeArray other;
    other.AddCouple("$responsebody", "kept");
    EXPECT_EQ(written(other, true, true), "1 '13 $responsebody '4 kept ");

    // A left-out value reads back as an empty value, the key still present.
    CAssociativeArray back;
    back.FromStringRef(body.ToStringRef(true, false));
    EXPECT_EQ(assoctest::pairsOf(back), (assoctest::Pairs{{"$RESPONSEBODY", ""}}));
}

TEST(AssociativeArrayWriter, EachCallRewritesTheCache) {
    CAssociativeArray record;
    record.AddCouple("$RESPONSEBODY", "hello");
    char const* const first = record.ToString(false, false);
    EXPECT_STREQ(first, "1 '13 $RESPONSEBODY '5 hello ");
    char const* const second = record.ToString(true, false);
    // The first pointer now shows the second call's text.
    EXPECT_STREQ(first, "1 '13 $RESPONSEBODY '0  ");
    EXPECT_EQ(first, second);
    RWCString const& ref = record.ToStringRef(false, false);
    EXPECT_EQ(ref.data(), first);
    record.AddCouple("more", std::string(5000, 'x').c_str());
    record.ToStringInternal(false, false);
    EXPECT_EQ(ref.length(), written(record).size());  // the reference is the cache itself
}

}  // namespace
