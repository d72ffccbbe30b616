// How a command ends when it does not end well.
#pragma once

#include <stdexcept>
#include <string>

namespace lumora_cli {

// docs and manual pages list these; scripts rely on them.
enum ExitCode : int {
    EXIT_OK = 0,
    EXIT_FAILED = 1,
    EXIT_USAGE = 2,
    EXIT_NO_DEVICE = 3,
    EXIT_REFUSED = 4,
    EXIT_TIMED_OUT = 5,
    EXIT_FILE = 6,
    EXIT_BY_SIGNAL = 128  // and the signal's number
};

// The one line that the user reads: what is wrong, and what to do about it.
class Failure : public std::runtime_error {
public:
    Failure(int code, const std::string& what) : std::runtime_error(what), mCode(code) {}
    Failure(int code, const std::string& what, const std::string& advice)
        : std::runtime_error(what + "; " + advice), mCode(code) {}

    int Code() const { return mCode; }

private:
    int mCode;
};

// Ends the program without a word: the user knows why.
class QuietEnd : public std::exception {
public:
    explicit QuietEnd(int code) : mCode(code) {}

    int Code() const { return mCode; }
    const char* what() const noexcept override { return "ended"; }

private:
    int mCode;
};

// The text of errno, for the end of a sentence.
std::string SystemError(int error);

}  // namespace lumora_cli
