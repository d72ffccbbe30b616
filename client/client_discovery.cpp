// The client module's remote devices: search, handles, removal.
#include <list>

#include "base/callback_scope.h"
#include "base/log.h"
#include "client/client_module.h"
#include "protocol/control_documents.h"
#include "securec.h"

namespace lumoraAiModule {

using lumora::LinkDevice;
using lumora::MutexLock;

namespace {

std::string AddressKey(const std::string& addr, int port) { return addr + ":" + std::to_string(port); }

}  // namespace

int LumoraClientModule::GetNetDeviceList(std::string& devType, LUM_DEVICES_INFO_S* devsInfo) {
    LUMORA_TRACE("Enter\n");
    if (devsInfo == nullptr) {
        LUMORA_ERROR("devsInfo invalid!\n");
        return -1;
    }
    if (!mIsRunning) {
        LUMORA_ERROR("mSmartHomeLink is not running, you can't GetNetDevices\n");
        return -1;
    }
    devsInfo->devNum = 0;
    const MutexLock lock(mMutex);
    std::list<std::shared_ptr<LinkDevice>> devices;
    if (!mSmartHomeLink->FindDevice(devType, devices)) {
        LUMORA_ERROR("No device found !\n");
        return -1;
    }
    mServiceDevMap.clear();
    LUMORA_STATE("Find %d devices in net. \n", static_cast<int>(devices.size()));
    for (const std::shared_ptr<LinkDevice>& device : devices) {
        std::string reply;
        if (device->Get(SERVICE_INFO_KEY, SERVICE_INFO_VALUE, reply) != 0) {
            LUMORA_DETAIL("Get ServiceInfo failed\n");
            continue;
        }
        LUM_DEVICE_INFO_S* devInfo = &devsInfo->devInfo[devsInfo->devNum];
        if (StoreRemoteServiceInfo(reply, device, devInfo) != 0) {
            LUMORA_WARNING("StoreRemoteServiceInfo error!\n");
            *devInfo = LUM_DEVICE_INFO_S();  // the next device gets this entry
            continue;
        }
        if (++devsInfo->devNum >= LUM_MAX_DEVICES) {
            break;
        }
    }
    LUMORA_TRACE("Out\n");
    return 0;
}

int LumoraClientModule::StoreRemoteServiceInfo(std::string& remoteInfo, std::shared_ptr<LinkDevice> device,
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

int LumoraClientModule::InsertServiceDevMap(std::string& serviceType, std::shared_ptr<LinkDevice> device) {
    // A type that is taken gets a number behind what it has become so far: T, T1, T12 ...
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

int LumoraClientModule::CreateAiDevice(int clientID, std::string& serviceType, unsigned int* handle) {
    LUMORA_TRACE("client [%d] Enter.\n", clientID);
    if (handle == nullptr) {
        LUMORA_ERROR("handle invalid!\n");
        return -1;
    }
    if (!mIsRunning) {
        LUMORA_ERROR("mSmartHomeLink is not running, you can't CreateAiDevice\n");
        return -1;
    }
    const MutexLock lock(mMutex);
    if (FindClient(clientID) == nullptr) {
        LUMORA_ERROR("ClientID : %d no resource!!\n", clientID);
        return -1;
    }
    if (mServiceDevMap.count(serviceType) == 0) {
        LUMORA_ERROR("No service type :%s found in net!\n", serviceType.c_str());
        return -1;
    }
    unsigned int candidate = 1;
    auto taken = mHandleServiceMap.find(candidate);
    while (taken != mHandleServiceMap.end() && taken->second != serviceType) {
        taken = mHandleServiceMap.find(++candidate);
    }
    if (taken != mHandleServiceMap.end()) {
        LUMORA_WARNING("Devtype %s has been created handle\n", serviceType.c_str());
    } else {
        mHandleServiceMap.emplace(candidate, serviceType);  // whole or, without memory, not at all
    }
    *handle = candidate;
    LUMORA_TRACE("Out\n");
    return 0;
}

int LumoraClientModule::DestoryAiDevice(int clientID, unsigned int handle) {
    LUMORA_TRACE("client [%d] Enter\n", clientID);
    const MutexLock lock(mMutex);
    LUMORA_DETAIL("DestoryAiDevice handle = %d , mClientManagerMap.size() = %d!\n", static_cast<int>(handle),
                  static_cast<int>(mClientManagerMap.size()));
    if (FindClient(clientID) == nullptr) {
        LUMORA_ERROR("ClientID : %d no resource!!\n", clientID);
        return -1;
    }
    const ResolvedHandle resolved = ResolveHandle(handle);
    if (resolved.serviceType == nullptr) {
        LUMORA_ERROR("Handle error: %d, no such device!\n", static_cast<int>(handle));
        return -1;
    }
    if (resolved.device == nullptr) {
        LUMORA_ERROR("Device source: %s no resource!\n", resolved.serviceType->c_str());
        return -1;
    }
    std::string unused;
    const int ret = resolved.device->Post(DESTROY_KEY, std::to_string(clientID), unused);
    if (ret != 0) {
        LUMORA_ERROR("Post command ERROR ! ret = 0x%x\n", static_cast<unsigned int>(ret));
        return -1;
    }
    LUMORA_TRACE("Out\n");
    return 0;
}

int LumoraClientModule::OnAddDevice(unsigned int id, const std::string& addr, int port,
                                    const std::string& devType) {
    LUMORA_TRACE("Enter\n");
    LUMORA_DETAIL("OnAddDevice: we receive addr = %s, port = %d, devType = %s, id = %u!\n", addr.c_str(),
                  port, devType.c_str(), id);
    LUMORA_TRACE("Out\n");
    return 0;
}

int LumoraClientModule::OnRemoveDevice(unsigned int, const std::string& addr, int port, const std::string&) {
    LUMORA_TRACE("Enter\n");
    const MutexLock delivery(mDeliveryMutex);
    const MutexLock lock(mMutex);
    LUMORA_STATE("Received request to remove device[%s:%d].\n", addr.c_str(), port);
    const auto known = mAddrServiceMap.find(AddressKey(addr, port));
    if (known == mAddrServiceMap.end()) {
        LUMORA_ERROR("device addr : %s is not the one we conncted!!\n", addr.c_str());
        return -1;
    }
    const std::string& serviceType = known->second;
    unsigned int handle = 0;
    for (const auto& [number, type] : mHandleServiceMap) {
        if (type == serviceType) {
            handle = number;
            break;
        }
    }
    LUMORA_DETAIL("We will clear %s 's resource, handle = %d!\n", serviceType.c_str(),
                  static_cast<int>(handle));
    if (handle != 0) {  // 0 stands in the records of all clients that are not connected
        TellDeviceRemoved(handle);
    }
    mServiceDevMap.erase(serviceType);
    mHandleServiceMap.erase(handle);

    const auto transport = mTransportMap.find(handle);
    if (transport == mTransportMap.end()) {
        LUMORA_ERROR("This Handle no transport.\n");
        return 0;
    }
    if (transport->second->DestoryTransports() != 0) {
        LUMORA_ERROR("DestoryTransports!\n");
        return -1;
    }
    mTransportMap.erase(transport);
    LUMORA_TRACE("Out\n");
    return 0;
}

void LumoraClientModule::TellDeviceRemoved(unsigned int handle) {
    for (const unsigned int clientID : ClientInstances()) {
        LumoraClientManager* client = FindClient(static_cast<int>(clientID));
        if (client == nullptr || client->connectedHandle != handle) {
            continue;
        }
        if (client->eventCallback != nullptr) {
            const lumora::CallbackScope scope(lumora::Side::CLIENT);
            client->eventCallback(static_cast<int>(clientID), LUM_EVENT_DEVICE_REMOVED);
        }
        client->connectedHandle = 0;
    }
}

LumoraClientModule::ResolvedHandle LumoraClientModule::ResolveHandle(unsigned int handle) {
    ResolvedHandle resolved;
    const auto type = mHandleServiceMap.find(handle);
    if (type == mHandleServiceMap.end()) {
        return resolved;
    }
    resolved.serviceType = &type->second;
    const auto device = mServiceDevMap.find(type->second);
    if (device != mServiceDevMap.end()) {
        resolved.device = device->second.get();
    }
    return resolved;
}

std::shared_ptr<LinkDevice> LumoraClientModule::HoldDevice(unsigned int handle) {
    return mServiceDevMap.at(mHandleServiceMap.at(handle));
}

}  // namespace lumoraAiModule
