// The tokenizer rule: skip leading delimiters, yield the next run, "" once nothing is left.
#include "rwcstring.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::vector<std::string> tokens(char const* text, char const* delimiters) {
    RWCString const s(text);
    RWCTokenizer next(s);
    std::vector<std::string> out;
    for (RWCString t = next(delimiters); !t.isNull(); t = next(delimiters)) out.emplace_back(t.data());
    return out;
}

// The single-delimiter cases are covered through the address split of the registry suite.
TEST(Tokenizer, SeveralDelimitersAndTheEnd) {
    using V = std::vector<std::string>;
    EXPECT_EQ(tokens("  one two\tthree\n", " \t\n"), (V{"one", "two", "three"}));
    EXPECT_EQ(tokens("@@@", "@"), V{});
    RWCString const s("x");
    RWCTokenizer next(s);
    EXPECT_EQ(next("@"), RWCString("x"));
    EXPECT_TRUE(next("@").isNull());
    EXPECT_TRUE(next("@").isNull());  // stays empty
}

}  // namespace
