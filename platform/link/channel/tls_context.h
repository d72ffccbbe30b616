// The rules of TLS for private channels: version 1.3 with a pre-shared key and an ephemeral exchange of keys,
// and nothing else.
#pragma once

#include <openssl/ssl.h>

#include <memory>

namespace lumora_link {

struct TlsCloser {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
    void operator()(SSL* tls) const { SSL_free(tls); }
    void operator()(SSL_SESSION* session) const { SSL_SESSION_free(session); }
};
using TlsContext = std::unique_ptr<SSL_CTX, TlsCloser>;
using Tls = std::unique_ptr<SSL, TlsCloser>;
using TlsSession = std::unique_ptr<SSL_SESSION, TlsCloser>;

// How much one call of the kernel reads at most: four full records.
constexpr std::size_t READ_BUFFER_BYTES = 65536;

// Null if OpenSSL lacks memory or one of the methods.
TlsContext MakeTlsContext();
// Whether the handshake that is done has kept to the rules.
bool IsAsAgreed(const SSL* tls);

}  // namespace lumora_link
