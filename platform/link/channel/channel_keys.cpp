#include "platform/link/channel/channel_keys.h"

#include <openssl/core_names.h>
#include <openssl/kdf.h>
#include <openssl/params.h>

#include <algorithm>
#include <memory>
#include <string_view>

namespace lumora_link {

namespace {

constexpr std::string_view LABEL_TO_DEVICE = "lumora channel 1 to device";
constexpr std::string_view LABEL_TO_CLIENT = "lumora channel 1 to client";

struct KdfCloser {
    void operator()(EVP_KDF* kdf) const { EVP_KDF_free(kdf); }
    void operator()(EVP_KDF_CTX* context) const { EVP_KDF_CTX_free(context); }
};

// The label names the version and the direction, so no two uses have the same key.
ConnectionKey Begin(std::string_view label, const Offer& client, const Offer& device) {
    ConnectionKey key;
    key.name.assign(label.begin(), label.end());
    key.name.insert(key.name.end(), client.id.begin(), client.id.end());
    key.name.insert(key.name.end(), device.id.begin(), device.id.end());
    return key;
}

bool Derive(EVP_KDF* kdf, Secret<2 * OFFER_KEY_BYTES>& material, ConnectionKey& key) {
    const std::unique_ptr<EVP_KDF_CTX, KdfCloser> context(EVP_KDF_CTX_new(kdf));
    char digest[] = "SHA256";
    const OSSL_PARAM parameters[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digest, 0),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_KEY, material.Data(), material.Size()),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_INFO, key.name.data(), key.name.size()),
        OSSL_PARAM_construct_end()};
    return context != nullptr &&
           EVP_KDF_derive(context.get(), key.secret.Data(), key.secret.Size(), parameters) > 0;
}

}  // namespace

std::optional<ChannelKeys> DeriveKeys(const Offer& client, const Offer& device) {
    const std::unique_ptr<EVP_KDF, KdfCloser> kdf(EVP_KDF_fetch(nullptr, "HKDF", nullptr));
    Secret<2 * OFFER_KEY_BYTES> material;
    std::copy_n(client.key.Data(), OFFER_KEY_BYTES, material.Data());
    std::copy_n(device.key.Data(), OFFER_KEY_BYTES, material.Data() + OFFER_KEY_BYTES);
    ChannelKeys keys{Begin(LABEL_TO_DEVICE, client, device), Begin(LABEL_TO_CLIENT, client, device)};
    if (kdf == nullptr || !Derive(kdf.get(), material, keys.toDevice) ||
        !Derive(kdf.get(), material, keys.toClient)) {
        return std::nullopt;
    }
    return keys;
}

}  // namespace lumora_link
