// Log records (composition, the disabled-tag rule, the recursion guard, the environment that
// chooses the enabled tags and the output file) and the infrastructure's exceptions.
#include "Log.h"
#include "files.h"
#include "kzexception.h"
#include "tagscope.h"

#include <gtest/gtest.h>

#include <unistd.h>
#include <cstdio>
#include <string>
#include <thread>

using namespace std::string_literals;

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

TEST(Log, RecordsCarryTheirPositionAndTabJoinedPieces) {
    TagScope on("Error", true);
    nLog::cCapture capture;
    char const* none = nullptr;
    COLLOQUY_LOG_AT(nLog::nBasic::sErrorTag_, "packmsg", 123, "text", 42, none, -7L, std::string("a\0b", 3), 3u, 2.5,
                    'c', true, RWCString("r"), cStringCoeImpl("s"), static_cast<void const*>(nullptr));
    COLLOQUY_LOG(nLog::nBasic::sErrorTag_, "packmsg");
    int const line = __LINE__ - 1;
    COLLOQUY_LOG(nLog::nBasic::sErrorTag_, "outer", Reentrant{});
    ASSERT_EQ(capture.records().size(), 3u);
    nLog::cRecord const& r = capture.records()[0];
    EXPECT_EQ(r.tag + r.module + r.file, "ErrorColloquyUtil../src/packmsg");
    EXPECT_EQ(r.line, 123);
    EXPECT_EQ(r.thread, nLog::gThreadId());
    EXPECT_EQ(r.text, "text\t42\t<NullChar*>\t-7\ta\0b\t3\t2.5\tc\t1\tr\ts\t(nil)"s);
    EXPECT_EQ(capture.records()[1].text, "");
    EXPECT_EQ(capture.records()[1].line, line);
    EXPECT_EQ(capture.records()[2].text, "outer");  // the nested record was dropped
    capture.clear();
    COLLOQUY_LOG(nLog::nBasic::sErrorTag_, "m", 0.5f);  // a float is a floating-point piece
    EXPECT_EQ(capture.records().at(0).text, "0.5");
}

TEST(Log, DisabledTagComposesNothing) {
    TagScope off("Trace", false);
    nLog::cCapture capture;
    int formatted = 0, evaluated = 0;
    COLLOQUY_LOG(nLog::nBasic::sTraceTag_, "m", Counted{&formatted}, ++evaluated);
    EXPECT_EQ(formatted + evaluated, 0);
    EXPECT_TRUE(capture.records().empty());
    nLog::gEnable("Trace", true);
    EXPECT_TRUE(nLog::gIsEnabled("Trace"));
    COLLOQUY_LOG(nLog::nBasic::sTraceTag_, "m", Counted{&formatted}, ++evaluated);
    ASSERT_EQ(capture.records().size(), 1u);
    EXPECT_EQ(capture.records()[0].text, "counted1\t1");
}

TEST(Log, CapturesSeeRecordsOfOtherThreads) {
    TagScope on("ColloquyT", true);
    nLog::cCapture outer;
    unsigned long other = 0;
    {
        nLog::cCapture inner;
        std::thread([&] {
            other = nLog::gThreadId();
            COLLOQUY_LOG(nColloquy::sTraceTag_, "thread", "from thread");
        }).join();
        ASSERT_EQ(inner.records().size(), 1u);
        EXPECT_EQ(inner.records()[0].tag, "ColloquyT");
    }
    ASSERT_EQ(outer.records().size(), 1u);
    EXPECT_EQ(outer.records()[0].thread, other);
    EXPECT_NE(other, nLog::gThreadId());
}

// Runs the probe program (one record on each tag, the enabled tags printed) with the given
// environment, its log going to `logFile`; returns its standard output.
std::string runProbe(std::string const& environment, std::string const& logFile) {
    std::string const command = "timeout 20 env -u COLLOQUY_LOG -u COLLOQUY_LOG_FILE " + environment +
                                " COLLOQUY_LOG_FILE='" + logFile + "' " + LOG_PROBE_PATH;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe) return "popen failed";
    std::string out;
    char buffer[256];
    while (size_t n = std::fread(buffer, 1, sizeof buffer, pipe)) out.append(buffer, n);
    EXPECT_EQ(::pclose(pipe), 0);
    return out;
}

TEST(Log, TheEnvironmentChoosesTheTagsAndTheFile) {
    std::string const directory = gScratchDirectory("log_test"), path = directory + "/log";
    ASSERT_FALSE(directory.empty());
    EXPECT_EQ(runProbe("", path), "Error Warning Execution \n");
    std::string const log = gReadFile(path);
    EXPECT_NE(log.find("Error\tColloquyUtil\t../src/probe\t7\t"), std::string::npos);
    EXPECT_NE(log.find("\tprobe\tExecution\n"), std::string::npos);
    EXPECT_EQ(log.find("probe\tTrace"), std::string::npos);
    runProbe("", path);  // a second run appends
    EXPECT_EQ(gReadFile(path).size(), 2 * log.size());
    std::remove(path.c_str());
    EXPECT_EQ(runProbe("COLLOQUY_LOG=' Trace,,ColloquyT '", path), "Trace ColloquyT \n");
    EXPECT_NE(gReadFile(path).find("ColloquyT\tColloquyUtil\t../src/probe\t7\t"), std::string::npos);
    EXPECT_EQ(gReadFile(path).find("Error"), std::string::npos);
    EXPECT_EQ(runProbe("COLLOQUY_LOG=Error,all", path), "Error Warning Trace Execution ColloquyT \n");
    EXPECT_EQ(runProbe("COLLOQUY_LOG=none", path), "\n");
    EXPECT_EQ(runProbe("", ""), "Error Warning Execution \n");  // to standard error
    // A failing output loses the records and nothing else.
    EXPECT_EQ(runProbe("", "/dev/full"), "Error Warning Execution \n");
    std::remove(path.c_str());
    rmdir(directory.c_str());
}

TEST(KZErrorException, FormatsKnownAndUnknownMessagesAndItsPosition) {
    KZErrorException const known("loadengine.frm", 11, "k", static_cast<char const*>(nullptr));
    EXPECT_STREQ(known.what(), "Key 'k' does not exist in: %2");  // a placeholder without an argument stays
    EXPECT_EQ(known.vGetErrorMsg_iKZException(), RWCString(known.what()));
    KZErrorException const other("other.frm", 3, "x", "y", static_cast<char const*>(nullptr));
    EXPECT_STREQ(other.what(), "other.frm message 3: x: y");
    RWCString trace;
    other.vStackTrace_iKZException(trace);
    EXPECT_EQ(trace, RWCString("other.frm(3)"));
    n_debug::cBrokenModuleException const broken(n_debug::nCoreError::gPosition("mod.cpp", 42), "broken");
    EXPECT_STREQ(broken.what(), "broken");
    EXPECT_EQ(broken.vGetErrorMsg_iKZException(), RWCString("broken"));
    broken.vStackTrace_iKZException(trace);
    EXPECT_EQ(trace, RWCString("other.frm(3)mod.cpp:42"));
}

}  // namespace
