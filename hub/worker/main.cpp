// lumora-hub-worker: holds the channel to one device for lumora-hub, which starts it.
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "hub/worker/device_client.h"

namespace lumora_hub {

namespace {

// The hub puts its socket there.
constexpr int HUB_SOCKET = 3;

// For the goodbye to a device that does not answer.
constexpr unsigned GOODBYE_SECONDS = 3;

std::optional<int> ParsePort(const char* text) {
    constexpr int LAST_PORT = 65534;
    int port = 0;
    const char* const end = text + std::strlen(text);
    const auto [rest, error] = std::from_chars(text, end, port);
    return error == std::errc() && rest == end && port > 0 && port <= LAST_PORT ? std::optional(port)
                                                                                : std::nullopt;
}

void ReadWakes(int fd) {
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t taken = read(fd, &count, sizeof(count));
}

// Returns when the hub has closed its end, or has said something else than frames.
void Serve(Outbox& outbox, DeviceClient& client) {
    FrameReader reader([&](Frame frame) { client.Handle(std::move(frame)); });
    while (true) {
        const short events = outbox.IsWaiting() ? POLLIN | POLLOUT : POLLIN;
        std::array<pollfd, 2> waiting = {pollfd{HUB_SOCKET, events, 0}, pollfd{outbox.WakeFd(), POLLIN, 0}};
        poll(waiting.data(), waiting.size(), -1);
        if (waiting[1].revents != 0) {
            ReadWakes(outbox.WakeFd());
        }
        outbox.Flush();
        if ((waiting[0].revents & ~POLLOUT) != 0 && reader.Read(HUB_SOCKET) != FrameReader::Result::WAITING) {
            return;
        }
    }
}

int Main(int count, char** words) {
    const auto port = count == 5 ? ParsePort(words[3]) : std::nullopt;
    const auto dataPort = count == 5 ? ParsePort(words[4]) : std::nullopt;
    if (!port || !dataPort || fcntl(HUB_SOCKET, F_SETFD, FD_CLOEXEC) != 0) {
        std::fputs("lumora-hub starts this program; it is of no use alone\n", stderr);
        return 2;
    }
    // Ctrl-C goes to the hub as well, which closes the socket in good order.
    std::signal(SIGINT, SIG_IGN);
    std::signal(SIGTERM, SIG_IGN);
    Outbox outbox(HUB_SOCKET, {});
    {
        DeviceClient client({words[1], words[2], *port, *dataPort}, outbox);
        Serve(outbox, client);
        std::signal(SIGALRM, SIG_DFL);
        alarm(GOODBYE_SECONDS);
    }
    return 0;
}

}  // namespace

}  // namespace lumora_hub

int main(int count, char** words) { return lumora_hub::Main(count, words); }
