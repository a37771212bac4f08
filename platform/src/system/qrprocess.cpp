#include "qrprocess.h"

#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <string>
#include <thread>

namespace {

enum : int { kKilled = 0, kAlreadyEnded = 1, kNoSuchProcess = 2, kNotKilled = 3 };

// How long a process gets to end after each signal, and how often we look.
constexpr auto kGracePeriod = std::chrono::seconds(2);
constexpr auto kPollInterval = std::chrono::milliseconds(5);

enum class eState { kRunning, kEnded, kAbsent };

// A process that has exited but whose parent has not collected it yet is a zombie: it has
// ended, though kill() still finds it.
bool isZombie(pid_t pid) {
    std::string const path = "/proc/" + std::to_string(pid) + "/stat";
    FILE* const file = std::fopen(path.c_str(), "r");
    if (file == nullptr) return false;
    // "pid (command) state ...": the command may hold blanks and parentheses, so the state
    // is the first field after the last ')'.
    char line[512];
    size_t const n = std::fread(line, 1, sizeof line - 1, file);
    std::fclose(file);
    line[n] = '\0';
    std::string const text(line, n);
    size_t const close = text.rfind(')');
    return close != std::string::npos && close + 2 < text.size() && text[close + 2] == 'Z';
}

// The state of `pid`; reaps it when it is an exited child of ours.
eState stateOf(pid_t pid) {
    int status = 0;
    pid_t const reaped = waitpid(pid, &status, WNOHANG);
    if (reaped == pid) return eState::kEnded;
    if (reaped == 0) return eState::kRunning;  // a child of ours, still running
    // Not our child: ask the kernel whether the id is in use.
    if (kill(pid, 0) != 0 && errno == ESRCH) return eState::kAbsent;
    return isZombie(pid) ? eState::kEnded : eState::kRunning;
}

// Waits up to the grace period for `pid` to end (or vanish); true when it did.
bool endsWithinGrace(pid_t pid) {
    auto const deadline = std::chrono::steady_clock::now() + kGracePeriod;
    for (;;) {
        if (stateOf(pid) != eState::kRunning) return true;
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(kPollInterval);
    }
}

}  // namespace

int gQRPKillProcess(int const& pid) {
    // 0 and negative ids address process groups, not one process.
    if (pid <= 0) return kNoSuchProcess;
    if (pid == getpid()) return kNotKilled;
    switch (stateOf(pid)) {
        case eState::kAbsent:
            return kNoSuchProcess;
        case eState::kEnded:
            return kAlreadyEnded;
        case eState::kRunning:
            break;
    }
    if (kill(pid, SIGTERM) != 0) {
        if (errno == EPERM) return kNotKilled;
        return kAlreadyEnded;  // ESRCH: it ended since we looked
    }
    if (endsWithinGrace(pid)) return kKilled;
    if (kill(pid, SIGKILL) != 0 && errno == EPERM) return kNotKilled;
    return endsWithinGrace(pid) ? kKilled : kNotKilled;
}
