// The one object behind the client side's exported functions.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "base/never_destroyed.h"
#include "link/callbacks.h"
#include "link/link_device.h"
#include "link/lumora_ai_descriptor.h"
#include "link/smart_home_link.h"
#include "lumora.h"
#include "protocol/data_frame.h"
#include "transport/frame_buffer.h"
#include "transport/transport_manager.h"

namespace lumoraAiModule {

// The port of the data channel: the device listens on it, the client on the next one.
extern int g_mDataPort;

// One application client.
struct LumoraClientManager {
    LUM_EVENT_CALLBACK eventCallback = nullptr;
    unsigned int connectedHandle = 0;  // 0 when not connected
};

// One request to send a block of data. Owns nothing.
struct SendDataInfo {
    SendDataInfo(const void* bytes, unsigned int byteCount, unsigned int timeout)
        : data(static_cast<const char*>(bytes)), length(byteCount), timeoutMs(timeout) {}

    const char* data;
    unsigned int length;
    unsigned int timeoutMs;
};

// Shared by up to 20 application clients. Holds the link to the network, the devices that were found, the
// handles that were given out for them, and the data channel.
//
// Operations return 0 or -1 and log their failures. Those without another word take mMutex, and hold it also
// while they ask a device. Application callbacks run under mDeliveryMutex, and must not call back.
class LumoraClientModule : public LumoraTransCallback, public LumoraNotifyCallback {
public:
    explicit LumoraClientModule(const std::string& devType);
    ~LumoraClientModule() override;
    LumoraClientModule(const LumoraClientModule&) = delete;
    LumoraClientModule& operator=(const LumoraClientModule&) = delete;

    // ---- Lifecycle and client registry (client_module.cpp). The caller holds the client API mutex. ----

    // Gives out the lowest free client ID, and the instance, which is made when there is none. With all IDs
    // in use *clientID is 0.
    static std::shared_ptr<LumoraClientModule> CreateInstance(int* clientID, const std::string& devType);
    // Refused while a client ID is in use.
    static int DestoryInstance();

    // Makes the client's record; the first client starts the link.
    int InitLumoraModule(int clientID);
    // Tells how many clients remain; the last one stops everything.
    int DeInitLumoraModule(int clientID, unsigned int* clientNum);
    int RegisterEvent(int clientID, LUM_EVENT_CALLBACK callback);

    // ---- Remote devices and their handles (client_discovery.cpp) ----

    int GetNetDeviceList(std::string& devType, LUM_DEVICES_INFO_S* devsInfo);
    int CreateAiDevice(int clientID, std::string& serviceType, unsigned int* handle);
    int DestoryAiDevice(int clientID, unsigned int handle);
    int OnAddDevice(unsigned int id, const std::string& addr, int port, const std::string& devType) override;
    int OnRemoveDevice(unsigned int id, const std::string& addr, int port,
                       const std::string& devType) override;

    // ---- Connection, commands and data (client_connection.cpp) ----

    int ConnectAiDevice(int clientID, unsigned int handle);
    int DisconnectAiDevice(int clientID, unsigned int handle);
    int DestoryTransport(unsigned int handle);
    int RegisterAiDeviceEvent(int clientID, unsigned int handle, LUM_DEVICE_EVENT_CALLBACK callback);
    int SendCmd(int clientID, unsigned int handle, const char* cmd, const char* param);
    int SendData(int clientID, unsigned int handle, SendDataInfo& info, unsigned int& sendLength);
    int GetClientVersion(int clientID, std::string& version);
    int GetServerVersion(int clientID, unsigned int handle, std::string& version);
    // On the transport's receive thread.
    int OnRecvData(char* frame, unsigned int length) override;
    int OnDisconnect(unsigned int handle) override;

private:
    friend struct ClientModuleProbe;  // tests reach through it what no device can make happen

    int InitializeCoapService() REQUIRES(mMutex);
    int StartCoapService() REQUIRES(mMutex);
    int CloseCoapService();
    int RemoveClient(int clientID);
    static int ReleaseClientId(int clientID, unsigned int* clientNum);
    void ReleaseResources();
    // The caller holds the client API mutex, under which alone the IDs change.
    static bool IsClientInstance(int clientID) NO_THREAD_SAFETY_ANALYSIS;
    static std::vector<unsigned int> ClientInstances();

    int StoreRemoteServiceInfo(std::string& remoteInfo, std::shared_ptr<lumora::LinkDevice> device,
                               LUM_DEVICE_INFO_S* devInfo) REQUIRES(mMutex);
    int InsertServiceDevMap(std::string& serviceType, std::shared_ptr<lumora::LinkDevice> device)
        REQUIRES(mMutex);
    void TellDeviceRemoved(unsigned int handle) REQUIRES(mDeliveryMutex, mMutex);

    // A device as its handle leads to it, as long as mMutex is held. Both are null when the handle is
    // unknown, device alone when the handle's device is gone.
    struct ResolvedHandle {
        const std::string* serviceType = nullptr;
        lumora::LinkDevice* device = nullptr;
    };
    ResolvedHandle ResolveHandle(unsigned int handle) REQUIRES(mMutex);
    // For those who let mMutex go meanwhile. The handle's device is known.
    std::shared_ptr<lumora::LinkDevice> HoldDevice(unsigned int handle) REQUIRES(mMutex);
    LumoraClientManager* FindClient(int clientID) REQUIRES(mMutex);

    int SetupTransport(unsigned int handle) REQUIRES(mMutex);
    int OpenDataChannel(lumora::LinkDevice& device) REQUIRES(mMutex);
    int AnnounceClient(int clientID, unsigned int handle, lumora::LinkDevice& device) REQUIRES(mMutex);
    // These two let mMutex go while the transport stops.
    void StopCurrentTransport() REQUIRES(mMutex);
    void DropTransport() REQUIRES(mMutex);
    static int WaitUntilFree(lumora::LinkDevice& device);
    static int BuildClientFrame(int clientID, const SendDataInfo& info, FrameBuffer& frame);
    int DeliverToClient(int clientID, const ServerFrame& frame) REQUIRES(mDeliveryMutex);
    int AddressEvent(int clientID, LUM_DEVICE_EVENT_S& event, LUM_DEVICE_EVENT_CALLBACK& callback);

    // Held while the application is called back, so that its callbacks come one at a time and none comes
    // after its client is gone. Taken before mMutex, which a data callback leaves free: whoever was waiting
    // for that data can go on at once.
    lumora::Mutex mDeliveryMutex;
    lumora::Mutex mMutex;
    std::map<unsigned int, std::shared_ptr<LumoraClientManager>> mClientManagerMap GUARDED_BY(mMutex);
    std::atomic<bool> mIsRunning{false};  // read by searches before they take the mutex
    std::string mDevServiceType;
    // Replaced only under the client API mutex and mMutex; either one is enough to use it.
    std::shared_ptr<lumora::SmartHomeLink> mSmartHomeLink;
    std::shared_ptr<LumoraAiDescriptor> mDevDescriptor GUARDED_BY(mMutex);
    std::map<std::string, std::shared_ptr<lumora::LinkDevice>> mServiceDevMap GUARDED_BY(mMutex);
    std::shared_ptr<LumoraTransManager> mTransManager GUARDED_BY(mMutex);  // the one set up last
    std::shared_ptr<LumoraTransManagerFactory> mTransFactory GUARDED_BY(mMutex);
    std::map<int, LUM_DEVICE_EVENT_CALLBACK> mDeviceEventMap GUARDED_BY(mMutex);
    std::map<unsigned int, std::string> mHandleServiceMap GUARDED_BY(mMutex);
    std::map<unsigned int, std::shared_ptr<LumoraTransManager>> mTransportMap GUARDED_BY(mMutex);
    std::map<std::string, std::string> mAddrServiceMap GUARDED_BY(mMutex);  // "address:port" to service type

    // The instance and the client IDs in use, ascending. Changed only under the client API mutex, but also
    // read by threads that do not hold it.
    static lumora::Mutex mInstanceMutex;  // a leaf lock
    static lumora::NeverDestroyed<std::shared_ptr<LumoraClientModule>> mInstance GUARDED_BY(mInstanceMutex);
    static lumora::NeverDestroyed<std::vector<unsigned int>> mClientInstance GUARDED_BY(mInstanceMutex);
};

}  // namespace lumoraAiModule
