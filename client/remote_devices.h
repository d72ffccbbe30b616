// The remote devices that the client module knows, and the handles that were given out for them.
#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "link/link_device.h"
#include "lumora.h"

namespace lumoraAiModule {

// The devices of one search, each under a service type of its own. It belongs to the searching thread until
// the search has ended: asking the devices takes time, and no lock is held meanwhile.
class SearchResult {
public:
    // Both return 0 or -1 and log their failures.
    int StoreRemoteServiceInfo(std::string& remoteInfo, std::shared_ptr<lumora::LinkDevice> device,
                               LUM_DEVICE_INFO_S* devInfo);
    // Numbers serviceType when it is taken.
    int InsertServiceDevMap(std::string& serviceType, std::shared_ptr<lumora::LinkDevice> device);

private:
    friend class RemoteDevices;

    std::map<std::string, std::shared_ptr<lumora::LinkDevice>> mServiceDevMap;
    std::map<std::string, std::string> mAddrServiceMap;  // "address:port" to service type
};

// Not safe for threads: the module's mutex guards it. Nothing here waits for a device.
class RemoteDevices {
public:
    // What a handle leads to.
    struct Resolved {
        bool isHandle = false;  // false when the handle was not given out
        std::string serviceType;
        std::shared_ptr<lumora::LinkDevice> device;  // null when the handle's device is gone
    };
    Resolved Resolve(unsigned int handle) const;
    bool HasHandle(unsigned int handle) const { return mHandleServiceMap.count(handle) != 0; }
    bool HasDevice(unsigned int handle) const;
    // Whether the handle still leads to this device.
    bool Leads(unsigned int handle, const std::shared_ptr<lumora::LinkDevice>& device) const;

    // Between these two the devices of a search are asked for their services. The result replaces what was
    // known, without the devices that were known before and left meanwhile. Afterwards it holds the former
    // devices, to be released.
    void BeginAsking() { mLeftWhileAsking.clear(); }
    void Replace(SearchResult& result);

    bool HasType(const std::string& serviceType) const { return mServiceDevMap.count(serviceType) != 0; }
    // The smallest free number (isNew is true), or a smaller one that the type already has (isNew is false).
    unsigned int CreateHandle(const std::string& serviceType, bool& isNew);
    void Forget(unsigned int handle);
    void ClearHandles() { mHandleServiceMap.clear(); }
    void ClearDevices() { mServiceDevMap.clear(); }

    // A device that left the network, as it was known when it left.
    struct Departed {
        bool isKnown = false;  // false when no search has found a device at its address
        std::string serviceType;
        unsigned int handle = 0;                     // the type's lowest handle, 0 without one
        std::shared_ptr<lumora::LinkDevice> device;  // for the caller to release without its lock
    };
    Departed FindDeparted(const std::string& addr, int port) const;
    void Forget(const std::string& addr, int port, const Departed& departed);

private:
    static constexpr std::size_t MAX_ADDRESSES = 1024;

    void DropAddressesOfFormerSearches();

    std::map<std::string, std::shared_ptr<lumora::LinkDevice>> mServiceDevMap;
    std::map<unsigned int, std::string> mHandleServiceMap;
    std::map<std::string, std::string> mAddrServiceMap;  // "address:port" to service type
    std::set<std::string> mLeftWhileAsking;              // "address:port"
};

}  // namespace lumoraAiModule
