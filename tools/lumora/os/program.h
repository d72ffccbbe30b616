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

// By the shell, with the input on its standard input. What it writes to standard error goes to ours. One that
// is late, writes too much or is in the way of our end is killed, with all that it started.
ProgramRun RunProgram(const std::string& command, const std::string& input,
                      const std::vector<std::pair<std::string, std::string>>& environment,
                      std::size_t mostOutput, std::chrono::milliseconds timeout);

// A program with all of its words, whose output is taken and whose errors go nowhere.
class Child {
public:
    explicit Child(const std::vector<std::string>& words);
    ~Child();  // kills it, where nobody has waited for its end
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // Its next line; empty when none comes in time, or no more.
    std::string NextLine(std::chrono::milliseconds timeout);
    // Asks it to end.
    void End();
    // Its exit code; -1 when it did not end in time.
    int Wait(std::chrono::milliseconds timeout);

private:
    pid_t mId = -1;
    lumora::UniqueFd mOutput;
    std::string mRest;
};

}  // namespace lumora_cli
