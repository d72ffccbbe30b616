// Consumers of the hub: many clients of one kind, which connect again when the hub is started again.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace lumora_test {

struct ReadBlock {
    std::size_t reader = 0;    // which of the clients, from 0
    std::uint64_t number = 0;  // the hub's
    std::uint64_t lost = 0;    // as the hub tells it over a WebSocket; otherwise 0
    std::size_t size = 0;      // of the whole block
    std::string_view start;    // as many of its first bytes as are kept
};

struct ReadersOptions {
    std::string kind;  // websocket, events or mqtt
    int port = 0;      // of the hub, or of the broker, on 127.0.0.1
    std::string device;
    std::string service;
    std::string query;  // of the request for the stream, with its question mark; unused over MQTT
    std::size_t count = 1;
    std::size_t kept = 0;  // first bytes of each block
    std::function<void(const ReadBlock& block)> onBlock;
    std::function<void(std::size_t reader)> onConnected;
};

// One thread uses it, and its functions call back on that thread.
class HubReaders {
public:
    // Throws std::runtime_error if the kind is not known or MQTT is not built in.
    static std::unique_ptr<HubReaders> Make(ReadersOptions options);
    virtual ~HubReaders() = default;

    // Reads until fd can be read, or so many milliseconds are over. True in the first case.
    virtual bool ServeUntilReadable(int fd, int milliseconds) = 0;
    // From now on the clients do not read, or read again. Those over MQTT always read.
    virtual void Stall(bool isStalled) = 0;
};

}  // namespace lumora_test
