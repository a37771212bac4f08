// The record: adding and replacing, numbers and arrays, the readers with and without a
// default, the exceptions, Reset and the move constructor; and the text form writer:
// byte-exact images, the two flags that leave bulky values out, the cache every call rewrites.
#include "assoc_test_util.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <set>
#include <string>
#include <utility>
#include <vector>

using assoctest::Pairs;
using assoctest::pairsOf;

namespace {

TEST(AssociativeArrayRecord, LastValueWinsAndFirstKeyObjectStays) {
    CAssociativeArray record(4);
    record.AddCouple("k", "a");
    RWCollectableString const probe("k");
    RWCollectable* const firstKey = record.find(&probe);
    record.AddCouple("k", "b");
    EXPECT_EQ(record.find(&probe), firstKey);
    // Keys compare exactly: other case, prefix and extension are other keys.
    record.AddCouple("K", "c");
    record.AddCouple("kk", "d");
    EXPECT_EQ(pairsOf(record), (Pairs{{"K", "c"}, {"k", "b"}, {"kk", "d"}}));
}

TEST(AssociativeArrayRecord, ValuesAreBinarySafe) {
    CAssociativeArray record;
    record.AddCouple("k", "a\0b", 3);
    char const* data = nullptr;
    int length = 0;
    record.GetValueOfParameter("k", data, length);
    EXPECT_EQ(std::string(data, static_cast<size_t>(length)), std::string("a\0b", 3));
    record.AddCouple("s", cStringCoeImpl(std::string("x\0y\0", 4)));
    EXPECT_EQ(record.GetStringValueOfParameter("s").stdString(), std::string("x\0y\0", 4));
    record.AddCouple("none", nullptr);
    EXPECT_STREQ(record.GetValueOfParameter("none", "def"), "");
}

TEST(AssociativeArrayRecord, NumbersAreStoredAsText) {
    CAssociativeArray record;
    record.AddCouple("d", 1.5);
    EXPECT_STREQ(record.GetValueOfParameter("d"), "1.5000000000000000000000000000000000000000e+00");
    // A long is stored whole, whatever its width.
    record.AddCouple("max", LONG_MAX);
    EXPECT_EQ(record.GetStringValueOfParameter("max").stdString(), std::to_string(LONG_MAX));
    EXPECT_EQ(record.GetInt32ValueOfParameter("max"), LONG_MAX);
    // No validation: strtol and strtod semantics.
    record.AddCouple("mixed", "  12x");
    EXPECT_EQ(record.GetInt32ValueOfParameter("mixed"), 12);
    EXPECT_EQ(record.GetDoubleValueOfParameter("mixed", 9.0), 12.0);
}

TEST(AssociativeArrayRecord, ArrayElementsAreKeysWithTheIndexAppended) {
    CAssociativeArray record;
    record.AddArrayCouple("X", 7L, 12);
    record.AddArrayCouple("Item", "minus", -1);
    record.AddArrayCouple("D", 2.5, 0);
    EXPECT_EQ(pairsOf(record),
              (Pairs{{"X12", "7"}, {"Item-1", "minus"}, {"D0", "2.5000000000000000000000000000000000000000e+00"}}));
    EXPECT_EQ(record.GetInt32ValueOfParameterArray("X", 12), 7);
    EXPECT_STREQ(record.GetValueOfParameterArray("Item", -1), "minus");
    EXPECT_EQ(record.GetDoubleValueOfParameterArray("D", 0), 2.5);
    EXPECT_EQ(record.GetInt32ValueOfParameterArray("X", 13, 5L), 5);
    EXPECT_THROW(record.GetValueOfParameterArray("X", 1), CAssoKeyDoesNotExistException);

    // A name too long for the short-key buffer.
    std::string const longName(300, 'n');
    record.AddArrayCouple(longName.c_str(), "long", INT_MIN);
    EXPECT_STREQ(record.GetValueOfParameter((longName + std::to_string(INT_MIN)).c_str()), "long");
    EXPECT_STREQ(record.GetValueOfParameterArray(longName.c_str(), INT_MIN), "long");
}

TEST(AssociativeArrayRecord, MissingKeyThrowsWithTheWholeTextForm) {
    CAssociativeArray record;
    record.AddCouple("body", "x\0y", 3);
    char const* earlier = record.ToString(true, true);
    try {
        record.GetValueOfParameter("missing");
        ADD_FAILURE() << "no exception";
    } catch (CAssoKeyDoesNotExistException const& e) {
        EXPECT_STREQ(e.messageFile(), "loadengine.frm");
        EXPECT_EQ(e.messageNumber(), 11);
        // The record's text, NUL byte included.
        EXPECT_EQ(e.arguments(), (std::vector<std::string>{"missing", std::string("1 '4 body '3 x\0y ", 17)}));
        EXPECT_EQ(std::string(e.what()), "Key 'missing' does not exist in: 1 '4 body '3 x");
    }
    // The throwing reader rewrites the cache: a pointer from an earlier writer call shows it.
    EXPECT_STREQ(earlier, "1 '4 body '3 x");
    char const* data;
    int length;
    EXPECT_THROW(record.GetStringValueOfParameter("missing"), CAssoKeyDoesNotExistException);
    EXPECT_THROW(record.GetInt32ValueOfParameter("missing"), CAssoKeyDoesNotExistException);
    EXPECT_THROW(record.GetDoubleValueOfParameter("missing"), CAssoKeyDoesNotExistException);
    EXPECT_THROW(record.GetValueOfParameterAndDecodeIf("missing", true), CAssoKeyDoesNotExistException);
    EXPECT_THROW(record.GetValueOfParameter("missing", data, length), CAssoKeyDoesNotExistException);
    // With a default the same readers never throw.
    char const def[] = "default";
    EXPECT_EQ(record.GetValueOfParameter("missing", def), def);
    EXPECT_EQ(record.GetDoubleValueOfParameter("missing", 0.5), 0.5);
}

TEST(AssociativeArrayRecord, WrappedExceptionKeepsItsMessage) {
    CAssociativeArrayException const wrapped(KZErrorException("other.frm", 3, "x", nullptr));
    EXPECT_STREQ(wrapped.messageFile(), "other.frm");
    EXPECT_EQ(wrapped.arguments(), std::vector<std::string>{"x"});
}

TEST(AssociativeArrayRecord, ResetForgetsPairsWithoutDestroyingThem) {
    CAssociativeArray record;
    record.AddCouple("a", "1");
    char const* const text = record.ToString(false, false);
    RWHashDictionaryIterator next(record);
    RWCollectable* const key = next();
    RWCollectable* const value = next.value();
    record.Reset();
    EXPECT_FALSE(record.KeyExists("a"));
    EXPECT_STREQ(text, "1 '1 a '1 1 ");  // the cache keeps the old text
    // The objects are still alive and ours to destroy (the sanitizer build checks both).
    EXPECT_EQ(static_cast<RWCollectableString*>(value)->stdString(), "1");
    delete key;
    delete value;
}

TEST(AssociativeArrayRecord, ObjectsOutliveTheRecordThatMadeThem) {
    // Read from one text form, the objects share blocks; each one taken out of the record
    // lives on after the record and the other objects are gone.
    CAssociativeArray source;
    for (int i = 0; i < 150; ++i)
        source.AddCouple(("k" + std::to_string(i)).c_str(), ("value " + std::to_string(i)).c_str());
    std::vector<std::pair<RWCollectable*, RWCollectable*>> taken;
    {
        CAssociativeArray record;
        record.FromStringZ1(source.ToStringRef(false, false));
        for (int i = 0; i < 150; i += 37) {
            RWCollectableString const probe(("k" + std::to_string(i)).c_str());
            RWCollectable* value = nullptr;
            RWCollectable* key = record.removeKeyAndValue(&probe, value);
            ASSERT_NE(key, nullptr);
            taken.emplace_back(key, value);
        }
        record.AddCouple("k1", "replaced");  // the old value goes back on its own
    }
    for (size_t n = 0; n < taken.size(); ++n) {
        EXPECT_EQ(static_cast<RWCollectableString*>(taken[n].second)->stdString(), "value " + std::to_string(n * 37));
        delete taken[n].second;
        delete taken[n].first;
    }
}

TEST(AssociativeArrayRecord, ObjectsOfOtherKindsAreWrittenAndDestroyed) {
    // Pairs put in through the dictionary's own interface: a plain string key with an int
    // value is written with an empty value, a plain string value with its text.
    CAssociativeArray record;
    record.insertKeyAndValue(new RWCollectableString("n"), new RWCollectableInt(5));
    EXPECT_STREQ(record.ToString(false, false), "1 '1 n '0  ");
    RWCollectableString const n("n");
    record.removeAndDestroy(&n);
    record.insertKeyAndValue(new RWCollectableString("s"), new RWCollectableString("text"));
    EXPECT_STREQ(record.ToString(false, false), "1 '1 s '4 text ");
    record.AddCouple("s", "made here");  // the plain value is replaced and destroyed
    EXPECT_STREQ(record.ToString(false, false), "1 '1 s '9 made here ");
}

TEST(AssociativeArrayRecord, MoveConstructorStealsThePairs) {
    CAssociativeArray source;
    source.AddCouple("a", "1");
    char const* const value = source.GetValueOfParameter("a");
    char const* const sourceText = source.ToString(false, false);
    CAssociativeArray moved(_typer_c<zc_move__deprecate>(), &source);
    EXPECT_EQ(source.entries(), 0u);
    EXPECT_EQ(moved.GetValueOfParameter("a"), value);  // the very same value object
    EXPECT_STREQ(sourceText, "1 '1 a '1 1 ");          // the source's cache is untouched
    source.AddCouple("c", "3");                        // the emptied source works on its own
    EXPECT_EQ(pairsOf(source), (Pairs{{"c", "3"}}));
}

TEST(AssociativeArrayRecord, DecodeIfEscapesTheStoredValueInPlace) {
    CAssociativeArray record;
    record.AddCouple("k", "50% \"a\"\\");
    EXPECT_STREQ(record.GetValueOfParameterAndDecodeIf("k", false).data(), "50% \"a\"\\");
    RWCString const& escaped = record.GetValueOfParameterAndDecodeIf("k", true);
    EXPECT_STREQ(escaped.data(), "50%% %22a%22%5c");
    EXPECT_EQ(&escaped, &record.GetStringValueOfParameter("k"));  // the stored value itself
    record.AddCouple("ctl", "\n\x7f\xe9\x1f ~\0z", 8);
    EXPECT_EQ(record.GetValueOfParameterAndDecodeIf("ctl", true).stdString(), "%0a%7f%e9%1f ~%00z");
}

std::string written(CAssociativeArray const& record, bool skipResponseBody = false, bool skipProxyPostData = false) {
    char const* text = nullptr;
    int length = -1;
    record.ToString(text, length, skipResponseBody, skipProxyPostData);
    return std::string(text, static_cast<size_t>(length));
}

TEST(AssociativeArrayWriter, ImagesOfSmallRecords) {
    CAssociativeArray record;
    EXPECT_EQ(written(record), " ");  // no pairs: no count either
    record.AddCouple("a", "b");
    record.AddCouple("key", "\0", 1);
    // The order is the dictionary's own: either is a correct image.
    std::set<std::string> const images{std::string("2 '1 a '1 b '3 key '1 \0 ", 24),
                                       std::string("2 '3 key '1 \0 '1 a '1 b ", 24)};
    EXPECT_EQ(images.count(written(record)), 1u) << written(record);

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
    EXPECT_EQ(written(body, false, true), "1 '13 $RESPONSEBODY '5 hello ");

    CAssociativeArray post;
    post.AddCouple("$PROXYPOSTDATA", "x");
    EXPECT_EQ(written(post, false, true), "1 '14 $PROXYPOSTDATA '1 x ");
    EXPECT_EQ(written(post, true, true), "1 '14 $PROXYPOSTDATA '0  ");

    CAssociativeArray other;
    other.AddCouple("$responsebody", "kept");
    EXPECT_EQ(written(other, true, true), "1 '13 $responsebody '4 kept ");
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
    record.AddCouple("more", std::string(5000, 'x').c_str());
    record.ToStringInternal(false, false);
    EXPECT_EQ(ref.length(), written(record).size());  // the reference is the cache itself
}

}  // namespace
