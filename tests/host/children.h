// Real child processes for the process tests: sleepers, children that have already exited,
// and processes that are not children of the test.
#ifndef COLLOQUY_TESTS_CHILDREN_H
#define COLLOQUY_TESTS_CHILDREN_H

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <string>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

namespace nChildren {

// A child running `sleep 30` (ignoring SIGTERM when asked, which exec keeps).
inline pid_t gSleeper(bool ignoreTerm = false) {
    pid_t const pid = fork();
    if (pid == 0) {
        if (ignoreTerm) signal(SIGTERM, SIG_IGN);
        execlp("sleep", "sleep", "30", static_cast<char*>(nullptr));
        _exit(127);
    }
    return pid;
}

// Waits (a bounded while) until `pid` runs the program `name`, i.e. has passed exec.
inline bool gRuns(pid_t pid, std::string const& name) {
    for (int i = 0; i < 500; ++i) {
        std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
        std::string text;
        if (std::getline(comm, text) && text == name) return true;
        usleep(10 * 1000);
    }
    return false;
}

// A child that has exited and is not reaped yet.
inline pid_t gExitedChild() {
    pid_t const pid = fork();
    if (pid == 0) _exit(0);
    siginfo_t info{};
    waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);  // wait, but leave it unreaped
    return pid;
}

// An id that no process has: a child's, once it has been reaped.
inline pid_t gFreePid() {
    pid_t const pid = fork();
    if (pid == 0) _exit(0);
    waitpid(pid, nullptr, 0);
    return pid;
}

// True while `pid` exists and has not exited (a zombie counts as exited).
inline bool gAlive(pid_t pid) {
    if (kill(pid, 0) != 0) return false;
    std::string const path = "/proc/" + std::to_string(pid) + "/stat";
    FILE* const file = fopen(path.c_str(), "r");
    if (!file) return false;
    char buffer[512] = {};
    size_t const n = fread(buffer, 1, sizeof buffer - 1, file);
    fclose(file);
    std::string const text(buffer, n);
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
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace nChildren

#endif
