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
    explicit ByteReader(std::string_view bytes) : bytes_(bytes) {}

    bool Failed() const { return failed_; }
    bool AtEnd() const { return bytes_.empty(); }

    std::uint64_t Number(std::size_t bytes) {
        std::uint64_t value = 0;
        for (const char byte : Take(bytes)) {
            value = value << 8 | static_cast<unsigned char>(byte);
        }
        return value;
    }
    std::string Bytes(std::size_t bytes) { return std::string(Take(bytes)); }
    std::string Rest() { return std::string(Take(bytes_.size())); }

private:
    std::string_view Take(std::size_t bytes) {
        if (bytes > bytes_.size()) {
            failed_ = true;
            bytes_ = {};
            return {};
        }
        const std::string_view taken = bytes_.substr(0, bytes);
        bytes_.remove_prefix(bytes);
        return taken;
    }

    std::string_view bytes_;
    bool failed_ = false;
};

}  // namespace lumora_link
