#include "envsettings.h"

#include "envscope.h"
#include "files.h"

#include <filesystem>

namespace fs = std::filesystem;

namespace {

std::string property(int handle, char const* key) { return nEnvSettings::gGetPropertyStream(handle, key).stdString(); }

// A table of its own per lookup: the value of `key`, marked when no file was found.
std::string lookUp(std::string const& name, char const* key) {
    QREnvContainerClass table;
    int handle = 0;
    bool const found = nEnvSettings::gFileInitTable(table, name.c_str(), handle);
    return (found ? "" : "not found:") + property(handle, key);
}

class Settings : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_FALSE(mScratch.path.empty()); }
    std::string write(std::string const& relative, std::string const& text) {
        fs::create_directories((mDir / relative).parent_path());
        gWriteFile(mDir / relative, text);
        return mDir / relative;
    }
    ScratchScope const mScratch{"envsettings_test"};
    fs::path const mDir = mScratch.path;
    EnvScope mQrBin{"QR_BIN", (mDir / "bin").c_str()};
};

TEST_F(Settings, IniRules) {
    std::string const path = write("rules.ini",
                                   "; a = comment\r\n# another = comment\ntop = 1\n[first]\n"
                                   "  spaced key  =  spaced value  \r\ndup=first\nno equals sign\n"
                                   "empty=\n=nokey\n[second]\ndup=second\neq=a=b\n");
    // Every section is searched and the first match wins; keys are case-sensitive.
    std::string values;
    for (char const* key : {"top", "spaced key", "dup", "eq", "empty", "no equals sign", "# another", "; a", "Top", ""})
        values += lookUp(path, key) + "|";
    EXPECT_EQ(values, "1|spaced value|first|a=b|||||||");
}

TEST_F(Settings, BareNamesAreFoundInTheCurrentDirectoryThenInQrBin) {
    write("bin/vantage.ini", "where=bin\nonly=bin\n");
    fs::create_directory(mDir / "work");
    fs::current_path(mDir / "work");
    write("bin/sub/s.ini", "where=sub\n");
    std::string const before = lookUp("vantage.ini", "where");
    write("work/vantage.ini", "where=work\n");
    // One file only; a path is resolved, not searched for, and neither is a relative path.
    EXPECT_EQ(before + "|" + lookUp("vantage.ini", "where") + "|" + lookUp("vantage.ini", "only") + "|" +
                  lookUp("absent.ini", "where") + "|" + lookUp("#(QR_BIN)/vantage.ini", "where") + "|" +
                  lookUp("sub/s.ini", "where"),
              "bin|work||not found:|bin|not found:");
}

TEST_F(Settings, HandlesLiveWithTheirTable) {
    std::string const path = write("h.ini", "k=v\n");
    int handle = 0, second = 0;
    {
        QREnvContainerClass table;
        ASSERT_TRUE(nEnvSettings::gFileInitTable(table, path.c_str(), handle));
        {
            QREnvContainerClass other;
            ASSERT_FALSE(nEnvSettings::gFileInitTable(other, (path + ".missing").c_str(), second));
            EXPECT_NE(handle, second);
        }  // takes its own handle alone with it
        EXPECT_EQ(property(handle, "k") + property(second, "k"), "v");
    }
    EXPECT_EQ(property(handle, "k") + property(-5, "k") + property(handle, nullptr), "");
}

TEST_F(Settings, MacrosExpandFromTheEnvironment) {
    auto resolve = [](char const* text) { return QREnvContainerClass().QRERuntimeResolve(text).stdString(); };
    EnvScope set("ENVSETTINGS_TEST_DIR", "/opt/x"), unset("ENVSETTINGS_TEST_UNSET", nullptr);
    EXPECT_EQ(resolve("#(ENVSETTINGS_TEST_DIR)/a/#(ENVSETTINGS_TEST_DIR)") + "|" +
                  resolve("a#(ENVSETTINGS_TEST_UNSET)b") + "|" + resolve("keep #(open") + "|" + resolve(nullptr) + "|" +
                  resolve("#(QR_BIN)/vantage.ini"),
              "/opt/x/a//opt/x|ab|keep #(open||" + (mDir / "bin/vantage.ini").string());
    // Unset, QR_BIN is the directory of this test program.
    EnvScope noQrBin("QR_BIN", nullptr);
    EXPECT_EQ(fs::canonical(resolve("#(QR_BIN)")), fs::canonical(COLLOQUY_TEST_BINARY_DIR));
}

}  // namespace
