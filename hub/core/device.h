// What the hub knows of a device.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace lumora_hub {

struct ServiceState {
    std::string name;
    std::string transport;         // none, udp, tcp, rtp, 4 or 5, as the device tells it
    unsigned int outputBytes = 0;  // the length of its output, as the device tells it; 0 is any
    std::uint64_t blocks = 0;      // received since the hub knows the device
    std::uint64_t bytes = 0;
    std::size_t consumers = 0;
};

// The hub's data channel to a device.
enum class ChannelState {
    IDLE,        // none, because no consumer wants one
    CONNECTING,  // being opened, for the first time or again
    CONNECTED,
    FAILED  // the last try failed; the next one follows after a pause
};

// The word for it in documents and metrics: idle, connecting, connected or failed.
const char* NameOf(ChannelState state);

struct DeviceState {
    // TYPE@ADDRESS, with :PORT behind it if several nodes of this type are at that address. Stays the same
    // while the device is there, and is the same again if it comes back to that address.
    std::string id;
    std::string type;
    std::string address;  // IPv4
    int port = 0;         // the UDP port of its link platform
    std::string version;  // of its library; empty if it did not tell
    std::vector<ServiceState> services;

    bool isPresent = false;  // false: it has left, and is kept for a while because a consumer may wait for it
    ChannelState channel = ChannelState::IDLE;
    std::string trouble;                             // why the channel is FAILED, in a sentence for people
    std::optional<std::string> identity;             // the name of the key behind a private channel
    std::chrono::system_clock::time_point since;     // it came, or came back
    std::chrono::system_clock::time_point lastSeen;  // now, while it is present
    std::uint64_t reconnects = 0;
};

// A change in the list of devices.
struct DeviceEvent {
    enum class Kind { APPEARED, CHANGED, LEFT, FORGOTTEN };
    Kind kind = Kind::CHANGED;
    DeviceState device;  // after the change
};

}  // namespace lumora_hub
