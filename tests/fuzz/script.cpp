#include "tests/fuzz/script.h"

#include <algorithm>

namespace lumora_fuzz {

namespace {

constexpr std::size_t HEAD = 3;
constexpr std::size_t LONGEST_RECORD = 0xffff;

}  // namespace

// The last record takes what there is.
Script ReadScript(const std::uint8_t* data, std::size_t size) {
    Script script;
    while (size >= HEAD) {
        const std::size_t length = std::min<std::size_t>(data[1] + (std::size_t{data[2]} << 8), size - HEAD);
        script.push_back({data[0], std::string(data + HEAD, data + HEAD + length)});
        data += HEAD + length;
        size -= HEAD + length;
    }
    return script;
}

std::string WriteScript(const Script& script) {
    std::string out;
    for (const Record& record : script) {
        const std::size_t length = std::min(record.bytes.size(), LONGEST_RECORD);
        out.push_back(static_cast<char>(record.kind));
        out.push_back(static_cast<char>(length & 0xff));
        out.push_back(static_cast<char>(length >> 8));
        out.append(record.bytes, 0, length);
    }
    return out;
}

}  // namespace lumora_fuzz
