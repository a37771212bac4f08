// An unknown mode: the conversion fails with an Error record and converts nothing.
#include "vantage_environment.h"

#include <gtest/gtest.h>

char const kVantageIni[] = "ColloquyAnsiConversion_patch=7\n";

namespace {

TEST(ConversionMode7, UnknownModeFails) {
    assoctest::TagScope error("Error", true);
    nLog::cCapture capture;
    EXPECT_EQ(gColloquyAnsiConversion__patch(), 7);
    RWCString out("untouched");
    EXPECT_FALSE(CAssociativeArray::ConvertX0(1252, 65001, "1 '1 k '1 v ", -1, out));
    EXPECT_EQ(out.stdString(), "untouched");
    ASSERT_EQ(capture.records().size(), 1u);
    EXPECT_EQ(capture.records()[0].tag, "Error");
    EXPECT_EQ(capture.records()[0].file, "../src/associativearray");
    EXPECT_EQ(capture.records()[0].text, "");

    // FromStringConvert logs the failure and then reads the empty conversion, which is no text form.
    capture.clear();
    CAssociativeArray record;
    EXPECT_THROW(record.FromStringConvert(1252, 65001, "1 '1 k '1 v ", 12), CIllegalAssoSyntaxException);
    EXPECT_EQ(record.entries(), 0u);
    ASSERT_EQ(capture.records().size(), 4u);
    EXPECT_EQ(capture.records()[0].text, "");
    EXPECT_EQ(capture.records()[1].text.rfind("FromStringConvert", 0), 0u);
    EXPECT_EQ(capture.records()[3].text, "0\t");

    // The current converter is still there for ConvertZ38.
    EXPECT_TRUE(CAssociativeArray::ConvertZ38(1252, 65001, "1 '1 k '1 \xe9 ", out));
    EXPECT_EQ(out.stdString(), "1 '1 k '2 \xc3\xa9 ");
}

}  // namespace
