#include "hub/core/consumer_table.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "hub/core/quota.h"

namespace lumora_hub {

namespace {

// The one in TYPE@ADDRESS or TYPE@ADDRESS:PORT; empty if the name is a type alone.
std::string_view AddressIn(const std::string& device) {
    const std::size_t at = device.rfind('@');
    const std::string_view rest = at != std::string::npos ? std::string_view(device).substr(at + 1) : "";
    return rest.substr(0, rest.find(':'));
}

}  // namespace

std::shared_ptr<ConsumerEntry> ConsumerTable::Add(const std::string& device, const std::string& service,
                                                  std::shared_ptr<Consumer> consumer) {
    auto entry = std::make_shared<ConsumerEntry>();
    entry->device = device;
    entry->service = service;
    entry->consumer = std::move(consumer);
    const std::string_view address = AddressIn(device);
    const std::size_t mostOfName = ThreeQuarters(mMost);
    std::size_t ofName = 0;
    std::size_t ofAddress = 0;
    const lumora::MutexLock lock(mMutex);
    for (const auto& other : mEntries) {
        if (other->consumer->Name() == entry->consumer->Name()) {
            ++ofName;
            ofAddress += !address.empty() && AddressIn(other->device) == address ? 1U : 0U;
        }
    }
    if (mEntries.size() >= mMost || ofName >= mostOfName || ofAddress >= ThreeQuarters(mostOfName)) {
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
