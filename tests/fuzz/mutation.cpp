#include "tests/fuzz/mutation.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace lumora_fuzz {

namespace {

constexpr std::size_t GROWTH = 64;  // of one change

std::size_t Store(const std::string& changed, std::uint8_t* data, std::size_t most) {
    const std::size_t size = std::min(changed.size(), most);
    std::memcpy(data, changed.data(), size);
    return size;
}

void Split(Script& script, std::size_t at, Dice& dice) {
    Record rest = script[at];
    const std::size_t cut = dice.Below(rest.bytes.size() + 1);
    rest.bytes.erase(0, cut);
    script[at].bytes.resize(cut);
    script.insert(script.begin() + static_cast<std::ptrdiff_t>(at) + 1, std::move(rest));
}

void JoinWithNext(Script& script, std::size_t at) {
    if (at + 1 < script.size()) {
        script[at].bytes += script[at + 1].bytes;
        script.erase(script.begin() + static_cast<std::ptrdiff_t>(at) + 1);
    }
}

}  // namespace

std::string MutateBytes(const std::string& bytes, Dice&) {
    std::string changed = bytes;
    changed.resize(bytes.size() + GROWTH);
    auto* data = reinterpret_cast<std::uint8_t*>(changed.data());
    changed.resize(LLVMFuzzerMutate(data, bytes.size(), changed.size()));
    return changed;
}

void MutateScript(Script& script, Dice& dice, std::size_t kinds, const Mutator& mutateRecord) {
    const std::size_t at = dice.Below(script.size());
    const auto position = script.begin() + static_cast<std::ptrdiff_t>(at);
    if (script.empty()) {
        script.push_back({static_cast<std::uint8_t>(dice.Below(kinds)), {}});
        return;
    }
    switch (dice.Below(10)) {
        case 0:
            script.insert(position, Record(script[dice.Below(script.size())]));
            break;
        case 1:
            script.erase(position);
            break;
        case 2:
            std::swap(script[at], script[dice.Below(script.size())]);
            break;
        case 3:
            script[at].kind = static_cast<std::uint8_t>(dice.Below(kinds));
            break;
        case 4:
            Split(script, at, dice);
            break;
        case 5:
            JoinWithNext(script, at);
            break;
        default:
            script[at].bytes = mutateRecord(script[at].bytes, dice);
    }
}

std::size_t MutateDocument(std::uint8_t* data, std::size_t size, std::size_t most, unsigned int seed,
                           const Mutator& mutate) {
    Dice dice(seed);
    if (dice.OneIn(3)) {
        return LLVMFuzzerMutate(data, size, most);
    }
    return Store(mutate(std::string(data, data + size), dice), data, most);
}

std::size_t MutateScriptInput(std::uint8_t* data, std::size_t size, std::size_t most, unsigned int seed,
                              std::size_t kinds, const Mutator& mutateRecord) {
    const Mutator mutate = [&](const std::string& bytes, Dice& dice) {
        Script script = ReadScript(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
        MutateScript(script, dice, kinds, mutateRecord);
        return WriteScript(script);
    };
    return MutateDocument(data, size, most, seed, mutate);
}

}  // namespace lumora_fuzz
