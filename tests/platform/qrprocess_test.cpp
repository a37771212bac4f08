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
        if (write(channel[1], &pid, sizeof pid) == sizeof pid && !zombie) waitpid(pid, nullptr, 0);
        for (;;) pause();  // until the test kills us
    }
    close(channel[1]);
    pid_t pid = -1;
    if (read(channel[0], &pid, sizeof pid) != sizeof pid) pid = -1;
    close(channel[0]);
    return {parent, pid};
}

// Processes not our children, their state read from /proc: killed (0), a zombie ended already (1).
TEST(KillProcess, ProcessesThatAreNotOurChildren) {
    auto const openFiles = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
    auto const files = openFiles();
    for (bool const zombie : {false, true}) {
        auto const [parent, pid] = gGrandchild(zombie);
        ASSERT_GT(pid, 0);
        for (int i = 0; zombie && i < 200 && gAlive(pid); ++i) usleep(10 * 1000);
        EXPECT_EQ((std::vector<int>{gAlive(pid), gQRPKillProcess(pid), gAlive(pid)}),
                  (std::vector<int>{!zombie, zombie, 0}));
        gCleanUp(parent);
    }
    EXPECT_EQ(openFiles(), files);  // no descriptor left open
}

}  // namespace
