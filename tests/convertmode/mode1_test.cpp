// Mode 1: the old converter, which cuts keys and values at a NUL.
#include "vantage_environment.h"

#include <gtest/gtest.h>

char const kVantageIni[] = "; the old converter\nColloquyAnsiConversion_patch = 1 ; old\n";

namespace {

TEST(ConversionMode1, FromStringConvertUsesTheOldConverter) {
    EXPECT_EQ(gColloquyAnsiConversion__patch(), 1);
    CAssociativeArray record;
    std::string const text("2 '3 k\0x '3 \xe9\0b '1 n '1 \xe9 ", 26);
    record.FromStringConvert(1252, 65001, text.data(), static_cast<int>(text.size()));
    EXPECT_EQ(record.entries(), 2u);
    EXPECT_EQ(record.GetStringValueOfParameter("k").stdString(), "\xc3\xa9");  // cut at the NUL, then converted
    EXPECT_EQ(record.GetStringValueOfParameter("n").stdString(), "\xc3\xa9");

    RWCString out;
    EXPECT_TRUE(CAssociativeArray::ConvertX0(1252, 65001, text.data(), static_cast<int>(text.size()), out));
    EXPECT_EQ(out.stdString(), "2 '1 k '2 \xc3\xa9 '1 n '2 \xc3\xa9 ");
}

TEST(ConversionMode1, CountsBelowOneAddNothing) {
    assoctest::TagScope error("Error", true);
    nLog::cCapture capture;
    CAssociativeArray record;
    record.FromStringConvert(1252, 65001, "0 ", 2);
    record.FromStringConvert(1252, 65001, "-2 '1 a '1 b ", 13);
    EXPECT_EQ(record.entries(), 0u);
    EXPECT_TRUE(capture.records().empty());
}

}  // namespace
