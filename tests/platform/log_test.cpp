// Log records: composition, the disabled-tag rule, the recursion guard, and the environment
// variables that choose the enabled tags and the output file.
#include "Log.h"
#include "files.h"
#include "tagscope.h"

#include <gtest/gtest.h>

#include <unistd.h>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

namespace {

// A piece that counts how often it was formatted (found by argument-dependent lookup).
struct Counted {
    int* count;
};
void gAppendPiece(std::string& out, Counted const& c) {
    ++*c.count;
    out += "counted";
}

// A piece whose formatting itself writes a record: the recursion guard must drop that one.
struct Reentrant {};
void gAppendPiece(std::string& out, Reentrant const&) {
    COLLOQUY_LOG(nLog::nBasic::sErrorTag_, "inner", "nested");
    out += "outer";
}

TEST(Log, RecordCarriesPositionAndTabJoinedPieces) {
    TagScope on("Error", true);
    nLog::cCapture capture;
    char const* none = nullptr;
    COLLOQUY_LOG_AT(nLog::nBasic::sErrorTag_, "packmsg", 123, "text", 42, none, -7L, std::string("a\0b", 3));
    ASSERT_EQ(capture.records().size(), 1u);
    nLog::cRecord const& r = capture.records()[0];
    EXPECT_EQ(r.tag, "Error");
    EXPECT_EQ(r.module, "ColloquyUtil");
    EXPECT_EQ(r.file, "../src/packmsg");
    EXPECT_EQ(r.line, 123);
    EXPECT_EQ(r.thread, nLog::gThreadId());
    EXPECT_EQ(r.text, std::string("text\t42\t<NullChar*>\t-7\ta\0b", 26));

    capture.clear();
    COLLOQUY_LOG(nLog::nBasic::sErrorTag_, "packmsg");
    ASSERT_EQ(capture.records().size(), 1u);
    EXPECT_EQ(capture.records()[0].text, "");
    EXPECT_EQ(capture.records()[0].line, __LINE__ - 3);
}

TEST(Log, DisabledTagComposesNothing) {
    TagScope off("Trace", false);
    nLog::cCapture capture;
    int formatted = 0, evaluated = 0;
    COLLOQUY_LOG(nLog::nBasic::sTraceTag_, "m", Counted{&formatted}, ++evaluated);
    EXPECT_EQ(formatted, 0);
    EXPECT_EQ(evaluated, 0);
    EXPECT_TRUE(capture.records().empty());

    nLog::gEnable("Trace", true);
    COLLOQUY_LOG(nLog::nBasic::sTraceTag_, "m", Counted{&formatted}, ++evaluated);
    EXPECT_EQ(formatted, 1);
    EXPECT_EQ(evaluated, 1);
    ASSERT_EQ(capture.records().size(), 1u);
    EXPECT_EQ(capture.records()[0].text, "counted\t1");
}

TEST(Log, NestedRecordsAreDroppedByTheRecursionGuard) {
    TagScope on("Error", true);
    nLog::cCapture capture;
    COLLOQUY_LOG(nLog::nBasic::sErrorTag_, "outer", Reentrant{});
    ASSERT_EQ(capture.records().size(), 1u);
    EXPECT_EQ(capture.records()[0].text, "outer");
    COLLOQUY_LOG(nLog::nBasic::sErrorTag_, "after", "fine");  // the guard is released again
    EXPECT_EQ(capture.records().size(), 2u);
}

TEST(Log, CapturesSeeRecordsOfOtherThreads) {
    TagScope on("ColloquyT", true);
    nLog::cCapture outer;
    unsigned long other = 0;
    {
        nLog::cCapture inner;
        std::thread t([&] {
            other = nLog::gThreadId();
            COLLOQUY_LOG(nColloquy::sTraceTag_, "thread", "from thread");
        });
        t.join();
        ASSERT_EQ(inner.records().size(), 1u);
        EXPECT_EQ(inner.records()[0].tag, "ColloquyT");
    }
    ASSERT_EQ(outer.records().size(), 1u);
    EXPECT_EQ(outer.records()[0].thread, other);
    EXPECT_NE(other, nLog::gThreadId());
}

// Runs the probe program with the given environment, its log going to `logFile`; returns its
// standard output.
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
    char name[] = "/tmp/colloquy_log_XXXXXX";
    int const fd = ::mkstemp(name);
    ASSERT_GE(fd, 0);
    ::close(fd);
    std::string const path = name;
    EXPECT_EQ(runProbe("", path), "Error Warning Execution \n");
    std::string const log = gReadFile(path);
    EXPECT_NE(log.find("Error\tColloquyUtil\t../src/probe\t7\t"), std::string::npos);
    EXPECT_NE(log.find("\tprobe\tExecution\n"), std::string::npos);
    EXPECT_EQ(log.find("probe\tTrace"), std::string::npos);
    runProbe("", path);  // a second run appends
    EXPECT_EQ(gReadFile(path).size(), 2 * log.size());

    gWriteFile(path, "");
    EXPECT_EQ(runProbe("COLLOQUY_LOG='Trace, ColloquyT'", path), "Trace ColloquyT \n");
    EXPECT_NE(gReadFile(path).find("ColloquyT\tColloquyUtil\t../src/probe\t7\t"), std::string::npos);
    EXPECT_EQ(gReadFile(path).find("Error"), std::string::npos);
    EXPECT_EQ(runProbe("COLLOQUY_LOG=all", path), "Error Warning Trace Execution ColloquyT \n");
    EXPECT_EQ(runProbe("COLLOQUY_LOG=none", path), "\n");
    // A failing output loses the records and nothing else.
    EXPECT_EQ(runProbe("", "/dev/full"), "Error Warning Execution \n");
    std::remove(name);
}

}  // namespace
