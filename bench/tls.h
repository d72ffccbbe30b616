// One direction of a TLS 1.3 connection over a socket, as OpenSSL's own calls make it.
#pragma once

#include <openssl/ssl.h>
#include <sys/types.h>

#include <cstddef>
#include <memory>

namespace lumora_bench {

class Tls {
public:
    // Shakes hands. The side that accepts has the certificate and key of the file that
    // LUMORA_BENCH_CERTIFICATE names. The other side does not check them: the figures are of the stream.
    Tls(int socket, bool accepts);

    void Write(const char* data, std::size_t length);
    // What one record or more have brought; 0 at the end of the stream.
    ssize_t Read(char* to, std::size_t most);

private:
    struct Free {
        void operator()(SSL* tls) const { SSL_free(tls); }
        void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
    };
    std::unique_ptr<SSL_CTX, Free> mContext;
    std::unique_ptr<SSL, Free> mTls;
};

}  // namespace lumora_bench
