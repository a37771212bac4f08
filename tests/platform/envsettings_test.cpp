// Settings files and path macros: the INI rules, where a bare file name is looked for, the
// handles of a table, and the expansion of "#(NAME)".
#include "envsettings.h"

#include "envscope.h"
#include "files.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace fs = std::filesystem;

namespace {

std::string property(int handle, char const* key) { return nEnvSettings::gGetPropertyStream(handle, key).stdString(); }

// A scratch directory for settings files; restores the working directory and QR_BIN.
class Settings : public ::testing::Test {
  protected:
    void SetUp() override {
        mDir = gScratchDirectory("envsettings_test");
        ASSERT_FALSE(mDir.empty());
    }
    void TearDown() override {
        fs::current_path(mCwd);
        fs::remove_all(mDir);
    }
    // Writes `text` to `relative`, making its directory, and gives the path.
    std::string write(std::string const& relative, std::string const& text) {
        fs::path const path = mDir / relative;
        fs::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << text;
        return path;
    }

    fs::path mDir;
    fs::path const mCwd = fs::current_path();
    EnvScope mQrBin{"QR_BIN", std::getenv("QR_BIN")};
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
        {"top", "1"},  {"spaced key", "spaced value"}, {"dup", "first"},  {"eq", "a=b"},
        {"empty", ""}, {"no equals sign", ""},         {"# another", ""}, {"Top", ""}};
    for (auto const& [key, value] : expected) EXPECT_EQ(property(handle, key), value) << key;
}

TEST_F(Settings, BareNamesAreFoundInTheCurrentDirectoryThenInQrBin) {
    write("bin/vantage.ini", "where=bin\nonly=bin\n");
    setenv("QR_BIN", (mDir / "bin").c_str(), 1);
    fs::create_directory(mDir / "work");
    fs::current_path(mDir / "work");
    // A table of its own per lookup: the value read, marked when no file was found.
    auto lookup = [](char const* name, char const* key = "where") {
        QREnvContainerClass table;
        int handle = 0;
        bool const found = nEnvSettings::gFileInitTable(table, name, handle);
        return (found ? "" : "not found:") + property(handle, key);
    };
    EXPECT_EQ(lookup("vantage.ini"), "bin");
    write("work/vantage.ini", "where=work\n");
    EXPECT_EQ(lookup("vantage.ini"), "work");
    EXPECT_EQ(lookup("vantage.ini", "only"), "");  // one file only
    EXPECT_EQ(lookup("absent.ini"), "not found:");
    EXPECT_EQ(lookup("#(QR_BIN)/vantage.ini"), "bin");  // a path with a macro is resolved, not searched for
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
        EXPECT_EQ(property(handle, "k"), "v");
        EXPECT_EQ(property(second, "k"), "");
    }
    EXPECT_EQ(property(handle, "k"), "");
    EXPECT_EQ(property(-5, "k"), "");
    EXPECT_EQ(property(handle, nullptr), "");
}

TEST_F(Settings, MacrosExpandFromTheEnvironment) {
    QREnvContainerClass table;
    auto resolve = [&table](char const* text) { return table.QRERuntimeResolve(text).stdString(); };
    EnvScope set("ENVSETTINGS_TEST_DIR", "/opt/x"), unset("ENVSETTINGS_TEST_UNSET", nullptr);
    EXPECT_EQ(resolve("#(ENVSETTINGS_TEST_DIR)/a/#(ENVSETTINGS_TEST_DIR)"), "/opt/x/a//opt/x");
    EXPECT_EQ(resolve("a#(ENVSETTINGS_TEST_UNSET)b"), "ab");
    EXPECT_EQ(resolve("keep #(open"), "keep #(open");
    EXPECT_EQ(resolve(nullptr), "");
    setenv("QR_BIN", "/set/bin", 1);
    EXPECT_EQ(resolve("#(QR_BIN)/vantage.ini"), "/set/bin/vantage.ini");
    // Unset, QR_BIN is the directory of this test program.
    unsetenv("QR_BIN");
    EXPECT_EQ(fs::canonical(resolve("#(QR_BIN)")), fs::canonical(COLLOQUY_TEST_BINARY_DIR));
}

}  // namespace
