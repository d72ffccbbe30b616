#include "tools/lumora/commands/key_lines.h"

#include <algorithm>
#include <sstream>

namespace lumora_cli {

namespace {

bool IsExpiry(const std::string& line) { return line.rfind("# expires ", 0) == 0; }

}  // namespace

std::optional<lumora_link::KeyFileFault> KeyLines::Take(const std::string& text) {
    auto parsed = lumora_link::ParseKeyFile(text);
    if (const auto* fault = std::get_if<lumora_link::KeyFileFault>(&parsed)) {
        return *fault;
    }
    mKeys = std::get<std::vector<lumora_link::Psk>>(std::move(parsed));
    std::istringstream stream(text);
    std::vector<std::string> expiry;
    auto key = mKeys.begin();
    for (std::string line; std::getline(stream, line);) {
        if (key != mKeys.end() && line == key->identity + ':' + key->key) {
            expiry.push_back(line);
            mBlocks.push_back({key->identity, std::move(expiry)});
            expiry.clear();
            ++key;
        } else if (IsExpiry(line)) {
            expiry = {line};
        } else {
            mBlocks.push_back({"", {line}});
        }
    }
    return std::nullopt;
}

std::string KeyLines::Text() const {
    std::string text;
    for (const Block& block : mBlocks) {
        for (const std::string& line : block.lines) {
            text += line + '\n';
        }
    }
    return text;
}

const lumora_link::Psk* KeyLines::Find(const std::string& identity) const {
    const auto at = std::find_if(mKeys.begin(), mKeys.end(),
                                 [&](const lumora_link::Psk& psk) { return psk.identity == identity; });
    return at == mKeys.end() ? nullptr : &*at;
}

std::vector<KeyLines::Block>::iterator KeyLines::BlockOf(const std::string& identity) {
    return std::find_if(mBlocks.begin(), mBlocks.end(),
                        [&](const Block& block) { return block.identity == identity; });
}

void KeyLines::Add(const std::string& identity, const std::string& key, const std::string& lastDay) {
    mKeys.push_back({identity, key, lumora_link::ParseLastDay(lastDay)});
    Block block{identity, {}};
    if (!lastDay.empty()) {
        block.lines.push_back("# expires " + lastDay);
    }
    block.lines.push_back(identity + ':' + key);
    mBlocks.push_back(std::move(block));
}

void KeyLines::MoveToFront(const std::string& identity) {
    const auto key = std::find_if(mKeys.begin(), mKeys.end(),
                                  [&](const lumora_link::Psk& psk) { return psk.identity == identity; });
    std::rotate(mKeys.begin(), key, key + 1);
    const auto first = std::find_if(mBlocks.begin(), mBlocks.end(),
                                    [](const Block& block) { return !block.identity.empty(); });
    const auto block = BlockOf(identity);
    std::rotate(first, block, block + 1);
}

void KeyLines::Remove(const std::string& identity) {
    mBlocks.erase(BlockOf(identity));
    mKeys.erase(std::find_if(mKeys.begin(), mKeys.end(),
                             [&](const lumora_link::Psk& psk) { return psk.identity == identity; }));
}

}  // namespace lumora_cli
