// What a device sends, for people, for programs, or into files.
#pragma once

#include <string>

#include "tools/lumora/manual/command.h"
#include "tools/lumora/session/client_session.h"

namespace lumora_cli {

struct BlockFormat {
    std::string form = "auto";
    std::string folder;
};

void AddBlockFormat(Command& command, BlockFormat& format);

class BlockWriter {
public:
    // Makes the folder, where files are wanted.
    explicit BlockWriter(BlockFormat format);

    void Write(const Block& block);

private:
    std::string Save(const Block& block);

    const BlockFormat mFormat;
    unsigned mNumber = 0;
};

}  // namespace lumora_cli
