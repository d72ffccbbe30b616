#include "hub/core/consumer_table.h"

#include <algorithm>
#include <utility>

namespace lumora_hub {

std::shared_ptr<ConsumerEntry> ConsumerTable::Add(const std::string& device, const std::string& service,
                                                  std::shared_ptr<Consumer> consumer) {
    auto entry = std::make_shared<ConsumerEntry>();
    entry->device = device;
    entry->service = service;
    entry->consumer = std::move(consumer);
    const lumora::MutexLock lock(mMutex);
    const auto isSister = [&](const auto& other) {
        return other->consumer->Name() == entry->consumer->Name();
    };
    const auto sisters = std::count_if(mEntries.begin(), mEntries.end(), isSister);
    if (mEntries.size() >= mMost || static_cast<std::size_t>(sisters) >= mMost - mMost / 4) {
        return nullptr;
    }
    mEntries.push_back(entry);
    return entry;
}

void ConsumerTable::Remove(const std::shared_ptr<ConsumerEntry>& entry) {
    const lumora::MutexLock lock(mMutex);
    mEntries.erase(std::remove(mEntries.begin(), mEntries.end(), entry), mEntries.end());
}

ConsumerList ConsumerTable::All() const {
    const lumora::MutexLock lock(mMutex);
    return mEntries;
}

std::size_t ConsumerTable::Size() const {
    const lumora::MutexLock lock(mMutex);
    return mEntries.size();
}

}  // namespace lumora_hub
