// Runs a program as a child process with pipes on its three standard streams.
#ifndef COLLOQUY_TESTS_PROCESS_H
#define COLLOQUY_TESTS_PROCESS_H

#include <string>
#include <sys/types.h>
#include <vector>

struct ProcessResult {
    int status = -1;  // exit status, or 128 + signal, or -1 when killed for taking too long
    std::string out;
    std::string err;
};

// Runs `argv` with `input` on standard input; kills it after `seconds`.
ProcessResult runProcess(std::vector<std::string> const& argv, std::string const& input = "", int seconds = 30);

// A child left running while the test does other things.
class BackgroundProcess {
public:
    explicit BackgroundProcess(std::vector<std::string> const& argv);
    ~BackgroundProcess();
    // Reads standard error up to the first line feed (within `seconds`); "" on failure.
    std::string readErrLine(int seconds);
    // Waits for the end (killing it after `seconds`) and collects what is left.
    ProcessResult finish(int seconds);

private:
    pid_t mPid = -1;
    int mOut = -1, mErr = -1;
    std::string mErrSoFar;
};

#endif
