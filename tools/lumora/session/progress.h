// A progress line on a terminal. Prints nothing if standard error is not a terminal.
#pragma once

#include <cstdint>
#include <string>

#include "tools/lumora/os/waiting.h"

namespace lumora_cli {

class Progress {
public:
    // total: 0 if it is not known.
    explicit Progress(std::uint64_t total);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void Advance(const std::string& name, std::uint64_t done);

    // Takes the line away, so that other output does not begin behind it. The next Advance may show it again.
    void Clear();

private:
    std::string Line(const std::string& name, std::size_t width) const;
    std::string Figures() const;
    double Share() const;

    const bool mShown;
    const std::uint64_t mTotal;
    const Deadline mBegin;
    Deadline mNext;
    std::uint64_t mDone = 0;
    bool mOnScreen = false;
};

}  // namespace lumora_cli
