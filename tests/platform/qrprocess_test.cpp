// gQRPKillProcess on real processes: running, ignoring SIGTERM, exited but unreaped, not our
// child, and ids of no single process. (A kill the kernel refuses is with the group tests.)
#include "qrprocess.h"

#include "children.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace {

using namespace nChildren;

TEST(KillProcess, OwnChildrenAreEndedAndReaped) {
    pid_t const running = gSleeper(), stubborn = gSleeper(true), exited = gExitedChild();
    EXPECT_EQ(gQRPKillProcess(running), 0);
    errno = EPERM;                            // left from an earlier call: only a failing SIGKILL may report it
    EXPECT_EQ(gQRPKillProcess(stubborn), 0);  // by SIGKILL after the grace period
    EXPECT_EQ(gQRPKillProcess(exited), 1);    // had ended already
    for (pid_t pid : {running, stubborn, exited}) EXPECT_TRUE(gReaped(pid)) << pid;
    EXPECT_EQ(gQRPKillProcess(exited), 2);  // its id is free now
    EXPECT_EQ(gQRPKillProcess(0), 2);       // would be our own process group
    EXPECT_EQ(gQRPKillProcess(-1), 2);      // would be every process we may signal
    EXPECT_EQ(gQRPKillProcess(getpid()), 3);
}

// A process whose parent is an intermediate child of ours, which either waits for it (so it
// vanishes once killed) or leaves it a zombie. Returns {parent, grandchild}.
std::pair<pid_t, pid_t> gGrandchild(bool zombie) {
    int channel[2];
    if (pipe(channel) != 0) return {-1, -1};
    pid_t const parent = fork();
    if (parent == 0) {
        pid_t const pid = zombie ? fork() : gSleeper();
        if (pid == 0) _exit(0);
        ssize_t const written = write(channel[1], &pid, sizeof pid);
        if (!zombie) waitpid(pid, nullptr, 0);
        pause();  // until the test kills us
        _exit(written == sizeof pid ? 0 : 1);
    }
    close(channel[1]);
    pid_t pid = -1;
    if (read(channel[0], &pid, sizeof pid) != sizeof pid) pid = -1;
    close(channel[0]);
    return {parent, pid};
}

// Processes that are not our children, whose state /proc shows: no descriptor is left open.
TEST(KillProcess, ProcessesThatAreNotOurChildren) {
    auto const openFiles = [] {
        auto const all = std::filesystem::directory_iterator("/proc/self/fd");
        return std::distance(begin(all), end(all));
    };
    auto const files = openFiles();
    auto const [parent, running] = gGrandchild(false);
    ASSERT_GT(running, 0);
    EXPECT_TRUE(gAlive(running));
    EXPECT_EQ(gQRPKillProcess(running), 0);
    EXPECT_FALSE(gAlive(running));
    gCleanUp(parent);

    auto const [zombieParent, zombie] = gGrandchild(true);
    ASSERT_GT(zombie, 0);
    for (int i = 0; i < 200 && gAlive(zombie); ++i) usleep(10 * 1000);
    EXPECT_EQ(gQRPKillProcess(zombie), 1);
    gCleanUp(zombieParent);
    EXPECT_EQ(openFiles(), files);
}

}  // namespace
