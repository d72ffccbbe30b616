// What each end adds to the keys of a channel, and its form within a request or an answer:
//
//     {"v":1,"id":"AAECAwQFBgcICQoLDA0ODw","k":"AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh8"}
//
// id and k are base64url without padding. Members with other names are passed over.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

#include "platform/link/channel/secret.h"
#include "platform/link/core/ports.h"

namespace lumora_link {

constexpr std::size_t OFFER_ID_BYTES = 16;
constexpr std::size_t OFFER_KEY_BYTES = 32;

struct Offer {
    std::array<unsigned char, OFFER_ID_BYTES> id{};
    Secret<OFFER_KEY_BYTES> key;
};

Offer MakeOffer(RandomSource& random);
std::string WriteOffer(const Offer& offer);
// Nothing if the text is no such object, has another version, or names one of the members twice.
std::optional<Offer> ReadOffer(std::string_view text);

}  // namespace lumora_link
