#include "client/remote_devices.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "base/log.h"
#include "protocol/control_documents.h"
#include "securec.h"

namespace lumoraAiModule {

using lumora::LinkDevice;

namespace {

std::string AddressKey(const std::string& addr, int port) { return addr + ":" + std::to_string(port); }

}  // namespace

// The text comes from any host that says it is a device. Its length bounds the work, and its fields are
// checked when it is parsed.
int SearchResult::StoreRemoteServiceInfo(std::string& remoteInfo, std::shared_ptr<LinkDevice> device,
                                         LUM_DEVICE_INFO_S* devInfo) {
    if (devInfo == nullptr) {
        LUMORA_ERROR("invalid input paramers :devInfo is null!\n");
        return -1;
    }
    if (remoteInfo.empty()) {
        LUMORA_ERROR("remoteInfo is empty, please check remoteInfo!\n");
        return -1;
    }
    if (remoteInfo.length() > MAX_SERVICE_INFO_LENGTH) {
        LUMORA_ERROR("remoteInfo is exceed max length!\n");
        return -1;
    }
    LUMORA_STATE("Recveied info[length-%d]: %s.\n", static_cast<int>(remoteInfo.length()),
                 remoteInfo.c_str());
    if (ParseServiceInfoString(remoteInfo, devInfo) != 0) {
        LUMORA_ERROR("ParseServiceInfoString failed!\n");
        return -1;
    }
    std::string serviceType = devInfo->devServiceType;
    if (InsertServiceDevMap(serviceType, device) != 0) {
        LUMORA_ERROR("InsertServiceDevMap failed!!\n");
        return -1;
    }
    if (strncpy_s(devInfo->devServiceType, sizeof(devInfo->devServiceType), serviceType.c_str(),
                  serviceType.length()) != 0) {
        LUMORA_ERROR("strncpy_s failed!\n");
        return -1;
    }
    return 0;
}

// As many tries as there are entries always find a free name, because each try is longer than the one before.
// The type returned is what the application passes to LUM_CreateAiDevice, so the suffixes must stay as they
// are.
int SearchResult::InsertServiceDevMap(std::string& serviceType, std::shared_ptr<LinkDevice> device) {
    // A type that is taken gets a number appended to what it has become so far: T, T1, T12 ...
    const std::size_t tries = mServiceDevMap.size();
    for (std::size_t n = 1; n <= tries && mServiceDevMap.count(serviceType) != 0; ++n) {
        serviceType += std::to_string(n);
    }
    if (mServiceDevMap.count(serviceType) == 0) {
        LUMORA_DETAIL("will Insert ServiceType = %s\n", serviceType.c_str());
        mServiceDevMap[serviceType] = device;
    }
    mAddrServiceMap.emplace(AddressKey(device->Address(), device->Port()), serviceType);
    return 0;
}

RemoteDevices::Resolved RemoteDevices::Resolve(unsigned int handle) const {
    Resolved resolved;
    const auto type = mHandleServiceMap.find(handle);
    if (type == mHandleServiceMap.end()) {
        return resolved;
    }
    resolved.isHandle = true;
    resolved.serviceType = type->second;
    const auto device = mServiceDevMap.find(type->second);
    if (device != mServiceDevMap.end()) {
        resolved.device = device->second;
    }
    return resolved;
}

bool RemoteDevices::HasDevice(unsigned int handle) const {
    const auto type = mHandleServiceMap.find(handle);
    return type != mHandleServiceMap.end() && HasType(type->second);
}

// Compares the object, not the address: a device that left and came back is another object, and its channel
// another one.
bool RemoteDevices::Leads(unsigned int handle, const std::shared_ptr<LinkDevice>& device) const {
    return Resolve(handle).device == device;
}

// Allocates nothing, so a search cannot fail half-way. Handles are not touched: they lead by the type to the
// device of the newest search.
void RemoteDevices::Replace(SearchResult& result) {
    for (const std::string& address : mLeftWhileAsking) {
        const auto left = result.mAddrServiceMap.find(address);
        if (left != result.mAddrServiceMap.end()) {
            result.mServiceDevMap.erase(left->second);
        }
    }
    mServiceDevMap.swap(result.mServiceDevMap);
    mAddrServiceMap.merge(result.mAddrServiceMap);  // an entry that is there already stays
    if (mAddrServiceMap.size() > MAX_ADDRESSES) {
        DropAddressesOfFormerSearches();
    }
}

// Any host can take a new port for each search and would make the table grow without end. The addresses of
// devices with a handle stay: a client may be connected to them and has to be told when they leave.
void RemoteDevices::DropAddressesOfFormerSearches() {
    const auto isInUse = [this](const std::string& serviceType) {
        return HasType(serviceType) ||
               std::any_of(mHandleServiceMap.begin(), mHandleServiceMap.end(),
                           [&](const auto& handle) { return handle.second == serviceType; });
    };
    for (auto address = mAddrServiceMap.begin(); address != mAddrServiceMap.end();) {
        address = isInUse(address->second) ? std::next(address) : mAddrServiceMap.erase(address);
    }
}

// The first number that is free or has the type. A type whose handle lies above a number that has become free
// gets that number as a second handle; Forget and FindDeparted then act on the lower one.
unsigned int RemoteDevices::CreateHandle(const std::string& serviceType, bool& isNew) {
    unsigned int candidate = 1;
    auto taken = mHandleServiceMap.find(candidate);
    while (taken != mHandleServiceMap.end() && taken->second != serviceType) {
        taken = mHandleServiceMap.find(++candidate);
    }
    isNew = taken == mHandleServiceMap.end();
    if (isNew) {
        mHandleServiceMap.emplace(candidate, serviceType);
    }
    return candidate;
}

void RemoteDevices::Forget(unsigned int handle) {
    const auto type = mHandleServiceMap.find(handle);
    if (type != mHandleServiceMap.end()) {
        mServiceDevMap.erase(type->second);
        mHandleServiceMap.erase(type);
    }
}

RemoteDevices::Departed RemoteDevices::FindDeparted(const std::string& addr, int port) const {
    Departed departed;
    const auto known = mAddrServiceMap.find(AddressKey(addr, port));
    if (known == mAddrServiceMap.end()) {
        return departed;
    }
    departed.isKnown = true;
    departed.serviceType = known->second;
    for (const auto& [handle, serviceType] : mHandleServiceMap) {
        if (serviceType == departed.serviceType) {
            departed.handle = handle;
            break;
        }
    }
    const auto device = mServiceDevMap.find(departed.serviceType);
    if (device != mServiceDevMap.end()) {
        departed.device = device->second;
    }
    return departed;
}

// The insertion comes first, because nothing behind it can fail. The entry in mAddrServiceMap stays: an
// address keeps the type under which it was first found.
void RemoteDevices::Forget(const std::string& addr, int port, const Departed& departed) {
    mLeftWhileAsking.insert(AddressKey(addr, port));
    mServiceDevMap.erase(departed.serviceType);
    mHandleServiceMap.erase(departed.handle);
}

}  // namespace lumoraAiModule
