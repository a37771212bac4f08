// The record: adding and replacing, numbers and arrays, the readers with and without a default,
// the exceptions, Reset and the move constructor, the objects it hands out; the writer (byte-exact
// images, the flags that leave bulky values out, the cache every call rewrites); its heap use
// (lookups allocate nothing, false counts reserve nothing, every block is freed); the hub key dump.
#include "assoc_test_util.h"
#include "send2hub.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <set>
#include <sstream>

using namespace std::string_literals;
using assoctest::pairsOf;

char const* const kEnd = nullptr;

namespace {

// The heap use of the code that heapUse runs: allocations, the largest, and those not freed again.
struct HeapUse {
    long allocations = 0, live = 0;
    size_t largest = 0;
    bool counting = false;
} gHeap;

template <class Run>
HeapUse heapUse(Run run) {
    gHeap = {};
    gHeap.counting = true;
    run();
    gHeap.counting = false;
    return gHeap;
}

void* allocate(size_t size) {
    if (gHeap.counting) gHeap = {gHeap.allocations + 1, gHeap.live + 1, std::max(gHeap.largest, size), true};
    if (void* p = std::malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}

void release(void* p) noexcept {
    if (p && gHeap.counting) --gHeap.live;
    std::free(p);
}

}  // namespace

void* operator new(size_t size) { return allocate(size); }
void* operator new[](size_t size) { return allocate(size); }
void operator delete(void* p) noexcept { release(p); }
void operator delete[](void* p) noexcept { release(p); }
void operator delete(void* p, size_t) noexcept { release(p); }
void operator delete[](void* p, size_t) noexcept { release(p); }

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
    record.AddCouple("one", "xyz", 1);
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
                                   "\nmixed=  12x\nnegative=\nnone=\nnull=\none=x\n" + longName + "-2147483648=long\n");
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
    try {
        record.GetValueOfParameter("missing");
        ADD_FAILURE() << "no exception";
    } catch (CAssoKeyDoesNotExistException const& e) {
        EXPECT_EQ(e.messageFile() + std::to_string(e.messageNumber()), "loadengine.frm11");
        EXPECT_EQ(e.arguments(), (std::vector<std::string>{"missing", std::string("1 '4 body '3 x\0y ", 17)}));
        EXPECT_EQ(std::string(e.what()), "Key 'missing' does not exist in: 1 '4 body '3 x");
    }
    EXPECT_THROW(record.GetDoubleValueOfParameterArray("body", 1), CAssoKeyDoesNotExistException);
    char const def[] = "default";  // with a default the same readers never throw
    EXPECT_EQ(record.GetValueOfParameter("missing", def), def);
    EXPECT_EQ(record.GetDoubleValueOfParameter("missing", 0.5), 0.5);
}

TEST(AssociativeArrayRecord, ResetAndMoveHandOverTheObjects) {
    CAssociativeArray record;
    record.AddCouple("a", "1");
    RWHashDictionaryIterator next(record);
    RWCollectable* const key = next();
    RWCollectable* const value = next.value();
    record.Reset();  // forgets the pairs without destroying them
    EXPECT_FALSE(record.KeyExists("a"));
    EXPECT_EQ(static_cast<RWCollectableString*>(value)->stdString(), "1");  // alive, and ours to destroy
    delete value;
    delete key;

    record.AddCouple("a", "1");
    char const* const moving = record.GetValueOfParameter("a");
    CAssociativeArray moved(_typer_c<zc_move__deprecate>(), &record);
    EXPECT_EQ(record.entries(), 0u);
    EXPECT_EQ(moved.GetValueOfParameter("a"), moving);  // the very same value object
    record.AddCouple("c", "3");                         // the emptied source works on its own
    EXPECT_EQ(pairsOf(record), "c=3\n");
    EXPECT_EQ(CAssociativeArray(_typer_c<zc_move__deprecate>(), nullptr).entries(), 0u);
}

// Read from one text form, the objects share blocks; each one taken out of the record lives on
// after the record and the other objects are gone, and the last one of a block frees it.
TEST(AssociativeArrayRecord, ObjectsOutliveTheRecordAndEveryBlockIsFreed) {
    CAssociativeArray source;
    for (int i = 0; i < 150; ++i)
        source.AddCouple(("k" + std::to_string(i)).c_str(), ("value " + std::to_string(i)).c_str());
    std::string const text = source.ToStringRef(false, false).stdString();
    bool alive = true;
    HeapUse const use = heapUse([&] {
        std::vector<std::pair<RWCollectable*, RWCollectable*>> taken;
        {
            CAssociativeArray record;
            record.FromStringZ1(text);
            for (int i = 0; i < 150; i += 37) {
                RWCollectableString const probe(("k" + std::to_string(i)).c_str());
                RWCollectable* value = nullptr;
                RWCollectable* const key = record.removeKeyAndValue(&probe, value);
                taken.emplace_back(key, value);
            }
            record.AddCouple("k1", "replaced");  // the old value goes back on its own
            record.AddCouple("new", "pair");
        }
        for (size_t n = 0; n < taken.size(); ++n) {
            alive &=
                static_cast<RWCollectableString*>(taken[n].second)->stdString() == "value " + std::to_string(n * 37);
            delete taken[n].second;
            delete taken[n].first;
        }
    });
    EXPECT_TRUE(alive);
    EXPECT_EQ(use.live, 0);
}

// Pairs put in through the dictionary's own interface: a plain string value is written and replaced
// (and destroyed), an int value and a missing value are written empty and read as missing.
TEST(AssociativeArrayRecord, ObjectsOfOtherKindsAreWrittenAndDestroyed) {
    CAssociativeArray record;
    record.insertKeyAndValue(new RWCollectableString("s"), new RWCollectableString("text"));
    EXPECT_STREQ(record.ToString(false, false), "1 '1 s '4 text ");
    record.AddCouple("s", "made here");
    record.insertKeyAndValue(new RWCollectableString("n"), new RWCollectableInt(5));
    record.insert(new RWCollectableString("bare"));
    EXPECT_EQ(record.ToStringRef(false, false).length(), 41u);
    EXPECT_NE(std::strstr(record.ToString(false, false), " '1 s '9 made here "), nullptr);
    EXPECT_FALSE(record.KeyExists("n"));
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
    std::string const big(10000, '\0');
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
        {"big", big, false, false, "1 '3 big '10000 " + big + " "},  // as many digits as it needs
    };
    for (auto const& row : rows) {
        CAssociativeArray one;
        one.AddCouple(row.key, row.value.data(), static_cast<int>(row.value.size()));
        EXPECT_EQ(written(one, row.skipResponseBody, row.skipProxyPostData), row.image);
    }
    // Each call rewrites the cache: a pointer from an earlier call shows the latest text.
    CAssociativeArray one;
    one.AddCouple("$RESPONSEBODY", "hello");
    char const* const first = one.ToString(false, false);
    EXPECT_EQ(one.ToString(true, false), first);
    EXPECT_STREQ(first, "1 '13 $RESPONSEBODY '0  ");
}

// Lookups allocate nothing; false lengths and counts reserve no more than the input holds (the pairs
// read before the failure are kept).
TEST(AssociativeArrayAllocation, LookupsAllocateNothingFalseLengthsReserveNothing) {
    CAssociativeArray record;
    record.AddArrayCouple("Item", 5L, 3);
    long found = 0;
    EXPECT_EQ(heapUse([&] { found = record.GetInt32ValueOfParameterArray("Item", 3); }).allocations, 0);
    EXPECT_EQ(found, 5);
    for (auto const& [text, kept] :
         {std::pair{"1 '999999999 ab '3 xyz ", 1u}, {"100000000 '1 a '1 1 '1 b '1 2 ", 3u}}) {
        auto const use = heapUse([&] { EXPECT_THROW(record.FromStringZTS(text), CIllegalAssoSyntaxException); });
        EXPECT_LT(use.largest, 4096u) << text;
        EXPECT_EQ(record.entries(), kept) << text;
    }
}

// The hub key dump ("<null>" for a null result), written straight in the text form with the sender first.
template <class... Args>
std::string hubDump(char const* from, Args... args) {
    std::unique_ptr<char, decltype(&FreeHubDumpArray)> text(DumpHubArray(from, args..., kEnd), FreeHubDumpArray);
    return text ? text.get() : "<null>";
}

TEST(HubDump, TextFormWithTheSenderFirstOrNullForAMissingValue) {
    EXPECT_EQ(hubDump("agent", "mode", "fast"), "2 '5 $FROM '5 agent '4 mode '4 fast");
    EXPECT_EQ(hubDump(""), "1 '5 $FROM '0 ");
    std::string const longValue(10000, 'v');
    EXPECT_EQ(hubDump("s", "long", longValue.c_str()), "2 '5 $FROM '1 s '4 long '10000 " + longValue);
    testing::internal::CaptureStdout();
    EXPECT_EQ(hubDump("agent", "a", "1", "broken", kEnd), "<null>");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(hubDump(static_cast<char const*>(nullptr), "k", "v"), "<null>");
    FreeHubDumpArray(nullptr);
    // It reads back as the same pairs plus the sender.
    std::string const awkward = "quote ' apostrophe '5 digits\t tab";
    std::string const text = hubDump("agent@host7", "mode", "fast", "empty", "", "", "no key", "odd", awkward.c_str());
    CAssociativeArray record(8);
    record.FromStringZTS(text.c_str());
    EXPECT_EQ(pairsOf(record), "=no key\n$FROM=agent@host7\nempty=\nmode=fast\nodd=" + awkward + "\n");
}

}  // namespace
