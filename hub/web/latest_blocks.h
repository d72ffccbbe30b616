// Keeps the latest block of the services that are asked for it.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "hub/core/device_hub.h"

namespace lumora_hub::web {

// Belongs to the service thread.
class LatestBlocks {
public:
    using Clock = std::chrono::steady_clock;
    // Makes the callback of a consumer of this number.
    using MakeReady = std::function<std::function<void()>(std::uint64_t consumer)>;

    LatestBlocks(DeviceHub& hub, std::size_t limit, MakeReady makeReady);

    // False if too many services are asked for. The service is subscribed for KEEP after the last call.
    // block is empty until one has come.
    bool Ask(const std::string& device, const std::string& service, std::uint64_t newConsumer,
             BlockPointer& block);
    // A block came for a consumer. The result is the device and the service; empty if the consumer is none of
    // this.
    std::pair<std::string, std::string> Take(std::uint64_t consumer, BlockPointer& block);
    void DropOld();

    static constexpr std::chrono::seconds KEEP{30};

private:
    struct Entry {
        std::uint64_t number = 0;
        std::shared_ptr<Consumer> consumer;
        BlockPointer latest;
        Clock::time_point asked;
        std::unique_ptr<Registration> registration;  // destroyed first
    };

    DeviceHub& mHub;
    const std::size_t mLimit;
    const MakeReady mMakeReady;
    std::map<std::pair<std::string, std::string>, Entry> mEntries;
};

}  // namespace lumora_hub::web
