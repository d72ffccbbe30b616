#include "platform/link/io/psk.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <array>

#include "base/unique_fd.h"
#include "platform/link/log.h"

namespace lumora_link {

namespace {

// What every TLS library takes.
constexpr std::size_t MAX_PART_BYTES = 64;

std::optional<Psk> ParsePsk(std::string text) {
    if (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    const std::size_t colon = text.find(':');
    if (colon == std::string::npos || text.find('\n') != std::string::npos) {
        return std::nullopt;
    }
    Psk psk{text.substr(0, colon), text.substr(colon + 1)};
    const bool valid = !psk.identity.empty() && psk.identity.size() <= MAX_PART_BYTES && !psk.key.empty() &&
                       psk.key.size() <= MAX_PART_BYTES;
    return valid ? std::make_optional(std::move(psk)) : std::nullopt;
}

}  // namespace

std::optional<Psk> ReadPskFile(const std::string& path) {
    const lumora::UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat state = {};
    if (!file || fstat(file.Get(), &state) != 0 || !S_ISREG(state.st_mode)) {
        LINK_LOG(LEVEL_ERROR, "LUMORA_LINK_PSK_FILE: \"%s\" cannot be read\n", path.c_str());
        return std::nullopt;
    }
    if ((state.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        LINK_LOG(LEVEL_ERROR, "LUMORA_LINK_PSK_FILE: \"%s\" is open to others than its owner\n",
                 path.c_str());
        return std::nullopt;
    }
    std::array<char, 2 * MAX_PART_BYTES + 3> buffer;
    const ssize_t bytes = read(file.Get(), buffer.data(), buffer.size());
    auto psk =
        bytes < 0 ? std::nullopt : ParsePsk(std::string(buffer.data(), static_cast<std::size_t>(bytes)));
    if (!psk) {
        LINK_LOG(LEVEL_ERROR, "LUMORA_LINK_PSK_FILE: \"%s\" is not one line identity:key, 64 bytes each\n",
                 path.c_str());
    }
    return psk;
}

}  // namespace lumora_link
