// The support report with stand-in commands: scripts named like the real tools, first on PATH,
// print known text and exit with a chosen status; a temporary working directory receives the
// temporary files; QR_BIN points at a directory with or without "vantage.ini".
#include "supportinformationgenerator.h"

#include "children.h"
#include "envscope.h"
#include "files.h"
#include "nlog.h"
#include "nsocket.h"
#include "tagscope.h"

#include <gtest/gtest.h>

#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

namespace {

std::string const kRule = "\n" + std::string(79, '=') + "\n";
char const kNotAvailable[] = "Not Available - failed on creation";

bool gExists(std::string const& path) { return access(path.c_str(), F_OK) == 0; }

using nTagScope::Line;
using nTagScope::TagScope;

class SupportTest : public ::testing::Test {
  protected:
    void SetUp() override {
        mRoot = gScratchDirectory("support_test");
        ASSERT_FALSE(mRoot.empty());
        mkdir((mRoot + "/bin").c_str(), 0755);
        mkdir((mRoot + "/qr").c_str(), 0755);
        useWorkingDirectory("work");
        mPath.emplace("PATH", (mRoot + "/bin:" + std::getenv("PATH")).c_str());
        mQr.emplace("QR_BIN", (mRoot + "/qr").c_str());
    }
    void TearDown() override {
        std::filesystem::current_path(mOldDirectory);
        std::filesystem::remove_all(mRoot);
    }

    // Makes <root>/<name> and changes into it.
    void useWorkingDirectory(std::string const& name) {
        mWork = mRoot + "/" + name;
        ASSERT_EQ(mkdir(mWork.c_str(), 0755), 0) << mWork;
        ASSERT_EQ(chdir(mWork.c_str()), 0);
    }

    // Stand-ins for the five commands: each prints "<name>:<arguments>" and exits with its status.
    void tools(std::array<int, 5> const& statuses) {
        char const* const names[] = {"ifconfig", "uname", "lscpu", "lsblk", "cat"};
        for (size_t i = 0; i < statuses.size(); ++i)
            gWriteFile(
                mRoot + "/bin/" + names[i],
                "#!/bin/sh\necho \"" + std::string(names[i]) + ":$*\"\nexit " + std::to_string(statuses[i]) + "\n",
                0755);
    }

    std::string interfacePath() const { return mWork + "/IpConfig.txt"; }
    std::string systemPath() const { return mWork + "/" + mHost + ".txt"; }
    static std::string quoted(std::string const& path) { return "\"" + path + "\""; }
    std::string ifconfigCommand() const { return "ifconfig -a -v >> " + quoted(interfacePath()); }

    std::vector<Line> lines() const { return nTagScope::gLines(mCapture, "supportinformationgenerator"); }

    std::string mRoot, mWork;
    std::filesystem::path const mOldDirectory = std::filesystem::current_path();
    std::string const mHost = nCommunication::nSocket::gGetLocalHostName().stdString();
    std::optional<EnvScope> mPath, mQr;
    TagScope mWarning{"Warning", true};
    TagScope mError{"Error", true};
    nLog::cCapture mCapture;
    CSupportInformationGenerator mGenerator;
};

// A command answering zero counts as failed and ends the gathering, leaving the temporary
// files as far as they were written; any other answer counts as success.
TEST_F(SupportTest, EachCommandAnsweringZeroStopsTheGathering) {
    std::string const all = "uname:-a\nlscpu:\nlsblk:\ncat:/proc/meminfo\n";
    Line const gotInterface{"Warning", 499,
                            "success to get ifconfig output with command: \t" + ifconfigCommand() + "\t into file \t" +
                                quoted(interfacePath())};
    Line const doing{"Warning", 414, "doing GenerateLinuxInfo()"};
    auto const failed = [&](int line, char const* what, char const* prefix) {
        return std::vector<Line>{
            gotInterface,
            doing,
            {"Warning", line,
             "failed to get " + std::string(what) + " output with command: \t" + prefix + quoted(systemPath())}};
    };
    struct Row {
        std::array<int, 5> statuses;
        std::vector<Line> records;
        char const* systemFile;  // what is left of it, null when it is gone
    } const rows[] = {
        {{1, 2, 3, 4, 5},
         {gotInterface,
          doing,
          {"Warning", 535,
           "grabbed linux info into files \t" + quoted(interfacePath()) + "\t and \t" + quoted(systemPath())}},
         nullptr},
        {{0, 1, 1, 1, 1},
         {{"Warning", 494, "failed to get ifconfig output with command: \t" + ifconfigCommand()}},
         nullptr},
        {{1, 0, 1, 1, 1}, failed(421, "kernel", "uname -a >> "), "uname:-a\n"},
        {{1, 1, 1, 1, 0}, failed(450, "memory", "cat /proc/meminfo >> "), all.c_str()},
    };
    for (Row const& row : rows) {
        SCOPED_TRACE(row.records.back());
        tools(row.statuses);
        std::remove(interfacePath().c_str());
        std::remove(systemPath().c_str());
        mCapture.clear();
        CAssociativeArray db(16);
        EXPECT_TRUE(mGenerator.CreateInformationDB(db));
        bool const gathered = &row == rows;
        EXPECT_STREQ(db.GetValueOfParameter("$HOSTNAME"), mHost.c_str());
        EXPECT_STREQ(db.GetValueOfParameter("$IPCONFIG"), gathered ? "ifconfig:-a -v\n" : kNotAvailable);
        EXPECT_STREQ(db.GetValueOfParameter("$SYSTEMREPORT"), gathered ? all.c_str() : kNotAvailable);
        EXPECT_EQ(db.entries(), 4u);
        EXPECT_EQ(lines(), row.records);
        EXPECT_EQ(gExists(interfacePath()) ? gReadFile(interfacePath()) : "<gone>",
                  gathered ? "<gone>" : "ifconfig:-a -v\n");
        EXPECT_EQ(gExists(systemPath()) ? gReadFile(systemPath()) : "<gone>",
                  row.systemFile ? row.systemFile : "<gone>");
    }
}

TEST_F(SupportTest, ShellMetacharactersInTheWorkingDirectoryRunNothing) {
    tools({1, 1, 1, 1, 1});
    // Every character the shell still reads inside double quotes.
    useWorkingDirectory("w$(touch pwned1)`touch pwned2`\"; touch pwned3; \"\\");
    CAssociativeArray db(16);
    mGenerator.CreateInformationDB(db);
    EXPECT_STREQ(db.GetValueOfParameter("$IPCONFIG"), "ifconfig:-a -v\n");
    EXPECT_STREQ(db.GetValueOfParameter("$SYSTEMREPORT"), "uname:-a\nlscpu:\nlsblk:\ncat:/proc/meminfo\n");
    for (char const* name : {"pwned1", "pwned2", "pwned3"}) {
        EXPECT_FALSE(gExists(mWork + "/" + name)) << name;
        EXPECT_FALSE(gExists(mRoot + "/" + name)) << name;
    }
    // The command names the directory, escaped inside the quotes.
    std::string const escaped =
        "\"" + mRoot + "/w\\$(touch pwned1)\\`touch pwned2\\`\\\"; touch pwned3; \\\"\\\\/IpConfig.txt\"";
    ASSERT_FALSE(lines().empty());
    EXPECT_EQ(lines()[0].text, "success to get ifconfig output with command: \tifconfig -a -v >> " + escaped +
                                   "\t into file \t" + escaped);
}

TEST_F(SupportTest, ShellMetacharactersInTheHostNameRunNothing) {
    tools({1, 1, 1, 1, 1});
    // A host name of our own needs a UTS namespace of our own, in a child process.
    int const status = nChildren::gInChild([this] {
        if (unshare(CLONE_NEWUTS) != 0) return 77;
        std::string const host = "h$(touch pwned1)`touch pwned2`";
        if (sethostname(host.data(), host.size()) != 0) return 77;
        CAssociativeArray db(16);
        mGenerator.CreateInformationDB(db);
        bool const read =
            std::string(db.GetValueOfParameter("$SYSTEMREPORT")) == "uname:-a\nlscpu:\nlsblk:\ncat:/proc/meminfo\n";
        bool const removed = !gExists(mWork + "/" + host + ".txt");
        bool const ranNothing = !gExists(mWork + "/pwned1") && !gExists(mWork + "/pwned2");
        return read && removed && ranNothing ? 0 : 1;
    });
    if (status == 77) GTEST_SKIP() << "no permission for a UTS namespace";
    EXPECT_EQ(status, 0);
}

TEST_F(SupportTest, ConfigurationFileFoundOrNot) {
    tools({0, 0, 0, 0, 0});
    std::string const path = mRoot + "/qr/vantage.ini";
    std::string const binary = std::string("a=1\n\0b=2\n", 9) + std::string(100000, 'x');  // read in pieces
    for (int kind = 0; kind < 3; ++kind) {  // absent, a file, a directory
        SCOPED_TRACE(kind);
        if (kind == 1) gWriteFile(path, binary);
        if (kind == 2) {
            std::remove(path.c_str());
            mkdir(path.c_str(), 0755);
        }
        CAssociativeArray db(16);
        mGenerator.CreateInformationDB(db);
        char const* data = nullptr;
        int length = 0;
        db.GetValueOfParameter("$VANTAGEINI", data, length);
        EXPECT_EQ(std::string(data, static_cast<size_t>(length)), kind == 1 ? binary : "Not Found");
    }
}

TEST_F(SupportTest, StatusSenseAndDirectoryRoom) {
    struct Status {
        int status, error;
        bool ok;
    } const statuses[] = {{-1, 0, false}, {0, 0, true}, {0, ENOENT, false}, {1, ENOENT, true}};
    for (Status const& c : statuses) {
        errno = c.error;
        EXPECT_EQ(mGenerator.CheckGenerateError(c.status), c.ok) << c.status << " " << c.error;
    }

    // The directory needs room for itself, "/" and the terminating NUL.
    char buffer[260];
    ASSERT_TRUE(mGenerator.GetKZDirectoryPath(buffer, sizeof buffer));
    EXPECT_EQ(std::string(buffer), mWork + "/");
    EXPECT_FALSE(mGenerator.GetKZDirectoryPath(buffer, static_cast<int>(mWork.size() + 1)));
    EXPECT_TRUE(mGenerator.GetKZDirectoryPath(buffer, static_cast<int>(mWork.size() + 2)));
    EXPECT_FALSE(mGenerator.GetKZDirectoryPath(buffer, 0));
}

// A record as CreateInformationDB leaves it, with its first `count` keys.
void gFill(CAssociativeArray& db, size_t count = 4) {
    char const* const pairs[][2] = {
        {"$HOSTNAME", "alpha"}, {"$IPCONFIG", "eth0 up\n"}, {"$SYSTEMREPORT", "Linux alpha"}, {"$VANTAGEINI", "a=1\n"}};
    for (size_t i = 0; i < count; ++i) db.AddCouple(pairs[i][0], pairs[i][1]);
}

TEST_F(SupportTest, ReportSectionsInOrderAndWhereTheReportEnds) {
    std::string const head = kRule + "Complete Report For Host: alpha\n" + kRule + kRule +
                             "IP Configuration: " + kRule + "\neth0 up\n" + kRule +
                             "System And Hardware Configuration: " + kRule + "\n";
    std::string const configuration = kRule + "Vantage.ini File: " + kRule + "\na=1\n";
    std::string const product = kRule + "Vantage Product Information(qrcti.dll): " + kRule + "\nproduct 7.1";
    struct Row {
        size_t keys;  // how many of the gathered keys the record holds
        bool product;
        std::string text;
        bool result;
    } const rows[] = {
        {4, false, head + "Linux alpha" + configuration, true},
        {4, true, head + "Linux alpha" + product + configuration, true},
        {2, false, head, true},  // a missing key ends the report with an Error record
        {0, false, "", false},   // without the host name nothing is written
    };
    for (Row const& row : rows) {
        SCOPED_TRACE(row.text);
        mCapture.clear();
        CAssociativeArray db(16);
        gFill(db, row.keys);
        if (row.product) db.AddCouple("$QRCTIDLL", "product 7.1");
        std::ofstream out(mWork + "/report.txt");
        EXPECT_EQ(mGenerator.GenerateReportFile(out, db), row.result);
        out.close();
        EXPECT_EQ(gReadFile(mWork + "/report.txt"), row.text);
        std::vector<Line> const all = lines();
        ASSERT_EQ(all.size(), row.keys == 2 ? 1u : 0u);
        if (all.empty()) continue;
        EXPECT_EQ(all[0].tag, "Error");
        EXPECT_EQ(all[0].line, 659);
        try {
            db.GetValueOfParameter("$SYSTEMREPORT");
            ADD_FAILURE() << "no exception";
        } catch (std::exception const& e) {
            EXPECT_EQ(all[0].text, e.what());
        }
    }
}

// A stream buffer that accepts `room` characters and then throws something that is not a
// standard exception.
struct FailingBuffer : std::streambuf {
    explicit FailingBuffer(size_t room) : room(room) {}
    int_type overflow(int_type c) override {
        if (written.size() >= room) throw 42;
        written.push_back(static_cast<char>(c));
        return c;
    }
    size_t room;
    std::string written;
};

// (A standard exception takes the path of the missing key above.)
TEST_F(SupportTest, OtherExceptionsFromTheStreamAreCaughtAndLogged) {
    CAssociativeArray db(16);
    gFill(db);
    FailingBuffer buffer(100);
    std::ofstream out;
    static_cast<std::ostream&>(out).rdbuf(&buffer);
    out.exceptions(std::ios::badbit);
    EXPECT_TRUE(mGenerator.GenerateReportFile(out, db));
    EXPECT_EQ(lines(), (std::vector<Line>{{"Error", 663, ""}}));
    EXPECT_EQ(buffer.written, (kRule + "Complete Report For Host: alpha\n" + kRule + kRule).substr(0, 100));
}

}  // namespace
