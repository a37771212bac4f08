// Addresses: splitting by the tokenizer rule, joining with the separator always written, and
// null texts refused.
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
        SCOPED_TRACE(c.text);
        CColloquyAddress const address(c.text);
        EXPECT_EQ(address.namePart, c.name);
        EXPECT_EQ(address.hostPart, c.host);
        EXPECT_EQ(address.fullAddress, c.text);  // kept exactly as given
    }
    EXPECT_THROW(CColloquyAddress(static_cast<char const*>(nullptr)), std::invalid_argument);
}

TEST(Address, JoinsWithTheSeparatorAlwaysWritten) {
    Split const cases[] = {
        {"agent@host7", "agent", "host7"}, {"agent@", "agent", ""}, {"@host7", "", "host7"}, {"@", "", ""},
        {"a@b@c", "a@b", "c"},  // parts holding the separator are joined as they are
    };
    for (Split const& c : cases) EXPECT_EQ(CColloquyAddress(c.name, c.host).fullAddress, c.text) << c.text;
    EXPECT_THROW(CColloquyAddress(nullptr, "host"), std::invalid_argument);
    EXPECT_THROW(CColloquyAddress("name", nullptr), std::invalid_argument);
}

}  // namespace
