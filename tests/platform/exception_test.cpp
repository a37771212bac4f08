// The infrastructure's exceptions: accessors and the formatted message text.
#include "kzexception.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(KZErrorException, FormatsKnownAndUnknownMessages) {
    KZErrorException e("loadengine.frm", 11, "k", "1 '1 a '1 b ", static_cast<char const*>(nullptr));
    EXPECT_STREQ(e.what(), "Key 'k' does not exist in: 1 '1 a '1 b ");
    EXPECT_EQ(std::string(e.vGetErrorMsg_iKZException().data()), e.what());
    KZErrorException syntax("loadengine.frm", 10, "Error", static_cast<char const*>(nullptr));
    EXPECT_STREQ(syntax.what(), "Illegal associative array syntax: Error");

    KZErrorException other("other.frm", 3, "x", "y", static_cast<char const*>(nullptr));
    EXPECT_STREQ(other.what(), "other.frm message 3: x: y");
    RWCString trace;
    other.vStackTrace_iKZException(trace);
    EXPECT_EQ(trace, RWCString("other.frm(3)"));
}

TEST(KZErrorException, KeepsBinaryArgumentsThroughACopy) {
    try {
        throw KZErrorException("loadengine.frm", 10, std::vector<std::string>{std::string("a\0b", 3)});
    } catch (std::exception const& e) {
        KZErrorException copy(dynamic_cast<KZErrorException const&>(e));
        EXPECT_EQ(copy.arguments()[0], std::string("a\0b", 3));
        EXPECT_STREQ(copy.what(), e.what());
    }
}

TEST(BrokenModuleException, CarriesPositionAndMessage) {
    n_debug::cBrokenModuleException e(n_debug::nCoreError::gPosition("mod.cpp", 42), "broken");
    EXPECT_STREQ(e.what(), "broken");
    RWCString trace;
    static_cast<iKZException const&>(e).vStackTrace_iKZException(trace);
    EXPECT_EQ(trace, RWCString("mod.cpp:42"));
}

}  // namespace
