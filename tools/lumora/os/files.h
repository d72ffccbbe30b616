// Files, whole and checked. Whatever fails is thrown as a Failure with the file's name.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "base/unique_fd.h"

namespace lumora_cli {

// Under its name the file is complete: it is written beside, and then renamed.
void WriteFile(const std::string& path, std::string_view bytes);
void MakeFolder(const std::string& path);

// A file, or standard input for "-".
class InputFile {
public:
    explicit InputFile(const std::string& path);

    // Checks that it can be read. 0 if the length is not known: a pipe, standard input. Does not open a pipe.
    static std::size_t LengthOf(const std::string& path);

    const std::string& Name() const { return mName; }
    // As much as was asked for; less only at the end. A signal ends the waiting for a pipe.
    std::string Read(std::size_t most);
    // The next line without its end, cut at most bytes; nothing at the end of the file.
    std::optional<std::string> ReadLine(std::size_t most);

private:
    std::size_t ReadSome(char* bytes, std::size_t most);

    std::string mName;
    lumora::UniqueFd mOwn;
    int mFd = 0;
    std::string mRest;  // read, and not yet part of a line
};

}  // namespace lumora_cli
