#include "hub/core/device_board.h"

#include <algorithm>

namespace lumora_hub {

namespace {

ServiceState* ServiceNamed(DeviceState& device, const std::string& name) {
    const auto found = std::find_if(device.services.begin(), device.services.end(),
                                    [&](const ServiceState& service) { return service.name == name; });
    return found != device.services.end() ? &*found : nullptr;
}

// Called for each consumer and device, so it makes no text.
bool IsTypeAtAddress(const DeviceState& device, const std::string& name) {
    const std::size_t at = device.type.size();
    return name.size() == at + 1 + device.address.size() && name.compare(0, at, device.type) == 0 &&
           name[at] == '@' && name.compare(at + 1, std::string::npos, device.address) == 0;
}

DeviceState AsOfNow(DeviceState device) {
    if (device.isPresent) {
        device.lastSeen = std::chrono::system_clock::now();
    }
    return device;
}

}  // namespace

void DeviceBoard::Set(const DeviceState& device) {
    const lumora::MutexLock lock(mMutex);
    DeviceState former = std::move(mDevices[device.id]);
    DeviceState& latest = mDevices[device.id] = device;
    for (ServiceState& service : latest.services) {
        if (const ServiceState* counted = ServiceNamed(former, service.name)) {
            service.blocks = counted->blocks;
            service.bytes = counted->bytes;
            service.consumers = counted->consumers;
        }
    }
}

void DeviceBoard::Remove(const std::string& id) {
    const lumora::MutexLock lock(mMutex);
    const auto found = mDevices.find(id);
    if (found != mDevices.end()) {
        const auto chosen = mChosen.find(found->second.type);
        if (chosen != mChosen.end() && chosen->second == id) {
            mChosen.erase(chosen);
        }
        mDevices.erase(found);
    }
}

void DeviceBoard::CountBlock(const std::string& id, const std::string& service, std::size_t bytes) {
    const lumora::MutexLock lock(mMutex);
    const auto device = mDevices.find(id);
    if (ServiceState* counted = device != mDevices.end() ? ServiceNamed(device->second, service) : nullptr) {
        ++counted->blocks;
        counted->bytes += bytes;
    }
}

void DeviceBoard::SetConsumers(const std::string& id, const std::map<std::string, std::size_t>& consumers) {
    const lumora::MutexLock lock(mMutex);
    const auto device = mDevices.find(id);
    if (device == mDevices.end()) {
        return;
    }
    for (ServiceState& service : device->second.services) {
        const auto count = consumers.find(service.name);
        service.consumers = count != consumers.end() ? count->second : 0;
    }
}

std::vector<DeviceState> DeviceBoard::All() const {
    std::vector<DeviceState> devices;
    const lumora::MutexLock lock(mMutex);
    devices.reserve(mDevices.size());
    for (const auto& [id, device] : mDevices) {
        devices.push_back(AsOfNow(device));
    }
    return devices;
}

std::optional<DeviceState> DeviceBoard::Find(const std::string& name) const {
    const lumora::MutexLock lock(mMutex);
    const DeviceState* const device = Lookup(name);
    return device != nullptr ? std::optional(AsOfNow(*device)) : std::nullopt;
}

std::string DeviceBoard::Resolve(const std::string& name) const {
    const lumora::MutexLock lock(mMutex);
    const DeviceState* const device = Lookup(name);
    return device != nullptr ? device->id : std::string();
}

// If the device with this id has left, another one of its type may have come to its address.
const DeviceState* DeviceBoard::Lookup(const std::string& name) const {
    const auto exact = mDevices.find(name);
    if (exact != mDevices.end() && exact->second.isPresent) {
        return &exact->second;
    }
    if (const DeviceState* const device = LookupType(name)) {
        return device;
    }
    for (const auto& [id, device] : mDevices) {
        if (device.isPresent && IsTypeAtAddress(device, name)) {
            return &device;
        }
    }
    return exact != mDevices.end() ? &exact->second : nullptr;
}

const DeviceState* DeviceBoard::LookupType(const std::string& type) const {
    const auto chosen = mChosen.find(type);
    const auto former = chosen != mChosen.end() ? mDevices.find(chosen->second) : mDevices.end();
    if (former != mDevices.end() && former->second.isPresent) {
        return &former->second;
    }
    for (const auto& [id, device] : mDevices) {
        if (device.isPresent && device.type == type) {
            mChosen[type] = id;
            return &device;
        }
    }
    return former != mDevices.end() ? &former->second : nullptr;
}

}  // namespace lumora_hub
