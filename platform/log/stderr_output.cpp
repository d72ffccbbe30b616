#include "stderr_output.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>

#include "signal_shield.h"

namespace lumora_log {
namespace {

// How long the logging thread waits for a reader that does not read. The line is lost after that.
constexpr int PATIENCE_MS = 200;

bool WaitUntilWritable() {
    pollfd target{STDERR_FILENO, POLLOUT, 0};
    const int ready = poll(&target, 1, PATIENCE_MS);
    if (ready == 0) {
        errno = EAGAIN;
    }
    // poll reports errors and hang-ups as ready. The following write returns the reason.
    return ready > 0;
}

}  // namespace

bool WriteToStderr(const char* data, size_t size) {
    while (size > 0) {
        if (!WaitUntilWritable()) {
            return false;
        }
        // A pipe that polls as writable takes PIPE_BUF bytes without blocking, and in one piece: lines of
        // several processes do not mix.
        const ssize_t written = write(STDERR_FILENO, data, std::min<size_t>(size, PIPE_BUF));
        if (written < 0 && errno != EINTR) {
            return false;
        }
        if (written > 0) {
            data += written;
            size -= static_cast<size_t>(written);
        }
    }
    return true;
}

void ReportToStderr(const char* format, ...) {
    char text[512] = "link_log: ";
    const size_t prefix = sizeof("link_log: ") - 1;
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(text + prefix, sizeof(text) - prefix - 1, format, arguments);
    va_end(arguments);
    size_t end =
        prefix + std::min<size_t>(static_cast<size_t>(std::max(length, 0)), sizeof(text) - prefix - 2);
    text[end++] = '\n';
    const SignalShield shield;
    WriteToStderr(text, end);
}

}  // namespace lumora_log
