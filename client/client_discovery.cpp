// The client module's remote devices: search, handles, removal.
#include <chrono>
#include <list>
#include <optional>

#include "client/client_module.h"
#include "library/callback_scope.h"
#include "library/log.h"
#include "protocol/control_documents.h"

namespace lumoraAiModule {

using lumora::LinkDevice;
using lumora::MutexLock;

namespace {

// A device that is only slow takes what was sent within this time, as long as it also takes to give it to its
// application.
constexpr std::chrono::milliseconds SENT_DATA_LIMIT{10000};
// The same for a client's callbacks. Other events wait meanwhile.
constexpr std::chrono::milliseconds LAST_FRAMES_LIMIT{7000};

}  // namespace

// The search and the questions take seconds, so mMutex is free meanwhile and the result is put in at the end,
// in one step. A failed search leaves the former devices: an application that lost its network for a moment
// keeps its handles.
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
    std::list<std::shared_ptr<LinkDevice>> devices;
    if (!mSmartHomeLink->FindDevice(devType, devices)) {
        LUMORA_ERROR("No device found !\n");
        return -1;
    }
    LUMORA_STATE("Find %d devices in net. \n", static_cast<int>(devices.size()));
    SearchResult result;  // afterwards the former devices; they are released without the lock
    {
        const MutexLock lock(mMutex);
        mDevices.BeginAsking();
    }
    AskForServices(devices, result, *devsInfo);
    {
        const MutexLock lock(mMutex);
        mDevices.Replace(result);
    }
    LUMORA_TRACE("Out\n");
    return 0;
}

// One device after the other, until the list is full: the devices behind are neither asked nor kept. A device
// that does not answer, or answers with nonsense, is left out, and the search still succeeds.
void LumoraClientModule::AskForServices(const std::list<std::shared_ptr<LinkDevice>>& devices,
                                        SearchResult& result, LUM_DEVICES_INFO_S& devsInfo) {
    constexpr char OPERATION[] = "GetNetDeviceList";
    for (const std::shared_ptr<LinkDevice>& device : devices) {
        std::string reply;
        if (device->Get(SERVICE_INFO_KEY, SERVICE_INFO_VALUE, reply) != 0) {
            LUMORA_LOG_AS(lumora::LOG_DETAIL, OPERATION, "Get ServiceInfo failed\n");
            continue;
        }
        LUM_DEVICE_INFO_S* devInfo = &devsInfo.devInfo[devsInfo.devNum];
        if (result.StoreRemoteServiceInfo(reply, device, devInfo) != 0) {
            LUMORA_LOG_AS(lumora::LOG_WARNING, OPERATION, "StoreRemoteServiceInfo error!\n");
            *devInfo = LUM_DEVICE_INFO_S();  // the next device gets this entry
            continue;
        }
        if (++devsInfo.devNum >= LUM_MAX_DEVICES) {
            return;
        }
    }
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
    if (!mClients.Has(clientID)) {
        LUMORA_ERROR("ClientID : %d no resource!!\n", clientID);
        return -1;
    }
    if (!mDevices.HasType(serviceType)) {
        LUMORA_ERROR("No service type :%s found in net!\n", serviceType.c_str());
        return -1;
    }
    bool isNew = false;
    *handle = mDevices.CreateHandle(serviceType, isNew);
    if (!isNew) {
        LUMORA_WARNING("Devtype %s has been created handle\n", serviceType.c_str());
    }
    LUMORA_TRACE("Out\n");
    return 0;
}

// The device closes the channel when its last client has left. What this client has sent goes first, because
// the request goes by another way and overtakes it. If others use the channel, it stays.
void LumoraClientModule::LetSentDataArrive(int clientID, unsigned int handle) {
    std::shared_ptr<LumoraTransManager> transport;
    {
        const MutexLock lock(mMutex);
        const auto found = mTransportMap.find(handle);
        if (found == mTransportMap.end() || mClients.IsConnectedBeside(clientID, handle)) {
            return;
        }
        transport = found->second;
    }
    transport->WaitUntilTaken(SENT_DATA_LIMIT);
}

// Only the device is told. If it closes the channel because no client is left, OnDisconnect forgets the
// handle. Otherwise the handle stays.
int LumoraClientModule::DestoryAiDevice(int clientID, unsigned int handle) {
    LUMORA_TRACE("client [%d] Enter\n", clientID);
    LUMORA_DETAIL("DestoryAiDevice handle = %d , mClientManagerMap.size() = %d!\n", static_cast<int>(handle),
                  static_cast<int>(mClients.Size()));
    if (!mClients.Has(clientID)) {
        LUMORA_ERROR("ClientID : %d no resource!!\n", clientID);
        return -1;
    }
    const RemoteDevices::Resolved resolved = Resolve(handle);
    if (!resolved.isHandle) {
        LUMORA_ERROR("Handle error: %d, no such device!\n", static_cast<int>(handle));
        return -1;
    }
    if (resolved.device == nullptr) {
        LUMORA_ERROR("Device source: %s no resource!\n", resolved.serviceType.c_str());
        return -1;
    }
    LetSentDataArrive(clientID, handle);
    std::string unused;
    const int ret = resolved.device->Post(DESTROY_KEY, std::to_string(clientID), unused);
    if (ret != 0) {
        LUMORA_ERROR("Post command ERROR ! ret = 0x%x\n", static_cast<unsigned int>(ret));
        return -1;
    }
    LUMORA_TRACE("Out\n");
    return 0;
}

// Nothing to do: devices become known by searches alone.
int LumoraClientModule::OnAddDevice(unsigned int id, const std::string& addr, int port,
                                    const std::string& devType) {
    LUMORA_TRACE("Enter\n");
    LUMORA_DETAIL("OnAddDevice: we receive addr = %s, port = %d, devType = %s, id = %u!\n", addr.c_str(),
                  port, devType.c_str(), id);
    LUMORA_TRACE("Out\n");
    return 0;
}

// Everything is forgotten before the application is told, because it may search and connect again on another
// thread as soon as its callback runs. mDeliveryMutex is held from the look-up to the last callback, so that
// no client ends in between; mMutex is not held during the callbacks. The departed device is released when
// this function returns, because freeing it calls the platform.
int LumoraClientModule::OnRemoveDevice(unsigned int, const std::string& addr, int port, const std::string&) {
    LUMORA_TRACE("Enter\n");
    LetLastFramesPass(addr, port);
    const MutexLock delivery(mDeliveryMutex);
    LUMORA_STATE("Received request to remove device[%s:%d].\n", addr.c_str(), port);
    RemoteDevices::Departed departed;
    ClientRegistry::Disconnected disconnected;
    std::optional<int> destroyed;
    {
        const MutexLock lock(mMutex);
        departed = mDevices.FindDeparted(addr, port);
        if (!departed.isKnown) {
            LUMORA_ERROR("device addr : %s is not the one we conncted!!\n", addr.c_str());
            return -1;
        }
        LUMORA_DETAIL("We will clear %s 's resource, handle = %d!\n", departed.serviceType.c_str(),
                      static_cast<int>(departed.handle));
        if (departed.handle != 0) {  // 0 stands in the records of all clients that are not connected
            disconnected = mClients.DisconnectAll(departed.handle);
        }
        mDevices.Forget(addr, port, departed);
        destroyed = DestoryTransportOf(departed.handle);
    }
    NotifyDeviceRemoved(disconnected);
    if (!destroyed) {
        LUMORA_ERROR("This Handle no transport.\n");
        return 0;
    }
    if (*destroyed != 0) {
        LUMORA_ERROR("DestoryTransports!\n");
        return -1;
    }
    LUMORA_TRACE("Out\n");
    return 0;
}

// The device's goodbye overtakes what it sent before, and a callback may be slow. Without a lock: the receive
// thread needs both.
void LumoraClientModule::LetLastFramesPass(const std::string& addr, int port) {
    std::shared_ptr<LumoraTransManager> transport;
    RemoteDevices::Departed departed;
    {
        const MutexLock lock(mMutex);
        departed = mDevices.FindDeparted(addr, port);
        const auto found = mTransportMap.find(departed.handle);
        if (!departed.isKnown || found == mTransportMap.end()) {
            return;
        }
        transport = found->second;
    }
    transport->WaitUntilRead(LAST_FRAMES_LIMIT);
}

// None if the handle has no transport. Closes the sending socket, and waits for nothing.
std::optional<int> LumoraClientModule::DestoryTransportOf(unsigned int handle) {
    const auto transport = mTransportMap.find(handle);
    if (transport == mTransportMap.end()) {
        return std::nullopt;
    }
    const int ret = transport->second->DestoryTransports();
    if (ret == 0) {
        mTransportMap.erase(transport);
    }
    return ret;
}

void LumoraClientModule::NotifyDeviceRemoved(const ClientRegistry::Disconnected& clients) {
    for (const auto& [clientID, callback] : clients) {
        if (callback != nullptr) {
            const lumora::CallbackScope scope(lumora::Side::CLIENT);
            callback(clientID, LUM_EVENT_DEVICE_REMOVED);
        }
    }
}

RemoteDevices::Resolved LumoraClientModule::Resolve(unsigned int handle) {
    const MutexLock lock(mMutex);
    return mDevices.Resolve(handle);
}

}  // namespace lumoraAiModule
