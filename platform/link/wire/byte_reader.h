// Big-endian numbers in and out of byte strings, by shifting: no alignment, no host order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace lumora_link {

inline void AppendBigEndian(std::string& out, std::uint64_t value, std::size_t bytes) {
    for (std::size_t left = bytes; left > 0; --left) {
        out.push_back(static_cast<char>(value >> (8 * (left - 1)) & 0xff));
    }
}

// Reads from the front; once something was missing it stays failed and gives zeros.
class ByteReader {
public:
    explicit ByteReader(std::string_view bytes) : mBytes(bytes) {}

    bool Failed() const { return mFailed; }
    bool AtEnd() const { return mBytes.empty(); }

    std::uint64_t Number(std::size_t bytes) {
        std::uint64_t value = 0;
        for (const char byte : Take(bytes)) {
            value = value << 8 | static_cast<unsigned char>(byte);
        }
        return value;
    }
    std::string Bytes(std::size_t bytes) { return std::string(Take(bytes)); }
    std::string Rest() { return std::string(Take(mBytes.size())); }

private:
    std::string_view Take(std::size_t bytes) {
        if (bytes > mBytes.size()) {
            mFailed = true;
            mBytes = {};
            return {};
        }
        const std::string_view taken = mBytes.substr(0, bytes);
        mBytes.remove_prefix(bytes);
        return taken;
    }

    std::string_view mBytes;
    bool mFailed = false;
};

}  // namespace lumora_link
