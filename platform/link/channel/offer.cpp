#include "platform/link/channel/offer.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace lumora_link {

namespace {

constexpr std::string_view VERSION = "1";
constexpr std::string_view ALPHABET = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

void FillRandomly(unsigned char* bytes, std::size_t size, RandomSource& random) {
    for (std::size_t done = 0; done < size; done += sizeof(std::uint64_t)) {
        std::uint64_t number = random.Next();
        std::memcpy(bytes + done, &number, std::min(sizeof number, size - done));
        OPENSSL_cleanse(&number, sizeof number);
    }
}

std::string EncodeBase64(const unsigned char* bytes, std::size_t size) {
    std::string text;
    unsigned waiting = 0;
    unsigned bits = 0;
    for (std::size_t at = 0; at < size; ++at) {
        waiting = (waiting << 8 | bytes[at]) & 0xffffU;
        for (bits += 8; bits >= 6; bits -= 6) {
            text.push_back(ALPHABET[waiting >> (bits - 6) & 63U]);
        }
    }
    if (bits > 0) {
        text.push_back(ALPHABET[waiting << (6 - bits) & 63U]);
    }
    return text;
}

// The text must have exactly as many characters as the bytes need, and no bit behind the last byte.
bool DecodeBase64(std::string_view text, unsigned char* bytes, std::size_t size) {
    if (text.size() != (size * 8 + 5) / 6) {
        return false;
    }
    unsigned waiting = 0;
    unsigned bits = 0;
    std::size_t done = 0;
    for (const char character : text) {
        const std::size_t value = ALPHABET.find(character);
        if (value == std::string_view::npos) {
            return false;
        }
        waiting = (waiting << 6 | static_cast<unsigned>(value)) & 0xffffU;
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            bytes[done++] = static_cast<unsigned char>(waiting >> bits & 0xffU);
        }
    }
    return (waiting & ((1U << bits) - 1)) == 0;
}

// Walks through one JSON text. Each function returns nothing or false if something else stands there.
class JsonScanner {
public:
    explicit JsonScanner(std::string_view text) : mLeft(text) {}

    bool Take(char expected) {
        SkipBlanks();
        if (mLeft.empty() || mLeft.front() != expected) {
            return false;
        }
        mLeft.remove_prefix(1);
        return true;
    }

    // Without the quotes. Escape sequences stay as they are.
    std::optional<std::string_view> TakeString() {
        if (!Take('"')) {
            return std::nullopt;
        }
        for (std::size_t at = 0; at < mLeft.size() && static_cast<unsigned char>(mLeft[at]) >= ' '; ++at) {
            if (mLeft[at] == '"') {
                return TakeFirst(at, 1);
            }
            at += mLeft[at] == '\\' ? 1U : 0U;
        }
        return std::nullopt;
    }

    // A number, true, false or null.
    std::optional<std::string_view> TakeWord() {
        SkipBlanks();
        const std::size_t end = std::min(mLeft.find_first_of(" \t\r\n,:\"[]{}"), mLeft.size());
        return end == 0 ? std::nullopt : std::make_optional(TakeFirst(end, 0));
    }

    bool SkipValue() {
        std::size_t depth = 0;
        do {
            if (Take('{') || Take('[')) {
                ++depth;
            } else if (Take('}') || Take(']')) {
                if (depth-- == 0) {
                    return false;
                }
            } else if (!(depth > 0 && (Take(',') || Take(':'))) && !TakeString() && !TakeWord()) {
                return false;
            }
        } while (depth > 0);
        return true;
    }

    bool IsAtEnd() {
        SkipBlanks();
        return mLeft.empty();
    }

private:
    void SkipBlanks() { mLeft.remove_prefix(std::min(mLeft.find_first_not_of(" \t\r\n"), mLeft.size())); }

    std::string_view TakeFirst(std::size_t length, std::size_t behind) {
        const std::string_view taken = mLeft.substr(0, length);
        mLeft.remove_prefix(length + behind);
        return taken;
    }

    std::string_view mLeft;
};

struct OfferReader {
    bool TakeMember(JsonScanner& scanner) {
        const auto name = scanner.TakeString();
        if (!name || !scanner.Take(':')) {
            return false;
        }
        if (*name == "v") {
            const auto value = scanner.TakeWord();
            return !std::exchange(hasVersion, true) && value == VERSION;
        }
        if (*name == "id") {
            const auto value = scanner.TakeString();
            return !std::exchange(hasId, true) && value &&
                   DecodeBase64(*value, offer.id.data(), offer.id.size());
        }
        if (*name == "k") {
            const auto value = scanner.TakeString();
            return !std::exchange(hasKey, true) && value &&
                   DecodeBase64(*value, offer.key.Data(), offer.key.Size());
        }
        return scanner.SkipValue();
    }

    Offer offer;
    bool hasVersion = false;
    bool hasId = false;
    bool hasKey = false;
};

}  // namespace

Offer MakeOffer(RandomSource& random) {
    Offer offer;
    FillRandomly(offer.id.data(), offer.id.size(), random);
    FillRandomly(offer.key.Data(), offer.key.Size(), random);
    return offer;
}

std::string WriteOffer(const Offer& offer) {
    return "{\"v\":" + std::string(VERSION) + ",\"id\":\"" + EncodeBase64(offer.id.data(), offer.id.size()) +
           "\",\"k\":\"" + EncodeBase64(offer.key.Data(), offer.key.Size()) + "\"}";
}

std::optional<Offer> ReadOffer(std::string_view text) {
    JsonScanner scanner(text);
    OfferReader reader;
    if (!scanner.Take('{')) {
        return std::nullopt;
    }
    do {
        if (!reader.TakeMember(scanner)) {
            return std::nullopt;
        }
    } while (scanner.Take(','));
    const bool whole = scanner.Take('}') && scanner.IsAtEnd();
    return whole && reader.hasVersion && reader.hasId && reader.hasKey ? std::make_optional(reader.offer)
                                                                       : std::nullopt;
}

}  // namespace lumora_link
