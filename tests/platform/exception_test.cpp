// The infrastructure's exceptions: accessors and the formatted message text.
#include "kzexception.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(KZErrorException, FormatsTheBuiltInMessages) {
    KZErrorException e("loadengine.frm", 11, "k", "1 '1 a '1 b ", static_cast<char const*>(nullptr));
    EXPECT_STREQ(e.messageFile(), "loadengine.frm");
    EXPECT_EQ(e.messageNumber(), 11);
    ASSERT_EQ(e.arguments().size(), 2u);
    EXPECT_EQ(e.arguments()[1], "1 '1 a '1 b ");
    EXPECT_STREQ(e.what(), "Key 'k' does not exist in: 1 '1 a '1 b ");
    EXPECT_EQ(std::string(e.vGetErrorMsg_iKZException().data()), e.what());

    KZErrorException syntax("loadengine.frm", 10, "Error", static_cast<char const*>(nullptr));
    EXPECT_STREQ(syntax.what(), "Illegal associative array syntax: Error");
}

TEST(KZErrorException, IsAStandardExceptionAndCopies) {
    try {
        throw KZErrorException("loadengine.frm", 10, std::vector<std::string>{std::string("a\0b", 3)});
    } catch (std::exception const& e) {
        auto const& kz = dynamic_cast<KZErrorException const&>(e);
        KZErrorException copy(kz);
        EXPECT_EQ(copy.arguments()[0], std::string("a\0b", 3));
        EXPECT_EQ(copy.messageNumber(), 10);
    }
}

TEST(KZErrorException, UnknownMessageShowsFileNumberAndArguments) {
    KZErrorException e("other.frm", 3, "x", "y", static_cast<char const*>(nullptr));
    EXPECT_STREQ(e.what(), "other.frm message 3: x: y");
    RWCString trace;
    e.vStackTrace_iKZException(trace);
    EXPECT_EQ(trace, RWCString("other.frm(3)"));
}

TEST(BrokenModuleException, CarriesPositionAndMessage) {
    n_debug::cBrokenModuleException e(n_debug::nCoreError::gPosition("mod.cpp", 42), "broken");
    EXPECT_STREQ(e.what(), "broken");
    EXPECT_EQ(e.position().line, 42);
    iKZException const& base = e;
    RWCString trace;
    base.vStackTrace_iKZException(trace);
    EXPECT_EQ(trace, RWCString("mod.cpp:42"));
}

}  // namespace
