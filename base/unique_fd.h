// A file descriptor with one owner.
#pragma once

#include <unistd.h>

#include <utility>

namespace lumora {

// Closes its descriptor when it dies. Holds none if the number is negative, as after a failed system call.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : mFd(fd) {}
    ~UniqueFd() { Close(); }
    UniqueFd(UniqueFd&& other) noexcept : mFd(std::exchange(other.mFd, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) {
            Close();
            mFd = std::exchange(other.mFd, -1);
        }
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int Get() const { return mFd; }
    explicit operator bool() const { return mFd >= 0; }
    void Close() {
        if (mFd >= 0) {
            close(std::exchange(mFd, -1));
        }
    }

private:
    int mFd = -1;
};

}  // namespace lumora
