// The record: adding and replacing, numbers and arrays, the readers with and without a default,
// the exceptions, Reset and the move constructor, the objects it hands out; the text form
// writer (byte-exact images, the flags that leave bulky values out, the cache every call
// rewrites); and its heap use (lookups allocate nothing, false lengths reserve nothing).
#include "assoc_test_util.h"

#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>
#include <set>
#include <sstream>
#include <string>
#include <vector>

using namespace std::string_literals;

using assoctest::pairsOf;

namespace {

std::atomic<bool> gCounting{false};
std::atomic<size_t> gAllocations{0}, gLargest{0};

void* allocate(size_t size) {
    if (gCounting.load(std::memory_order_relaxed)) {
        ++gAllocations;
        for (size_t largest = gLargest.load(); size > largest && !gLargest.compare_exchange_weak(largest, size);) {
        }
    }
    if (void* p = std::malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}

// The heap allocations `run` makes: how many, and the largest.
template <class Run>
std::pair<size_t, size_t> heapUse(Run run) {
    gAllocations = gLargest = 0;
    gCounting = true;
    run();
    gCounting = false;
    return {gAllocations, gLargest};
}

}  // namespace

void* operator new(size_t size) { return allocate(size); }
void* operator new[](size_t size) { return allocate(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }
void operator delete[](void* p, size_t) noexcept { std::free(p); }

namespace {

TEST(AssociativeArrayRecord, AddingReplacingAndReading) {
    CAssociativeArray record(4);
    record.AddCouple("k", "a");
    RWCollectableString const probe("k");
    RWCollectable* const firstKey = record.find(&probe);
    record.AddCouple("k", "b");
    EXPECT_EQ(record.find(&probe), firstKey);  // the last value wins, the first key object stays
    record.AddCouple("K", "c");                // keys compare exactly
    record.AddCouple("kk", "a\0b", 3);
    record.AddCouple("coe", cStringCoeImpl(std::string("x\0y\0", 4)));
    for (char const* key : {"none", "null", "negative"}) record.AddCouple(key, "old");
    record.AddCouple("none", nullptr);
    record.AddCouple("null", nullptr, 5);
    record.AddCouple("negative", "abc", -1);
    record.AddCouple("d", 1.5);
    record.AddCouple("max", LONG_MAX);  // whole, whatever the width of long
    record.AddCouple("mixed", "  12x");
    record.AddArrayCouple("X", 7L, 12);
    record.AddArrayCouple("Item", "minus", -1);
    record.AddArrayCouple("D", 2.5, 0);
    std::string const longName(100, 'z');  // too long for the short-key buffer
    record.AddArrayCouple(longName.c_str(), "long", INT_MIN);
    std::string const zeros(39, '0');
    EXPECT_EQ(pairsOf(record), "D0=2.5" + zeros + "e+00\nItem-1=minus\nK=c\nX12=7\ncoe=x\0y\0\nd=1.5"s + zeros +
                                   "e+00\nk=b\nkk=a\0b\nmax="s + std::to_string(LONG_MAX) +
                                   "\nmixed=  12x\nnegative=\nnone=\nnull=\n" + longName + "-2147483648=long\n");
    // No validation: strtol and strtod semantics. Each reader, with and without a default.
    std::ostringstream read;
    read << record.GetInt32ValueOfParameter("mixed") << ' ' << record.GetDoubleValueOfParameter("mixed", 9.0) << ' '
         << (record.GetInt32ValueOfParameter("max", 0) == LONG_MAX) << ' ' << record.GetDoubleValueOfParameter("d")
         << ' ' << record.GetInt32ValueOfParameterArray("X", 12) << ' '
         << record.GetInt32ValueOfParameterArray("X", 12, 5L) << ' '
         << record.GetInt32ValueOfParameterArray("X", 13, 5L) << ' ' << record.GetValueOfParameterArray("Item", -1)
         << ' ' << record.GetValueOfParameterArray(longName.c_str(), INT_MIN, "def") << ' '
         << record.GetValueOfParameterArray("Item", 0, "def") << ' ' << record.GetDoubleValueOfParameterArray("D", 0)
         << ' ' << record.GetDoubleValueOfParameterArray("D", 0, 9.0) << ' '
         << record.GetDoubleValueOfParameterArray("D", 1, 9.0) << ' ' << record.GetInt32ValueOfParameter("missing", 7L)
         << ' ' << record.KeyExists("kk") << record.KeyExists("missing");
    EXPECT_EQ(read.str(), "12 12 1 1.5 7 7 5 minus long def 2.5 2.5 9 7 10");
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
        EXPECT_EQ(e.arguments(), (std::vector<std::string>{"missing", std::string("1 '4 body '3 x\0y ", 17)}));
        EXPECT_EQ(std::string(e.what()), "Key 'missing' does not exist in: 1 '4 body '3 x");
    }
    // The throwing reader rewrites the cache: a pointer from an earlier writer call shows it.
    EXPECT_STREQ(earlier, "1 '4 body '3 x");
    char const* data;
    int length;
    EXPECT_THROW(record.GetValueOfParameter("missing", data, length), CAssoKeyDoesNotExistException);
    EXPECT_THROW(record.GetDoubleValueOfParameterArray("body", 1), CAssoKeyDoesNotExistException);
    char const def[] = "default";  // with a default the same readers never throw
    EXPECT_EQ(record.GetValueOfParameter("missing", def), def);
    EXPECT_EQ(record.GetDoubleValueOfParameter("missing", 0.5), 0.5);
}

TEST(AssociativeArrayRecord, ResetAndMoveHandOverTheObjects) {
    CAssociativeArray record;
    record.AddCouple("a", "1");
    char const* const text = record.ToString(false, false);
    RWHashDictionaryIterator next(record);
    RWCollectable* const key = next();
    RWCollectable* const value = next.value();
    record.Reset();  // forgets the pairs without destroying them
    EXPECT_FALSE(record.KeyExists("a"));
    EXPECT_STREQ(text, "1 '1 a '1 1 ");                                     // the cache keeps the old text
    EXPECT_EQ(static_cast<RWCollectableString*>(value)->stdString(), "1");  // alive, and ours to destroy
    delete key;
    delete value;

    CAssociativeArray source;
    source.AddCouple("a", "1");
    char const* const moving = source.GetValueOfParameter("a");
    CAssociativeArray moved(_typer_c<zc_move__deprecate>(), &source);
    EXPECT_EQ(source.entries(), 0u);
    EXPECT_EQ(moved.GetValueOfParameter("a"), moving);  // the very same value object
    source.AddCouple("c", "3");                         // the emptied source works on its own
    EXPECT_EQ(pairsOf(source), "c=3\n");
    EXPECT_EQ(CAssociativeArray(_typer_c<zc_move__deprecate>(), nullptr).entries(), 0u);
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
    // Pairs put in through the dictionary's own interface: an int value is written empty.
    CAssociativeArray record;
    record.insertKeyAndValue(new RWCollectableString("n"), new RWCollectableInt(5));
    EXPECT_STREQ(record.ToString(false, false), "1 '1 n '0  ");
    RWCollectableString const n("n");
    record.removeAndDestroy(&n);
    record.insertKeyAndValue(new RWCollectableString("s"), new RWCollectableString("text"));
    EXPECT_STREQ(record.ToString(false, false), "1 '1 s '4 text ");
    record.AddCouple("s", "made here");  // the plain value is replaced and destroyed
    EXPECT_STREQ(record.ToString(false, false), "1 '1 s '9 made here ");
    record.insert(new RWCollectableString("bare"));             // a key without a value
    EXPECT_EQ(record.ToStringRef(false, false).length(), 32u);  // written with an empty value
}

TEST(AssociativeArrayRecord, DecodeIfEscapesTheStoredValueInPlace) {
    CAssociativeArray record;
    record.AddCouple("k", "50% \"a\"\\");
    record.AddCouple("ctl", "\n\x7f\xe9\x1f ~\0z", 8);
    record.AddCouple("empty", "");
    EXPECT_STREQ(record.GetValueOfParameterAndDecodeIf("k", false).data(), "50% \"a\"\\");
    RWCString const& escaped = record.GetValueOfParameterAndDecodeIf("k", true);
    EXPECT_STREQ(escaped.data(), "50%% %22a%22%5c");
    EXPECT_EQ(&escaped, &record.GetStringValueOfParameter("k"));  // the stored value itself
    EXPECT_EQ(record.GetValueOfParameterAndDecodeIf("ctl", true).stdString(), "%0a%7f%e9%1f ~%00z");
    EXPECT_EQ(record.GetValueOfParameterAndDecodeIf("empty", true).stdString(), "");
}

std::string written(CAssociativeArray const& record, bool skipResponseBody, bool skipProxyPostData) {
    char const* text = nullptr;
    int length = -1;
    record.ToString(text, length, skipResponseBody, skipProxyPostData);
    return std::string(text, static_cast<size_t>(length));
}

TEST(AssociativeArrayWriter, ImagesAndTheFlagsThatLeaveBulkyValuesOut) {
    CAssociativeArray record;
    EXPECT_EQ(written(record, false, false), " ");  // no pairs: no count either
    record.AddCouple("a", "b");
    record.AddCouple("key", "\0", 1);
    // The order is the dictionary's own: either is a correct image.
    std::set<std::string> const images{std::string("2 '1 a '1 b '3 key '1 \0 ", 24),
                                       std::string("2 '3 key '1 \0 '1 a '1 b ", 24)};
    EXPECT_EQ(images.count(written(record, false, false)), 1u) << written(record, false, false);
    std::string const big(12345, '\0');
    struct {
        char const* key;
        std::string value;
        bool skipResponseBody, skipProxyPostData;
        std::string image;
    } const rows[] = {
        {"$RESPONSEBODY", "hello", true, false, "1 '13 $RESPONSEBODY '0  "},
        {"$RESPONSEBODY", "hello", false, true, "1 '13 $RESPONSEBODY '5 hello "},
        {"$PROXYPOSTDATA", "x", false, true, "1 '14 $PROXYPOSTDATA '1 x "},
        {"$PROXYPOSTDATA", "x", true, true, "1 '14 $PROXYPOSTDATA '0  "},
        {"$responsebody", "kept", true, true, "1 '13 $responsebody '4 kept "},
        {"big", big, false, false, "1 '3 big '12345 " + big + " "},  // as many digits as it needs
    };
    for (auto const& row : rows) {
        CAssociativeArray one;
        one.AddCouple(row.key, row.value.data(), static_cast<int>(row.value.size()));
        EXPECT_EQ(written(one, row.skipResponseBody, row.skipProxyPostData), row.image);
    }
}

TEST(AssociativeArrayWriter, EachCallRewritesTheCache) {
    CAssociativeArray record;
    record.AddCouple("$RESPONSEBODY", "hello");
    char const* const first = record.ToString(false, false);
    EXPECT_STREQ(first, "1 '13 $RESPONSEBODY '5 hello ");
    // The first pointer now shows the second call's text.
    EXPECT_EQ(record.ToString(true, false), first);
    EXPECT_STREQ(first, "1 '13 $RESPONSEBODY '0  ");
    RWCString const& ref = record.ToStringRef(false, false);
    record.AddCouple("more", std::string(5000, 'x').c_str());
    record.ToStringInternal(false, false);
    EXPECT_EQ(ref.length(), written(record, false, false).size());  // the reference is the cache itself
}

TEST(AssociativeArrayAllocation, LookupsAllocateNothingAndAReplacedValueOnlyItself) {
    CAssociativeArray record;
    std::string const longKey(200, 'k');
    record.AddCouple("a", "1");
    record.AddCouple(longKey.c_str(), "2");
    record.AddArrayCouple("Item", 5L, 3);
    bool found = false;  // compared inside, without allocating
    EXPECT_EQ(heapUse([&] {
                  found = std::strcmp(record.GetValueOfParameter(longKey.c_str(), "none"), "2") == 0 &&
                          record.GetInt32ValueOfParameterArray("Item", 3) == 5 && !record.KeyExists("b");
              }).first,
              0u);
    EXPECT_TRUE(found);
    EXPECT_EQ(heapUse([&] { record.AddCouple("a", "new"); }).first, 1u);
}

TEST(AssociativeArrayAllocation, FalseLengthsAndCountsReserveNoMoreThanTheInputHolds) {
    struct {
        char const* text;
        size_t pairsKept;  // read before the failure
    } const cases[] = {{"1 '999999999 ab '3 xyz ", 0}, {"100000000 '1 a '1 1 '1 b '1 2 '1 c '1 3 ", 3}};
    for (auto const& c : cases) {
        CAssociativeArray record;
        auto const use = heapUse([&] { EXPECT_THROW(record.FromStringZTS(c.text), CIllegalAssoSyntaxException); });
        EXPECT_LT(use.second, 4096u) << c.text;
        EXPECT_EQ(record.entries(), c.pairsKept) << c.text;
    }
}

}  // namespace
