// ANSIToANSI: the size query, byte-exact conversions between code pages, "?" for bytes with no
// counterpart, unknown code pages, and conversions from several threads at once.
#include "codepage.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace {

// Converts with a size query first, as callers do; "<failed>" when either call gives 0.
std::string convert(unsigned from, unsigned to, std::string const& text, int sourceLength = -1) {
    int const size = ANSIToANSI(from, to, text.data(), sourceLength, nullptr, 0);
    if (size <= 0) return "<failed>";
    std::vector<char> buffer(static_cast<size_t>(size), 'X');
    if (ANSIToANSI(from, to, text.data(), sourceLength, buffer.data(), size) != size) return "<failed>";
    EXPECT_EQ(buffer.back(), '\0');
    return std::string(buffer.data(), buffer.size() - 1);
}

TEST(CodePage, SizeQueryCountsTheTerminatingNul) {
    EXPECT_EQ(ANSIToANSI(1252, 65001, "caf\xe9", -1, nullptr, 0), 6);
    EXPECT_EQ(ANSIToANSI(1252, 65001, "", -1, nullptr, 0), 1);
    char small[5];
    EXPECT_EQ(ANSIToANSI(1252, 65001, "caf\xe9", -1, small, sizeof small), 0);  // too small
    EXPECT_EQ(ANSIToANSI(1252, 65001, nullptr, -1, nullptr, 0), 0);
    EXPECT_EQ(ANSIToANSI(1252, 65001, "x", -1, nullptr, 5), 0);  // a size without a buffer
}

TEST(CodePage, ConvertsByteExactly) {
    EXPECT_EQ(convert(1252, 65001, "caf\xe9 \x80"), "caf\xc3\xa9 \xe2\x82\xac");
    EXPECT_EQ(convert(65001, 1252, "caf\xc3\xa9 \xe2\x82\xac"), "caf\xe9 \x80");
    EXPECT_EQ(convert(20866, 65001, "\xc1"), "\xd0\xb0");        // KOI8-R
    EXPECT_EQ(convert(932, 65001, "\x82\xa0"), "\xe3\x81\x82");  // Shift-JIS, two bytes
    EXPECT_EQ(convert(28605, 65001, "\xa4"), "\xe2\x82\xac");    // ISO-8859-15
    // Output three times the input outgrows the first buffer, with room left for part of a character.
    std::string euros;
    for (int i = 0; i < 200; ++i) euros += "\xe2\x82\xac";
    EXPECT_EQ(convert(1252, 65001, std::string(200, '\x80')), euros);
    // An explicit length: bytes past it are not read, NUL bytes inside it are converted.
    EXPECT_EQ(convert(1252, 65001, std::string("\xe9zz", 3), 1), "\xc3\xa9");
    EXPECT_EQ(convert(1252, 65001, std::string("a\0\xe9", 3), 3), std::string("a\0\xc3\xa9", 4));
}

TEST(CodePage, BytesWithoutCounterpartBecomeQuestionMarks) {
    EXPECT_EQ(convert(65001, 20127,
                      "a\xc3\xa9"
                      "b\xe2\x82\xac"
                      "c"),
              "a?b?c");                                // one "?" per character
    EXPECT_EQ(convert(65001, 1252, "x\xffy"), "x?y");  // not valid UTF-8
    EXPECT_EQ(convert(65001, 1252, "x\xc3"), "x?");    // cut short at the end
    EXPECT_EQ(convert(1252, 65001,
                      "\x81"
                      "a"),
              "?a");  // undefined in 1252
}

TEST(CodePage, EveryListedCodePageIsKnownAndOthersAreNot) {
    std::vector<unsigned> pages{65001, 20127, 874, 932, 936, 949, 950, 20866};
    for (unsigned p = 1250; p <= 1258; ++p) pages.push_back(p);
    for (unsigned p = 28591; p <= 28606; ++p)
        if (p != 28602) pages.push_back(p);  // there is no ISO-8859-12
    for (unsigned page : pages) {
        SCOPED_TRACE(page);
        EXPECT_EQ(convert(page, 65001, "Az 09"), "Az 09");
        EXPECT_EQ(convert(65001, page, "Az 09"), "Az 09");
    }
    char buffer[16];
    for (unsigned unknown : {0u, 437u, 1249u, 1259u, 28602u, 28607u}) {
        SCOPED_TRACE(unknown);
        EXPECT_EQ(ANSIToANSI(unknown, 65001, "a", -1, nullptr, 0), 0);
        EXPECT_EQ(ANSIToANSI(65001, unknown, "a", -1, buffer, sizeof buffer), 0);
    }
}

TEST(CodePage, ThreadsConvertAtTheSameTime) {
    std::vector<std::thread> threads;
    std::vector<int> failures(4, 0);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t, &failures] {
            for (int i = 0; i < 300; ++i) {
                std::string const n = "n" + std::to_string(i);
                failures[static_cast<size_t>(t)] += convert(t % 2 ? 1252 : 28591, 65001, n + "\xe9") != n + "\xc3\xa9";
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(failures, std::vector<int>(4, 0));
}

}  // namespace
