#include "tools/lumora/os/waiting.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>

#include "tools/lumora/os/signals.h"
#include "tools/lumora/terminal/failure.h"

namespace lumora_cli {

// poll takes an int, and a year in milliseconds does not fit: hence the upper bound. Rounded up, because a
// wait of 0 ms before the deadline would spin.
int PollTime(Deadline deadline, std::chrono::milliseconds most) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    return static_cast<int>(std::clamp(left, std::chrono::milliseconds(0), most).count());
}

Woken Wait(int fd, Deadline deadline) {
    while (true) {
        // Standard output is watched for errors only: POLLERR tells that its reader has left.
        pollfd watched[] = {{StopFd(), POLLIN, 0}, {fd, POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
        poll(watched, std::size(watched), PollTime(deadline));
        // The stop goes first: data that never end must not hide a signal.
        if (watched[0].revents != 0) {
            return Woken::STOPPED;
        }
        if ((watched[2].revents & POLLERR) != 0) {
            throw QuietEnd(EXIT_BY_SIGNAL + SIGPIPE);
        }
        if (watched[1].revents != 0) {
            return Woken::READY;
        }
        if (Clock::now() >= deadline) {
            return Woken::LATE;
        }
    }
}

}  // namespace lumora_cli
