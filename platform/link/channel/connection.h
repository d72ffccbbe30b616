// One connection of a private channel: TLS over a socket that it does not own. See LinkSecurity for what its
// functions return.
#pragma once

#include "platform/link/channel/channel_keys.h"
#include "platform/link/channel/peer_registry.h"
#include "platform/link/channel/socket_bio.h"
#include "platform/link/channel/tls_context.h"

namespace lumora_link {

class Connection {
public:
    // AES-GCM protects about 24 million full records by one key. After this many the key is replaced.
    static constexpr std::uint64_t RECORDS_PER_KEY = 1U << 22;

    struct Setup {
        SSL_CTX* context = nullptr;
        ConnectionKey key;
        ProvenPeer peer;
        bool accepts = false;
        int socket = -1;
        std::uint64_t recordsPerKey = RECORDS_PER_KEY;
    };

    // Throws std::bad_alloc.
    Connection(PeerRegistry& registry, Setup setup);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    int Handshake();
    int Read(void* bytes, unsigned size);
    int Write(const void* bytes, unsigned size);
    bool HasPending();
    void Shutdown();

private:
    static int UseKey(SSL* tls, const EVP_MD* digest, const unsigned char** name, std::size_t* length,
                      SSL_SESSION** session);
    static int FindKey(SSL* tls, const unsigned char* name, std::size_t length, SSL_SESSION** session);

    TlsSession MakeSession() const;
    bool IsUsable() const { return !mFailed && !mWatch.IsWithdrawn(); }
    bool IsOpen() const { return mEstablished && IsUsable(); }
    int Continue(bool mayRead);
    int Fail();
    bool Seal(const char* bytes, std::size_t size);
    bool RenewKey();

    const std::uint64_t mRecordsPerKey;
    ConnectionKey mKey;  // the secret is erased after the handshake
    PeerRegistry::Watch mWatch;
    SocketBio mBio;
    Tls mTls;
    bool mEstablished = false;
    bool mFailed = false;
    bool mDrained = false;  // the last Read found no whole record more
    bool mEnded = false;    // the last Read met the end or a failure
    // Bytes of the caller's next Write that are encrypted already, and in mBio or sent.
    unsigned mSealed = 0;
    std::uint64_t mRecords = 0;  // by the current key
};

}  // namespace lumora_link
