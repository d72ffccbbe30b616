#include "hub/mqtt/feeds.h"

#include <fnmatch.h>

#include <algorithm>
#include <iterator>
#include <utility>

namespace lumora_hub {

Feeds::Feeds(DeviceHub& hub, const MqttSettings& settings, std::shared_ptr<Wakeup> wakeup)
    : mHub(hub), mSettings(settings), mWakeup(std::move(wakeup)) {}

bool Feeds::Follow(const DeviceState& device) {
    const auto isThere = [&](const std::string& name) {
        return std::any_of(device.services.begin(), device.services.end(),
                           [&](const ServiceState& service) { return service.name == name; });
    };
    for (Feed& feed : mFeeds) {
        if (feed.device == device.id && !isThere(feed.service)) {
            feed.registration.reset();
        }
    }
    for (const ServiceState& service : device.services) {
        if (!IsWanted(device.id, service.name)) {
            continue;
        }
        Feed& feed = FindOrAdd(device.id, service.name);
        if (feed.registration == nullptr) {
            feed.registration = mHub.Subscribe(device.id, service.name, feed.consumer);
        }
        // A device that came after many others has services that do not fit either. They are not tried now.
        if (feed.registration == nullptr) {
            return false;
        }
    }
    return true;
}

void Feeds::Leave(const std::string& device) {
    for (auto feed = mFeeds.begin(); feed != mFeeds.end();) {
        const auto current = feed++;
        if (current->device == device) {
            current->registration.reset();
            EraseIfDone(current);
        }
    }
}

// Whether a queue is ready is asked before it is looked at. So a block that comes after the look marks it
// again.
BlockPointer Feeds::Next() {
    for (auto feed = mFeeds.begin(); feed != mFeeds.end();) {
        const auto current = feed++;
        if (!current->signal->isReady.exchange(false)) {
            continue;
        }
        BlockPointer block = current->consumer->Take();
        if (block == nullptr) {
            EraseIfDone(current);
            continue;
        }
        current->signal->isReady = true;
        mFeeds.splice(mFeeds.end(), mFeeds, current);
        return block;
    }
    return nullptr;
}

std::size_t Feeds::Waiting() const {
    std::size_t waiting = 0;
    for (const Feed& feed : mFeeds) {
        waiting += feed.consumer->Counts().waiting;
    }
    return waiting;
}

bool Feeds::IsWanted(const std::string& device, const std::string& service) const {
    const std::string name = device + '/' + service;
    return std::any_of(mSettings.services.begin(), mSettings.services.end(), [&](const std::string& pattern) {
        return fnmatch(pattern.c_str(), name.c_str(), 0) == 0;
    });
}

Feeds::Feed& Feeds::FindOrAdd(const std::string& device, const std::string& service) {
    const auto place = std::find_if(mFeeds.begin(), mFeeds.end(), [&](const Feed& feed) {
        return feed.device == device && feed.service == service;
    });
    if (place != mFeeds.end()) {
        return *place;
    }
    Feed feed;
    feed.device = device;
    feed.service = service;
    feed.signal = std::make_shared<Signal>();
    feed.signal->wakeup = mWakeup;
    feed.consumer = std::make_shared<Consumer>("mqtt", mSettings.queue, [signal = feed.signal] {
        signal->isReady = true;
        signal->wakeup->Set();
    });
    return mFeeds.emplace_back(std::move(feed));
}

std::uint64_t Feeds::LostByFeeds() const {
    std::uint64_t lost = 0;
    for (const Feed& feed : mFeeds) {
        lost += feed.consumer->Counts().lost;
    }
    return lost;
}

// A feed without a registration gets no more blocks.
void Feeds::EraseIfDone(std::list<Feed>::iterator feed) {
    const ConsumerCounts counts = feed->consumer->Counts();
    if (feed->registration == nullptr && counts.waiting == 0) {
        mLostBefore += counts.lost;
        mFeeds.erase(feed);
    }
}

}  // namespace lumora_hub
