// Chooses which connection to take: any host can connect to a data port while a channel is set up.
#pragma once

#include <netinet/in.h>

#include <chrono>
#include <string>

#include "transport/socket.h"

namespace lumoraAiModule {

// The peer's address is known when a channel is set up. A connection from there, or from this host, is taken
// at once. A peer with several addresses may connect from another one, so a connection from elsewhere is
// taken too, but only when none came from the expected address for a while.
class ExpectedPeer {
public:
    using Clock = std::chrono::steady_clock;
    // The peer connects within milliseconds. If its SYN is lost, its kernel repeats it after one second.
    static constexpr std::chrono::milliseconds PATIENCE{2000};

    // Expects any host when address is not dotted IPv4.
    explicit ExpectedPeer(const std::string& address = std::string());

    // Called when the waiting begins.
    void Begin(Clock::time_point now);
    // Takes over what was accepted, if anything was. Returns the connection to use, or none while it is to be
    // waited for. Of those from elsewhere the first that is still open is held; the others are closed.
    Descriptor Choose(Descriptor accepted, in_addr from, Clock::time_point now);
    // Whether a connection from there is taken at once.
    bool IsExpected(in_addr from) const;

private:
    in_addr mAddress = {};
    Descriptor mFromElsewhere;
    Clock::time_point mTakeAnyFrom;
};

}  // namespace lumoraAiModule
