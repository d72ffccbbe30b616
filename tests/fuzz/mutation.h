// Changes that keep an input's structure; the fuzzer's own only break it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <random>
#include <string>

#include "tests/fuzz/script.h"

namespace lumora_fuzz {

class Dice {
public:
    explicit Dice(unsigned int seed) : mEngine(seed) {}
    // 0 to below - 1; 0 also if there is nothing to choose from.
    std::size_t Below(std::size_t below) { return below < 2 ? 0 : mEngine() % below; }
    bool OneIn(std::size_t n) { return Below(n) == 0; }
    std::uint32_t Number() { return static_cast<std::uint32_t>(mEngine()); }
    template <typename Choices>
    const auto& Pick(const Choices& choices) {
        return choices[Below(std::size(choices))];
    }

private:
    std::minstd_rand mEngine;
};

using Mutator = std::function<std::string(const std::string& bytes, Dice& dice)>;

// By the fuzzer's own means.
std::string MutateBytes(const std::string& bytes, Dice& dice);

// Changes, adds, renames or removes a member of a JSON document.
std::string MutateJson(const std::string& text, Dice& dice);

// Changes one frame of a stream: a length, an identifier, the whole frame.
std::string MutateClientFrames(const std::string& stream, Dice& dice);
std::string MutateServerFrames(const std::string& stream, Dice& dice);

// Changes one field of a CoAP message.
std::string MutateDatagram(const std::string& datagram, Dice& dice);

// Inserts, copies, removes, exchanges, splits or joins records, or changes the bytes of one.
void MutateScript(Script& script, Dice& dice, std::size_t kinds, const Mutator& mutateRecord);

// What LLVMFuzzerCustomMutator does for documents and for scripts. Every third change is the fuzzer's own.
std::size_t MutateDocument(std::uint8_t* data, std::size_t size, std::size_t most, unsigned int seed,
                           const Mutator& mutate);
std::size_t MutateScriptInput(std::uint8_t* data, std::size_t size, std::size_t most, unsigned int seed,
                              std::size_t kinds, const Mutator& mutateRecord);

}  // namespace lumora_fuzz

extern "C" {
// Of each target.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t most,
                                    unsigned int seed);
// Of the fuzzer.
std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t most);
}
