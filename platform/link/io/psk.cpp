#include "platform/link/io/psk.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <tuple>

#include "base/unique_fd.h"
#include "platform/link/log.h"

namespace lumora_link {

namespace {

auto Stamp(const struct stat& state) {
    return std::make_tuple(state.st_dev, state.st_ino, state.st_size, state.st_mtim.tv_sec,
                           state.st_mtim.tv_nsec, state.st_ctim.tv_sec, state.st_ctim.tv_nsec);
}

std::optional<std::string> ReadAll(int file) {
    std::string text;
    std::array<char, 4096> buffer;
    while (text.size() <= MAX_KEY_FILE_BYTES) {
        const ssize_t bytes = read(file, buffer.data(), buffer.size());
        if (bytes <= 0) {
            return bytes == 0 ? std::make_optional(std::move(text)) : std::nullopt;
        }
        text.append(buffer.data(), static_cast<std::size_t>(bytes));
    }
    return std::nullopt;
}

}  // namespace

std::optional<KeyRing> PskFile::Read(std::time_t now) {
    mNextExpiry.reset();
    mSeen = {};
    const lumora::UniqueFd file(open(mPath.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file || fstat(file.Get(), &mSeen) != 0 || !S_ISREG(mSeen.st_mode)) {
        stat(mPath.c_str(), &mSeen);
        LINK_LOG(LEVEL_ERROR, "LUMORA_LINK_PSK_FILE: \"%s\" cannot be read\n", mPath.c_str());
        return std::nullopt;
    }
    if ((mSeen.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        LINK_LOG(LEVEL_ERROR, "LUMORA_LINK_PSK_FILE: \"%s\" is open to others than its owner\n",
                 mPath.c_str());
        return std::nullopt;
    }
    const auto text = ReadAll(file.Get());
    if (!text) {
        LINK_LOG(LEVEL_ERROR, "LUMORA_LINK_PSK_FILE: \"%s\" cannot be read\n", mPath.c_str());
        return std::nullopt;
    }
    auto parsed = ParseKeyFile(*text);
    if (const auto* fault = std::get_if<KeyFileFault>(&parsed)) {
        LINK_LOG(LEVEL_ERROR, "LUMORA_LINK_PSK_FILE: \"%s\": line %u %s\n", mPath.c_str(), fault->line,
                 fault->text.c_str());
        return std::nullopt;
    }
    std::vector<Psk> valid;
    for (Psk& psk : std::get<std::vector<Psk>>(parsed)) {
        if (!psk.IsValidAt(now)) {
            LINK_LOG(LEVEL_WARNING, "LUMORA_LINK_PSK_FILE: the key \"%s\" has expired\n",
                     psk.identity.c_str());
            continue;
        }
        if (psk.expires) {
            mNextExpiry = std::min(mNextExpiry.value_or(*psk.expires), *psk.expires);
        }
        valid.push_back(std::move(psk));
    }
    return KeyRing(std::move(valid));
}

// A file that is missing or closed to us counts as one that is empty.
bool PskFile::HasChanged(std::time_t now) const {
    struct stat state = {};
    if (stat(mPath.c_str(), &state) != 0) {
        state = {};
    }
    return Stamp(state) != Stamp(mSeen) || (mNextExpiry && now >= *mNextExpiry);
}

}  // namespace lumora_link
