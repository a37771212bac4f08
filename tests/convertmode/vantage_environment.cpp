#include "vantage_environment.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <unistd.h>

namespace {

std::string gDirectory;

class VantageEnvironment : public ::testing::Environment {
public:
    void SetUp() override {
        char pattern[] = "/tmp/convert_mode_XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        gDirectory = pattern;
        std::ofstream(gVantagePath(), std::ios::binary) << kVantageIni;
        setenv("QR_BIN", gDirectory.c_str(), 1);
        // A settings file in the working directory would be found first.
        ASSERT_NE(access("vantage.ini", F_OK), 0) << "unexpected vantage.ini in the working directory";
    }
    void TearDown() override {
        std::remove(gVantagePath().c_str());
        rmdir(gDirectory.c_str());
    }
};

::testing::Environment* const gEnvironment = ::testing::AddGlobalTestEnvironment(new VantageEnvironment);

}  // namespace

std::string gVantagePath() { return gDirectory + "/vantage.ini"; }
