// Messages made from bytes that came over the network: whatever the bytes, nothing is read
// outside the buffer (each case gets a heap copy of exactly its size, which the sanitizer build
// watches), and a malformed buffer maps to empty texts, no body and all-bits-one numbers.
#include "netmsg.h"
#include "zeppackmsg.h"

#include "tagscope.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

using nTagScope::ErrorRecords;

using namespace std::string_literals;

std::string const kExampleBytes = "8 6 4 6 6 2 2 2 4 "s + "hostB\0svc\0hostA\0agent\0"s + "3\0"s + "hi"s + "7\0"s +
                                  "352\0"s;

struct Case {
    char const* what;
    std::string bytes;
};

std::vector<Case> malformedCases() {
    std::string noSeparator = kExampleBytes;
    noSeparator[17] = 'X';
    std::string tabSeparator = kExampleBytes;
    tabSeparator[1] = '\t';
    return {
        {"empty buffer", ""},
        {"count 0", "0 "},
        {"count 11", "11 1 1 1 1 1 1 1 1 1 1 1 abcdefghijk"},
        {"count without digits", "x 1 a"},
        {"negative count", "-1 "},
        {"negative length", "8 -6 4 6 6 2 2 2 4 "s + kExampleBytes.substr(18)},
        {"missing last separator", noSeparator},
        {"tab instead of a blank", tabSeparator},
        {"double blank", "8  6 4 6 6 2 2 2 4 "s + kExampleBytes.substr(18)},
        {"header ends early", "8 6 4 6"},
        {"eleven-digit length", "8 99999999999 4 6 6 2 2 2 4 "s + kExampleBytes.substr(18)},
        {"length above the int range", "8 2147483648 4 6 6 2 2 2 4 "s + kExampleBytes.substr(18)},
        {"length runs past the end", "8 2147483647 4 6 6 2 2 2 4 "s + kExampleBytes.substr(18)},
        {"five fields", "5 2 2 2 2 2 a\0b\0c\0d\0e\0"s},
        {"host without its zero byte", "6 1 2 2 2 2 1 Xb\0c\0d\0e\0Z"s},
        {"qType without its zero byte", "6 2 2 2 2 2 1 a\0b\0c\0d\0"s + "123Z"s},
        {"formatStamp without its zero byte at the very end", "8 6 4 6 6 2 2 2 3 "s + kExampleBytes.substr(18, 31) + "352"s},
    };
}

// A heap copy of exactly the bytes (never null, even when empty).
std::unique_ptr<char[]> exactCopy(std::string const& bytes) {
    std::unique_ptr<char[]> copy(new char[bytes.size()]);
    std::memcpy(copy.get(), bytes.data(), bytes.size());
    return copy;
}

// The outcome every malformed buffer maps to.
void expectMalformedMapping(cColloquyMessage const& m, char const* what) {
    for (char const* text : {m.toHost, m.toName, m.fromHost, m.fromName}) EXPECT_STREQ(text, "") << what;
    EXPECT_STREQ(m.body, "") << what;
    EXPECT_EQ(m.bodyLen, 0u) << what;
    EXPECT_EQ(m.qType, -1) << what;
    EXPECT_EQ(m.userValue, 0xFFFFFFFFu) << what;
    EXPECT_EQ(m.formatStamp, 0xFFFFFFFFu) << what;
}

// A malformed message can still be printed and re-addressed into a valid one.
void expectUsable(cColloquyMessage& m, char const* what) {
    EXPECT_STREQ(m.printOnString(), "ColloquyMessage: , Message len:0, type (1,2), QType=-1 from @ to @\n") << what;
    m.rePackMe("host", "name");
    EXPECT_EQ(std::string(m.packedBuffer, m.packedLen), "8 5 5 1 1 3 0 3 3 host\0name\0\0\0-1\0-1\0-1\0"s) << what;
}

TEST(MalformedBuffer, FourArgumentConstructorMapsToTheEmptyOutcome) {
    for (Case const& c : malformedCases()) {
        std::unique_ptr<char[]> exact = exactCopy(c.bytes);
        ErrorRecords on;
        cColloquyMessage m(exact.get(), static_cast<unsigned int>(c.bytes.size()), 1, 2);
        ASSERT_EQ(on.count("netmsg"), 1u) << c.what;
        EXPECT_EQ(on.records()[0].text, "malformed packed message\t" + std::to_string(c.bytes.size())) << c.what;
        EXPECT_EQ(m.packedLen, c.bytes.size()) << c.what;
        expectMalformedMapping(m, c.what);
        expectUsable(m, c.what);
    }
}

TEST(MalformedBuffer, TypedMessageIsTakenOverAndMappedToTheEmptyOutcome) {
    for (Case const& c : malformedCases()) {
        char* data = exactCopy(c.bytes).release();
        ErrorRecords on;
        cColloquyMessage* m = ZEPTmo2Cqm(new cTypedMessageObject(1, 2, data, static_cast<unsigned int>(c.bytes.size())));
        EXPECT_EQ(on.count("netmsg"), 2u) << c.what;  // malformed, then the empty body
        EXPECT_EQ(m->packedBuffer, data) << c.what;
        expectMalformedMapping(*m, c.what);
        expectUsable(*m, c.what);
        ZEPDeleteMsg(m);
    }
    ErrorRecords on;
    ZEPDeleteMsg(ZEPTmo2Cqm(nullptr));
    EXPECT_EQ(on.count("netmsg"), 2u);
}

TEST(MalformedBuffer, EveryTruncationOfAValidMessageIsRejectedAndTrailingBytesIgnored) {
    ErrorRecords off(false);
    for (std::size_t n = 0; n < kExampleBytes.size(); ++n) {
        std::unique_ptr<char[]> prefix = exactCopy(kExampleBytes.substr(0, n));
        cColloquyMessage m(prefix.get(), static_cast<unsigned int>(n), 1, 2);
        expectMalformedMapping(m, ("prefix of " + std::to_string(n)).c_str());
    }
    std::string const longer = kExampleBytes + "trailing";
    cColloquyMessage m(longer.data(), static_cast<unsigned int>(longer.size()), 1, 2);
    EXPECT_STREQ(m.toHost, "hostB");
    EXPECT_EQ(m.formatStamp, 352u);
    EXPECT_EQ(std::string(m.body, m.bodyLen), "hi");
}

}  // namespace
