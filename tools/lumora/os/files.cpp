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
    lumora::UniqueFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    if (!file) {
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
    // rename replaces an older file in one step: a reader sees the old file or the whole new one.
    if (std::rename(beside.c_str(), path.c_str()) != 0) {
        // unlink may change errno.
        const int renameError = errno;
        unlink(beside.c_str());
        ThrowUnwritable(path, renameError);
    }
}

void MakeFolder(const std::string& path) {
    struct stat status = {};
    // The umask takes away what the user does not want. An existing folder is fine.
    if (mkdir(path.c_str(), 0777) != 0 && errno != EEXIST) {
        throw Failure(EXIT_FILE, "the folder " + path + " cannot be made: " + SystemError(errno));
    }
    if (stat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
        throw Failure(EXIT_FILE, path + " is no folder");
    }
}

namespace {

std::string NameOf(const std::string& path) { return path == "-" ? "standard input" : path; }

[[noreturn]] void ThrowUnreadable(const std::string& path, int error) {
    throw Failure(EXIT_FILE, NameOf(path) + " cannot be read: " + SystemError(error));
}

// Opening a FIFO blocks until it has a writer, and no signal that this program watches would end that.
// O_NONBLOCK opens it at once; until the first writer comes, reading gives the end of the file and polling
// nothing.
lumora::UniqueFd Open(const std::string& path) {
    lumora::UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd) {
        ThrowUnreadable(path, errno);
    }
    return fd;
}

bool IsFifo(int fd) {
    struct stat status = {};
    return fstat(fd, &status) == 0 && S_ISFIFO(status.st_mode);
}

}  // namespace

std::size_t InputFile::LengthOf(const std::string& path) {
    struct stat status = {};
    // stat and not open: opening a FIFO for a check would be noticed by its writer.
    const int result = path == "-" ? fstat(STDIN_FILENO, &status) : stat(path.c_str(), &status);
    if (result != 0 || (path != "-" && access(path.c_str(), R_OK) != 0)) {
        ThrowUnreadable(path, errno);
    }
    if (S_ISDIR(status.st_mode)) {
        throw Failure(EXIT_FILE, NameOf(path) + " is a folder", "name the files in it");
    }
    return S_ISREG(status.st_mode) ? static_cast<std::size_t>(status.st_size) : 0;
}

InputFile::InputFile(const std::string& path) : mName(NameOf(path)) {
    LengthOf(path);
    if (path == "-") {
        mFd = STDIN_FILENO;
        return;
    }
    mOwn = Open(path);
    mFd = mOwn.Get();
    // Waits for the first writer.
    if (IsFifo(mFd) && Wait(mFd, Never()) == Woken::STOPPED) {
        ThrowWhenStopped();
    }
}

// 0 at the end.
std::size_t InputFile::ReadSome(char* bytes, std::size_t most) {
    while (true) {
        if (Wait(mFd, Never()) == Woken::STOPPED) {
            ThrowWhenStopped();
        }
        const ssize_t count = read(mFd, bytes, most);
        if (count >= 0) {
            return static_cast<std::size_t>(count);
        }
        // EAGAIN: the descriptor does not block, and another process may have read the data first.
        if (errno != EINTR && errno != EAGAIN) {
            ThrowUnreadable(mName, errno);
        }
    }
}

std::string InputFile::Read(std::size_t most) {
    std::string bytes(most, '\0');
    std::size_t length = 0;
    std::size_t count = 1;
    // A pipe gives less than it was asked for, so this reads until the block is full or the input ends.
    while (length < most && count > 0) {
        count = ReadSome(bytes.data() + length, most - length);
        length += count;
    }
    bytes.resize(length);
    return bytes;
}

std::optional<std::string> InputFile::ReadLine(std::size_t most) {
    char bytes[65536];
    std::size_t end = mRest.find('\n');
    while (end == std::string::npos && mRest.size() < most) {
        const std::size_t count = ReadSome(bytes, sizeof(bytes));
        if (count == 0) {
            break;
        }
        // Only new bytes are searched: a long line that comes in small pieces would otherwise take quadratic
        // time.
        const std::size_t before = mRest.size();
        mRest.append(bytes, count);
        end = mRest.find('\n', before);
    }
    if (mRest.empty()) {
        return std::nullopt;
    }
    std::string line = mRest.substr(0, end);
    mRest.erase(0, end == std::string::npos ? end : end + 1);
    return line;
}

}  // namespace lumora_cli
