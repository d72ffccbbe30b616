// What a device sends, for people, for programs, or into files.
#pragma once

#include <string>

#include "tools/lumora/manual/command.h"
#include "tools/lumora/session/client_session.h"

namespace lumora_cli {

struct BlockFormat {
    std::string form = "auto";
    std::string folder;
    std::string pattern;  // of --format; empty: none
};

void AddBlockFormat(Command& command, BlockFormat& format);

class BlockWriter {
public:
    // Makes the folder if files are wanted.
    explicit BlockWriter(BlockFormat format);

    void Write(const Block& block);

private:
    std::string Save(const Block& block);
    std::string Filled(const Block& block, const std::string& file) const;

    const BlockFormat mFormat;
    unsigned mNumber = 0;
};

}  // namespace lumora_cli
