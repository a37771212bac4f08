// Addresses: splitting by the tokenizer rule and joining with the separator always written.
#include "zepnames.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace {

struct Split {
    char const* text;
    char const* name;
    char const* host;
};

TEST(Address, SplitsAtTheFirstTwoTokens) {
    Split const cases[] = {
        {"agent@host7", "agent", "host7"},
        {"agent", "agent", ""},
        {"@host7", "host7", ""},
        {"a@b@c", "a", "b"},
        {"a@@b", "a", "b"},
        {"@@a@@@b@", "a", "b"},
        {"agent@", "agent", ""},
        {"@", "", ""},
        {"", "", ""},
        {"name with blanks@host-1.example", "name with blanks", "host-1.example"},
    };
    for (Split const& c : cases) {
        CColloquyAddress const address(c.text);
        EXPECT_EQ(address.namePart, c.name) << c.text;
        EXPECT_EQ(address.hostPart, c.host) << c.text;
        EXPECT_EQ(address.fullAddress, c.text) << "kept exactly as given";
    }
}

TEST(Address, JoinsWithTheSeparatorAlwaysWritten) {
    CColloquyAddress const both("agent", "host7");
    EXPECT_EQ(both.namePart, "agent");
    EXPECT_EQ(both.hostPart, "host7");
    EXPECT_EQ(both.fullAddress, "agent@host7");
    EXPECT_EQ(CColloquyAddress("agent", "").fullAddress, "agent@");
    EXPECT_EQ(CColloquyAddress("", "host7").fullAddress, "@host7");
    EXPECT_EQ(CColloquyAddress("", "").fullAddress, "@");

    // Parts holding the separator are joined as they are; splitting the result differs.
    CColloquyAddress const joined("a@b", "c");
    EXPECT_EQ(joined.fullAddress, "a@b@c");
    CColloquyAddress const split(joined.fullAddress.c_str());
    EXPECT_EQ(split.namePart, "a");
    EXPECT_EQ(split.hostPart, "b");
}

TEST(Address, NullTextIsAClearError) {
    EXPECT_THROW(CColloquyAddress(static_cast<char const*>(nullptr)), std::invalid_argument);
    EXPECT_THROW(CColloquyAddress(nullptr, "host"), std::invalid_argument);
    EXPECT_THROW(CColloquyAddress("name", nullptr), std::invalid_argument);
}

}  // namespace
