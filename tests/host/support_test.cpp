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

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sched.h>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
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
        char root[] = "/tmp/support_test_XXXXXX";
        ASSERT_NE(mkdtemp(root), nullptr);
        mRoot = root;
        mBin = mRoot + "/bin";
        mQrBin = mRoot + "/qr";
        mkdir(mBin.c_str(), 0755);
        mkdir(mQrBin.c_str(), 0755);
        useWorkingDirectory("work");
        mPath = std::make_unique<EnvScope>("PATH", (mBin + ":" + std::getenv("PATH")).c_str());
        mQr = std::make_unique<EnvScope>("QR_BIN", mQrBin.c_str());
        mHost = nCommunication::nSocket::gGetLocalHostName().stdString();
    }
    void TearDown() override {
        if (chdir(mOldDirectory.c_str()) != 0) ADD_FAILURE() << "cannot return to " << mOldDirectory;
        std::string const command = "rm -rf '" + mRoot + "'";
        mPath.reset();  // the real rm, not a stand-in
        if (std::system(command.c_str()) != 0) ADD_FAILURE() << command;
    }

    // Makes <root>/<name> and changes into it.
    void useWorkingDirectory(std::string const& name) {
        if (mOldDirectory.empty()) {
            char buffer[4096];
            ASSERT_NE(getcwd(buffer, sizeof buffer), nullptr);
            mOldDirectory = buffer;
        }
        mWork = mRoot + "/" + name;
        ASSERT_EQ(mkdir(mWork.c_str(), 0755), 0) << mWork;
        ASSERT_EQ(chdir(mWork.c_str()), 0);
    }

    // A stand-in tool: prints "<name>:<arguments>" and exits with `status`.
    void tool(char const* name, int status) {
        gWriteFile(mBin + "/" + name, "#!/bin/sh\necho \"" + std::string(name) + ":$*\"\nexit " + std::to_string(status) + "\n",
               0755);
    }
    void tools(int ifconfig, int uname, int lscpu, int lsblk, int cat) {
        tool("ifconfig", ifconfig);
        tool("uname", uname);
        tool("lscpu", lscpu);
        tool("lsblk", lsblk);
        tool("cat", cat);
    }

    std::string interfacePath() const { return mWork + "/IpConfig.txt"; }
    std::string systemPath() const { return mWork + "/" + mHost + ".txt"; }
    static std::string quoted(std::string const& path) { return "\"" + path + "\""; }
    std::string ifconfigCommand() const { return "ifconfig -a -v >> " + quoted(interfacePath()); }
    std::string command(char const* prefix) const { return prefix + quoted(systemPath()); }

    std::vector<Line> lines() const { return nTagScope::gLines(mCapture, "supportinformationgenerator"); }

    std::string mRoot, mBin, mQrBin, mWork, mOldDirectory, mHost;
    std::unique_ptr<EnvScope> mPath, mQr;
    TagScope mWarning{"Warning", true};
    TagScope mError{"Error", true};
    nLog::cCapture mCapture;
    CSupportInformationGenerator mGenerator;
};

TEST_F(SupportTest, CommandsAnsweringNonZeroCountAsSuccess) {
    tools(1, 2, 3, 4, 5);
    gWriteFile(mQrBin + "/vantage.ini", "[main]\nColloquyAnsiConversion_patch=1\n");
    CAssociativeArray db(16);
    EXPECT_TRUE(mGenerator.CreateInformationDB(db));

    EXPECT_STREQ(db.GetValueOfParameter("$HOSTNAME"), mHost.c_str());
    EXPECT_STREQ(db.GetValueOfParameter("$IPCONFIG"), "ifconfig:-a -v\n");
    EXPECT_STREQ(db.GetValueOfParameter("$SYSTEMREPORT"), "uname:-a\nlscpu:\nlsblk:\ncat:/proc/meminfo\n");
    EXPECT_STREQ(db.GetValueOfParameter("$VANTAGEINI"), "[main]\nColloquyAnsiConversion_patch=1\n");
    EXPECT_EQ(db.entries(), 4u);
    EXPECT_FALSE(gExists(interfacePath()));
    EXPECT_FALSE(gExists(systemPath()));

    std::vector<Line> const expected = {
        {"Warning", 499,
         "success to get ifconfig output with command: \t" + ifconfigCommand() + "\t into file \t" +
             quoted(interfacePath())},
        {"Warning", 414, "doing GenerateLinuxInfo()"},
        {"Warning", 535,
         "grabbed linux info into files \t" + quoted(interfacePath()) + "\t and \t" + quoted(systemPath())},
    };
    EXPECT_EQ(lines(), expected);
}

TEST_F(SupportTest, CommandAnsweringZeroCountsAsFailureAndLeavesTheFiles) {
    tools(0, 1, 1, 1, 1);
    CAssociativeArray db(16);
    EXPECT_TRUE(mGenerator.CreateInformationDB(db));
    EXPECT_STREQ(db.GetValueOfParameter("$IPCONFIG"), kNotAvailable);
    EXPECT_STREQ(db.GetValueOfParameter("$SYSTEMREPORT"), kNotAvailable);
    EXPECT_STREQ(db.GetValueOfParameter("$VANTAGEINI"), "Not Found");  // QR_BIN holds no vantage.ini
    EXPECT_EQ(lines(), (std::vector<Line>{{"Warning", 494,
                                           "failed to get ifconfig output with command: \t" + ifconfigCommand()}}));
    EXPECT_EQ(gReadFile(interfacePath()), "ifconfig:-a -v\n");  // left where it was written
    EXPECT_FALSE(gExists(systemPath()));
}

TEST_F(SupportTest, EachSystemStepStopsTheGatheringWhenItAnswersZero) {
    struct Step {
        int statuses[4];
        int line;
        char const* failure;
        char const* prefix;
        char const* written;
    };
    Step const steps[] = {
        {{0, 1, 1, 1}, 421, "failed to get kernel output with command: ", "uname -a >> ", "uname:-a\n"},
        {{1, 0, 1, 1}, 434, "failed to get cpu output with command: ", "lscpu >> ", "uname:-a\nlscpu:\n"},
        {{1, 1, 0, 1}, 442, "failed to get disk output with command: ", "lsblk >> ", "uname:-a\nlscpu:\nlsblk:\n"},
        {{1, 1, 1, 0}, 450, "failed to get memory output with command: ", "cat /proc/meminfo >> ",
         "uname:-a\nlscpu:\nlsblk:\ncat:/proc/meminfo\n"},
    };
    for (Step const& step : steps) {
        tools(1, step.statuses[0], step.statuses[1], step.statuses[2], step.statuses[3]);
        std::remove(interfacePath().c_str());
        std::remove(systemPath().c_str());
        mCapture.clear();
        CAssociativeArray db(16);
        mGenerator.CreateInformationDB(db);
        EXPECT_STREQ(db.GetValueOfParameter("$SYSTEMREPORT"), kNotAvailable) << step.line;
        std::vector<Line> const all = lines();
        ASSERT_EQ(all.size(), 3u) << step.line;
        EXPECT_EQ(all[1], (Line{"Warning", 414, "doing GenerateLinuxInfo()"}));
        EXPECT_EQ(all[2], (Line{"Warning", step.line, step.failure + std::string("\t") + command(step.prefix)}));
        EXPECT_EQ(gReadFile(systemPath()), step.written);
        EXPECT_TRUE(gExists(interfacePath()));
    }
}

TEST_F(SupportTest, ShellMetacharactersInTheWorkingDirectoryRunNothing) {
    tools(1, 1, 1, 1, 1);
    // Every character the shell still reads inside double quotes.
    useWorkingDirectory("w$(touch pwned1)`touch pwned2`\"; touch pwned3; \"\\");
    CAssociativeArray db(16);
    mGenerator.CreateInformationDB(db);
    EXPECT_STREQ(db.GetValueOfParameter("$IPCONFIG"), "ifconfig:-a -v\n");
    EXPECT_STREQ(db.GetValueOfParameter("$SYSTEMREPORT"), "uname:-a\nlscpu:\nlsblk:\ncat:/proc/meminfo\n");
    EXPECT_FALSE(gExists(interfacePath()));
    EXPECT_FALSE(gExists(systemPath()));
    for (char const* name : {"pwned1", "pwned2", "pwned3"}) {
        EXPECT_FALSE(gExists(mWork + "/" + name)) << name;
        EXPECT_FALSE(gExists(mRoot + "/" + name)) << name;
    }
    // The command names the directory, escaped inside the quotes.
    std::string const escaped = "\"" + mRoot + "/w\\$(touch pwned1)\\`touch pwned2\\`\\\"; touch pwned3; \\\"\\\\/IpConfig.txt\"";
    ASSERT_FALSE(lines().empty());
    EXPECT_EQ(lines()[0].text, "success to get ifconfig output with command: \tifconfig -a -v >> " + escaped +
                                   "\t into file \t" + escaped);
}

TEST_F(SupportTest, ShellMetacharactersInTheHostNameRunNothing) {
    tools(1, 1, 1, 1, 1);
    // A host name of our own needs a UTS namespace of our own, in a child process.
    int const status = nChildren::gInChild([this] {
        if (unshare(CLONE_NEWUTS) != 0) return 77;
        std::string const host = "h$(touch pwned1)`touch pwned2`";
        if (sethostname(host.data(), host.size()) != 0) return 77;
        CAssociativeArray db(16);
        mGenerator.CreateInformationDB(db);
        bool const read = std::string(db.GetValueOfParameter("$SYSTEMREPORT")) ==
                          "uname:-a\nlscpu:\nlsblk:\ncat:/proc/meminfo\n";
        bool const removed = !gExists(mWork + "/" + host + ".txt");
        bool const ranNothing = !gExists(mWork + "/pwned1") && !gExists(mWork + "/pwned2");
        return read && removed && ranNothing ? 0 : 1;
    });
    if (status == 77) GTEST_SKIP() << "no permission for a UTS namespace";
    EXPECT_EQ(status, 0);
}

TEST_F(SupportTest, ConfigurationFileFoundOrNot) {
    tools(0, 0, 0, 0, 0);
    gWriteFile(mQrBin + "/vantage.ini", std::string("a=1\n\0b=2\n", 9));
    CAssociativeArray found(16);
    mGenerator.CreateInformationDB(found);
    char const* data = nullptr;
    int length = 0;
    found.GetValueOfParameter("$VANTAGEINI", data, length);
    EXPECT_EQ(std::string(data, static_cast<size_t>(length)), std::string("a=1\n\0b=2\n", 9));

    // The file being a directory (its absence is covered above).
    std::remove((mQrBin + "/vantage.ini").c_str());
    mkdir((mQrBin + "/vantage.ini").c_str(), 0755);
    CAssociativeArray directory(16);
    mGenerator.CreateInformationDB(directory);
    EXPECT_STREQ(directory.GetValueOfParameter("$VANTAGEINI"), "Not Found");
}

TEST_F(SupportTest, HelpersStatusDirectoryAndFiles) {
    struct Status {
        int status, error;
        bool ok;
    } const statuses[] = {{-1, 0, false}, {5, 0, true}, {0, 0, true}, {0, ENOENT, false}, {1, ENOENT, true}};
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

    CAssociativeArray db(16);
    EXPECT_FALSE(mGenerator.AddFileToDB("k", (mWork + "/absent").c_str(), db));
    EXPECT_FALSE(mGenerator.AddFileToDB("k", mWork.c_str(), db));
    EXPECT_EQ(db.entries(), 0u);
    std::string const big(100000, 'x');
    gWriteFile(mWork + "/big", big);
    EXPECT_TRUE(mGenerator.AddFileToDB("k", (mWork + "/big").c_str(), db));
    EXPECT_EQ(db.GetValueOfParameter("k"), big);
}

class ReportTest : public SupportTest {
protected:
    // A record as CreateInformationDB leaves it, up to the key `last` (the rest missing).
    static void fill(CAssociativeArray& db, char const* last = "$VANTAGEINI") {
        std::pair<char const*, char const*> const pairs[] = {
            {"$HOSTNAME", "alpha"}, {"$IPCONFIG", "eth0 up\n"}, {"$SYSTEMREPORT", "Linux alpha"}, {"$VANTAGEINI", "a=1\n"}};
        for (auto const& [key, value] : pairs) {
            db.AddCouple(key, value);
            if (std::string(key) == last) return;
        }
    }
    std::string report(CAssociativeArray& db, bool* result = nullptr) {
        std::string const path = mWork + "/report.txt";
        {
            std::ofstream out(path);
            bool const r = mGenerator.GenerateReportFile(out, db);
            if (result) *result = r;
        }
        return gReadFile(path);
    }
};

TEST_F(ReportTest, SectionsInOrderWithAndWithoutProductInformation) {
    CAssociativeArray db(16);
    fill(db);
    bool result = false;
    std::string const head = kRule + "Complete Report For Host: alpha\n" + kRule;
    std::string const interface = kRule + "IP Configuration: " + kRule + "\neth0 up\n";
    std::string const system = kRule + "System And Hardware Configuration: " + kRule + "\nLinux alpha";
    std::string const configuration = kRule + "Vantage.ini File: " + kRule + "\na=1\n";
    EXPECT_EQ(report(db, &result), head + interface + system + configuration);
    EXPECT_TRUE(result);

    db.AddCouple("$QRCTIDLL", "product 7.1");
    std::string const product = kRule + "Vantage Product Information(qrcti.dll): " + kRule + "\nproduct 7.1";
    EXPECT_EQ(report(db), head + interface + system + product + configuration);
    EXPECT_TRUE(lines().empty());
}

TEST_F(ReportTest, NoHostNameWritesNothing) {
    CAssociativeArray db(16);
    db.AddCouple("$IPCONFIG", "x");
    bool result = true;
    EXPECT_EQ(report(db, &result), "");
    EXPECT_FALSE(result);
}

TEST_F(ReportTest, MissingKeyEndsTheReportWithAnErrorRecord) {
    CAssociativeArray db(16);
    fill(db, "$IPCONFIG");
    bool result = false;
    std::string const text = report(db, &result);
    EXPECT_TRUE(result);
    EXPECT_EQ(text, kRule + "Complete Report For Host: alpha\n" + kRule + kRule + "IP Configuration: " + kRule +
                        "\neth0 up\n" + kRule + "System And Hardware Configuration: " + kRule + "\n");
    std::vector<Line> const all = lines();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].tag, "Error");
    EXPECT_EQ(all[0].line, 659);
    try {
        db.GetValueOfParameter("$SYSTEMREPORT");
        ADD_FAILURE() << "no exception";
    } catch (std::exception const& e) {
        EXPECT_EQ(all[0].text, e.what());
    }
}

// A stream buffer that accepts `room` characters and then throws what `fail` throws.
class FailingBuffer : public std::streambuf {
public:
    FailingBuffer(size_t room, void (*fail)()) : mRoom(room), mFail(fail) {}
    std::string written;

protected:
    int_type overflow(int_type c) override {
        if (written.size() >= mRoom) mFail();
        written.push_back(static_cast<char>(c));
        return c;
    }

private:
    size_t mRoom;
    void (*mFail)();
};

TEST_F(ReportTest, StreamFailuresAreCaughtAndLogged) {
    CAssociativeArray db(16);
    fill(db);

    // A stream that reports errors by exception: the first write fails.
    std::ofstream closed;
    closed.exceptions(std::ios::badbit | std::ios::failbit);
    EXPECT_TRUE(mGenerator.GenerateReportFile(closed, db));
    ASSERT_EQ(lines().size(), 1u);
    EXPECT_EQ(lines()[0].line, 659);
    EXPECT_FALSE(lines()[0].text.empty());

    // Something that is not a standard exception: logged with an empty text.
    mCapture.clear();
    FailingBuffer buffer(100, [] { throw 42; });
    std::ofstream out;
    static_cast<std::ostream&>(out).rdbuf(&buffer);
    out.exceptions(std::ios::badbit);
    EXPECT_TRUE(mGenerator.GenerateReportFile(out, db));
    EXPECT_EQ(lines(), (std::vector<Line>{{"Error", 663, ""}}));
    EXPECT_EQ(buffer.written, (kRule + "Complete Report For Host: alpha\n" + kRule + kRule).substr(0, 100));
}

}  // namespace
