#include "processgroupmanager.h"
#include "qrprocess.h"

#include "children.h"
#include "nlog.h"
#include "tagscope.h"

namespace {

using namespace nChildren;
using namespace nTagScope;

Line gKill(int line, char const* outcome, int pid) {
    return {"Execution", line, "gKillProcess(%d) " + std::string(outcome) + "\t" + std::to_string(pid)};
}

struct ProcessGroupTest : ::testing::Test {
    Lines lines() { return gLines(mCapture, "processgroupmanager"); }

    TagScope mExecution{"Execution", true}, mError{"Error", true}, mTrace{"Trace", false};
    nLog::cCapture mCapture;
};

TEST_F(ProcessGroupTest, GroupsAreTerminatedNewestFirstForgottenFlaggedAndTraced) {
    ProcessesGroupManager manager;
    RWCString name("workers"), other("Workers");  // names are case-sensitive
    int first = gSleeper(), exited = gExitedChild(), last = gSleeper();
    ProcessGroup* const group = manager.AddProcessToGroup(name, first);
    ASSERT_NE(group, nullptr);
    for (int* pid : {&exited, &last, &first}) EXPECT_EQ(manager.AddProcessToGroup(name, *pid), group);
    EXPECT_TRUE(group->entries() == 4u && !manager.GetProcessGroup(other));  // the same pid twice stands twice

    // Every member is tried after a failure; the first kill reaped `first`, so its second
    // entry finds no process.
    EXPECT_FALSE(manager.TerminateGroup(name));
    EXPECT_EQ(lines(), (Lines{{"Execution", 171, "ProcessesGroupManager::TerminateGroup terminating\tworkers"},
                              gKill(54, "killed", first),
                              gKill(54, "killed", last),
                              gKill(50, "already terminated", exited),
                              gKill(62, "error cannot find", first)}));
    EXPECT_TRUE(manager.GetProcessGroup(name) == nullptr && manager.entries() == 0u);
    for (int pid : {first, exited, last}) EXPECT_TRUE(gReaped(pid)) << pid;
    EXPECT_FALSE(manager.TerminateGroup(name));
    EXPECT_EQ(lines(), (Lines{{"Error", 176, "ProcessesGroupManager::TerminateGroup unknown group \tworkers"}}));

    // Without the Execution records the results stay the same.
    TagScope off("Execution", false);
    int quiet = gSleeper();
    manager.AddProcessToGroup(name, quiet);
    EXPECT_TRUE(manager.TerminateGroup(name) && gReaped(quiet) && mCapture.records().empty());

    TagScope trace("Trace", true);
    RWCString flagged("flagged"), odd("odd");
    int pid = 4711;  // not ours: the manager forgets its groups without killing when it goes
    ProcessGroup* const added = manager.AddProcessToGroup(flagged, pid, 0);
    // The two-argument form leaves the flag; it is set on an existing group too.
    EXPECT_EQ((std::vector<int>{manager.AddProcessToGroup(flagged, pid) == added, added->mGroupFlag,
                                manager.AddProcessToGroup(flagged, pid, 7) == added, added->mGroupFlag}),
              (std::vector<int>{1, 0, 1, 7}));
    std::string address;
    nLog::gAppendPiece(address, static_cast<void const*>(added));
    EXPECT_EQ(lines(),
              Lines(3, {"Trace", 130, "ProcessesGroupManager::AddProcessToGroup \tflagged\t4711\t" + address}));
    // A name the manager holds without a group (inserted as a plain key) gets none.
    manager.insert(new RWCollectableString(odd));
    EXPECT_EQ(manager.AddProcessToGroup(odd, pid, 3), nullptr);
    EXPECT_EQ(lines(), (Lines{{"Trace", 122, "ProcessesGroupManager::AddProcessToGroup already in\todd\t4711"}}));
}

TEST_F(ProcessGroupTest, PositionsRemovalAndMissingElements) {
    ProcessGroup group;
    EXPECT_EQ(group.mGroupFlag, 1);
    int const sleeper = gSleeper(), pids[] = {10, 20, 10, 30, sleeper};  // duplicates stand on their own
    for (int i = 0; i < 5; ++i) EXPECT_EQ(group.AddProcess(pids[i]), i);
    // Removing signals nothing.
    EXPECT_EQ((std::vector<int>{group.RemoveProcess(4), gAlive(sleeper), group.RemoveProcess(1),
                                static_cast<ProcessInfo*>(group.at(1))->pid}),
              (std::vector<int>{sleeper, 1, 20, 10}));
    for (int position : {3, -1}) EXPECT_THROW(group.RemoveProcess(position), RWBoundsErr);
    EXPECT_THROW(group.TerminateElementZ0(3), RWBoundsErr);
    EXPECT_EQ(group.entries(), 3u);

    // A single member killed by position; the group stays as it is otherwise.
    group.insertAt(1, new ProcessInfo(sleeper));
    EXPECT_TRUE(group.TerminateElementZ0(1) && gReaped(sleeper));
    EXPECT_EQ((std::pair{lines(), group.entries()}), std::pair(Lines{gKill(54, "killed", sleeper)}, size_t(3)));
    while (!group.isEmpty()) group.RemoveProcess(0);
    EXPECT_TRUE(group.TerminateGroupZ0());  // empty: nothing to fail

    // A missing element is reported; termination stops there, keeping what is before it.
    group.insert(nullptr);
    EXPECT_EQ((std::pair{group.TerminateElementZ0(0), lines()}), std::pair(false, Lines{{"Error", 80, ""}}));
    int const exited = gExitedChild();
    group.AddProcess(exited), group.insert(nullptr);
    EXPECT_TRUE(group.TerminateGroupZ0() && group.entries() == 1u && group.RemoveProcess(0) == exited);
    gCleanUp(exited);
}

TEST_F(ProcessGroupTest, KillThatTheKernelRefuses) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to drop to another user";
    int const victim = gSleeper();
    // Another user may not signal our sleeper: the kernel refuses with EPERM.
    int const status = gInChild([victim] {
        if (setgid(65534) != 0 || setuid(65534) != 0) return 100;
        if (gQRPKillProcess(victim) != 3) return 101;
        nLog::cCapture capture;
        ProcessInfo info(victim);
        if (gKillProcess(info)) return 102;
        return gLines(capture, "processgroupmanager") == Lines{gKill(58, "error cannot kill", victim)} ? 0 : 103;
    });
    EXPECT_TRUE(status == 0 && gAlive(victim)) << status;
    gCleanUp(victim);
}

}  // namespace
