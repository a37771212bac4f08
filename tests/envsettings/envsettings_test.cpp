// Settings files and path macros: the INI rules, where a bare file name is looked for, the
// handles of a table, and the expansion of "#(NAME)".
#include "envsettings.h"

#include "envscope.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

// A scratch directory holding settings files; restores the working directory and QR_BIN.
class Settings : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/envsettings_test_XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        mDir = pattern;
        char cwd[PATH_MAX];
        ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
        mCwd = cwd;
    }
    void TearDown() override {
        EXPECT_EQ(chdir(mCwd.c_str()), 0);
        for (std::string const& f : mFiles) std::remove(f.c_str());
        for (auto d = mSubdirs.rbegin(); d != mSubdirs.rend(); ++d) rmdir(d->c_str());
        rmdir(mDir.c_str());
    }
    std::string write(std::string const& relative, std::string const& text) {
        std::string const path = mDir + "/" + relative;
        std::ofstream(path, std::ios::binary) << text;
        mFiles.push_back(path);
        return path;
    }
    std::string subdir(std::string const& name) {
        std::string const path = mDir + "/" + name;
        EXPECT_EQ(mkdir(path.c_str(), 0700), 0);
        mSubdirs.push_back(path);
        return path;
    }

    std::string mDir, mCwd;
    EnvScope mQrBin{"QR_BIN", std::getenv("QR_BIN")};  // restored after each test
    std::vector<std::string> mFiles, mSubdirs;
};

TEST_F(Settings, IniRules) {
    std::string const path = write("rules.ini",
                                   "; a comment\r\n"
                                   "# another = comment\n"
                                   "top = 1\n"
                                   "[first]\n"
                                   "  spaced key  =  spaced value  \r\n"
                                   "dup=first\n"
                                   "no equals sign\n"
                                   "empty=\n"
                                   "=nokey\n"
                                   "[second]\n"
                                   "dup=second\n"
                                   "eq=a=b\n");
    QREnvContainerClass table;
    int handle = 0;
    ASSERT_TRUE(nEnvSettings::gFileInitTable(table, path.c_str(), handle));
    // Every section is searched and the first match wins; keys are case-sensitive.
    std::pair<char const*, char const*> const expected[] = {
        {"top", "1"}, {"spaced key", "spaced value"}, {"dup", "first"}, {"eq", "a=b"}, {"empty", ""},
        {"no equals sign", ""}, {"# another", ""}, {"first", ""}, {"Top", ""}};
    for (auto const& [key, value] : expected)
        EXPECT_EQ(nEnvSettings::gGetPropertyStream(handle, key).stdString(), value) << key;
}

TEST_F(Settings, BareNamesAreFoundInTheCurrentDirectoryThenInQrBin) {
    std::string const bin = subdir("bin");
    std::string const work = subdir("work");
    write("bin/vantage.ini", "where=bin\nonly=bin\n");
    setenv("QR_BIN", bin.c_str(), 1);
    ASSERT_EQ(chdir(work.c_str()), 0);
    {
        QREnvContainerClass table;
        int handle = 0;
        ASSERT_TRUE(nEnvSettings::gFileInitTable(table, "vantage.ini", handle));
        EXPECT_EQ(nEnvSettings::gGetPropertyStream(handle, "where").stdString(), "bin");
    }
    write("work/vantage.ini", "where=work\n");
    {
        QREnvContainerClass table;
        int handle = 0;
        ASSERT_TRUE(nEnvSettings::gFileInitTable(table, "vantage.ini", handle));
        EXPECT_EQ(nEnvSettings::gGetPropertyStream(handle, "where").stdString(), "work");
        EXPECT_EQ(nEnvSettings::gGetPropertyStream(handle, "only").stdString(), "");  // one file only
    }
    {
        QREnvContainerClass table;
        int handle = 0;
        EXPECT_FALSE(nEnvSettings::gFileInitTable(table, "absent.ini", handle));
        EXPECT_EQ(nEnvSettings::gGetPropertyStream(handle, "where").stdString(), "");
        // A path with a macro is resolved, not searched for.
        ASSERT_TRUE(nEnvSettings::gFileInitTable(table, "#(QR_BIN)/vantage.ini", handle));
        EXPECT_EQ(nEnvSettings::gGetPropertyStream(handle, "where").stdString(), "bin");
    }
}

TEST_F(Settings, HandlesLiveWithTheirTable) {
    std::string const path = write("h.ini", "k=v\n");
    int handle = 0;
    {
        QREnvContainerClass table;
        ASSERT_TRUE(nEnvSettings::gFileInitTable(table, path.c_str(), handle));
        int second = 0;
        QREnvContainerClass other;
        ASSERT_FALSE(nEnvSettings::gFileInitTable(other, (path + ".missing").c_str(), second));
        EXPECT_NE(handle, second);
        EXPECT_EQ(nEnvSettings::gGetPropertyStream(handle, "k").stdString(), "v");
        EXPECT_EQ(nEnvSettings::gGetPropertyStream(second, "k").stdString(), "");
    }
    EXPECT_EQ(nEnvSettings::gGetPropertyStream(handle, "k").stdString(), "");
    EXPECT_EQ(nEnvSettings::gGetPropertyStream(-5, "k").stdString(), "");
    EXPECT_EQ(nEnvSettings::gGetPropertyStream(handle, nullptr).stdString(), "");
}

TEST_F(Settings, MacrosExpandFromTheEnvironment) {
    QREnvContainerClass table;
    setenv("ENVSETTINGS_TEST_DIR", "/opt/x", 1);
    unsetenv("ENVSETTINGS_TEST_UNSET");
    EXPECT_EQ(table.QRERuntimeResolve("#(ENVSETTINGS_TEST_DIR)/a/#(ENVSETTINGS_TEST_DIR)").stdString(), "/opt/x/a//opt/x");
    EXPECT_EQ(table.QRERuntimeResolve("a#(ENVSETTINGS_TEST_UNSET)b").stdString(), "ab");
    EXPECT_EQ(table.QRERuntimeResolve("keep #(open").stdString(), "keep #(open");
    EXPECT_EQ(table.QRERuntimeResolve("no macro").stdString(), "no macro");
    EXPECT_EQ(table.QRERuntimeResolve(nullptr).stdString(), "");
    setenv("QR_BIN", "/set/bin", 1);
    EXPECT_EQ(table.QRERuntimeResolve("#(QR_BIN)/vantage.ini").stdString(), "/set/bin/vantage.ini");
    // Unset, QR_BIN is the directory of this test program.
    unsetenv("QR_BIN");
    char const* const binaryDir = std::getenv("COLLOQUY_TEST_BINARY_DIR");
    ASSERT_NE(binaryDir, nullptr);
    char expected[PATH_MAX], actual[PATH_MAX];
    ASSERT_NE(realpath(binaryDir, expected), nullptr);
    ASSERT_NE(realpath(table.QRERuntimeResolve("#(QR_BIN)").data(), actual), nullptr);
    EXPECT_STREQ(actual, expected);
}

}  // namespace
