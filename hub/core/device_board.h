// The devices as every thread may see them.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "hub/core/device.h"

namespace lumora_hub {

// The hub's thread writes, any thread reads.
class DeviceBoard {
public:
    // Keeps the counts of services that were there before.
    void Set(const DeviceState& device);
    void Remove(const std::string& id);
    void CountBlock(const std::string& id, const std::string& service, std::size_t bytes);
    void SetConsumers(const std::string& id, const std::map<std::string, std::size_t>& consumers);

    std::vector<DeviceState> All() const;
    // The device of that name (an id, a TYPE@ADDRESS or a type), present ones first.
    std::optional<DeviceState> Find(const std::string& name) const;
    // Its id; empty if there is none.
    std::string Resolve(const std::string& name) const;

private:
    const DeviceState* Lookup(const std::string& name) const REQUIRES(mMutex);
    const DeviceState* LookupType(const std::string& type) const REQUIRES(mMutex);

    mutable lumora::Mutex mMutex;  // a leaf lock
    std::map<std::string, DeviceState> mDevices GUARDED_BY(mMutex);
    // A type alone means one device for as long as that one is there.
    mutable std::map<std::string, std::string> mChosen GUARDED_BY(mMutex);
};

}  // namespace lumora_hub
