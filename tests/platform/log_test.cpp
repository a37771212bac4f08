#include "Log.h"
#include "files.h"
#include "kzexception.h"
#include "tagscope.h"

#include <sys/stat.h>

namespace {

// A piece that counts how often it was formatted (found by argument-dependent lookup).
struct Counted {
    int* count;
};
void gAppendPiece(std::string& out, Counted const& c) { out += "counted" + std::to_string(++*c.count); }

// A piece whose formatting itself writes a record: the recursion guard must drop that one.
struct Reentrant {};
void gAppendPiece(std::string& out, Reentrant const&) {
    COLLOQUY_LOG(nLog::nBasic::sErrorTag_, "inner", "nested");
    out += "outer";
}

TEST(Log, RecordsCarryTheirPositionAndTabJoinedPiecesOnEnabledTagsOnly) {
    TagScope on("Error", true), off("Trace", false);
    nLog::cCapture capture;
    char const* none = nullptr;
    int formatted = 0, evaluated = 0;
    COLLOQUY_LOG(nLog::nBasic::sTraceTag_, "m", Counted{&formatted}, ++evaluated);  // composes nothing
    COLLOQUY_LOG_AT(nLog::nBasic::sErrorTag_, "packmsg", 123, "text", 42, none, -7L, std::string("a\0b", 3), 3u, 2.5,
                    'c', true, RWCString("r"), cStringCoeImpl("s"), static_cast<void const*>(nullptr), 0.5f);
    COLLOQUY_LOG(nLog::nBasic::sErrorTag_, "packmsg");
    int const line = __LINE__ - 1;
    COLLOQUY_LOG(nLog::nBasic::sErrorTag_, "outer", Reentrant{});  // the nested record is dropped
    nLog::gEnable("Trace", true);
    COLLOQUY_LOG(nLog::nBasic::sTraceTag_, "m", Counted{&formatted}, ++evaluated);
    ASSERT_TRUE(nLog::gIsEnabled("Trace") && capture.records().size() == 4u);
    nLog::cRecord const& r = capture.records()[0];
    EXPECT_EQ(r.tag + r.module + r.file + std::to_string(r.line), "ErrorColloquyUtil../src/packmsg123");
    EXPECT_EQ(r.text, "text\t42\t<NullChar*>\t-7\ta\0b\t3\t2.5\tc\t1\tr\ts\t(nil)\t0.5"s);
    EXPECT_EQ(capture.records()[1].text + std::to_string(capture.records()[1].line) + "|" + capture.records()[2].text +
                  "|" + capture.records()[3].text,
              std::to_string(line) + "|outer|counted1\t1");

    // Every capture sees the records of other threads.
    TagScope colloquy("ColloquyT", true);
    nLog::cCapture inner;
    unsigned long other = 0;
    std::thread([&] {
        other = nLog::gThreadId();
        COLLOQUY_LOG(nColloquy::sTraceTag_, "thread", "from thread");
    }).join();
    ASSERT_EQ(std::make_pair(capture.records().size(), inner.records().size()), std::make_pair(size_t{5}, size_t{1}));
    for (nLog::cRecord const* r : {&capture.records().back(), &inner.records().back()})
        EXPECT_EQ(r->tag + std::to_string(r->thread), "ColloquyT" + std::to_string(other));
    EXPECT_NE(other, nLog::gThreadId());
}

// Runs the probe program (one record on each tag, the enabled tags printed) with the given
// environment, its log going to `logFile`; returns its standard output.
std::string runProbe(std::string const& environment, std::string const& logFile) {
    std::string const command = "umask 022; timeout 20 env -u COLLOQUY_LOG -u COLLOQUY_LOG_FILE " + environment +
                                " COLLOQUY_LOG_FILE='" + logFile + "' " + LOG_PROBE_PATH;
    FILE* pipe = ::popen(command.c_str(), "r");
    std::string out;
    char buffer[256];
    while (size_t n = pipe ? std::fread(buffer, 1, sizeof buffer, pipe) : 0) out.append(buffer, n);
    EXPECT_EQ(pipe ? ::pclose(pipe) : -1, 0);
    return out;
}

TEST(Log, TheEnvironmentChoosesTheTagsAndTheFile) {
    ScratchScope const scratch("log_test");
    std::string const path = scratch.path + "/log";
    ASSERT_FALSE(scratch.path.empty());
    EXPECT_EQ(runProbe("", path), "Error Warning Execution \n");
    std::string const log = gReadFile(path);
    EXPECT_NE(log.find("Error\tColloquyUtil\t../src/probe\t7\t"), std::string::npos);
    EXPECT_NE(log.find("\tprobe\tExecution\n"), std::string::npos);
    EXPECT_EQ(log.find("probe\tTrace"), std::string::npos);
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status) == 0 ? status.st_mode & 0777 : 0, 0644u);
    runProbe("0<&-", path);  // a second run appends, also when the file takes descriptor 0
    EXPECT_EQ(gReadFile(path).size(), 2 * log.size());
    off_t const large = off_t{3} << 30;  // a log past 2 GiB (sparse) is appended to, in a 32-bit build too
    ASSERT_EQ(truncate(path.c_str(), large), 0);
    runProbe("", path);
    EXPECT_EQ(stat(path.c_str(), &status) == 0 ? status.st_size - large : 0, static_cast<off_t>(log.size()));
    std::pair<char const*, char const*> const runs[] = {
        {"COLLOQUY_LOG=Error,all", "Error Warning Trace Execution ColloquyT none \n"},
        {"COLLOQUY_LOG=none", "\n"},
        {"COLLOQUY_LOG=' Trace,,none,ColloquyT '", "Trace ColloquyT \n"},
        {"", "Error Warning Execution \n"}};  // to standard error, and to a failing output (records lost)
    for (auto const& [environment, tags] : runs)
        for (char const* file : {"", "/dev/full"}) EXPECT_EQ(runProbe(environment, file), tags) << environment;
}

TEST(KZErrorException, FormatsKnownAndUnknownMessagesAndItsPosition) {
    KZErrorException const known("loadengine.frm", 11, "k", static_cast<char const*>(nullptr));
    KZErrorException const other("other.frm", 3, "x", "y", static_cast<char const*>(nullptr));
    n_debug::cBrokenModuleException const broken(n_debug::nCoreError::gPosition("mod.cpp", 42), "broken");
    RWCString trace;
    other.vStackTrace_iKZException(trace);
    broken.vStackTrace_iKZException(trace);
    // A placeholder without an argument stays.
    EXPECT_EQ(
        (std::vector<std::string>{known.what(), known.vGetErrorMsg_iKZException().stdString(), other.what(),
                                  broken.what(), broken.vGetErrorMsg_iKZException().stdString(), trace.stdString()}),
        (std::vector<std::string>{"Key 'k' does not exist in: %2", "Key 'k' does not exist in: %2",
                                  "other.frm message 3: x: y", "broken", "broken", "other.frm(3)mod.cpp:42"}));
}

}  // namespace
