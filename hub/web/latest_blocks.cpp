#include "hub/web/latest_blocks.h"

namespace lumora_hub::web {

LatestBlocks::LatestBlocks(DeviceHub& hub, std::size_t limit, MakeReady makeReady)
    : mHub(hub), mLimit(limit), mMakeReady(std::move(makeReady)) {}

bool LatestBlocks::Ask(const std::string& device, const std::string& service, std::uint64_t newConsumer,
                       BlockPointer& block) {
    const auto key = std::make_pair(device, service);
    auto place = mEntries.find(key);
    if (place == mEntries.end()) {
        if (mEntries.size() >= mLimit) {
            return false;
        }
        Entry entry;
        entry.number = newConsumer;
        entry.consumer = std::make_shared<Consumer>("web latest", QueueLimits{1}, mMakeReady(newConsumer));
        entry.registration = mHub.Subscribe(device, service, entry.consumer);
        if (!entry.registration) {
            return false;
        }
        place = mEntries.emplace(key, std::move(entry)).first;
    }
    place->second.asked = Clock::now();
    block = place->second.latest;
    return true;
}

std::pair<std::string, std::string> LatestBlocks::Take(std::uint64_t consumer, BlockPointer& block) {
    for (auto& [key, entry] : mEntries) {
        if (entry.number == consumer) {
            while (BlockPointer next = entry.consumer->Take()) {
                entry.latest = std::move(next);
            }
            block = entry.latest;
            return key;
        }
    }
    return {};
}

void LatestBlocks::DropOld() {
    const Clock::time_point now = Clock::now();
    for (auto place = mEntries.begin(); place != mEntries.end();) {
        place = now - place->second.asked > KEEP ? mEntries.erase(place) : std::next(place);
    }
}

}  // namespace lumora_hub::web
