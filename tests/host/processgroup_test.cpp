// Process groups with real children: termination newest first as the Execution records show,
// failed kills, unknown groups, duplicates, positions and the group flag.
#include "processgroupmanager.h"

#include "children.h"
#include "nlog.h"
#include "tagscope.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace nChildren;

using nTagScope::Line;
using nTagScope::TagScope;

std::vector<Line> gLines(nLog::cCapture const& capture) { return nTagScope::gLines(capture, "processgroupmanager"); }

std::string gText(char const* literal, int pid) { return std::string(literal) + "\t" + std::to_string(pid); }

class ProcessGroupTest : public ::testing::Test {
protected:
    TagScope mExecution{"Execution", true};
    TagScope mError{"Error", true};
    TagScope mTrace{"Trace", false};
    nLog::cCapture mCapture;
};

TEST_F(ProcessGroupTest, GroupIsTerminatedNewestFirstAndForgotten) {
    ProcessesGroupManager manager;
    RWCString name("workers");
    std::vector<int> pids;
    for (int i = 0; i < 3; ++i) {
        int pid = gSleeper();
        pids.push_back(pid);
        ASSERT_NE(manager.AddProcessToGroup(name, pid), nullptr);
    }
    EXPECT_EQ(manager.GetProcessGroup(name)->entries(), 3u);
    RWCString other("Workers");  // names are case-sensitive
    EXPECT_EQ(manager.GetProcessGroup(other), nullptr);

    EXPECT_TRUE(manager.TerminateGroup(name));
    std::vector<Line> const expected = {
        {"Execution", 171, "ProcessesGroupManager::TerminateGroup terminating\tworkers"},
        {"Execution", 54, gText("gKillProcess(%d) killed", pids[2])},
        {"Execution", 54, gText("gKillProcess(%d) killed", pids[1])},
        {"Execution", 54, gText("gKillProcess(%d) killed", pids[0])},
    };
    EXPECT_EQ(gLines(mCapture), expected);
    EXPECT_EQ(manager.GetProcessGroup(name), nullptr);
    EXPECT_EQ(manager.entries(), 0u);
    for (int pid : pids) EXPECT_TRUE(gReaped(pid));
}

TEST_F(ProcessGroupTest, ExitedMemberMakesTheResultFalseAndTheGroupIsStillRemoved) {
    ProcessesGroupManager manager;
    RWCString name("mixed");
    int running = gSleeper();
    int exited = gExitedChild();
    manager.AddProcessToGroup(name, running);
    manager.AddProcessToGroup(name, exited);

    EXPECT_FALSE(manager.TerminateGroup(name));
    std::vector<Line> const expected = {
        {"Execution", 171, "ProcessesGroupManager::TerminateGroup terminating\tmixed"},
        {"Execution", 50, gText("gKillProcess(%d) already terminated", exited)},
        {"Execution", 54, gText("gKillProcess(%d) killed", running)},  // tried after the failure
    };
    EXPECT_EQ(gLines(mCapture), expected);

    mCapture.clear();
    EXPECT_FALSE(manager.TerminateGroup(name));
    EXPECT_EQ(gLines(mCapture),
              (std::vector<Line>{{"Error", 176, "ProcessesGroupManager::TerminateGroup unknown group \tmixed"}}));
}

TEST_F(ProcessGroupTest, SamePidTwiceIsKilledOnceAndThenNotFound) {
    ProcessesGroupManager manager;
    RWCString name("twice");
    int pid = gSleeper();
    ProcessGroup* const group = manager.AddProcessToGroup(name, pid);
    EXPECT_EQ(manager.AddProcessToGroup(name, pid), group);
    EXPECT_EQ(group->entries(), 2u);

    EXPECT_FALSE(manager.TerminateGroup(name));
    std::vector<Line> const lines = gLines(mCapture);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[1], (Line{"Execution", 54, gText("gKillProcess(%d) killed", pid)}));
    // The first kill reaped it: the id is free for the second attempt.
    EXPECT_EQ(lines[2], (Line{"Execution", 62, gText("gKillProcess(%d) error cannot find", pid)}));
}

TEST_F(ProcessGroupTest, RecordsAreOptionalResultsAreNot) {
    TagScope off("Execution", false);
    ProcessesGroupManager manager;
    RWCString name("quiet");
    int pid = gSleeper();
    int exited = gExitedChild();
    manager.AddProcessToGroup(name, pid);
    EXPECT_TRUE(manager.TerminateGroup(name));
    manager.AddProcessToGroup(name, exited);
    EXPECT_FALSE(manager.TerminateGroup(name));
    EXPECT_TRUE(mCapture.records().empty());
}

TEST_F(ProcessGroupTest, AddProcessGivesPositionsAndRemoveProcessSignalsNothing) {
    ProcessGroup group;
    EXPECT_EQ(group.mGroupFlag, 1);
    int const pids[] = {10, 20, 10, 30};  // duplicates stand on their own
    for (int i = 0; i < 4; ++i) EXPECT_EQ(group.AddProcess(pids[i]), i);

    int const sleeper = gSleeper();
    EXPECT_EQ(group.AddProcess(sleeper), 4);
    EXPECT_EQ(group.RemoveProcess(4), sleeper);
    EXPECT_TRUE(gAlive(sleeper));
    EXPECT_EQ(group.RemoveProcess(1), 20);
    EXPECT_EQ(static_cast<ProcessInfo*>(group.at(1))->pid, 10);
    EXPECT_THROW(group.RemoveProcess(3), RWBoundsErr);
    EXPECT_THROW(group.RemoveProcess(-1), RWBoundsErr);
    EXPECT_THROW(group.TerminateElementZ0(3), RWBoundsErr);
    EXPECT_EQ(group.entries(), 3u);

    // A single member killed by position; the group stays as it is otherwise.
    group.insertAt(1, new ProcessInfo(sleeper));
    EXPECT_TRUE(group.TerminateElementZ0(1));
    EXPECT_TRUE(gReaped(sleeper));
    EXPECT_EQ(gLines(mCapture), (std::vector<Line>{{"Execution", 54, gText("gKillProcess(%d) killed", sleeper)}}));
    EXPECT_EQ(group.entries(), 3u);
    while (!group.isEmpty()) group.RemoveProcess(0);
    EXPECT_TRUE(group.TerminateGroupZ0());  // empty: nothing to fail
}

TEST_F(ProcessGroupTest, MissingElementIsReported) {
    ProcessGroup group;
    group.insert(nullptr);
    EXPECT_FALSE(group.TerminateElementZ0(0));
    EXPECT_EQ(gLines(mCapture), (std::vector<Line>{{"Error", 80, ""}}));

    // Termination stops at a missing element, keeping what is before it.
    int pid = gExitedChild();
    group.AddProcess(pid);
    group.insert(nullptr);
    EXPECT_TRUE(group.TerminateGroupZ0());
    EXPECT_EQ(group.entries(), 1u);
    EXPECT_EQ(group.RemoveProcess(0), pid);
    gCleanUp(pid);
}

TEST_F(ProcessGroupTest, FlagAndTraceRecordsOfAddProcessToGroup) {
    TagScope trace("Trace", true);
    ProcessesGroupManager manager;
    RWCString flagged("flagged");
    int pid = 4711;  // not ours: the manager forgets its groups without killing when it goes
    ProcessGroup* const group = manager.AddProcessToGroup(flagged, pid, 0);
    EXPECT_EQ(manager.AddProcessToGroup(flagged, pid), group);
    EXPECT_EQ(group->mGroupFlag, 0);  // the two-argument form leaves it
    EXPECT_EQ(manager.AddProcessToGroup(flagged, pid, 7), group);
    EXPECT_EQ(group->mGroupFlag, 7);  // set on an existing group too

    std::string address;
    nLog::gAppendPiece(address, static_cast<void const*>(group));
    Line const expected{"Trace", 130, "ProcessesGroupManager::AddProcessToGroup \tflagged\t4711\t" + address};
    EXPECT_EQ(gLines(mCapture), std::vector<Line>(3, expected));
}

TEST_F(ProcessGroupTest, KillThatTheKernelRefuses) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to drop to another user";
    int const victim = gSleeper();
    int const status = gInChild([victim] {
        if (setgid(65534) != 0 || setuid(65534) != 0) return 100;
        nLog::cCapture capture;
        ProcessInfo info(victim);
        if (gKillProcess(info)) return 101;
        std::vector<nLog::cRecord> const& r = capture.records();
        bool const logged = r.size() == 1 && r[0].line == 58 && r[0].tag == "Execution" &&
                            r[0].text == gText("gKillProcess(%d) error cannot kill", victim);
        return logged ? 0 : 102;
    });
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(gAlive(victim));
    gCleanUp(victim);
}

}  // namespace
