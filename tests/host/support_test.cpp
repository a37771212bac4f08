// The support report with stand-in commands: scripts named like the real tools, first on PATH,
// print "<name>:<arguments>" and exit with a chosen status; a scratch working directory receives
// the temporary files; QR_BIN points at a directory with or without "vantage.ini".
#include "supportinformationgenerator.h"

#include "envscope.h"
#include "files.h"
#include "nlog.h"
#include "nsocket.h"
#include "tagscope.h"

#include <sys/stat.h>

namespace {

using nTagScope::Line;
using Lines = std::vector<Line>;
std::string const kRule = "\n" + std::string(79, '=') + "\n";
char const kNotAvailable[] = "Not Available - failed on creation";
std::string const kReport = "uname:-a\nlscpu:\nlsblk:\ncat:/proc/meminfo\n";

std::string contentOf(std::string const& path) { return access(path.c_str(), F_OK) == 0 ? gReadFile(path) : "<gone>"; }

class SupportTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_FALSE(mScratch.path.empty());
        for (std::string const& dir : {mRoot + "/bin", mRoot + "/qr", mWork}) mkdir(dir.c_str(), 0755);
        ASSERT_EQ(chdir(mWork.c_str()), 0);
    }
    // The stand-ins for the five commands; the one at `failing` answers 0, the others 1.
    void tools(size_t failing) {
        char const* const names[] = {"ifconfig", "uname", "lscpu", "lsblk", "cat"};
        for (size_t i = 0; i < 5; ++i)
            gWriteFile(mRoot + "/bin/" + names[i],
                       "#!/bin/sh\necho \"" + std::string(names[i]) + ":$*\"\nexit " + (i == failing ? "0\n" : "1\n"),
                       0755);
    }
    Lines lines() { return nTagScope::gLines(mCapture, "supportinformationgenerator"); }

    ScratchScope const mScratch{"support_test"};
    std::string const mRoot = mScratch.path;
    // Every character the shell still reads inside double quotes.
    std::string const mWork = mRoot + "/w$(touch pwned1)`touch pwned2`\"; touch pwned3; \"\\";
    std::string const mHost = nCommunication::nSocket::gGetLocalHostName().stdString();
    EnvScope mPath{"PATH", (mRoot + "/bin:" + std::getenv("PATH")).c_str()}, mQr{"QR_BIN", (mRoot + "/qr").c_str()};
    TagScope mWarning{"Warning", true}, mError{"Error", true};
    nLog::cCapture mCapture;
    CSupportInformationGenerator mGenerator;
};

// A command answering zero counts as failed and ends the gathering, leaving the temporary
// files as far as they were written; any other answer counts as success. The configuration
// file is absent, a file (read in pieces, NUL bytes kept) or a directory.
TEST_F(SupportTest, EachCommandAnsweringZeroStopsTheGathering) {
    std::string const interfaces = mWork + "/IpConfig.txt", system = mWork + "/" + mHost + ".txt";
    // The commands name the directory escaped inside the quotes, so that they run nothing else.
    std::string const quoted = "\"" + mRoot + "/w\\$(touch pwned1)\\`touch pwned2\\`\\\"; touch pwned3; \\\"\\\\/";
    std::string const into = quoted + "IpConfig.txt\"", report = quoted + mHost + ".txt\"";
    std::string const ini = mRoot + "/qr/vantage.ini", binary = std::string("a=1\n\0b=2\n", 9) + std::string(9000, 'x');
    std::pair<int, char const*> const steps[] = {{494, "ifconfig output with command: \tifconfig -a -v >> "},
                                                 {421, "kernel output with command: \tuname -a >> "},
                                                 {434, "cpu output with command: \tlscpu >> "},
                                                 {442, "disk output with command: \tlsblk >> "},
                                                 {450, "memory output with command: \tcat /proc/meminfo >> "}};
    for (size_t failing = 0; failing <= 5; ++failing) {  // 5: none
        tools(failing);
        std::remove(interfaces.c_str());
        std::remove(system.c_str());
        if (failing % 3 == 1) gWriteFile(ini, binary);
        if (failing % 3 == 2) std::remove(ini.c_str()), mkdir(ini.c_str(), 0755);
        if (failing % 3 == 0) rmdir(ini.c_str());
        CAssociativeArray db(16);
        EXPECT_TRUE(mGenerator.CreateInformationDB(db));
        Lines expected;
        if (failing > 0)
            expected = {
                {"Warning", 499,
                 "success to get ifconfig output with command: \tifconfig -a -v >> " + into + "\t into file \t" + into},
                {"Warning", 414, "doing GenerateLinuxInfo()"}};
        if (failing < 5)
            expected.emplace_back("Warning", steps[failing].first,
                                  "failed to get " + std::string(steps[failing].second) + (failing ? report : into));
        else
            expected.emplace_back("Warning", 535, "grabbed linux info into files \t" + into + "\t and \t" + report);
        EXPECT_EQ(lines(), expected);
        bool const gathered = failing == 5;
        EXPECT_STREQ(db.GetValueOfParameter("$HOSTNAME"), mHost.c_str());
        EXPECT_STREQ(db.GetValueOfParameter("$IPCONFIG"), gathered ? "ifconfig:-a -v\n" : kNotAvailable);
        EXPECT_EQ(db.GetValueOfParameter("$SYSTEMREPORT"), gathered ? kReport : kNotAvailable);
        char const* data = nullptr;
        int length = 0;
        db.GetValueOfParameter("$VANTAGEINI", data, length);
        EXPECT_EQ(std::string(data, static_cast<size_t>(length)), failing % 3 == 1 ? binary : "Not Found");
        EXPECT_EQ(db.entries(), 4u);
        EXPECT_EQ(contentOf(interfaces), gathered ? "<gone>" : "ifconfig:-a -v\n");
        size_t end = 0;  // the output of the commands that ran
        for (size_t n = 0; n < failing && failing < 5; ++n) end = kReport.find('\n', end) + 1;
        EXPECT_EQ(contentOf(system), end ? kReport.substr(0, end) : "<gone>");
    }
    for (char const* name : {"pwned1", "pwned2", "pwned3"})
        EXPECT_TRUE(access((mWork + "/" + name).c_str(), F_OK) != 0 && access((mRoot + "/" + name).c_str(), F_OK) != 0);
}

TEST_F(SupportTest, StatusSenseAndDirectoryRoom) {
    struct {
        int status, error;
        bool ok;
    } const statuses[] = {{-1, 0, false}, {0, 0, true}, {0, ENOENT, false}, {1, ENOENT, true}};
    for (auto const& c : statuses) {
        errno = c.error;
        EXPECT_EQ(mGenerator.CheckGenerateError(c.status), c.ok) << c.status << " " << c.error;
    }
    // The directory needs room for itself, "/" and the terminating NUL.
    char buffer[260];
    ASSERT_TRUE(mGenerator.GetKZDirectoryPath(buffer, sizeof buffer));
    EXPECT_EQ(std::string(buffer), mWork + "/");
    EXPECT_FALSE(mGenerator.GetKZDirectoryPath(buffer, static_cast<int>(mWork.size() + 1)));
    EXPECT_TRUE(mGenerator.GetKZDirectoryPath(buffer, static_cast<int>(mWork.size() + 2)));
    EXPECT_FALSE(mGenerator.GetKZDirectoryPath(buffer, 0) || mGenerator.GetKZDirectoryPath(buffer, -1) ||
                 mGenerator.GetKZDirectoryPath(nullptr, 10));
    buffer[0] = '\0';
    EXPECT_FALSE(mGenerator.GetKZDirectoryPath(buffer, 2));  // getcwd fails: nothing is appended to the old text
    // A file is stored whole, down to a last read of one byte.
    std::ofstream("one") << "x";
    CAssociativeArray db(1);
    EXPECT_EQ(std::string(mGenerator.AddFileToDB("k", "one", db) ? db.GetValueOfParameter("k", "?") : "failed"), "x");
}

// A stream buffer that takes 100 characters and then throws something that is not a standard exception.
struct FailingBuffer : std::streambuf {
    int_type overflow(int_type c) override { return written.size() < 100 ? written += char(c), c : throw 42; }
    std::string written;
};

TEST_F(SupportTest, ReportSectionsInOrderAndWhereTheReportEnds) {
    std::string const head = kRule + "Complete Report For Host: alpha\n" + kRule + kRule +
                             "IP Configuration: " + kRule + "\neth0 up\n" + kRule +
                             "System And Hardware Configuration: " + kRule + "\n";
    std::string const configuration = kRule + "Vantage.ini File: " + kRule + "\na=1\n";
    std::string const product = kRule + "Vantage Product Information(qrcti.dll): " + kRule + "\nproduct 7.1";
    struct {
        size_t keys;  // how many of the gathered keys the record holds
        bool product;
        std::string text;
        bool result;
    } const rows[] = {
        {4, false, head + "Linux alpha" + configuration, true},
        {4, true, head + "Linux alpha" + product + configuration, true},
        {2, false, head, true},  // a missing key ends the report with an Error record
        {0, false, "", false},   // without the host name nothing is written
        {4, false, "", true},    // anything else the stream throws is caught and logged without a text
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.text);
        CAssociativeArray db(16);
        char const* const pairs[][2] = {{"$HOSTNAME", "alpha"},
                                        {"$IPCONFIG", "eth0 up\n"},
                                        {"$SYSTEMREPORT", "Linux alpha"},
                                        {"$VANTAGEINI", "a=1\n"},
                                        {"$QRCTIDLL", "product 7.1"}};
        for (size_t i = 0; i < row.keys; ++i) db.AddCouple(pairs[i][0], pairs[i][1]);
        if (row.product) db.AddCouple(pairs[4][0], pairs[4][1]);
        std::ofstream out(mWork + "/report.txt");
        FailingBuffer failing;
        bool const throws = &row == &rows[4];
        if (throws) static_cast<std::ostream&>(out).rdbuf(&failing), out.exceptions(std::ios::badbit);
        EXPECT_EQ(mGenerator.GenerateReportFile(out, db), row.result);
        out.close();
        EXPECT_EQ(gReadFile(mWork + "/report.txt"), row.text);
        Lines missing;
        try {
            if (row.keys == 2) db.GetValueOfParameter("$SYSTEMREPORT");
        } catch (std::exception const& e) {
            missing.emplace_back("Error", 659, e.what());
        }
        EXPECT_EQ(lines(), throws ? Lines(1, {"Error", 663, ""}) : missing);
        EXPECT_EQ(failing.written,
                  throws ? (kRule + "Complete Report For Host: alpha\n" + kRule + kRule).substr(0, 100) : "");
    }
}

}  // namespace
