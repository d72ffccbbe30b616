// A program of the user's, run for one block of data.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "base/unique_fd.h"

namespace lumora_cli {

struct ProgramRun {
    enum class End { EXITED, LATE, STOPPED, TOO_MUCH, NOT_STARTED };

    End end = End::NOT_STARTED;
    int exitCode = 0;  // 128 and the signal's number when one ended it
    std::string output;
};

// Runs the command by /bin/sh, with the input on its standard input. Its standard error is ours. Killed, with
// its process group, on time-out, too much output, or when we stop.
ProgramRun RunProgram(const std::string& command, const std::string& input,
                      const std::vector<std::pair<std::string, std::string>>& environment,
                      std::size_t mostOutput, std::chrono::milliseconds timeout);

// A program with its arguments. Its output is read here; its standard error is discarded.
class Child {
public:
    explicit Child(const std::vector<std::string>& words);
    ~Child();  // kills it unless Wait has seen its end
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // Its next line; empty at the end of its output or if none comes in time.
    std::string NextLine(std::chrono::milliseconds timeout);
    // Asks it to end.
    void End();
    // Its exit code; -1 if it does not end in time.
    int Wait(std::chrono::milliseconds timeout);

private:
    pid_t mId = -1;
    lumora::UniqueFd mOutput;
    std::string mRest;
};

}  // namespace lumora_cli
