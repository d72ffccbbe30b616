#include "bench/tls.h"

#include <algorithm>
#include <climits>
#include <cstdlib>

#include "bench/signal.h"

namespace lumora_bench {

namespace {

// As Lumora's private channel has it: the common suite of AES, and reads that take several records at once.
constexpr const char* CIPHERS = "TLS_AES_128_GCM_SHA256";
constexpr std::size_t READ_AHEAD = 65536;

bool UseCertificate(SSL_CTX* context) {
    const char* file = std::getenv("LUMORA_BENCH_CERTIFICATE");
    return file != nullptr && SSL_CTX_use_certificate_file(context, file, SSL_FILETYPE_PEM) == 1 &&
           SSL_CTX_use_PrivateKey_file(context, file, SSL_FILETYPE_PEM) == 1;
}

}  // namespace

Tls::Tls(int socket, bool accepts) : mContext(SSL_CTX_new(TLS_method())) {
    SSL_CTX* context = mContext.get();
    if (SSL_CTX_set_min_proto_version(context, TLS1_3_VERSION) != 1 ||
        SSL_CTX_set_ciphersuites(context, CIPHERS) != 1 || (accepts && !UseCertificate(context))) {
        Fail("tls: no context; is LUMORA_BENCH_CERTIFICATE set?");
    }
    // Tickets would be written by the side that only reads.
    SSL_CTX_set_num_tickets(context, 0);
    SSL_CTX_set_read_ahead(context, 1);
    SSL_CTX_set_default_read_buffer_len(context, READ_AHEAD);
    mTls.reset(SSL_new(context));
    SSL_set_fd(mTls.get(), socket);
    if ((accepts ? SSL_accept(mTls.get()) : SSL_connect(mTls.get())) != 1) {
        Fail("tls: the handshake failed");
    }
}

void Tls::Write(const char* data, std::size_t length) {
    if (SSL_write(mTls.get(), data, static_cast<int>(length)) != static_cast<int>(length)) {
        Fail("tls: send failed");
    }
}

ssize_t Tls::Read(char* to, std::size_t most) {
    const int count = SSL_read(mTls.get(), to, static_cast<int>(std::min<std::size_t>(most, INT_MAX)));
    return std::max(count, 0);
}

}  // namespace lumora_bench
