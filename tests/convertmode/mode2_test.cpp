// Mode 2: the current converter. The setting "2abc" reads as 2, and the mode is read once.
#include "vantage_environment.h"

#include <gtest/gtest.h>

#include <fstream>
#include <thread>
#include <vector>

char const kVantageIni[] = "[Colloquy]\nColloquyAnsiConversion_patch=2abc\n";

namespace {

TEST(ConversionMode2, FromStringConvertConvertsValues) {
    EXPECT_EQ(gColloquyAnsiConversion__patch(), 2);
    CAssociativeArray record;
    std::string const text("2 '1 \xe9 '5 h\xe9llo '1 n '12 1 '1 \xe9 '1 \xe9  ");
    record.FromStringConvert(1252, 65001, text.data(), static_cast<int>(text.size()));
    EXPECT_EQ(record.GetStringValueOfParameter("\xe9").stdString(), "h\xc3\xa9llo");  // key kept
    EXPECT_EQ(record.GetStringValueOfParameter("n").stdString(), "1 '1 \xe9 '2 \xc3\xa9 ");  // nested
    RWCString out;
    EXPECT_TRUE(CAssociativeArray::ConvertX0(1252, 65001, "1 '1 k '1 \xe9 ", -1, out));
    EXPECT_EQ(out.stdString(), "1 '1 k '2 \xc3\xa9 ");
}

TEST(ConversionMode2, TheSwitchIsReadOnce) {
    std::vector<int> seen(8, -1);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < seen.size(); ++i) threads.emplace_back([&seen, i] { seen[i] = gColloquyAnsiConversion__patch(); });
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(seen, std::vector<int>(8, 2));

    std::ofstream(gVantagePath(), std::ios::binary | std::ios::trunc) << "ColloquyAnsiConversion_patch=0\n";
    EXPECT_EQ(gColloquyAnsiConversionInit__patch::_(), 0);  // the file did change...
    EXPECT_EQ(gColloquyAnsiConversion__patch(), 2);         // ...the process keeps its mode
    CAssociativeArray record;
    record.FromStringConvert(1252, 65001, "1 '1 k '1 \xe9 ", 12);
    EXPECT_EQ(record.GetStringValueOfParameter("k").stdString(), "\xc3\xa9");
}

}  // namespace
