// The converters, independent of the process-wide mode (mode_test.cpp follows each mode end to
// end): lengths rewritten, plain text as a leaf, the negative count, the old converter's NUL
// rules, unknown modes and code pages, and the depth limit.
#include "assoc_test_util.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string x1(std::string const& text, unsigned from = 1252, unsigned to = 65001) {
    RWCString out("stale");
    EXPECT_TRUE(gConvertX1_patch(from, to, text.data(), static_cast<int>(text.size()), out)) << text;
    return out.stdString();
}

TEST(AssociativeArrayConvert, ValuesAreConvertedAndLengthsRewritten) {
    struct {
        std::string text, converted;
    } const cases[] = {
        {"2 '1 \xe9 '1 \xe9 '1 e '0  ", "2 '1 \xe9 '2 \xc3\xa9 '1 e '0  "},
        {"abc \xe9", "abc \xc3\xa9"},             // plain text is a leaf
        {std::string("\xe9\0z", 3), "\xc3\xa9"},  // a leaf stops at its first NUL
        {"", ""},
        // A form that does not parse is a leaf as a whole: a false value length, a false key length.
        {"1 '1 k '9 \xe9 ", "1 '1 k '9 \xc3\xa9 "},
        {"1 '99 '1 \xe9 ", "1 '99 '1 \xc3\xa9 "},
    };
    for (auto const& c : cases) EXPECT_EQ(x1(c.text), c.converted);
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
    EXPECT_EQ(assoctest::texts(errors),
              (std::vector<std::string>{leaf + "Error", "Negative number of arguments: \t-1\t input : \t'1 \xe9 '1 b ",
                                        leaf + "Error", leaf}));
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
    // An unknown mode fails with an empty Error record and leaves `out`; modes 0, 1, 2 and an
    // unknown positive one are followed through the settings file in mode_test.cpp.
    out = "untouched";
    EXPECT_FALSE(gConvert_patch(-1, 1252, 65001, "1 '1 k '1 v ", -1, out));
    EXPECT_EQ(out.stdString(), "untouched");
    EXPECT_EQ(assoctest::texts(errors), std::vector<std::string>{""});
    // An unknown code page fails the leaf conversions.
    EXPECT_FALSE(gConvertX1_patch(1252, 4242, "plain", -1, out));
    EXPECT_FALSE(gConvertX1_patch(1252, 4242, "1 '1 k '1 v ", -1, out));
}

// A text form nested `levels` deep: each level one pair (key, next level) around `core`.
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
    // A hostile depth: still bounded, and the leaf is converted.
    std::string const deep = nested(3000, "x", "k");
    EXPECT_EQ(x1(deep), deep);
}

}  // namespace
