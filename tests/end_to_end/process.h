// A program that a test runs beside itself. It ends with its owner.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace lumora_test {

class Process {
public:
    // The path of the program and its arguments.
    explicit Process(const std::vector<std::string>& command);
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    // Waits for a line of standard output that begins so, and forgets what came before it. Fails the test
    // when the program ends or nothing comes.
    std::string WaitForLine(const std::string& start);

    // The same for a line that contains the text, on standard error.
    void WaitForLog(const std::string& text);

    // To standard input.
    void WriteLine(const std::string& line);
    void CloseInput();

    void Signal(int number);
    // Stops the program; returns when the kernel has stopped it.
    void Halt();
    bool HasEnded() const;

    // Waits for the end: the exit code, or 128 and the number of the signal that ended it.
    int WaitForEnd();

    // Everything that was written so far.
    const std::string& Output() const { return mOutput.text; }
    const std::string& Errors() const { return mErrors.text; }

private:
    struct Stream {
        int fd = -1;  // -1 at its end
        std::string text;
        std::size_t seen = 0;  // by waiting for lines

        bool NextLine(std::string& line);
        void ReadSome();
        void Close();
    };

    void Start(std::vector<std::string> command, int input, int output, int errors);
    bool ReadMore();
    void Reap();

    std::string mName;
    pid_t mId = -1;  // -1 once reaped
    int mExitCode = -1;
    int mInput = -1;
    Stream mOutput;
    Stream mErrors;
};

}  // namespace lumora_test
