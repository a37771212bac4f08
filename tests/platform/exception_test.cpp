// The infrastructure's exceptions: the generic message text and the stack-trace position
// (the known message texts are checked where the records raise them).
#include "kzexception.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(KZErrorException, FormatsAMessageWithoutATextAndItsPosition) {
    KZErrorException other("other.frm", 3, "x", "y", static_cast<char const*>(nullptr));
    EXPECT_STREQ(other.what(), "other.frm message 3: x: y");
    RWCString trace;
    other.vStackTrace_iKZException(trace);
    EXPECT_EQ(trace, RWCString("other.frm(3)"));
}

TEST(BrokenModuleException, CarriesPositionAndMessage) {
    n_debug::cBrokenModuleException e(n_debug::nCoreError::gPosition("mod.cpp", 42), "broken");
    EXPECT_STREQ(e.what(), "broken");
    RWCString trace;
    static_cast<iKZException const&>(e).vStackTrace_iKZException(trace);
    EXPECT_EQ(trace, RWCString("mod.cpp:42"));
}

}  // namespace
