// A descriptor and its one closer.
#pragma once

#include <unistd.h>

#include <utility>

namespace lumora_link {

class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : mFd(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : mFd(std::exchange(other.mFd, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        std::swap(mFd, other.mFd);
        return *this;
    }
    ~UniqueFd() {
        if (mFd >= 0) {
            close(mFd);
        }
    }

    int Get() const { return mFd; }
    explicit operator bool() const { return mFd >= 0; }

private:
    int mFd = -1;
};

}  // namespace lumora_link
