// The text form: the reader (worked examples, every entry point, the hardened limits, the failure
// path with its Error records, the cursor-level steps gParseInt and gLoadString, keys chosen to
// collide) and the converters apart from the process-wide mode, which mode_test.cpp follows.
#include "assoc_test_util.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <unordered_map>

using namespace std::string_literals;
using assoctest::pairsOf;
using assoctest::texts;
using Texts = std::vector<std::string>;

namespace {

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

std::string failureOf(std::string const& text) {
    CAssociativeArray record;
    return failureOf([&] { record.FromString(text.data(), static_cast<int>(text.size())); });
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
    a.FromStringZ1(text);
    b.FromStringZ1(RWCString(text));
    c.FromStringRef(RWCString(text));
    EXPECT_EQ(pairsOf(a) + pairsOf(b) + pairsOf(c), "ab=x\0z\nab=x\0z\nab=x\0z\n"s);
    // The NUL-ended forms: the text ends where the skipped byte would be.
    d.FromStringX2_deprecate("1 '2 ab '3 xyz");
    e.FromStringZTS("1 '2 ab '3 xyz");
    EXPECT_EQ(pairsOf(d) + pairsOf(e), "ab=xyz\nab=xyz\n");
    // Reading adds to what is there; a failure keeps the pairs read before it.
    EXPECT_THROW(e.FromStringZTS("2 '1 b '1 3 '1 c 4 "), CIllegalAssoSyntaxException);
    EXPECT_EQ(pairsOf(e), "ab=xyz\nb=3\n");
}

TEST(AssociativeArrayReader, SyntaxErrorsCarryTheWholeInput) {
    for (std::string const& text :
         Texts{"", "x ", "1 '2 ab 3 xyz ", "2 '1 a '1 b ", "1 '-1 a '1 b ", "1 '2 ab '4 xyz", "1 '2147483648 a ",
               "1 '2 ab '0x3 xyz ", "1 '00 a ", "1 ' a '1 b ", "0000000000000000001 '1 a '1 b ", "1 '2 a\0 '9 \0\0 "s})
        EXPECT_EQ(failureOf(text), text) << text;
    // Lengths are checked against the given length, not against what follows in memory.
    std::string const text("1 '2 ab '3 xyz ");
    CAssociativeArray record;
    EXPECT_EQ(failureOf([&] { record.FromString(text.data(), 12); }), text.substr(0, 12));
    EXPECT_EQ(failureOf([&] { record.FromString(text.data(), -1); }), "");
    EXPECT_EQ(failureOf([&] { record.FromString(nullptr, 5); }), "");
    // The bare char const* forms end at the NUL: a value cannot run past it.
    std::string const withNul("1 '2 ab '5 x\0yz ", 16);
    EXPECT_EQ(readOk(withNul), "ab=x\0yz \n"s);
    EXPECT_EQ(failureOf([&] { record.FromStringZTS(withNul.data()); }), "1 '2 ab '5 x");
    EXPECT_EQ(failureOf([&] { record.FromStringZTS(nullptr); }), "");
}

TEST(AssociativeArrayReader, FailureIsLoggedInTwoLayers) {
    nTagScope::ErrorRecords errors;
    std::string const text("1 '2 ab 3 xyz "), longBad("1 '2 ab '30 xyz and more text after it");
    CAssociativeArray record;
    EXPECT_THROW(record.FromString(text.data(), static_cast<int>(text.size())), CIllegalAssoSyntaxException);
    EXPECT_EQ(errors.count("associativearray"), 2u);
    // The bare char const* forms log 14 bytes at most, whatever the input's length.
    EXPECT_THROW(record.FromStringX2_deprecate(longBad.c_str()), CIllegalAssoSyntaxException);
    // The inner record shows the first exception: the rest of the text where the apostrophe was missing.
    EXPECT_EQ(texts(errors.records()), (Texts{"Illegal associative array syntax: 3 xyz ", "14\t" + text,
                                              "Illegal associative array syntax: Error", "14\t1 '2 ab '30 xy"}));
}

// What gParseInt reads (or "refused") and how far it moves the cursor: past the blank even when the
// number is then refused.
TEST(AssociativeArrayReader, ParseIntStep) {
    Texts results;
    for (char const* text : {"12x rest", "-5 ", "0 ", "000000000000000001 ", "99999999999999 ", "-99999999999999 ",
                             "x rest", "", "12", "00 ", "-0 ", "0000000000000000001 ", "1\0 "}) {
        char const* cursor = text;
        try {
            results.push_back(std::to_string(gParseInt(cursor)));
        } catch (CIllegalAssoSyntaxException const&) {
            results.push_back("refused");
        }
        results.back() += " +" + std::to_string(cursor - text);
    }
    EXPECT_EQ(results, (Texts{"12 +4", "-5 +3", "0 +2", "1 +19", "2147483647 +15", "-2147483648 +16", "refused +2",
                              "refused +0", "refused +0", "refused +3", "refused +3", "refused +0", "refused +0"}));
}

TEST(AssociativeArrayReader, LoadStringStep) {
    int size = 1024;
    char* buffer = new char[size + 1];
    RWCString out("old");
    std::string const big(2000, 'q'), text = "'3 a\0b '2000 "s + big + " '0  ";
    char const* cursor = gLoadString(text.data(), buffer, size, out);
    EXPECT_EQ(out.stdString() + std::string(buffer, 4), "a\0ba\0b\0"s);
    cursor = gLoadString(cursor, buffer, size, out, true);
    EXPECT_EQ(out.stdString() + buffer[2000], big + '\0');
    EXPECT_EQ(size, 2000);  // grown once, to the piece's length
    cursor = gLoadString(cursor, buffer, size, out);
    EXPECT_EQ(out.stdString(), "");
    EXPECT_EQ(size, 2000);
    EXPECT_EQ(cursor, text.data() + text.size());
    EXPECT_EQ(failureOf([&] { gLoadString("3 abc rest", buffer, size, out); }), "3 abc rest");  // the rest of the text
    EXPECT_EQ(failureOf([&] { gLoadString("'-1 x ", buffer, size, out); }), "Error");
    delete[] buffer;
    char* none = nullptr;  // no buffer yet: one is made
    int noSize = 0;
    gLoadString("'1 z ", none, noSize, out);
    EXPECT_STREQ(none, "z");
    delete[] none;
}

// 2048 keys of 88 bytes that share one RWCString::hash(), which is FNV-1a without a key (hosts may
// rely on its value): two blocks that collide from the same state collide whatever follows, so a
// colliding pair of 8-letter blocks (found by the birthday bound) per stage doubles the keys. Read
// into a record (a table half full) they must spread as random keys do, about 1.5 slots visited per
// key, not a number growing with the square of the keys that share a hash.
TEST(AssociativeArrayReader, KeysChosenToCollideSpreadLikeRandomKeys) {
    std::mt19937 random(20240612u);
    std::vector<std::string> keys{""};
    for (uint32_t state = 2166136261u; keys.size() < 2048;) {
        std::unordered_map<uint32_t, std::string> seen;
        for (bool found = false; !found;) {
            std::string block(8, 'a');
            for (char& c : block) c = static_cast<char>('a' + random() % 26);
            uint32_t after = state;
            for (unsigned char c : block) after = (after ^ c) * 16777619u;
            auto const [other, added] = seen.emplace(after, block);
            if ((found = !added && other->second != block)) {
                std::vector<std::string> doubled;
                for (std::string const& key : keys) doubled.insert(doubled.end(), {key + other->second, key + block});
                keys.swap(doubled);
                state = after;
            }
        }
    }
    std::string text = "2048";
    for (std::string const& key : keys) text += " '88 " + key + " '1 v";
    CAssociativeArray flooded;
    flooded.FromStringZ1(text + " ");
    ASSERT_EQ(RWCString(keys[0].c_str()).hash(), RWCString(keys[2047].c_str()).hash());
    ASSERT_EQ(flooded.entries(), 2048u);
    EXPECT_LT(flooded.probeCount(), 3 * 2048u);
}

std::string x1(std::string const& text, unsigned from = 1252, unsigned to = 65001) {
    RWCString out("stale");
    EXPECT_TRUE(gConvertX1_patch(from, to, text.data(), static_cast<int>(text.size()), out)) << text;
    return out.stdString();
}

TEST(AssociativeArrayConvert, ValuesAreConvertedAndLengthsRewritten) {
    // Keys stay; plain text is a leaf, up to its first NUL; a form that does not parse (a false value
    // length, a false key length) is a leaf as a whole.
    for (auto const& [text, converted] : {std::pair{"2 '1 \xe9 '1 \xe9 '1 e '0  "s, "2 '1 \xe9 '2 \xc3\xa9 '1 e '0  "s},
                                          {"abc \xe9", "abc \xc3\xa9"},
                                          {"\xe9\0z"s, "\xc3\xa9"},
                                          {"", ""},
                                          {"1 '1 k '9 \xe9 ", "1 '1 k '9 \xc3\xa9 "},
                                          {"1 '99 '1 \xe9 ", "1 '99 '1 \xc3\xa9 "}})
        EXPECT_EQ(x1(text), converted);
    EXPECT_EQ(x1("1 '1 k '2 \xc3\xa9 ", 65001, 1252), "1 '1 k '1 \xe9 ");
    RWCString out("kept");
    EXPECT_TRUE(gConvertX1_patch(1252, 65001, "\xe9", 0, out));  // a length of 0 is no text
    EXPECT_EQ(out.stdString(), "");
    EXPECT_TRUE(gConvertX1_patch(1252, 65001, "\xe9", -1, out));  // -1: up to the NUL
    EXPECT_EQ(out.stdString(), "\xc3\xa9");
    EXPECT_FALSE(gConvertX1_patch(1252, 65001, nullptr, 4, out));
    EXPECT_FALSE(gConvertOld_patch(1252, 65001, nullptr, out));
}

TEST(AssociativeArrayConvert, PlainTextAndNegativeCountsAreLogged) {
    TagScope trace("Trace", true);
    nTagScope::ErrorRecords errors;
    EXPECT_EQ(x1("abc"), "abc");
    EXPECT_EQ(x1("-1 '1 \xe9 '1 b "), "-1 '1 \xc3\xa9 '1 b ");
    // The value "b" is a leaf, then the whole text is, its pairs running out.
    std::string const leaf = "gConvertX1Internal_patch\tIllegal associative array syntax: ";
    EXPECT_EQ(
        texts(errors.records()),
        (Texts{leaf + "Error", "Negative number of arguments: \t-1\t input : \t'1 \xe9 '1 b ", leaf + "Error", leaf}));
    EXPECT_EQ(errors.records()[0].tag, "Trace");
    EXPECT_EQ(errors.count("associativearray"), 1u);
}

TEST(AssociativeArrayConvert, OldConverterCutsAtNulAndUnknownModesFail) {
    nTagScope::ErrorRecords errors;
    RWCString out;
    // The text itself ends at the NUL: the cut text is no form, so a leaf.
    EXPECT_TRUE(gConvertOld_patch(1252, 65001, "1 '3 k\0x '3 \xe9\0b ", out));
    EXPECT_EQ(out.stdString(), "1 '3 k");
    // A count below one gives no pairs and no record.
    EXPECT_TRUE(gConvertOld_patch(1252, 65001, "-2 '1 a '1 b ", out));
    EXPECT_EQ(out.stdString(), "-2 ");
    EXPECT_EQ(errors.total(), 0u);
    // An unknown mode fails with an empty Error record and leaves `out` as it was.
    EXPECT_FALSE(gConvert_patch(-1, 1252, 65001, "1 '1 k '1 v ", -1, out));
    EXPECT_EQ(out.stdString(), "-2 ");
    EXPECT_EQ(texts(errors.records()), Texts{""});
    // An unknown code page fails the leaf conversions.
    EXPECT_FALSE(gConvertX1_patch(1252, 4242, "plain", -1, out));
    EXPECT_FALSE(gConvertX1_patch(1252, 4242, "1 '1 k '1 v ", -1, out));
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
    EXPECT_EQ(x1(nested(65, deepPart, "\xe9")), nested(65, convertedPart, "\xe9"));
    int limits = 0;
    for (nLog::cRecord const& r : capture.records()) limits += r.text.find("nested deeper than") != std::string::npos;
    EXPECT_EQ(limits, 1);
    std::string const deep = nested(3000, "x", "k");  // a hostile depth: still bounded, and the leaf converted
    EXPECT_EQ(x1(deep), deep);
}

}  // namespace
