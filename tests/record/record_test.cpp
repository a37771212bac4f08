// The record, its text form (writer, reader, cursor-level steps), the hub key dump and the code-page
// converters; built with CONVERT_MODE, the program of that process-wide mode (read once per process).
#include "associativearray.h"
#include "files.h"
#include "send2hub.h"
#include "tagscope.h"

#include <future>
#include <random>
#include <unordered_map>

using Texts = std::vector<std::string>;

namespace {

// Every pair of the record, walked with the dictionary's own iterator, as "key=value" lines sorted by key.
std::string pairsOf(CAssociativeArray& record) {
    std::map<std::string, std::string> pairs;
    RWHashDictionaryIterator next(record);
    while (RWCollectable* key = next())
        pairs.emplace(static_cast<RWCollectableString&>(*key).stdString(),
                      static_cast<RWCollectableString&>(*next.value()).stdString());
    std::string text;
    for (auto const& [key, value] : pairs) text += key + "=" + value + "\n";
    return text;
}

Texts texts(std::vector<nLog::cRecord> const& records) {
    Texts texts;
    for (nLog::cRecord const& r : records) texts.push_back(r.text);
    return texts;
}

#ifndef CONVERT_MODE

struct HeapUse {
    long allocations = 0, live = 0;
    size_t largest = 0;
    bool counting = false;
} gHeap;

template <class Run>
HeapUse heapUse(Run run) {
    gHeap = {0, 0, 0, true};
    run();
    gHeap.counting = false;
    return gHeap;
}

void* allocate(size_t size) {
    if (gHeap.counting) gHeap = {gHeap.allocations + 1, gHeap.live + 1, std::max(gHeap.largest, size), true};
    // Fresh blocks hold no zeros, so that a text missing its terminating NUL runs on visibly.
    if (void* p = std::malloc(size ? size : 1)) return std::memset(p, 0xA5, size ? size : 1);
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
        record.GetValueOfParameter("missing"), ADD_FAILURE() << "no exception";
    } catch (CAssoKeyDoesNotExistException const& e) {
        EXPECT_EQ(e.messageFile() + std::to_string(e.messageNumber()) + "|" + e.what(),
                  "loadengine.frm11|Key 'missing' does not exist in: 1 '4 body '3 x");
        EXPECT_EQ(e.arguments(), (std::vector<std::string>{"missing", std::string("1 '4 body '3 x\0y ", 17)}));
    }
    EXPECT_THROW(record.GetDoubleValueOfParameterArray("body", 1), CAssoKeyDoesNotExistException);
}

TEST(AssociativeArrayRecord, ResetAndMoveHandOverTheObjects) {
    CAssociativeArray record;
    record.AddCouple("a", "1");
    RWCollectableString const a("a");
    RWCollectable *const key = record.find(&a), *const value = record.findValue(&a);
    record.Reset();  // forgets the pairs without destroying them: the value is alive, and ours to destroy
    EXPECT_EQ(std::to_string(record.KeyExists("a")) + static_cast<RWCollectableString*>(value)->stdString(), "01");
    delete value;
    delete key;

    record.AddCouple("a", "1");
    char const* const moving = record.GetValueOfParameter("a");
    CAssociativeArray moved(_typer_c<zc_move__deprecate>(), &record);
    EXPECT_TRUE(record.entries() == 0 && moved.GetValueOfParameter("a") == moving);  // the very same value object
    record.AddCouple("c", "3");  // the emptied source works on its own
    EXPECT_EQ(pairsOf(record), "c=3\n");
    EXPECT_EQ(CAssociativeArray(_typer_c<zc_move__deprecate>(), nullptr).entries(), 0u);
}

// Objects read from one text form share blocks: each outlives the others and the record, the last frees it.
TEST(AssociativeArrayRecord, ObjectsOutliveTheRecordAndEveryBlockIsFreed) {
    CAssociativeArray source;
    for (int i = 0; i < 150; ++i)
        source.AddCouple(("k" + std::to_string(i)).c_str(), ("value " + std::to_string(i)).c_str());
    std::string const text = source.ToStringRef(false, false).stdString();
    std::pair<RWCollectable*, RWCollectable*> taken[5];  // the pairs of k0, k37, k74, k111 and k148
    bool alive = true;
    HeapUse const use = heapUse([&] {
        auto record = std::make_unique<CAssociativeArray>();
        record->FromStringZ1(text);
        for (int n = 0; n < 5; ++n) {
            RWCollectableString const probe(("k" + std::to_string(n * 37)).c_str());
            taken[n].first = record->removeKeyAndValue(&probe, taken[n].second);
        }
        record->AddCouple("k1", "replaced");  // the old value goes back on its own
        record->AddCouple("new", "pair");
        record.reset();
        for (int n = 0; n < 5; ++n) {
            alive &= *static_cast<RWCollectableString*>(taken[n].second) == ("value " + std::to_string(n * 37)).c_str();
            delete taken[n].second;
            delete taken[n].first;
        }
    });
    EXPECT_TRUE(alive && use.live == 0) << use.live;
}

// Through the dictionary's own interface: a plain string value is replaced (and destroyed), an int value
// and a missing value are written empty and read as missing.
TEST(AssociativeArrayRecord, ObjectsOfOtherKindsAreWrittenAndDestroyed) {
    CAssociativeArray record;
    record.insertKeyAndValue(new RWCollectableString("s"), new RWCollectableString("text"));
    EXPECT_STREQ(record.ToString(false, false), "1 '1 s '4 text ");
    record.AddCouple("s", "made here");
    record.insertKeyAndValue(new RWCollectableString("n"), new RWCollectableInt(5));
    record.insert(new RWCollectableString("bare"));
    std::string const text = record.ToStringRef(false, false).stdString();  // in the table's order
    EXPECT_TRUE(text.size() == 41 && text.find(" '1 s '9 made here ") != text.npos && !record.KeyExists("n")) << text;
}

TEST(AssociativeArrayRecord, DecodeIfEscapesTheStoredValueInPlace) {
    CAssociativeArray record;
    std::string const value = "50% \"a\"\\\n\x7f\xe9\x1f ~\0z"s;
    record.AddCouple("k", value.data(), static_cast<int>(value.size()));
    record.AddCouple("empty", "");
    EXPECT_EQ(record.GetValueOfParameterAndDecodeIf("k", false).stdString(), value);
    RWCString const& escaped = record.GetValueOfParameterAndDecodeIf("k", true);
    EXPECT_EQ(&escaped, &record.GetStringValueOfParameter("k"));  // the stored value itself
    EXPECT_EQ(escaped.stdString() + "|" + record.GetValueOfParameterAndDecodeIf("empty", true).stdString(),
              "50%% %22a%22%5c%0a%7f%e9%1f ~%00z|");
}

TEST(AssociativeArrayWriter, ImagesAndTheFlagsThatLeaveBulkyValuesOut) {
    auto const image = [](char const* key, std::string const& value, bool skipResponseBody, bool skipProxyPostData) {
        CAssociativeArray one;
        if (key) one.AddCouple(key, value.data(), static_cast<int>(value.size()));
        char const* text = nullptr;
        int length = -1;
        one.ToString(text, length, skipResponseBody, skipProxyPostData);
        return std::string(text, static_cast<size_t>(length));
    };
    // No pairs: no count either. A long value: as many digits as its length needs.
    std::string const big(10000, '\0');
    EXPECT_EQ((Texts{image(nullptr, "", false, false), image("$RESPONSEBODY", "hello", true, false),
                     image("$RESPONSEBODY", "hello", false, true), image("$PROXYPOSTDATA", "x", false, true),
                     image("$PROXYPOSTDATA", "x", true, true), image("$responsebody", "kept", true, true),
                     image("big", big, false, false)}),
              (Texts{" ", "1 '13 $RESPONSEBODY '0  ", "1 '13 $RESPONSEBODY '5 hello ", "1 '14 $PROXYPOSTDATA '1 x ",
                     "1 '14 $PROXYPOSTDATA '0  ", "1 '13 $responsebody '4 kept ", "1 '3 big '10000 " + big + " "}));
    // Each call rewrites the cache (30 bytes, then fewer): a pointer from an earlier call shows the latest text.
    CAssociativeArray one;
    one.AddCouple("$RESPONSEBODY", "hello!");
    char const* const first = one.ToString(false, false);
    EXPECT_TRUE(one.ToString(false, false) == first && one.ToString(true, false) == first);
    EXPECT_STREQ(first, "1 '13 $RESPONSEBODY '0  ");
}

TEST(AssociativeArrayAllocation, LookupsAllocateNothingFalseLengthsReserveNothing) {
    CAssociativeArray record;
    record.AddArrayCouple("Item", 5L, 3);
    long found = 0;
    EXPECT_EQ(heapUse([&] { found = record.GetInt32ValueOfParameterArray("Item", 3); }).allocations, 0);
    EXPECT_EQ(found, 5);
    for (auto const& [text, kept] :
         {std::pair{"1 '999999999 ab '3 xyz ", 1u}, {"100000000 '1 a '1 1 '1 b '1 2 ", 3u}}) {
        auto const use = heapUse([&] { EXPECT_THROW(record.FromStringZTS(text), CIllegalAssoSyntaxException); });
        EXPECT_TRUE(use.largest < 4096 && record.entries() == kept) << text << ": " << use.largest;
    }
}

TEST(HubDump, TextFormWithTheSenderFirstOrNullForAMissingValue) {
    char const* const kEnd = nullptr;
    auto const hubDump = [kEnd](char const* from, auto... args) {  // "<null>" for a null result
        std::unique_ptr<char, decltype(&FreeHubDumpArray)> text(DumpHubArray(from, args..., kEnd), FreeHubDumpArray);
        return std::string(text ? text.get() : "<null>");
    };
    std::string const longValue(10000, 'v');
    EXPECT_EQ(hubDump("agent", "mode", longValue.c_str()), "2 '5 $FROM '5 agent '4 mode '10000 " + longValue);
    EXPECT_EQ(hubDump(""), "1 '5 $FROM '0 ");
    testing::internal::CaptureStdout();
    EXPECT_EQ(hubDump("agent", "a", "1", "broken", kEnd), "<null>");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(hubDump(nullptr, "k", "v"), "<null>");
}

std::string readOk(std::string const& text) {
    CAssociativeArray record;
    record.FromString(text.data(), static_cast<int>(text.size()));
    return pairsOf(record);
}

// The text carried by the CIllegalAssoSyntaxException that `read` ends in.
template <class Read>
std::string failureOf(Read read) {
    try {
        read();
    } catch (CIllegalAssoSyntaxException const& e) {
        EXPECT_EQ(e.messageNumber(), 10);
        return e.arguments().size() == 1 ? e.arguments()[0] : "<arguments>";
    }
    return "<no exception>";
}

TEST(AssociativeArrayReader, WorkedExamplesAndEveryEntryPoint) {
    // The byte after the last piece may be missing; the byte skipped after a piece is not looked at.
    for (char const* text : {"1 '2 ab '3 xyz ", "1 '2 ab '3 xyz", "1 '2 ab '3 xyz trailing junk", "1 '2 abX'3 xyzY"})
        EXPECT_EQ(readOk(text), "ab=xyz\n") << text;
    EXPECT_EQ(readOk("-3 "), "");
    EXPECT_EQ(readOk("0002 '01 a '1 1 '1 b '0  "), "a=1\nb=\n");     // numbers as strtol reads them
    EXPECT_EQ(readOk(std::string("1 '3 a\0b '1 v ", 14)), "a=v\n");  // keys stop at their first NUL
    std::string const text("1 '2 ab '3 x\0z ", 15);
    CAssociativeArray a, b, c, d, e;
    a.FromStringZ1(text), b.FromStringZ1(RWCString(text)), c.FromStringRef(RWCString(text));
    d.FromStringX2_deprecate("1 '2 ab '3 xyz"), e.FromStringZTS("1 '2 ab '3 xyz");  // NUL-ended: no skipped byte
    EXPECT_EQ(pairsOf(a) + pairsOf(b) + pairsOf(c) + pairsOf(d) + pairsOf(e),
              "ab=x\0z\nab=x\0z\nab=x\0z\nab=xyz\nab=xyz\n"s);
    // Reading adds to what is there; a failure keeps the pairs read before it.
    EXPECT_THROW(e.FromStringZTS("2 '1 b '1 3 '1 c 4 "), CIllegalAssoSyntaxException);
    EXPECT_EQ(pairsOf(e), "ab=xyz\nb=3\n");
}

TEST(AssociativeArrayReader, SyntaxErrorsCarryTheWholeInputAndAreLoggedTwice) {
    nTagScope::ErrorRecords errors;
    CAssociativeArray record;
    for (std::string const& text :
         Texts{"", "x ", "1 '2 ab 3 xyz ", "2 '1 a '1 b ", "1 '-1 a '1 b ", "1 '2 ab '4 xyz", "1 '2147483648 a ",
               "1 '2 ab '0x3 xyz ", "1 '00 a ", "1 ' a '1 b ", "0000000000000000001 '1 a '1 b ", "1 '2 a\0 '9 \0\0 "s})
        EXPECT_EQ(failureOf([&] { record.FromString(text.data(), static_cast<int>(text.size())); }), text) << text;
    EXPECT_EQ(errors.count("associativearray"), 24u);
    // Lengths are checked against the given length, not against what follows in memory.
    std::string const text("1 '2 ab '3 xyz ");
    EXPECT_EQ(failureOf([&] { record.FromString(text.data(), 12); }), text.substr(0, 12));
    EXPECT_EQ(failureOf([&] { record.FromString(text.data(), -1); }), "");
    EXPECT_EQ(failureOf([&] { record.FromString(nullptr, 5); }), "");
    // The bare char const* forms end at the NUL: a value cannot run past it.
    std::string const withNul("1 '2 ab '5 x\0yz ", 16);
    EXPECT_EQ(readOk(withNul), "ab=x\0yz \n"s);
    EXPECT_EQ(failureOf([&] { record.FromStringZTS(withNul.data()); }), "1 '2 ab '5 x");
    EXPECT_EQ(failureOf([&] { record.FromStringZTS(nullptr); }), "");
    // The first record shows the first exception (here the rest of the text where the apostrophe was
    // missing), the second the input, of which the bare char const* forms show 14 bytes at most.
    errors.clear();
    EXPECT_THROW(record.FromString("1 '2 ab 3 xyz ", 14), CIllegalAssoSyntaxException);
    EXPECT_THROW(record.FromStringX2_deprecate("1 '2 ab '30 xyz and more text"), CIllegalAssoSyntaxException);
    EXPECT_THROW(record.FromStringZTS("1 '2 ab '40 xyz and more text"), CIllegalAssoSyntaxException);
    std::string const cut = "Illegal associative array syntax: Error";
    EXPECT_EQ(texts(errors.records()), (Texts{"Illegal associative array syntax: 3 xyz ", "14\t1 '2 ab 3 xyz ", cut,
                                              "14\t1 '2 ab '30 xy", cut, "14\t1 '2 ab '40 xy"}));
}

// What gParseInt reads and how far it moves the cursor: past the blank even when it refuses the number.
TEST(AssociativeArrayReader, ParseIntStep) {
    Texts results;
    for (char const* text : {"12x rest", "-5 ", "0 ", "000000000000000001 ", "99999999999999 ", "-99999999999999 ",
                             "x rest", "", "12", "00 ", "-0 ", "0000000000000000001 ", "1\0 "}) {
        char const* cursor = text;
        long read = 0;
        bool const refused = failureOf([&] { read = gParseInt(cursor); }) != "<no exception>";
        results.push_back((refused ? "refused" : std::to_string(read)) + " +" + std::to_string(cursor - text));
    }
    EXPECT_EQ(results, (Texts{"12 +4", "-5 +3", "0 +2", "1 +19", "2147483647 +15", "-2147483648 +16", "refused +2",
                              "refused +0", "refused +0", "refused +3", "refused +3", "refused +0", "refused +0"}));
}

TEST(AssociativeArrayReader, LoadStringStep) {
    char* buffer = nullptr;  // none yet, whatever the size says: one is made, then grown to a piece's length
    int size = 1024;
    RWCString out("old");
    std::string const big(2000, 'q'), text = "'3 a\0b '2000 "s + big + " '0  ";
    char const* cursor = gLoadString(text.data(), buffer, size, out);
    EXPECT_EQ(out.stdString() + std::string(buffer, 4) + std::to_string(size), "a\0ba\0b\0"s + "3");
    cursor = gLoadString(cursor, buffer, size, out, true);
    EXPECT_EQ(out.stdString() + buffer[2000] + std::to_string(size), big + '\0' + "2000");
    cursor = gLoadString(cursor, buffer, size, out);
    EXPECT_EQ(out.stdString() + std::to_string(size) + std::to_string(cursor - text.data()),
              "2000" + std::to_string(text.size()));
    for (auto const& bad : {std::pair{"3 abc rest", "3 abc rest"}, {"'-1 x ", "Error"}, {"'x y ", "Error"}})
        EXPECT_EQ(failureOf([&] { gLoadString(bad.first, buffer, size, out); }), bad.second);  // no mark: the rest
    delete[] buffer;
}

// 2048 keys of 88 bytes that share one RWCString::hash() (FNV-1a without a key, a value hosts may rely
// on): blocks that collide from the same state collide whatever follows, so a colliding pair of
// 8-letter blocks per stage doubles the keys. A record reading them must spread them as it does
// random keys (about 1.5 slots visited per key), not in a time growing with their square.
TEST(AssociativeArrayReader, KeysChosenToCollideSpreadLikeRandomKeys) {
    std::mt19937 random(20240612u);
    std::vector<std::string> keys{""};
    for (uint32_t state = 2166136261u; keys.size() < 2048;) {
        for (std::unordered_map<uint32_t, std::string> seen;;) {
            std::string block(8, 'a');
            for (char& c : block) c = static_cast<char>('a' + random() % 26);
            uint32_t after = state;
            for (unsigned char c : block) after = (after ^ c) * 16777619u;
            auto const [other, added] = seen.emplace(after, block);
            if (added || other->second == block) continue;
            std::vector<std::string> doubled;
            for (std::string const& key : keys) doubled.insert(doubled.end(), {key + other->second, key + block});
            keys.swap(doubled);
            state = after;
            break;
        }
    }
    std::string text = "2048";
    for (std::string const& key : keys) text += " '88 " + key + " '1 v";
    CAssociativeArray flooded;
    flooded.FromStringZ1(text + " ");
    ASSERT_TRUE(RWCString(keys[0].c_str()).hash() == RWCString(keys[2047].c_str()).hash() && flooded.entries() == 2048);
    EXPECT_LT(flooded.probeCount(), 3 * 2048u);
}

// What the converter of `mode` (2, the current one) makes of the text; "failed:" and what is left in `out`.
std::string convert(char const* text, int length, int mode = 2, unsigned to = 65001, unsigned from = 1252) {
    RWCString out("stale");
    return gConvert_patch(mode, from, to, text, length, out) ? out.stdString() : "failed:" + out.stdString();
}
std::string x1(std::string const& text) { return convert(text.data(), static_cast<int>(text.size())); }

TEST(AssociativeArrayConvert, ValuesAreConvertedAndLengthsRewritten) {
    // Keys stay; plain text is a leaf up to its NUL, and so is a form that does not parse as a whole. A length
    // of 0 is no text, -1 ends at the NUL. An unknown code page fails the leaf conversions; a form is still
    // written, the failed value empty.
    EXPECT_EQ((Texts{x1("2 '1 \xe9 '1 \xe9 '1 e '0  "), x1("abc \xe9"), x1("\xe9\0z"s), x1(""), x1("1 '1 k '9 \xe9 "),
                     x1("1 '99 '1 \xe9 "), convert("1 '1 k '2 \xc3\xa9 ", -1, 2, 1252, 65001), convert("\xe9", 0),
                     convert("\xe9", -1), convert("plain", -1, 2, 4242), convert("1 '1 k '1 v ", -1, 2, 4242)}),
              (Texts{"2 '1 \xe9 '2 \xc3\xa9 '1 e '0  ", "abc \xc3\xa9", "\xc3\xa9", "", "1 '1 k '9 \xc3\xa9 ",
                     "1 '99 '1 \xc3\xa9 ", "1 '1 k '1 \xe9 ", "", "\xc3\xa9", "failed:", "failed:1 '1 k '0  "}));
}

TEST(AssociativeArrayConvert, PlainTextAndNegativeCountsAreLogged) {
    TagScope trace("Trace", true);
    nTagScope::ErrorRecords errors;
    // "0 " has no pairs and nothing to report; the value "b" is a leaf, then the whole text is, its pairs running out.
    EXPECT_EQ((Texts{x1("abc"), x1("-1 '1 \xe9 '1 b "), x1("0 ")}), (Texts{"abc", "-1 '1 \xc3\xa9 '1 b ", "0 "}));
    std::string const leaf = "gConvertX1Internal_patch\tIllegal associative array syntax: ";
    EXPECT_EQ(
        texts(errors.records()),
        (Texts{leaf + "Error", "Negative number of arguments: \t-1\t input : \t'1 \xe9 '1 b ", leaf + "Error", leaf}));
    EXPECT_EQ(errors.records()[0].tag + std::to_string(errors.count("associativearray")), "Trace1");
}

// A text form nested `levels` deep: each level one pair (key, next level) around `text`.
std::string nested(int levels, std::string text, std::string const& key) {
    for (int level = 0; level < levels; ++level) {
        CAssociativeArray record;
        record.AddCouple(key.c_str(), text.data(), static_cast<int>(text.size()));
        text = record.ToStringRef(false, false).stdString();
    }
    return text;
}

TEST(AssociativeArrayConvert, DepthLimitConvertsDeepValuesAsLeaves) {
    TagScope trace("Trace", true);
    nLog::cCapture capture;
    // Texts at depths 0 to 64 are read as forms (keys kept, lengths rewritten); the text at
    // depth 65 is converted as one leaf, its keys included and its inner lengths unchanged.
    std::string const deepPart = nested(35, "\xe9", "\xe9");
    std::string convertedPart = deepPart;
    for (size_t at = 0; (at = convertedPart.find('\xe9', at)) != std::string::npos; at += 2)
        convertedPart.replace(at, 1, "\xc3\xa9");
    std::string const text = nested(65, deepPart, "\xe9"), deep = nested(3000, "x", "k");
    for (int mode : {1, 2}) EXPECT_EQ(convert(text.data(), -1, mode), nested(65, convertedPart, "\xe9")) << mode;
    int limits = 0;
    for (nLog::cRecord const& r : capture.records()) limits += r.text.find("nested deeper than") != std::string::npos;
    EXPECT_EQ(limits, 2);
    EXPECT_EQ(x1(deep), deep);  // a hostile depth: still bounded, and the leaf converted
}

#else

// A key and a value holding a NUL, a non-ASCII key, a plain value, a nested form; a length (5) short of the NUL.
std::string const kText = "3 '3 k\0x '3 \xe9\0b '1 \xe9 '5 h\xe9llo '1 n '12 1 '1 \xe9 '1 \xe9  "s;
char const kShort[] = "1 '1 k '1 \xe9 ";

std::string const kIllegal = "Illegal associative array syntax: Error";

struct Mode {
    char const* ini;              // the settings file that selects it
    std::string text, shortened;  // the outcomes for kText and kShort
    Texts records;                // the Error texts written for kText
} const kModes[] = {
    // 0, no setting: no conversion, every byte kept, as many as the length says.
    {"[Other]\nSomethingElse=2\n",
     kText + " | k=\xe9\0b\nn=1 '1 \xe9 '1 \xe9 \n\xe9=h\xe9llo\n"s,
     "1 '1  | throws",
     {}},
    // 1, the old converter, reads up to the NUL whatever the length: kText, cut in its first key, is a leaf.
    {"; the old converter\nColloquyAnsiConversion_patch = 1 ; old\n",
     "3 '3 k | throws",
     "1 '1 k '2 \xc3\xa9  | k=\xc3\xa9\n",
     {kIllegal, "6\t3 '3 k"}},
    // 2, the current converter, keeps keys whole and logs a negative count; "2abc" reads as 2.
    {"[Colloquy]\nColloquyAnsiConversion_patch=2abc\n",
     "3 '3 k\0x '2 \xc3\xa9 '1 \xe9 '6 h\xc3\xa9llo '1 n '13 1 '1 \xe9 '2 \xc3\xa9   | "
     "k=\xc3\xa9\nn=1 '1 \xe9 '2 \xc3\xa9 \n\xe9=h\xc3\xa9llo\n"s,
     "1 '1  | throws",
     {"Negative number of arguments: \t-2\t input : \t'1 a '1 b "}},
    // 7, unknown, converts nothing; FromStringConvert then reads the empty text, no form.
    {"ColloquyAnsiConversion_patch=7\n",
     "failed | throws",
     "failed | throws",
     {"", "", "FromStringConvert: conversion failed, mode\t7\t1252\t65001", kIllegal, "0\t"}},
};
Mode const& kMode = kModes[CONVERT_MODE == 7 ? 3 : CONVERT_MODE];

// The settings file that selects the mode, in a scratch directory named by QR_BIN.
struct Settings {
    ScratchScope const scratch{"convert_mode"};
    std::string const path = scratch.path + "/vantage.ini";
    Settings() { gWriteFile(path, kMode.ini), setenv("QR_BIN", scratch.path.c_str(), 1); }
} const gSettings;

// What ConvertX0 ("failed", `out` untouched) and FromStringConvert (the pairs, or "throws") make of the text.
std::string outcome(char const* text, int length) {
    RWCString out("untouched");
    bool const converted = CAssociativeArray::ConvertX0(1252, 65001, text, length, out);
    std::string result = converted ? out.stdString() : out == "untouched" ? "failed" : "failed, out changed";
    CAssociativeArray record;
    try {
        record.FromStringConvert(1252, 65001, text, length);
        return result + " | " + pairsOf(record);
    } catch (CIllegalAssoSyntaxException const&) {
        return result + " | throws";
    }
}

TEST(ConversionMode, ConvertersFollowTheSettingsFile) {
    ASSERT_NE(access("vantage.ini", F_OK), 0) << "a vantage.ini in the working directory would be found first";
    EXPECT_EQ(gColloquyAnsiConversion__patch(), CONVERT_MODE);
    TagScope error("Error", true);
    {
        nLog::cCapture capture;
        EXPECT_EQ(outcome(kText.data(), static_cast<int>(kText.size())), kMode.text);
        CAssociativeArray record;
        if (CONVERT_MODE != 7) record.FromStringConvert(1252, 65001, "-2 '1 a '1 b ", 13);  // a count below one
        EXPECT_EQ(record.entries(), 0u);
        EXPECT_EQ(texts(capture.records()), kMode.records);
    }
    EXPECT_EQ(outcome(kShort, 5), kMode.shortened);
    // ConvertZ38 is the current converter whatever the mode; a null text fails in every mode.
    RWCString out;
    EXPECT_TRUE(CAssociativeArray::ConvertZ38(1252, 65001, "1 '1 k '1 \xe9 ", out) && out == "1 '1 k '2 \xc3\xa9 ");
    EXPECT_FALSE(CAssociativeArray::ConvertX0(1252, 65001, nullptr, 3, out));
}

TEST(ConversionMode, TheSwitchIsReadOnce) {
    std::future<int> seen[8];  // eight first readers at once
    for (std::future<int>& mode : seen) mode = std::async(std::launch::async, gColloquyAnsiConversion__patch);
    for (std::future<int>& mode : seen) EXPECT_EQ(mode.get(), CONVERT_MODE);
    int const other = CONVERT_MODE == 0 ? 2 : 0;
    gWriteFile(gSettings.path, "ColloquyAnsiConversion_patch=" + std::to_string(other) + "\n");
    EXPECT_EQ(gColloquyAnsiConversionInit__patch::_(), other);  // the file did change...
    EXPECT_EQ(gColloquyAnsiConversion__patch(), CONVERT_MODE);  // ...the process keeps its mode
}

#endif

}  // namespace
