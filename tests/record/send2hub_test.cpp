// The hub key dump: exact texts through both entry points, the missing-value failure (null
// result, nothing printed) and the round trip through the associative array.
#include "send2hub.h"

#include "assoc_test_util.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <memory>
#include <string>

namespace {

char const* const kEnd = nullptr;

struct HubText {
    void operator()(char* text) const { FreeHubDumpArray(text); }
};
using HubTextPtr = std::unique_ptr<char, HubText>;

char* dumpThroughVaList(char const* from, ...) {
    va_list args;
    va_start(args, from);
    char* text = DumpHubVArray(from, args);
    va_end(args);
    return text;
}

// The dump of `args`, which the va_list form must write alike; "<null>" for a null result.
template <class... Args>
std::string dump(char const* from, Args... args) {
    HubTextPtr text(DumpHubArray(from, args..., kEnd)), forwarded(dumpThroughVaList(from, args..., kEnd));
    EXPECT_EQ(text == nullptr, forwarded == nullptr);
    if (!text || !forwarded) return "<null>";
    EXPECT_STREQ(forwarded.get(), text.get());
    return text.get();
}

TEST(HubDump, WritesTheTextFormWithTheSenderFirst) {
    EXPECT_EQ(dump("agent", "mode", "fast"), "2 '5 $FROM '5 agent '4 mode '4 fast");
    EXPECT_EQ(dump(""), "1 '5 $FROM '0 ");
    // Keys are written as given: duplicates and a caller's own "$FROM" are not checked.
    EXPECT_EQ(dump("a", "$FROM", "b", "k", "1", "k", "2"), "4 '5 $FROM '1 a '5 $FROM '1 b '1 k '1 1 '1 k '1 2");
    // Counts and lengths of several digits.
    std::string const longValue(12345, 'v');
    std::string expected = "11 '5 $FROM '1 s";
    for (int i = 0; i < 9; ++i) expected += " '2 k" + std::to_string(i) + " '1 v";
    EXPECT_EQ(dump("s", "k0", "v", "k1", "v", "k2", "v", "k3", "v", "k4", "v", "k5", "v", "k6", "v", "k7", "v", "k8",
                   "v", "long", longValue.c_str()),
              expected + " '4 long '12345 " + longValue);
}

TEST(HubDump, NullValueOrSenderGivesNullAndPrintsNothing) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(dump("agent", "a", "1", "broken", kEnd), "<null>");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(dump(static_cast<char const*>(nullptr), "k", "v"), "<null>");
    FreeHubDumpArray(nullptr);
}

TEST(HubDump, ReadsBackAsTheSamePairsPlusTheSender) {
    std::string const awkward = "quote ' apostrophe '5 digits\t tab";
    HubTextPtr text(
        DumpHubArray("agent@host7", "mode", "fast", "empty", "", "", "no key", "odd", awkward.c_str(), kEnd));
    ASSERT_NE(text, nullptr);
    CAssociativeArray record(8);
    record.FromStringZTS(text.get());
    EXPECT_EQ(assoctest::pairsOf(record), "=no key\n$FROM=agent@host7\nempty=\nmode=fast\nodd=" + awkward + "\n");
}

}  // namespace
