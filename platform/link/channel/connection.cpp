#include "platform/link/channel/connection.h"

#include <sys/socket.h>

#include <algorithm>
#include <climits>
#include <new>

#include "platform/link/channel/call_scope.h"

namespace lumora_link {

namespace {

constexpr std::size_t RECORD_BYTES = SSL3_RT_MAX_PLAIN_LENGTH;
constexpr std::size_t RECORD_OVERHEAD = SSL3_RT_MAX_ENCRYPTED_OVERHEAD + SSL3_RT_HEADER_LENGTH;
// Sent by one call of the kernel. More stays in no processor's second cache.
constexpr std::size_t RECORDS_AT_ONCE = 8;

}  // namespace

Connection::Connection(PeerRegistry& registry, Setup setup)
    : mRecordsPerKey(setup.recordsPerKey),
      mKey(std::move(setup.key)),
      mWatch(registry, setup.peer, setup.socket),
      mBio(setup.socket) {
    const CallScope scope;
    mTls.reset(SSL_new(setup.context));
    BIO* bio = mTls == nullptr ? nullptr : mBio.Make();
    if (bio == nullptr || SSL_set_app_data(mTls.get(), this) != 1) {
        BIO_free(bio);
        throw std::bad_alloc();
    }
    SSL_set_bio(mTls.get(), bio, bio);
    if (setup.accepts) {
        SSL_set_psk_find_session_callback(mTls.get(), FindKey);
        SSL_set_accept_state(mTls.get());
    } else {
        // Without this OpenSSL would take any certificate in place of the key.
        SSL_set_verify(mTls.get(), SSL_VERIFY_PEER, nullptr);
        SSL_set_psk_use_session_callback(mTls.get(), UseKey);
        SSL_set_connect_state(mTls.get());
    }
}

Connection::~Connection() {
    const CallScope scope;
    mTls.reset();
}

TlsSession Connection::MakeSession() const {
    static constexpr unsigned char SUITE[] = {0x13, 0x01};  // stands for its hash, SHA-256
    const SSL_CIPHER* cipher = SSL_CIPHER_find(mTls.get(), SUITE);
    TlsSession session(SSL_SESSION_new());
    const bool made =
        session != nullptr && cipher != nullptr &&
        SSL_SESSION_set1_master_key(session.get(), mKey.secret.Data(), mKey.secret.Size()) == 1 &&
        SSL_SESSION_set_cipher(session.get(), cipher) == 1 &&
        SSL_SESSION_set_protocol_version(session.get(), TLS1_3_VERSION) == 1;
    return made ? std::move(session) : nullptr;
}

int Connection::UseKey(SSL* tls, const EVP_MD*, const unsigned char** name, std::size_t* length,
                       SSL_SESSION** session) {
    const auto* own = static_cast<const Connection*>(SSL_get_app_data(tls));
    *session = own->MakeSession().release();
    *name = own->mKey.name.data();
    *length = own->mKey.name.size();
    return *session == nullptr ? 0 : 1;
}

// Another name is no error of OpenSSL's: without a session and without a certificate the handshake fails.
int Connection::FindKey(SSL* tls, const unsigned char* name, std::size_t length, SSL_SESSION** session) {
    const auto* own = static_cast<const Connection*>(SSL_get_app_data(tls));
    *session = nullptr;
    if (!std::equal(name, name + length, own->mKey.name.begin(), own->mKey.name.end())) {
        return 1;
    }
    *session = own->MakeSession().release();
    return *session == nullptr ? 0 : 1;
}

int Connection::Fail() {
    mFailed = true;
    return LINK_FAILED;
}

int Connection::Handshake() {
    const CallScope scope;
    if (!IsUsable()) {
        return LINK_FAILED;
    }
    // Without the socket first: what waits must leave before a blocking socket is asked for the answer, and a
    // peer that reads nothing must not make it grow.
    int result = mEstablished ? 1 : Continue(false);
    if (result == LINK_WANTS_READ) {
        result = Continue(true);
    }
    if (result == 1 && !mEstablished) {
        if (!IsAsAgreed(mTls.get())) {
            return Fail();
        }
        mKey.secret.Erase();
        mEstablished = true;
        mWatch.SetEstablished();
    }
    return result;
}

int Connection::Continue(bool mayRead) {
    mBio.PermitRead(mayRead);
    const bool done = SSL_do_handshake(mTls.get()) == 1;
    const bool blocked = mBio.IsBlocked();
    const SocketBio::Progress flushed = mBio.Flush();
    if (flushed == SocketBio::Progress::FAILED || (!done && !blocked)) {
        return Fail();
    }
    if (flushed == SocketBio::Progress::BLOCKED) {
        return LINK_WANTS_WRITE;
    }
    return done ? 1 : LINK_WANTS_READ;
}

int Connection::Read(void* bytes, unsigned size) {
    const CallScope scope;
    if (!IsOpen()) {
        return LINK_FAILED;
    }
    const std::size_t wanted = std::min(size, static_cast<unsigned>(INT_MAX));
    std::size_t done = 0;
    std::size_t count = 0;
    mBio.PermitRead(true);
    while (done < wanted &&
           SSL_read_ex(mTls.get(), static_cast<char*>(bytes) + done, wanted - done, &count) == 1) {
        done += count;
        // A blocking socket must not be asked again when there is something to return.
        mBio.PermitRead(false);
    }
    mDrained = mBio.IsBlocked();
    mEnded = done < wanted && !mDrained;
    mBio.Flush(MSG_DONTWAIT);  // an answer to a new key, or an alert
    if (done > 0 || wanted == 0) {
        return static_cast<int>(done);  // what ended the loop is met again by the next call
    }
    if (mDrained) {
        return LINK_WANTS_READ;
    }
    return (SSL_get_shutdown(mTls.get()) & SSL_RECEIVED_SHUTDOWN) != 0 && IsUsable() ? 0 : Fail();
}

int Connection::Write(const void* bytes, unsigned size) {
    const CallScope scope;
    if (!IsOpen()) {
        return LINK_FAILED;
    }
    const unsigned wanted = std::min(size, static_cast<unsigned>(INT_MAX));
    unsigned done = 0;
    while (true) {
        const SocketBio::Progress flushed = mBio.Flush();
        if (flushed == SocketBio::Progress::FAILED) {
            return Fail();
        }
        if (flushed == SocketBio::Progress::BLOCKED) {
            return done > 0 ? static_cast<int>(done) : LINK_WANTS_WRITE;
        }
        const unsigned sent = std::min(mSealed, wanted - done);
        mSealed -= sent;
        done += sent;
        if (done == wanted) {
            return static_cast<int>(done);
        }
        if (!Seal(static_cast<const char*>(bytes) + done, wanted - done)) {
            return Fail();
        }
    }
}

// Encrypts the first of the bytes. mSealed is 0 before.
bool Connection::Seal(const char* bytes, std::size_t size) {
    const std::size_t batch = std::min(size, RECORDS_AT_ONCE * RECORD_BYTES);
    try {
        mBio.Reserve(batch + (batch / RECORD_BYTES + 1) * RECORD_OVERHEAD);
    } catch (const std::bad_alloc&) {
        return false;
    }
    while (mSealed < batch) {
        std::size_t count = 0;
        const std::size_t next = std::min(batch - mSealed, RECORD_BYTES);
        if (!RenewKey() || SSL_write_ex(mTls.get(), bytes + mSealed, next, &count) != 1) {
            return false;
        }
        mSealed += static_cast<unsigned>(count);
    }
    return true;
}

bool Connection::RenewKey() {
    if (mRecords++ < mRecordsPerKey) {
        return true;
    }
    mRecords = 1;
    return SSL_key_update(mTls.get(), SSL_KEY_UPDATE_NOT_REQUESTED) == 1;
}

bool Connection::HasPending() {
    const CallScope scope;
    if (mEnded || !IsUsable()) {
        return true;  // Read tells so at once
    }
    if (!mEstablished || mDrained || SSL_has_pending(mTls.get()) == 0) {
        return false;
    }
    // OpenSSL may hold the beginning of a record, for which Read would have to wait.
    char first = 0;
    std::size_t count = 0;
    mBio.PermitRead(false);
    if (SSL_peek_ex(mTls.get(), &first, 1, &count) == 1) {
        return true;
    }
    mDrained = mBio.IsBlocked();
    return !mDrained;
}

void Connection::Shutdown() {
    const CallScope scope;
    // OpenSSL forbids it after a failure.
    if (IsOpen()) {
        SSL_shutdown(mTls.get());
        mBio.Flush(MSG_DONTWAIT);
    }
}

}  // namespace lumora_link
