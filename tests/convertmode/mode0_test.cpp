// Mode 0, the default when the settings file does not set the switch: no conversion.
#include "vantage_environment.h"

#include <gtest/gtest.h>

char const kVantageIni[] = "[Other]\nSomethingElse=2\n";

namespace {

TEST(ConversionMode0, MissingSettingMeansNoConversion) {
    EXPECT_EQ(gColloquyAnsiConversion__patch(), 0);
    std::string const text("1 '1 k '3 \xe9\0b ", 14);
    RWCString out("old");
    EXPECT_TRUE(CAssociativeArray::ConvertX0(1252, 65001, text.data(), static_cast<int>(text.size()), out));
    EXPECT_EQ(out.stdString(), text);  // every byte kept, NUL included
    EXPECT_TRUE(CAssociativeArray::ConvertX0(1252, 65001, "caf\xe9", -1, out));
    EXPECT_EQ(out.stdString(), "caf\xe9");
    EXPECT_FALSE(CAssociativeArray::ConvertX0(1252, 65001, nullptr, 3, out));
}

TEST(ConversionMode0, FromStringConvertReadsTheTextAsItIs) {
    CAssociativeArray record;
    std::string const text("1 '1 k '3 \xe9\0b ", 14);
    record.FromStringConvert(1252, 65001, text.data(), static_cast<int>(text.size()));
    EXPECT_EQ(record.GetStringValueOfParameter("k").stdString(), std::string("\xe9\0b", 3));
    EXPECT_THROW(record.FromStringConvert(1252, 65001, "x", 1), CIllegalAssoSyntaxException);
    // ConvertZ38 converts whatever the mode.
    RWCString out;
    EXPECT_TRUE(CAssociativeArray::ConvertZ38(1252, 65001, "1 '1 k '1 \xe9 ", out));
    EXPECT_EQ(out.stdString(), "1 '1 k '2 \xc3\xa9 ");
}

}  // namespace
