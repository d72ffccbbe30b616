// The services that are published: a bounded queue for each, which the hub fills and one thread empties.
#pragma once

#include <atomic>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "hub/core/device_hub.h"
#include "hub/mqtt/settings.h"
#include "hub/mqtt/wakeup.h"

namespace lumora_hub {

// For one thread.
class Feeds {
public:
    // wakeup is set when there is a block.
    Feeds(DeviceHub& hub, const MqttSettings& settings, std::shared_ptr<Wakeup> wakeup);

    // Subscribes to the services of a device that are to be published, and leaves those that it no longer
    // has. Blocks that wait are kept. False if the hub does not take a consumer more: to be repeated later.
    bool Follow(const DeviceState& device);
    // Ends the subscriptions of a device. The blocks that wait are published still.
    void Leave(const std::string& device);

    // The services take turns. Null if none has a block.
    BlockPointer Next();

    std::uint64_t Lost() const { return mLostBefore + LostByFeeds(); }
    std::size_t Waiting() const;

private:
    // Outlives the feed: the hub may call onReady until the registration has ended.
    struct Signal {
        std::shared_ptr<Wakeup> wakeup;
        std::atomic<bool> isReady{false};
    };
    struct Feed {
        std::string device;
        std::string service;
        std::shared_ptr<Signal> signal;
        std::shared_ptr<Consumer> consumer;
        std::unique_ptr<Registration> registration;  // null: the device or its service has gone
    };

    bool IsWanted(const std::string& device, const std::string& service) const;
    Feed& FindOrAdd(const std::string& device, const std::string& service);
    std::uint64_t LostByFeeds() const;
    void EraseIfDone(std::list<Feed>::iterator feed);

    DeviceHub& mHub;
    const MqttSettings mSettings;
    const std::shared_ptr<Wakeup> mWakeup;
    std::list<Feed> mFeeds;         // the one whose turn it is stands first
    std::uint64_t mLostBefore = 0;  // by feeds that are no more
};

}  // namespace lumora_hub
