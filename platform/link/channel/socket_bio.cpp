#include "platform/link/channel/socket_bio.h"

#include <sys/socket.h>

#include <cerrno>
#include <new>

namespace lumora_link {

BIO* SocketBio::Make() {
    // Never freed: at the end of the process, connections may still be in use.
    static const BIO_METHOD* const method = MakeMethod();
    BIO* bio = method == nullptr ? nullptr : BIO_new(method);
    if (bio != nullptr) {
        BIO_set_data(bio, this);
        BIO_set_init(bio, 1);
    }
    return bio;
}

BIO_METHOD* SocketBio::MakeMethod() {
    BIO_METHOD* method = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "lumora socket");
    if (method != nullptr) {
        BIO_meth_set_read(method, OnRead);
        BIO_meth_set_write(method, OnWrite);
        BIO_meth_set_ctrl(method, OnControl);
    }
    return method;
}

void SocketBio::PermitRead(bool permitted) {
    mMayRead = permitted;
    mBlocked = false;
}

SocketBio::Progress SocketBio::Flush(int flags) {
    while (mSent < mOut.size()) {
        const ssize_t bytes = send(mSocket, mOut.data() + mSent, mOut.size() - mSent, MSG_NOSIGNAL | flags);
        if (bytes >= 0) {
            mSent += static_cast<std::size_t>(bytes);
        } else if (errno != EINTR) {
            return errno == EAGAIN || errno == EWOULDBLOCK ? Progress::BLOCKED : Progress::FAILED;
        }
    }
    mOut.clear();
    mSent = 0;
    return Progress::DONE;
}

int SocketBio::OnRead(BIO* bio, char* bytes, int size) {
    auto* own = static_cast<SocketBio*>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    ssize_t count = -1;
    errno = EAGAIN;
    if (own->mMayRead) {
        own->mMayRead = false;
        do {
            count = recv(own->mSocket, bytes, static_cast<std::size_t>(size), 0);
        } while (count < 0 && errno == EINTR);
    }
    if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        own->mBlocked = true;
        BIO_set_retry_read(bio);
    }
    own->mAtEnd = count == 0;
    return static_cast<int>(count);
}

int SocketBio::OnWrite(BIO* bio, const char* bytes, int size) {
    auto* own = static_cast<SocketBio*>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    try {
        own->mOut.insert(own->mOut.end(), bytes, bytes + size);
    } catch (const std::bad_alloc&) {
        return -1;
    }
    return size;
}

long SocketBio::OnControl(BIO* bio, int command, long, void*) {
    switch (command) {
        case BIO_CTRL_FLUSH:
            return 1;
        case BIO_CTRL_EOF:
            return static_cast<const SocketBio*>(BIO_get_data(bio))->mAtEnd ? 1 : 0;
        default:
            return 0;
    }
}

}  // namespace lumora_link
