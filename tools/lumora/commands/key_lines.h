// The lines of a key file, changed one key at a time: comments and the order of the others stay.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/link/wire/key_file.h"

namespace lumora_cli {

class KeyLines {
public:
    // Takes over a file's text, or says what is wrong with it and stays empty.
    std::optional<lumora_link::KeyFileFault> Take(const std::string& text);
    std::string Text() const;

    const std::vector<lumora_link::Psk>& Keys() const { return mKeys; }
    // Null if there is none.
    const lumora_link::Psk* Find(const std::string& identity) const;

    // A key that is not there yet, at the end. lastDay is YYYY-MM-DD or empty.
    void Add(const std::string& identity, const std::string& key, const std::string& lastDay);
    // A key that is there.
    void MoveToFront(const std::string& identity);
    void Remove(const std::string& identity);

private:
    // A key with the line of its last day, or a line that is none of both.
    struct Block {
        std::string identity;  // empty: no key
        std::vector<std::string> lines;
    };
    std::vector<Block>::iterator BlockOf(const std::string& identity);

    std::vector<Block> mBlocks;
    std::vector<lumora_link::Psk> mKeys;
};

}  // namespace lumora_cli
