// gQRPKillProcess on real processes: running, ignoring SIGTERM, exited but unreaped, not our
// child, absent, and a kill refused by the kernel.
#include "qrprocess.h"

#include "children.h"

#include <gtest/gtest.h>

namespace {

using namespace nChildren;

TEST(KillProcess, EndsARunningChildAndReapsIt) {
    pid_t const pid = gSleeper();
    EXPECT_EQ(gQRPKillProcess(pid), 0);
    EXPECT_TRUE(gReaped(pid));

    // One that ignores SIGTERM is ended by SIGKILL after the grace period.
    pid_t const stubborn = gSleeper(true);
    ASSERT_TRUE(gRuns(stubborn, "sleep"));  // past exec, with SIGTERM ignored
    EXPECT_EQ(gQRPKillProcess(stubborn), 0);
    EXPECT_TRUE(gReaped(stubborn));
}

TEST(KillProcess, ExitedChildCountsAsEndedAndIsReaped) {
    pid_t const pid = gExitedChild();
    EXPECT_EQ(gQRPKillProcess(pid), 1);
    EXPECT_TRUE(gReaped(pid));
    // Now the id is free.
    EXPECT_EQ(gQRPKillProcess(pid), 2);
}

TEST(KillProcess, IdsOfNoSingleProcess) {
    EXPECT_EQ(gQRPKillProcess(gFreePid()), 2);
    EXPECT_EQ(gQRPKillProcess(0), 2);   // would be our own process group
    EXPECT_EQ(gQRPKillProcess(-1), 2);  // would be every process we may signal
    EXPECT_EQ(gQRPKillProcess(getpid()), 3);
}

// A process whose parent is an intermediate child of ours; the intermediate one either
// waits for it (so it vanishes once killed) or leaves it a zombie.
struct Grandchild {
    pid_t parent;
    pid_t pid;
};

Grandchild gGrandchild(bool exitAtOnce, bool parentReaps) {
    int channel[2];
    if (pipe(channel) != 0) return {-1, -1};
    pid_t const parent = fork();
    if (parent == 0) {
        close(channel[0]);
        pid_t const pid = exitAtOnce ? fork() : gSleeper();
        if (pid == 0) _exit(0);
        ssize_t const written = write(channel[1], &pid, sizeof pid);
        close(channel[1]);
        if (parentReaps) waitpid(pid, nullptr, 0);
        pause();  // until the test kills us
        _exit(written == sizeof pid ? 0 : 1);
    }
    close(channel[1]);
    pid_t pid = -1;
    if (read(channel[0], &pid, sizeof pid) != sizeof pid) pid = -1;
    close(channel[0]);
    return {parent, pid};
}

TEST(KillProcess, ProcessesThatAreNotOurChildren) {
    Grandchild const running = gGrandchild(false, true);
    ASSERT_GT(running.pid, 0);
    EXPECT_TRUE(gAlive(running.pid));
    EXPECT_EQ(gQRPKillProcess(running.pid), 0);
    EXPECT_FALSE(gAlive(running.pid));
    gCleanUp(running.parent);

    Grandchild const zombie = gGrandchild(true, false);
    ASSERT_GT(zombie.pid, 0);
    for (int i = 0; i < 200 && gAlive(zombie.pid); ++i) usleep(10 * 1000);
    EXPECT_EQ(gQRPKillProcess(zombie.pid), 1);
    gCleanUp(zombie.parent);
}

TEST(KillProcess, RefusedKillLeavesTheProcessRunning) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to drop to another user";
    pid_t const victim = gSleeper();
    // Another user may not signal our sleeper: the kernel refuses with EPERM.
    int const result = gInChild([victim] {
        if (setgid(65534) != 0 || setuid(65534) != 0) return 100;
        return gQRPKillProcess(victim);
    });
    EXPECT_EQ(result, 3);
    EXPECT_TRUE(gAlive(victim));
    gCleanUp(victim);
}

}  // namespace
