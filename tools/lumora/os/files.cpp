#include "tools/lumora/os/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "tools/lumora/os/signals.h"
#include "tools/lumora/os/waiting.h"
#include "tools/lumora/terminal/failure.h"

namespace lumora_cli {

namespace {

[[noreturn]] void ThrowUnwritable(const std::string& path, int error) {
    throw Failure(EXIT_FILE, path + " cannot be written: " + SystemError(error));
}

// 0, or the error.
int WriteNew(const std::string& path, std::string_view bytes) {
    UniqueFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    if (!file.IsOpen()) {
        return errno;
    }
    while (!bytes.empty()) {
        const ssize_t count = write(file.Get(), bytes.data(), bytes.size());
        if (count < 0 && errno != EINTR) {
            return errno;
        }
        bytes.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
    return 0;
}

}  // namespace

void WriteFile(const std::string& path, std::string_view bytes) {
    const std::string beside = path + ".part";
    const int error = WriteNew(beside, bytes);
    if (error != 0) {
        unlink(beside.c_str());
        ThrowUnwritable(path, error);
    }
    if (std::rename(beside.c_str(), path.c_str()) != 0) {
        const int renameError = errno;
        unlink(beside.c_str());
        ThrowUnwritable(path, renameError);
    }
}

void MakeFolder(const std::string& path) {
    struct stat status = {};
    if (mkdir(path.c_str(), 0777) != 0 && errno != EEXIST) {
        throw Failure(EXIT_FILE, "the folder " + path + " cannot be made: " + SystemError(errno));
    }
    if (stat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
        throw Failure(EXIT_FILE, path + " is no folder");
    }
}

InputFile::InputFile(const std::string& path) : mName(path == "-" ? "standard input" : path) {
    if (path == "-") {
        mFd = STDIN_FILENO;
    } else {
        mOwn = UniqueFd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
        mFd = mOwn.Get();
    }
    struct stat status = {};
    if (mFd < 0 || fstat(mFd, &status) != 0) {
        throw Failure(EXIT_FILE, mName + " cannot be read: " + SystemError(errno));
    }
    if (S_ISDIR(status.st_mode)) {
        throw Failure(EXIT_FILE, mName + " is a folder", "name the files in it");
    }
    mLength = S_ISREG(status.st_mode) ? static_cast<std::size_t>(status.st_size) : 0;
}

std::string InputFile::Read(std::size_t most) {
    std::string bytes(most, '\0');
    std::size_t length = 0;
    while (length < most) {
        if (Wait(mFd, Never()) == Woken::STOPPED) {
            ThrowWhenStopped();
        }
        const ssize_t count = read(mFd, bytes.data() + length, most - length);
        if (count == 0) {
            break;
        }
        if (count < 0 && errno != EINTR && errno != EAGAIN) {
            throw Failure(EXIT_FILE, mName + " cannot be read: " + SystemError(errno));
        }
        length += static_cast<std::size_t>(std::max<ssize_t>(count, 0));
    }
    bytes.resize(length);
    return bytes;
}

}  // namespace lumora_cli
