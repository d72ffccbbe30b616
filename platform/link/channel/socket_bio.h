// The socket as OpenSSL sees it. Unlike OpenSSL's own BIO for sockets it raises no SIGPIPE, reads only when
// it may, and sends many records by one call of the kernel.
#pragma once

#include <openssl/bio.h>

#include <cstddef>
#include <vector>

namespace lumora_link {

class SocketBio {
public:
    enum class Progress { DONE, BLOCKED, FAILED };

    explicit SocketBio(int socket) : mSocket(socket) {}
    SocketBio(const SocketBio&) = delete;
    SocketBio& operator=(const SocketBio&) = delete;

    // Null without memory. The result must not outlive this object; its owner frees it.
    BIO* Make();

    // OpenSSL may read the socket once, or not at all. A further attempt counts as blocked.
    void PermitRead(bool permitted);
    // Whether OpenSSL has wanted bytes in vain since PermitRead.
    bool IsBlocked() const { return mBlocked; }

    // What OpenSSL writes is kept until Flush.
    void Reserve(std::size_t bytes) { mOut.reserve(mOut.size() + bytes); }
    // flags are those of send.
    Progress Flush(int flags = 0);

private:
    static int OnRead(BIO* bio, char* bytes, int size);
    static int OnWrite(BIO* bio, const char* bytes, int size);
    static long OnControl(BIO* bio, int command, long number, void* pointer);
    static BIO_METHOD* MakeMethod();

    const int mSocket;
    bool mMayRead = false;
    bool mBlocked = false;
    bool mAtEnd = false;
    std::vector<char> mOut;
    std::size_t mSent = 0;
};

}  // namespace lumora_link
