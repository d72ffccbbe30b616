#include "hub/web/latest_blocks.h"

namespace lumora_hub::web {

LatestBlocks::LatestBlocks(DeviceHub& hub, std::size_t limit, std::size_t limitOfAddress, MakeReady makeReady)
    : mHub(hub), mQuota(limit, limitOfAddress), mMakeReady(std::move(makeReady)) {}

bool LatestBlocks::Ask(const std::string& device, const std::string& service, const Asker& asker,
                       BlockPointer& block) {
    const auto key = std::make_pair(device, service);
    auto place = mEntries.find(key);
    if (place == mEntries.end()) {
        Entry entry;
        entry.share = mQuota.Take(asker.address);
        if (!entry.share) {
            return false;
        }
        entry.number = asker.newConsumer;
        entry.consumer =
            std::make_shared<Consumer>("web latest", QueueLimits{1}, mMakeReady(asker.newConsumer));
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
