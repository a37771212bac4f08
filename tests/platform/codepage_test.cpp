#include "codepage.h"
#include "testing.h"

namespace {

// Converts with a size query first, as callers do; "<failed>" when either call gives 0.
std::string convert(unsigned from, unsigned to, std::string const& text, int sourceLength = -1) {
    int const size = ANSIToANSI(from, to, text.data(), sourceLength, nullptr, 0);
    if (size <= 0) return "<failed>";
    std::vector<char> buffer(static_cast<size_t>(size), 'X');
    if (ANSIToANSI(from, to, text.data(), sourceLength, buffer.data(), size) != size) return "<failed>";
    return buffer.back() == '\0' ? std::string(buffer.data(), buffer.size() - 1) : "<no terminating NUL>";
}

TEST(CodePage, SizeQueryCountsTheTerminatingNul) {
    char room[6], latin[6], ascii[6];
    // 0: too small, a null source, a size without a buffer. A size query for one pair of code pages
    // is no answer for another pair; conversions without a size query first.
    EXPECT_EQ((std::vector<int>{
                  ANSIToANSI(1252, 65001, "caf\xe9", -1, nullptr, 0), ANSIToANSI(1252, 65001, "", -1, nullptr, 0),
                  ANSIToANSI(1252, 65001, "caf\xe9", -1, room, 5), ANSIToANSI(1252, 65001, "caf\xe9", -1, room, 6),
                  ANSIToANSI(1252, 65001, "\x80", -1, nullptr, 0), ANSIToANSI(28591, 65001, "\x80", -1, latin, 6),
                  ANSIToANSI(65001, 1252, "\xe2\x82\xac", -1, nullptr, 0),
                  ANSIToANSI(65001, 28591, "\xe2\x82\xac", -1, ascii, 6),
                  ANSIToANSI(1252, 65001, nullptr, -1, nullptr, 0), ANSIToANSI(1252, 65001, "x", -1, nullptr, 5)}),
              (std::vector<int>{6, 1, 0, 6, 4, 3, 2, 2, 0, 0}));
    EXPECT_EQ(std::string(room) + "|" + latin + "|" + ascii, "caf\xc3\xa9|\xc2\x80|?");
}

TEST(CodePage, ConvertsByteExactlyWithQuestionMarksForBytesWithoutCounterpart) {
    std::string euros;
    for (int i = 0; i < 200; ++i) euros += "\xe2\x82\xac";
    struct {
        unsigned from, to;
        std::string text, converted;
        int length;
    } const cases[] = {
        {1252, 65001, "caf\xe9 \x80", "caf\xc3\xa9 \xe2\x82\xac", -1},
        {65001, 1252, "caf\xc3\xa9 \xe2\x82\xac", "caf\xe9 \x80", -1},
        {20866, 65001, "\xc1", "\xd0\xb0", -1},        // KOI8-R
        {932, 65001, "\x82\xa0", "\xe3\x81\x82", -1},  // Shift-JIS, two bytes
        {28605, 65001, "\xa4", "\xe2\x82\xac", -1},    // ISO-8859-15
        {1252, 65001, "\xe9zz", "\xc3\xa9", 1},        // bytes past the length are not read
        {1252, 65001, std::string("a\0\xe9", 3), std::string("a\0\xc3\xa9", 4), 3},  // NUL bytes inside are
        // Output three times the input outgrows the first buffer, with room left for part of a character.
        {1252, 65001, std::string(200, '\x80'), euros, -1},
        {65001, 20127, "a\303\251b\342\202\254c", "a?b?c", -1},  // one "?" per character
        {65001, 1252, "x\xffy", "x?y", -1},                      // not valid UTF-8
        {65001, 1252, "x\xc3", "x?", -1},                        // cut short at the end
        {1252, 65001, "\201a", "?a", -1},                        // undefined in 1252
    };
    for (auto const& c : cases) EXPECT_EQ(convert(c.from, c.to, c.text, c.length), c.converted) << c.text;
}

TEST(CodePage, EveryListedCodePageIsKnownAndOthersAreNot) {
    std::vector<unsigned> pages{65001, 20127, 874, 932, 936, 949, 950, 20866};
    for (unsigned p = 1250; p <= 1258; ++p) pages.push_back(p);
    for (unsigned p = 28591; p <= 28606; ++p)
        if (p != 28602) pages.push_back(p);  // there is no ISO-8859-12
    for (unsigned page : pages)
        EXPECT_EQ(convert(page, 65001, "Az 09") + convert(65001, page, "Az 09"), "Az 09Az 09") << page;
    EXPECT_EQ(convert(28597, 65001, "\xe1"), "\xce\xb1");  // ISO-8859-7, found by its number
    for (unsigned unknown : {0u, 437u, 1249u, 1259u, 28590u, 28602u, 28607u})
        EXPECT_EQ(convert(unknown, 65001, "a") + convert(65001, unknown, "a"), "<failed><failed>") << unknown;
}

TEST(CodePage, ThreadsConvertAtTheSameTime) {
    std::vector<std::thread> threads;
    for (unsigned page : {1252u, 28591u, 1252u, 28591u})
        threads.emplace_back([page] {
            for (int i = 0; i < 300; ++i)
                EXPECT_EQ(convert(page, 65001, std::to_string(i) + "\xe9"), std::to_string(i) + "\xc3\xa9") << page;
        });
    for (std::thread& thread : threads) thread.join();
}

}  // namespace
