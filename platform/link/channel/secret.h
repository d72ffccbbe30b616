// Bytes that are erased when they are no longer needed.
#pragma once

#include <openssl/crypto.h>

#include <array>

namespace lumora_link {

template <std::size_t SIZE>
class Secret {
public:
    Secret() = default;
    Secret(const Secret&) = default;
    Secret& operator=(const Secret&) = default;
    // Unlike a plain memset, the compiler must not leave this out.
    ~Secret() { OPENSSL_cleanse(mBytes.data(), SIZE); }

    unsigned char* Data() { return mBytes.data(); }
    const unsigned char* Data() const { return mBytes.data(); }
    static constexpr std::size_t Size() { return SIZE; }
    void Erase() { OPENSSL_cleanse(mBytes.data(), SIZE); }
    bool operator==(const Secret& other) const {
        return CRYPTO_memcmp(mBytes.data(), other.mBytes.data(), SIZE) == 0;
    }
    bool operator!=(const Secret& other) const { return !(*this == other); }

private:
    std::array<unsigned char, SIZE> mBytes{};
};

}  // namespace lumora_link
