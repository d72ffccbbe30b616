// Leaves errno and this thread's queue of OpenSSL errors as the caller had them.
#pragma once

#include <openssl/err.h>

#include <cerrno>

namespace lumora_link {

class CallScope {
public:
    CallScope() : mErrno(errno) { ERR_set_mark(); }
    ~CallScope() {
        ERR_pop_to_mark();
        errno = mErrno;
    }
    CallScope(const CallScope&) = delete;
    CallScope& operator=(const CallScope&) = delete;

private:
    const int mErrno;
};

}  // namespace lumora_link
