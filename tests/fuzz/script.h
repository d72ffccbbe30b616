// Inputs that are more than one piece of bytes: a sequence of records, each with a kind that its target gives
// a meaning to. Every input can be read as a script, so that bytes may be changed anywhere.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace lumora_fuzz {

// On disk: the kind, the length in two bytes, low byte first, and so many bytes.
struct Record {
    std::uint8_t kind = 0;
    std::string bytes;
};
using Script = std::vector<Record>;

Script ReadScript(const std::uint8_t* data, std::size_t size);
std::string WriteScript(const Script& script);

// Plays an input in a world of its own: each record, then the end.
template <typename World>
void PlayScript(const std::uint8_t* data, std::size_t size) {
    World world;
    for (const Record& record : ReadScript(data, size)) {
        world.Play(record);
    }
    world.End();
}

}  // namespace lumora_fuzz
