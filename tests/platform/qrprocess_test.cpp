#include "qrprocess.h"

#include "children.h"

#include <filesystem>

namespace {

using namespace nChildren;

TEST(KillProcess, OwnChildrenAreEndedAndReaped) {
    pid_t const running = gSleeper(), stubborn = gSleeper(true), exited = gExitedChild();
    EXPECT_EQ(gQRPKillProcess(running), 0);
    errno = EPERM;  // left from an earlier call: only a failing SIGKILL may report it
    // The stubborn one by SIGKILL after the grace period, the exited one had ended already; then a
    // free id, our own process group, every process we may signal, ourselves.
    EXPECT_EQ((std::vector<int>{gQRPKillProcess(stubborn), gQRPKillProcess(exited), gReaped(running), gReaped(stubborn),
                                gReaped(exited), gQRPKillProcess(exited), gQRPKillProcess(0), gQRPKillProcess(-1),
                                gQRPKillProcess(getpid())}),
              (std::vector<int>{0, 1, 1, 1, 1, 2, 2, 2, 3}));
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
