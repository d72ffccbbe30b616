#include "tools/lumora/os/waiting.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>

#include "tools/lumora/os/signals.h"
#include "tools/lumora/terminal/failure.h"

namespace lumora_cli {

namespace {

constexpr std::chrono::milliseconds LONGEST_POLL = std::chrono::minutes(1);

int PollTime(Deadline deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    return static_cast<int>(std::clamp(left, std::chrono::milliseconds(0), LONGEST_POLL).count());
}

}  // namespace

Woken Wait(int fd, Deadline deadline) {
    while (true) {
        pollfd watched[] = {{StopFd(), POLLIN, 0}, {fd, POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
        poll(watched, std::size(watched), PollTime(deadline));
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
