#include "process.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace {

pid_t spawn(std::vector<std::string> const& argv, int& in, int& out, int& err) {
    int pin[2], pout[2], perr[2];
    if (::pipe2(pin, O_CLOEXEC) || ::pipe2(pout, O_CLOEXEC) || ::pipe2(perr, O_CLOEXEC)) return -1;
    pid_t const pid = ::fork();
    if (pid == 0) {
        ::dup2(pin[0], 0);
        ::dup2(pout[1], 1);
        ::dup2(perr[1], 2);
        std::vector<char*> args;
        for (auto const& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        ::execv(args[0], args.data());
        ::_exit(127);
    }
    ::close(pin[0]);
    ::close(pout[1]);
    ::close(perr[1]);
    in = pin[1];
    out = pout[0];
    err = perr[0];
    return pid;
}

using Clock = std::chrono::steady_clock;

// Pumps input into `in` and drains `out`/`err` until both close or the deadline passes.
bool pump(int& in, std::string const& input, int& out, std::string& outText, int& err, std::string& errText,
          Clock::time_point deadline) {
    size_t written = 0;
    if (in >= 0 && input.empty()) ::close(std::exchange(in, -1));
    while (out >= 0 || err >= 0) {
        pollfd fds[3];
        int n = 0;
        if (in >= 0) fds[n++] = {in, POLLOUT, 0};
        if (out >= 0) fds[n++] = {out, POLLIN, 0};
        if (err >= 0) fds[n++] = {err, POLLIN, 0};
        auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) return false;
        if (::poll(fds, n, static_cast<int>(left)) < 0 && errno != EINTR) return false;
        for (int i = 0; i < n; ++i) {
            if (!fds[i].revents) continue;
            if (fds[i].fd == in) {
                ssize_t w = ::write(in, input.data() + written, input.size() - written);
                if (w > 0) written += static_cast<size_t>(w);
                if (w < 0 || written == input.size()) ::close(std::exchange(in, -1));
                continue;
            }
            char buffer[65536];
            ssize_t r = ::read(fds[i].fd, buffer, sizeof buffer);
            std::string& text = fds[i].fd == out ? outText : errText;
            if (r > 0) {
                text.append(buffer, static_cast<size_t>(r));
            } else {
                ::close(fds[i].fd);
                (fds[i].fd == out ? out : err) = -1;
            }
        }
    }
    return true;
}

int reap(pid_t pid, bool killFirst) {
    if (killFirst) ::kill(pid, SIGKILL);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (killFirst) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

ProcessResult runProcess(std::vector<std::string> const& argv, std::string const& input, int seconds) {
    ProcessResult r;
    int in, out, err;
    pid_t const pid = spawn(argv, in, out, err);
    if (pid < 0) return r;
    bool const done = pump(in, input, out, r.out, err, r.err, Clock::now() + std::chrono::seconds(seconds));
    for (int fd : {in, out, err})
        if (fd >= 0) ::close(fd);
    r.status = reap(pid, !done);
    return r;
}

BackgroundProcess::BackgroundProcess(std::vector<std::string> const& argv) {
    int in;
    mPid = spawn(argv, in, mOut, mErr);
    if (mPid >= 0) ::close(in);
}

BackgroundProcess::~BackgroundProcess() {
    if (mPid > 0) reap(mPid, true);
    for (int fd : {mOut, mErr})
        if (fd >= 0) ::close(fd);
}

std::string BackgroundProcess::readErrLine(int seconds) {
    auto const deadline = Clock::now() + std::chrono::seconds(seconds);
    while (mErrSoFar.find('\n') == std::string::npos && Clock::now() < deadline) {
        pollfd fd{mErr, POLLIN, 0};
        if (::poll(&fd, 1, 100) <= 0) continue;
        char buffer[1024];
        ssize_t r = ::read(mErr, buffer, sizeof buffer);
        if (r <= 0) break;
        mErrSoFar.append(buffer, static_cast<size_t>(r));
    }
    size_t const nl = mErrSoFar.find('\n');
    if (nl == std::string::npos) return "";
    std::string line = mErrSoFar.substr(0, nl);
    mErrSoFar.erase(0, nl + 1);
    return line;
}

ProcessResult BackgroundProcess::finish(int seconds) {
    ProcessResult r;
    int in = -1;
    bool const done = pump(in, "", mOut, r.out, mErr, r.err, Clock::now() + std::chrono::seconds(seconds));
    r.err = mErrSoFar + r.err;
    r.status = reap(mPid, !done);
    mPid = -1;
    return r;
}
