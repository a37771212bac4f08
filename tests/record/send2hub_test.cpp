// The hub key dump: exact texts through both entry points, the missing-value failure (null
// result, nothing printed) and the round trip through the associative array.
#include "send2hub.h"

#include "associativearray.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <memory>
#include <string>

namespace {

char const* const kEnd = nullptr;

struct HubText {  // owns a dump and releases it with FreeHubDumpArray
    void operator()(char* text) const { FreeHubDumpArray(text); }
};
using HubTextPtr = std::unique_ptr<char, HubText>;

char* gDumpThroughVaList(char const* from, ...) {
    va_list args;
    va_start(args, from);
    char* text = DumpHubVArray(from, args);
    va_end(args);
    return text;
}

// The dump of `args`, which the va_list form must write alike.
template <class... Args>
std::string gDump(char const* from, Args... args) {
    HubTextPtr text(DumpHubArray(from, args..., kEnd));
    HubTextPtr forwarded(gDumpThroughVaList(from, args..., kEnd));
    if (!text || !forwarded) return "<null>";
    EXPECT_STREQ(forwarded.get(), text.get());
    return text.get();
}

TEST(HubDump, WritesTheTextFormWithTheSenderFirst) {
    EXPECT_EQ(gDump("agent", "mode", "fast"), "2 '5 $FROM '5 agent '4 mode '4 fast");
    EXPECT_EQ(gDump(""), "1 '5 $FROM '0 ");
    // Keys are written as given: duplicates and a caller's own "$FROM" are not checked.
    EXPECT_EQ(gDump("a", "$FROM", "b", "k", "1", "k", "2"), "4 '5 $FROM '1 a '5 $FROM '1 b '1 k '1 1 '1 k '1 2");
    // Counts and lengths of several digits.
    std::string const longValue(12345, 'v');
    std::string expected = "11 '5 $FROM '1 s";
    for (int i = 0; i < 9; ++i) expected += " '2 k" + std::to_string(i) + " '1 v";
    EXPECT_EQ(gDump("s", "k0", "v", "k1", "v", "k2", "v", "k3", "v", "k4", "v", "k5", "v", "k6", "v", "k7", "v", "k8",
                    "v", "long", longValue.c_str()),
              expected + " '4 long '12345 " + longValue);
}

TEST(HubDump, NullValueOrSenderGivesNullAndPrintsNothing) {
    testing::internal::CaptureStdout();
    char* const text = DumpHubArray("agent", "a", "1", "broken", kEnd, kEnd);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(gDumpThroughVaList("agent", "broken", kEnd), nullptr);
    EXPECT_EQ(DumpHubArray(nullptr, "k", "v", kEnd), nullptr);
    FreeHubDumpArray(nullptr);
}

TEST(HubDump, ReadsBackAsTheSamePairsPlusTheSender) {
    std::string const binaryish = "quote ' apostrophe '5 digits\t tab";
    HubTextPtr text(
        DumpHubArray("agent@host7", "mode", "fast", "empty", "", "", "no key", "odd", binaryish.c_str(), kEnd));
    ASSERT_NE(text, nullptr);
    CAssociativeArray record(8);
    record.FromStringZTS(text.get());
    EXPECT_EQ(record.entries(), 5u);
    EXPECT_STREQ(record.GetValueOfParameter("$FROM"), "agent@host7");
    EXPECT_STREQ(record.GetValueOfParameter("mode"), "fast");
    EXPECT_STREQ(record.GetValueOfParameter("empty"), "");
    EXPECT_STREQ(record.GetValueOfParameter(""), "no key");
    EXPECT_EQ(record.GetValueOfParameter("odd"), binaryish);
}

}  // namespace
