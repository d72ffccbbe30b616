// Which consumer wants which service of which device.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "hub/core/call_gate.h"
#include "hub/core/device_hub.h"

namespace lumora_hub {

// One wish of a consumer.
struct ConsumerEntry {
    std::string device;  // as the consumer named it
    std::string service;
    std::shared_ptr<Consumer> consumer;
    CallGate gate;  // every block goes through it
};

using ConsumerList = std::vector<std::shared_ptr<ConsumerEntry>>;

// Any thread may call its functions.
class ConsumerTable {
public:
    explicit ConsumerTable(std::size_t most) : mMost(most) {}

    // Null if the table is full. Consumers of one name have three quarters of it at most: one face must not
    // keep out the others. Of these, three quarters may name devices of one address: a face that follows all
    // devices must not follow those of one host only.
    std::shared_ptr<ConsumerEntry> Add(const std::string& device, const std::string& service,
                                       std::shared_ptr<Consumer> consumer);
    void Remove(const std::shared_ptr<ConsumerEntry>& entry);
    ConsumerList All() const;
    std::size_t Size() const;

private:
    const std::size_t mMost;
    mutable lumora::Mutex mMutex;  // a leaf lock
    ConsumerList mEntries GUARDED_BY(mMutex);
};

}  // namespace lumora_hub
