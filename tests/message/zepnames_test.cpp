// Addresses: split by the tokenizer rule ('@' only, repeats skipped), joined with the separator
// always written, null texts refused.
#include "zepnames.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

TEST(Address, SplitsAtTheFirstTwoTokens) {
    struct {
        char const *text, *name, *host;
    } const cases[] = {
        {"agent@host7", "agent", "host7"},
        {"agent", "agent", ""},
        {"@host7", "host7", ""},
        {"@@a@@@b@c", "a", "b"},
        {"", "", ""},
        {"name with blanks@host-1", "name with blanks", "host-1"},  // blanks do not separate
    };
    for (auto const& c : cases) {
        CColloquyAddress const address(c.text);
        EXPECT_EQ(address.namePart, c.name) << c.text;
        EXPECT_EQ(address.hostPart, c.host) << c.text;
        EXPECT_EQ(address.fullAddress, c.text);
    }
    EXPECT_THROW(CColloquyAddress(static_cast<char const*>(nullptr)), std::invalid_argument);
}

TEST(Address, JoinsWithTheSeparatorAlwaysWritten) {
    EXPECT_EQ(CColloquyAddress("agent", "host7").fullAddress, "agent@host7");
    EXPECT_EQ(CColloquyAddress("", "").fullAddress, "@");
    EXPECT_EQ(CColloquyAddress("a@b", "c").fullAddress, "a@b@c");
    EXPECT_THROW(CColloquyAddress(nullptr, "host"), std::invalid_argument);
    EXPECT_THROW(CColloquyAddress("name", nullptr), std::invalid_argument);
}

}  // namespace
