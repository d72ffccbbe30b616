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
#include "hub/core/quota.h"

namespace lumora_hub::web {

// Belongs to the service thread.
class LatestBlocks {
public:
    using Clock = std::chrono::steady_clock;
    // Makes the callback of a consumer of this number.
    using MakeReady = std::function<std::function<void()>(std::uint64_t consumer)>;

    LatestBlocks(DeviceHub& hub, std::size_t limit, std::size_t limitOfAddress, MakeReady makeReady);

    struct Asker {
        std::uint64_t newConsumer = 0;  // its number if the service has none yet
        std::string address;
    };

    // False if too many services are asked for. The service is subscribed for KEEP after the last call.
    // block is empty until one has come.
    bool Ask(const std::string& device, const std::string& service, const Asker& asker, BlockPointer& block);
    // A block came for a consumer. The result is the device and the service; empty if the consumer is none of
    // this.
    std::pair<std::string, std::string> Take(std::uint64_t consumer, BlockPointer& block);
    void DropOld();

    static constexpr std::chrono::seconds KEEP{30};

private:
    struct Entry {
        std::uint64_t number = 0;
        Quota::Share share;  // of the address that asked first
        std::shared_ptr<Consumer> consumer;
        BlockPointer latest;
        Clock::time_point asked;
        std::unique_ptr<Registration> registration;  // destroyed first
    };

    DeviceHub& mHub;
    Quota mQuota;
    const MakeReady mMakeReady;
    std::map<std::pair<std::string, std::string>, Entry> mEntries;
};

}  // namespace lumora_hub::web
