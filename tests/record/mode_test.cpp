// The process-wide conversion mode as ConvertX0 and FromStringConvert follow it. The mode is
// read once per process: this program is built once per mode (CONVERT_MODE).
#include "assoc_test_util.h"
#include "files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>
#include <cstdio>
#include <thread>

using namespace std::string_literals;
using ::testing::ElementsAre;

namespace {

// A key and a value holding a NUL, a non-ASCII key, a plain value and a nested text form; and a
// text form given a length (5) that ends before its NUL does.
std::string const kText = "3 '3 k\0x '3 \xe9\0b '1 \xe9 '5 h\xe9llo '1 n '12 1 '1 \xe9 '1 \xe9  "s;
char const kShort[] = "1 '1 k '1 \xe9 ";

struct Mode {
    char const* ini;                                       // the settings file that selects it
    std::string text, shortened;                           // the outcomes for kText and kShort
    ::testing::Matcher<std::vector<std::string>> records;  // the Error texts written for kText
} const kModes[] = {
    // 0, no setting: no conversion, every byte kept, as many as the length says.
    {"[Other]\nSomethingElse=2\n", kText + " | k=\xe9\0b\nn=1 '1 \xe9 '1 \xe9 \n\xe9=h\xe9llo\n"s, "1 '1  | throws",
     ::testing::IsEmpty()},
    // 1, the old converter, reads up to the first NUL whatever the length: kText ends inside its
    // first key, so it is no form but plain text (converted, then refused by the reader).
    {"; the old converter\nColloquyAnsiConversion_patch = 1 ; old\n", "3 '3 k | throws",
     "1 '1 k '2 \xc3\xa9  | k=\xc3\xa9\n", ElementsAre(::testing::_, "6\t3 '3 k")},
    // 2, the current converter, keeps keys whole and logs a negative count; "2abc" reads as 2.
    {"[Colloquy]\nColloquyAnsiConversion_patch=2abc\n",
     "3 '3 k\0x '2 \xc3\xa9 '1 \xe9 '6 h\xc3\xa9llo '1 n '13 1 '1 \xe9 '2 \xc3\xa9   | k=\xc3\xa9\nn=1 '1 \xe9 '2 \xc3\xa9 \n\xe9=h\xc3\xa9llo\n"s,
     "1 '1  | throws", ElementsAre("Negative number of arguments: \t-2\t input : \t'1 a '1 b ")},
    // 7, unknown, converts nothing; FromStringConvert then reads the empty text, no form.
    {"ColloquyAnsiConversion_patch=7\n", "failed | throws", "failed | throws",
     ElementsAre("", "", "FromStringConvert: conversion failed, mode\t7\t1252\t65001", ::testing::_, "0\t")},
};
Mode const& kMode = kModes[CONVERT_MODE == 7 ? 3 : CONVERT_MODE];

// The settings file that selects the mode, in a scratch directory named by QR_BIN.
struct Settings {
    std::string const directory = gScratchDirectory("convert_mode"), path = directory + "/vantage.ini";
    Settings() {
        gWriteFile(path, kMode.ini);
        setenv("QR_BIN", directory.c_str(), 1);
    }
    ~Settings() {
        std::remove(path.c_str());
        rmdir(directory.c_str());
    }
} const gSettings;

// What ConvertX0 ("failed", `out` untouched) and FromStringConvert (the pairs, or "throws") make of the text.
std::string outcome(char const* text, int length) {
    RWCString out("untouched");
    bool const converted = CAssociativeArray::ConvertX0(1252, 65001, text, length, out);
    std::string result = converted ? out.stdString() : out == "untouched" ? "failed" : "failed, out changed";
    CAssociativeArray record;
    try {
        record.FromStringConvert(1252, 65001, text, length);
        return result + " | " + assoctest::pairsOf(record);
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
        EXPECT_THAT(assoctest::texts(capture.records()), kMode.records);
    }
    EXPECT_EQ(outcome(kShort, 5), kMode.shortened);
    // ConvertZ38 is the current converter whatever the mode; a null text fails in every mode.
    RWCString out;
    EXPECT_TRUE(CAssociativeArray::ConvertZ38(1252, 65001, "1 '1 k '1 \xe9 ", out));
    EXPECT_EQ(out.stdString(), "1 '1 k '2 \xc3\xa9 ");
    EXPECT_FALSE(CAssociativeArray::ConvertX0(1252, 65001, nullptr, 3, out));
}

TEST(ConversionMode, TheSwitchIsReadOnce) {
    std::vector<int> seen(8, -1);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < seen.size(); ++i)
        threads.emplace_back([&seen, i] { seen[i] = gColloquyAnsiConversion__patch(); });
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(seen, std::vector<int>(8, CONVERT_MODE));
    int const other = CONVERT_MODE == 0 ? 2 : 0;
    gWriteFile(gSettings.path, "ColloquyAnsiConversion_patch=" + std::to_string(other) + "\n");
    EXPECT_EQ(gColloquyAnsiConversionInit__patch::_(), other);  // the file did change...
    EXPECT_EQ(gColloquyAnsiConversion__patch(), CONVERT_MODE);  // ...the process keeps its mode
}

}  // namespace
