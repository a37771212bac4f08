// Real child processes for the process tests and their state as /proc shows it.
#ifndef COLLOQUY_TESTS_CHILDREN_H
#define COLLOQUY_TESTS_CHILDREN_H
#include "testing.h"

#include <sys/types.h>
#include <sys/wait.h>
#include <csignal>

namespace nChildren {

// A child running `sleep 30`, ignoring SIGTERM when asked (exec keeps an ignored signal);
// returned once it has passed exec (waited for a bounded while).
inline pid_t gSleeper(bool ignoreTerm = false) {
    pid_t const pid = fork();
    if (pid == 0) {
        if (ignoreTerm) signal(SIGTERM, SIG_IGN);
        execlp("sleep", "sleep", "30", static_cast<char*>(nullptr));
        _exit(127);
    }
    std::string name;
    for (int i = 0; i < 500 && name != "sleep"; ++i) {
        usleep(10 * 1000);
        std::getline(std::ifstream("/proc/" + std::to_string(pid) + "/comm"), name);
    }
    return pid;
}

// A child that has exited and is not reaped yet.
inline pid_t gExitedChild() {
    pid_t const pid = fork();
    if (pid == 0) _exit(0);
    siginfo_t info{};
    waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);  // wait, but leave it unreaped
    return pid;
}

// True while `pid` exists and has not exited (a zombie counts as exited). getline turns a read that
// fails because the process went away meanwhile (ESRCH) into an empty line instead of throwing.
inline bool gAlive(pid_t pid) {
    std::string text;
    std::getline(std::ifstream("/proc/" + std::to_string(pid) + "/stat"), text);
    size_t const close = text.rfind(')');
    return close != std::string::npos && close + 2 < text.size() && text[close + 2] != 'Z';
}

// True when `pid` is no longer a child to reap (it was reaped already).
inline bool gReaped(pid_t pid) { return waitpid(pid, nullptr, WNOHANG) == -1 && errno == ECHILD; }

// Ends and reaps a child the test started, whatever state it is in.
inline void gCleanUp(pid_t pid) {
    if (kill(pid, SIGKILL) == 0) waitpid(pid, nullptr, 0);
}

// Runs `body` in a forked child and returns its exit status (or -1 when it did not exit).
template <class Body>
int gInChild(Body body) {
    pid_t const pid = fork();
    if (pid == 0) _exit(body());
    int status = 0;
    return waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace nChildren

#endif
