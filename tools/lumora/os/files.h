// Files, whole and checked. Whatever fails is thrown as a Failure with the file's name.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "tools/lumora/os/unique_fd.h"

namespace lumora_cli {

// Under its name the file is complete: it is written beside, and then renamed.
void WriteFile(const std::string& path, std::string_view bytes);
void MakeFolder(const std::string& path);

// A file, or standard input for "-".
class InputFile {
public:
    explicit InputFile(const std::string& path);

    const std::string& Name() const { return mName; }
    // 0 where the length is not known: a pipe, standard input.
    std::size_t Length() const { return mLength; }
    // As much as was asked for; less only at the end. A signal ends the waiting for a pipe.
    std::string Read(std::size_t most);

private:
    std::string mName;
    UniqueFd mOwn;
    int mFd = 0;
    std::size_t mLength = 0;
};

}  // namespace lumora_cli
