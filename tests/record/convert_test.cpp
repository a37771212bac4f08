// The converters, independent of the process-wide mode (each mode's end-to-end path is in
// tests/convertmode): lengths rewritten when text shrinks, plain text as a leaf, the negative
// count, the old converter's NUL rules, unknown modes and code pages, and the depth limit.
#include "assoc_test_util.h"
#include "codepage.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string x1(std::string const& text, unsigned from = 1252, unsigned to = 65001) {
    RWCString out("stale");
    EXPECT_TRUE(gConvertX1_patch(from, to, text.data(), static_cast<int>(text.size()), out));
    return out.stdString();
}

// The text form of one pair, built by the writer.
std::string form(std::string const& key, std::string const& value) {
    CAssociativeArray record;
    record.AddCouple(key.c_str(), value.data(), static_cast<int>(value.size()));
    return record.ToStringRef(false, false).stdString();
}

TEST(AssociativeArrayConvert, ValuesAreConvertedAndLengthsRewritten) {
    EXPECT_EQ(x1("1 '1 k '2 \xc3\xa9 ", 65001, 1252), "1 '1 k '1 \xe9 ");
    RWCString out;
    EXPECT_FALSE(gConvertX1_patch(1252, 65001, nullptr, 4, out));
    EXPECT_FALSE(gConvertOld_patch(1252, 65001, nullptr, out));
}

TEST(AssociativeArrayConvert, PlainTextIsALeaf) {
    TagScope trace("Trace", true);
    nLog::cCapture capture;
    EXPECT_EQ(x1("abc \xe9"), "abc \xc3\xa9");
    ASSERT_EQ(capture.records().size(), 1u);
    EXPECT_EQ(capture.records()[0].tag, "Trace");
    EXPECT_EQ(capture.records()[0].text, "gConvertX1Internal_patch\tIllegal associative array syntax: Error");
    // A leaf stops at its first NUL; a form that does not parse is a leaf as a whole.
    EXPECT_EQ(x1(std::string("\xe9\0z", 3)), "\xc3\xa9");
    EXPECT_EQ(x1("1 '1 k '9 \xe9 "), "1 '1 k '9 \xc3\xa9 ");
}

TEST(AssociativeArrayConvert, NegativeCountIsLoggedAndTheTextBecomesALeaf) {
    TagScope error("Error", true);
    nLog::cCapture capture;
    EXPECT_EQ(x1("-1 '1 \xe9 '1 b "), "-1 '1 \xc3\xa9 '1 b ");
    ASSERT_EQ(capture.records().size(), 1u);
    EXPECT_EQ(capture.records()[0].text, "Negative number of arguments: \t-1\t input : \t'1 \xe9 '1 b ");
}

TEST(AssociativeArrayConvert, OldConverterCutsAtNul) {
    // The text itself ends at the NUL: the cut text is no form, so a leaf.
    RWCString out;
    EXPECT_TRUE(gConvertOld_patch(1252, 65001, "1 '3 k\0x '3 \xe9\0b ", out));
    EXPECT_EQ(out.stdString(), "1 '3 k");
    // A count below one gives no pairs and no record.
    TagScope error("Error", true);
    nLog::cCapture capture;
    EXPECT_TRUE(gConvertOld_patch(1252, 65001, "-2 '1 a '1 b ", out));
    EXPECT_EQ(out.stdString(), "-2 ");
    EXPECT_TRUE(capture.records().empty());
}

TEST(AssociativeArrayConvert, UnknownModesAndCodePagesFail) {
    // Modes 0, 1, 2 and an unknown positive one are checked through the settings file.
    TagScope error("Error", true);
    nLog::cCapture capture;
    RWCString out("untouched");
    EXPECT_FALSE(gConvert_patch(-1, 1252, 65001, "1 '1 k '1 v ", -1, out));
    EXPECT_EQ(out.stdString(), "untouched");
    ASSERT_EQ(capture.records().size(), 1u);
    EXPECT_EQ(capture.records()[0].text, "");
    // An unknown code page fails the leaf conversions.
    EXPECT_FALSE(gConvertX1_patch(1252, 4242, "plain", -1, out));
}

// A text form nested `levels` deep: each level one pair (key, next level) around `core`.
std::string nested(int levels, std::string const& core, std::string const& key) {
    std::string text = core;
    for (int level = 0; level < levels; ++level) text = form(key, text);
    return text;
}

std::string replaced(std::string text, std::string const& from, std::string const& to) {
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
    return text;
}

TEST(AssociativeArrayConvert, DepthLimitConvertsDeepValuesAsLeaves) {
    TagScope trace("Trace", true);
    nLog::cCapture capture;
    // Texts at depths 0 to 64 are read as forms (keys kept, lengths rewritten); the text at
    // depth 65 is converted as one leaf, its keys included and its inner lengths unchanged.
    std::string const deepPart = nested(35, "\xe9", "\xe9");
    std::string const text = nested(65, deepPart, "\xe9");
    EXPECT_EQ(x1(text), nested(65, replaced(deepPart, "\xe9", "\xc3\xa9"), "\xe9"));
    int limits = 0;
    for (nLog::cRecord const& r : capture.records())
        if (r.text.find("nested deeper than") != std::string::npos) ++limits;
    EXPECT_EQ(limits, 1);

    // A hostile depth: still bounded, and the leaf is converted.
    std::string const deep = nested(3000, "x", "k");
    EXPECT_EQ(x1(deep), deep);
}

}  // namespace
