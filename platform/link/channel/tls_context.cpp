#include "platform/link/channel/tls_context.h"

#if defined(__aarch64__) || defined(__arm__)
#include <asm/hwcap.h>
#include <sys/auxv.h>
#endif

#include <array>
#include <cstring>

namespace lumora_link {

namespace {

// With its length in front, as TLS has it.
constexpr std::array<unsigned char, 9> PROTOCOL = {8, 'l', 'u', 'm', 'o', 'r', 'a', '/', '1'};
constexpr char AES_FIRST[] = "TLS_AES_128_GCM_SHA256:TLS_CHACHA20_POLY1305_SHA256";
constexpr char CHACHA_FIRST[] = "TLS_CHACHA20_POLY1305_SHA256:TLS_AES_128_GCM_SHA256";

// Without such instructions ChaCha20 is several times faster than AES, and as safe against timing.
bool HasAesInstructions() {
#if defined(__x86_64__) || defined(__i386__)
    return __builtin_cpu_supports("aes") != 0;
#elif defined(__aarch64__)
    return (getauxval(AT_HWCAP) & HWCAP_AES) != 0;
#elif defined(__arm__) && defined(HWCAP2_AES)
    return (getauxval(AT_HWCAP2) & HWCAP2_AES) != 0;
#else
    return false;
#endif
}

int ChooseProtocol(SSL*, const unsigned char** chosen, unsigned char* length, const unsigned char* offered,
                   unsigned offeredLength, void*) {
    unsigned char* found = nullptr;
    if (SSL_select_next_proto(&found, length, PROTOCOL.data(), PROTOCOL.size(), offered, offeredLength) !=
        OPENSSL_NPN_NEGOTIATED) {
        return SSL_TLSEXT_ERR_ALERT_FATAL;
    }
    *chosen = found;
    return SSL_TLSEXT_ERR_OK;
}

// If either end lacks instructions for AES, ChaCha20 is used: the client's order counts, unless the accepting
// end lacks them.
bool SetCiphers(SSL_CTX* context) {
    const bool aes = HasAesInstructions();
    if (!aes) {
        SSL_CTX_set_options(context, SSL_OP_CIPHER_SERVER_PREFERENCE);
    }
    return SSL_CTX_set_ciphersuites(context, aes ? AES_FIRST : CHACHA_FIRST) == 1;
}

}  // namespace

TlsContext MakeTlsContext() {
    TlsContext context(SSL_CTX_new(TLS_method()));
    SSL_CTX* tls = context.get();
    if (tls == nullptr || SSL_CTX_set_min_proto_version(tls, TLS1_3_VERSION) != 1 ||
        SSL_CTX_set_max_proto_version(tls, TLS1_3_VERSION) != 1 || !SetCiphers(tls) ||
        SSL_CTX_set1_groups_list(tls, "X25519:P-256") != 1 || SSL_CTX_set_num_tickets(tls, 0) != 1 ||
        SSL_CTX_set_max_early_data(tls, 0) != 1 || SSL_CTX_set_recv_max_early_data(tls, 0) != 1 ||
        SSL_CTX_set_alpn_protos(tls, PROTOCOL.data(), PROTOCOL.size()) != 0) {
        return nullptr;
    }
    SSL_CTX_set_alpn_select_cb(tls, ChooseProtocol, nullptr);
    SSL_CTX_set_options(tls, SSL_OP_NO_TICKET | SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION);
    // The settings of the machine may allow a handshake without an ephemeral exchange.
    SSL_CTX_clear_options(tls, SSL_OP_ALLOW_NO_DHE_KEX | SSL_OP_ENABLE_MIDDLEBOX_COMPAT);
    SSL_CTX_set_session_cache_mode(tls, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_read_ahead(tls, 1);
    SSL_CTX_set_default_read_buffer_len(tls, READ_BUFFER_BYTES);
    return context;
}

bool IsAsAgreed(const SSL* tls) {
    const unsigned char* protocol = nullptr;
    unsigned length = 0;
    SSL_get0_alpn_selected(tls, &protocol, &length);
    // OpenSSL calls a handshake by a pre-shared key a session that is used again. One by a certificate is
    // not.
    return SSL_version(tls) == TLS1_3_VERSION && SSL_session_reused(tls) == 1 &&
           length + 1 == PROTOCOL.size() && std::memcmp(protocol, PROTOCOL.data() + 1, length) == 0;
}

}  // namespace lumora_link
