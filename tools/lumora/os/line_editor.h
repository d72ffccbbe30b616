// Lines from standard input: edited, with history and completion, if that is a terminal.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace lumora_cli {

// One at a time: libedit keeps its state in globals.
class LineEditor {
public:
    LineEditor(const std::string& prompt, std::vector<std::string> completions);
    ~LineEditor();
    LineEditor(const LineEditor&) = delete;
    LineEditor& operator=(const LineEditor&) = delete;

    // The next line; nothing at the end of the input or after a signal. Calls attend each time that fd
    // becomes readable meanwhile.
    std::optional<std::string> Next(int fd, const std::function<void()>& attend);

    class Source;

private:
    static std::unique_ptr<Source> MakeSource(const std::string& prompt,
                                              std::vector<std::string> completions);

    std::unique_ptr<Source> mSource;
};

}  // namespace lumora_cli
