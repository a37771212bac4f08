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

using namespace nTagScope;
std::string const kRule = "\n" + std::string(79, '=') + "\n";
char const kNotAvailable[] = "Not Available - failed on creation";
std::string const kReport = "uname:-a\nlscpu:\nlsblk:\ncat:/proc/meminfo\n";

std::string contentOf(std::string const& path) { return access(path.c_str(), F_OK) == 0 ? gReadFile(path) : "<gone>"; }

struct SupportTest : ::testing::Test {
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
                       "#!/bin/sh\necho \"${0##*/}:$*\"\nexit "s + (i == failing ? "0" : "1"), 0755);
    }
    Lines lines() { return gLines(mCapture, "supportinformationgenerator"); }

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
TEST_F(SupportTest, GatheringStopsAtACommandAnsweringZeroAndItsHelpersKeepTheirLimits) {
    std::string const interfaces = mWork + "/IpConfig.txt", system = mWork + "/" + mHost + ".txt";
    // The commands name the directory escaped inside the quotes, so that they run nothing else.
    std::string const quoted = "\"" + mRoot + "/w\\$(touch pwned1)\\`touch pwned2\\`\\\"; touch pwned3; \\\"\\\\/";
    std::string const into = quoted + "IpConfig.txt\"", report = quoted + mHost + ".txt\"";
    std::string const ini = mRoot + "/qr/vantage.ini", binary = std::string("a=1\n\0b=2\n", 9) + std::string(9000, 'x');
    std::pair<int, char const*> const steps[] = {{494, "ifconfig output with command: \tifconfig -a -v"},
                                                 {421, "kernel output with command: \tuname -a"},
                                                 {434, "cpu output with command: \tlscpu"},
                                                 {442, "disk output with command: \tlsblk"},
                                                 {450, "memory output with command: \tcat /proc/meminfo"}};
    auto const step = [&](size_t i) { return steps[i].second + " >> "s + (i ? report : into); };
    for (size_t failing = 0; failing <= 5; ++failing) {  // 5: none
        tools(failing);
        std::remove(interfaces.c_str()), std::remove(system.c_str());
        if (failing % 3 == 1) gWriteFile(ini, binary);
        if (failing % 3 == 2) std::remove(ini.c_str()), mkdir(ini.c_str(), 0755);
        if (failing % 3 == 0) rmdir(ini.c_str());
        CAssociativeArray db(16);
        EXPECT_TRUE(mGenerator.CreateInformationDB(db));
        Lines expected;
        if (failing > 0)
            expected = {{"Warning", 499, "success to get " + step(0) + "\t into file \t" + into},
                        {"Warning", 414, "doing GenerateLinuxInfo()"}};
        expected.emplace_back("Warning", failing < 5 ? steps[failing].first : 535,
                              failing < 5 ? "failed to get " + step(failing)
                                          : "grabbed linux info into files \t" + into + "\t and \t" + report);
        EXPECT_EQ(lines(), expected);
        bool const gathered = failing == 5;
        char const* data = nullptr;
        int length = 0;
        db.GetValueOfParameter("$VANTAGEINI", data, length);
        size_t end = 0;  // the output of the commands that ran
        for (size_t n = 0; n < failing && failing < 5; ++n) end = kReport.find('\n', end) + 1;
        EXPECT_EQ(std::tuple(std::string(db.GetValueOfParameter("$HOSTNAME")),
                             std::string(db.GetValueOfParameter("$IPCONFIG")),
                             std::string(db.GetValueOfParameter("$SYSTEMREPORT")), std::string(data, size_t(length)),
                             db.entries(), contentOf(interfaces), contentOf(system)),
                  std::tuple(mHost, gathered ? "ifconfig:-a -v\n" : kNotAvailable, gathered ? kReport : kNotAvailable,
                             failing % 3 == 1 ? binary : "Not Found", 4u, gathered ? "<gone>" : "ifconfig:-a -v\n",
                             end ? kReport.substr(0, end) : "<gone>"));
    }
    for (char const* name : {"pwned1", "pwned2", "pwned3"})
        EXPECT_TRUE(access((mWork + "/" + name).c_str(), F_OK) != 0 && access((mRoot + "/" + name).c_str(), F_OK) != 0);

    // How a command's status is read, and where the files go.
    int const statuses[][3] = {{-1, 0, false}, {0, 0, true}, {0, ENOENT, false}, {1, ENOENT, true}};
    for (auto& [status, error, ok] : statuses)
        EXPECT_EQ((errno = error, mGenerator.CheckGenerateError(status)), ok != 0) << status << " " << error;
    // The directory needs room for itself, "/" and the terminating NUL; a failing getcwd appends nothing
    // to the old (here empty) text.
    char buffer[260];
    auto const path = [this](char* into, int size) { return mGenerator.GetKZDirectoryPath(into, size); };
    int const room = static_cast<int>(mWork.size()) + 1;
    ASSERT_TRUE(path(buffer, sizeof buffer));
    EXPECT_EQ(std::string(buffer), mWork + "/");
    EXPECT_EQ((std::vector<bool>{path(buffer, room), path(buffer, room + 1), path(buffer, 0), path(buffer, -1),
                                 path(nullptr, 10), (buffer[0] = '\0', path(buffer, 2))}),
              (std::vector<bool>{false, true, false, false, false, false}));
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
    // {how many of the keys below the record holds, report, result}
    std::tuple<size_t, std::string, bool> const rows[] = {
        {4, head + "Linux alpha" + configuration, true},
        {5, head + "Linux alpha" + product + configuration, true},
        {2, head, true},  // a missing key ends the report with an Error record
        {0, "", false},   // without the host name nothing is written
        {4, "", true},    // anything else the stream throws is caught and logged without a text
    };
    char const* const pairs[] = {"$HOSTNAME",   "alpha",       "$IPCONFIG", "eth0 up\n", "$SYSTEMREPORT",
                                 "Linux alpha", "$VANTAGEINI", "a=1\n",     "$QRCTIDLL", "product 7.1"};
    for (auto const& [keys, text, result] : rows) {
        SCOPED_TRACE(text);
        CAssociativeArray db(16);
        for (size_t i = 0; i < keys; ++i) db.AddCouple(pairs[2 * i], pairs[2 * i + 1]);
        std::ofstream out(mWork + "/report.txt");
        FailingBuffer failing;
        bool const throws = text.empty() && result;
        if (throws) static_cast<std::ostream&>(out).rdbuf(&failing), out.exceptions(std::ios::badbit);
        EXPECT_EQ(mGenerator.GenerateReportFile(out, db), result);
        out.close();
        EXPECT_EQ(gReadFile(mWork + "/report.txt"), text);
        Lines missing;
        try {
            if (keys == 2) db.GetValueOfParameter("$SYSTEMREPORT");
        } catch (std::exception const& e) {
            missing.emplace_back("Error", 659, e.what());
        }
        EXPECT_EQ(lines(), throws ? Lines(1, {"Error", 663, ""}) : missing);
        EXPECT_EQ(failing.written, throws ? head.substr(0, 100) : "");
    }
}

}  // namespace
