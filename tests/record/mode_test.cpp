// The process-wide conversion mode as ConvertX0 and FromStringConvert follow it. The mode is
// read once per process: this program is built once per mode (CONVERT_MODE).
#include "assoc_test_util.h"
#include "files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>
#include <cstdio>
#include <fstream>
#include <optional>
#include <thread>
#include <vector>

using namespace std::string_literals;
using Pairs = std::string;  // "key=value" lines sorted by key, as assoctest::pairsOf writes them
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

// A key and a value holding a NUL, a non-ASCII key, a plain value and a nested text form.
std::string const kText = "3 '3 k\0x '3 \xe9\0b '1 \xe9 '5 h\xe9llo '1 n '12 1 '1 \xe9 '1 \xe9  "s;
Pairs const kConverted = "k=\xc3\xa9\nn=1 '1 \xe9 '2 \xc3\xa9 \n\xe9=h\xc3\xa9llo\n";
// A text form given a length that ends before its NUL does.
char const kShort[] = "1 '1 k '1 \xe9 ";
int const kShortLength = 5;

// What ConvertX0 and FromStringConvert make of one input.
struct Result {
    std::optional<std::string> converted;  // none when ConvertX0 fails
    std::optional<Pairs> read;             // none when FromStringConvert throws
};

struct Mode {
    int mode;
    char const* ini;                                       // the settings file that selects it
    Result text;                                           // kText, its whole length given
    Result shortened;                                      // kShort, kShortLength given
    ::testing::Matcher<std::vector<std::string>> records;  // the Error texts written for kText
};

Mode const kModes[] = {
    // No setting: no conversion, every byte kept, as many as the length says.
    {0,
     "[Other]\nSomethingElse=2\n",
     {kText, "k=\xe9\0b\nn=1 '1 \xe9 '1 \xe9 \n\xe9=h\xe9llo\n"s},
     {"1 '1 ", std::nullopt},
     IsEmpty()},
    // The old converter reads up to the first NUL whatever the length: kText ends inside its
    // first key, so it is no form but plain text (converted, then refused by the reader).
    {1,
     "; the old converter\nColloquyAnsiConversion_patch = 1 ; old\n",
     {"3 '3 k", std::nullopt},
     {"1 '1 k '2 \xc3\xa9 ", Pairs("k=\xc3\xa9\n")},
     ElementsAre(::testing::_, "6\t3 '3 k")},
    // The current converter keeps keys whole and logs a negative count; "2abc" reads as 2.
    {2,
     "[Colloquy]\nColloquyAnsiConversion_patch=2abc\n",
     {"3 '3 k\0x '2 \xc3\xa9 '1 \xe9 '6 h\xc3\xa9llo '1 n '13 1 '1 \xe9 '2 \xc3\xa9  "s, kConverted},
     {"1 '1 ", std::nullopt},
     ElementsAre("Negative number of arguments: \t-2\t input : \t'1 a '1 b ")},
    // An unknown mode converts nothing; FromStringConvert then reads the empty text, no form.
    {7,
     "ColloquyAnsiConversion_patch=7\n",
     {},
     {},
     ElementsAre("", "", "FromStringConvert: conversion failed, mode\t7\t1252\t65001", ::testing::_, "0\t")},
};

Mode const& thisMode() {
    for (Mode const& m : kModes)
        if (m.mode == CONVERT_MODE) return m;
    throw std::logic_error("no row for this mode");
}

std::string gDirectory;
std::string vantagePath() { return gDirectory + "/vantage.ini"; }

class VantageEnvironment : public ::testing::Environment {
  public:
    void SetUp() override {
        gDirectory = gScratchDirectory("convert_mode");
        ASSERT_FALSE(gDirectory.empty());
        std::ofstream(vantagePath(), std::ios::binary) << thisMode().ini;
        setenv("QR_BIN", gDirectory.c_str(), 1);
        // A settings file in the working directory would be found first.
        ASSERT_NE(access("vantage.ini", F_OK), 0) << "unexpected vantage.ini in the working directory";
    }
    void TearDown() override {
        std::remove(vantagePath().c_str());
        rmdir(gDirectory.c_str());
    }
};

::testing::Environment* const gEnvironment = ::testing::AddGlobalTestEnvironment(new VantageEnvironment);

void expectResult(char const* text, int length, Result const& r) {
    RWCString out("untouched");
    EXPECT_EQ(CAssociativeArray::ConvertX0(1252, 65001, text, length, out), r.converted.has_value());
    EXPECT_EQ(out.stdString(), r.converted.value_or("untouched"));
    CAssociativeArray record;
    if (r.read) {
        record.FromStringConvert(1252, 65001, text, length);
        EXPECT_EQ(assoctest::pairsOf(record), *r.read);
    } else {
        EXPECT_THROW(record.FromStringConvert(1252, 65001, text, length), CIllegalAssoSyntaxException);
    }
}

// ConvertX0 and FromStringConvert behave as the mode of this process says.
void expectTheMode(Mode const& m) {
    TagScope error("Error", true);
    nLog::cCapture capture;
    expectResult(kText.data(), static_cast<int>(kText.size()), m.text);
    if (m.text.converted) {
        CAssociativeArray record;
        record.FromStringConvert(1252, 65001, "-2 '1 a '1 b ", 13);  // a count below one adds nothing
        EXPECT_THAT(assoctest::pairsOf(record), IsEmpty());
    }
    std::vector<std::string> texts;
    for (nLog::cRecord const& r : capture.records()) texts.push_back(r.text);
    EXPECT_THAT(texts, m.records);
    expectResult(kShort, kShortLength, m.shortened);
    // ConvertZ38 is the current converter whatever the mode; a null text fails in every mode.
    RWCString out;
    EXPECT_TRUE(CAssociativeArray::ConvertZ38(1252, 65001, "1 '1 k '1 \xe9 ", out));
    EXPECT_EQ(out.stdString(), "1 '1 k '2 \xc3\xa9 ");
    EXPECT_FALSE(CAssociativeArray::ConvertX0(1252, 65001, nullptr, 3, out));
}

TEST(ConversionMode, ConvertersFollowTheSettingsFile) {
    EXPECT_EQ(gColloquyAnsiConversion__patch(), CONVERT_MODE);
    expectTheMode(thisMode());
}

TEST(ConversionMode, TheSwitchIsReadOnce) {
    std::vector<int> seen(8, -1);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < seen.size(); ++i)
        threads.emplace_back([&seen, i] { seen[i] = gColloquyAnsiConversion__patch(); });
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(seen, std::vector<int>(8, CONVERT_MODE));

    int const other = CONVERT_MODE == 0 ? 2 : 0;
    std::ofstream(vantagePath(), std::ios::binary | std::ios::trunc)
        << "ColloquyAnsiConversion_patch=" << other << "\n";
    EXPECT_EQ(gColloquyAnsiConversionInit__patch::_(), other);  // the file did change...
    EXPECT_EQ(gColloquyAnsiConversion__patch(), CONVERT_MODE);  // ...the process keeps its mode
}

}  // namespace
