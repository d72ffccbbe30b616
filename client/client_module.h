// The one object behind the client side's exported functions.
#pragma once

#include <atomic>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "base/never_destroyed.h"
#include "client/client_registry.h"
#include "client/remote_devices.h"
#include "link/callbacks.h"
#include "link/link_device.h"
#include "link/lumora_ai_descriptor.h"
#include "link/smart_home_link.h"
#include "lumora.h"
#include "transport/frame_buffer.h"
#include "transport/transport_manager.h"
#include "version/lumora_version.h"

namespace lumoraAiModule {

// The port of the data channel: the device listens on it, the client on the next one.
extern int g_mDataPort;

// One request to send a block of data. Owns nothing.
struct SendDataInfo {
    SendDataInfo(const void* bytes, unsigned int byteCount, unsigned int timeout)
        : data(static_cast<const char*>(bytes)), length(byteCount), timeoutMs(timeout) {}

    const char* data;
    unsigned int length;
    unsigned int timeoutMs;
};

// What the module takes from outside. Tests hand in functions that fail or that open no socket.
struct ClientSources {
    using NewTransport = std::shared_ptr<LumoraTransManager> (*)(LumoraTransManagerFactory& factory,
                                                                 LUM_TRANSPORT_E protocol,
                                                                 LumoraTransCallback& callback,
                                                                 unsigned int handle);
    using GetVersion = int (*)(std::string& version);

    NewTransport newTransport = [](LumoraTransManagerFactory& factory, LUM_TRANSPORT_E protocol,
                                   LumoraTransCallback& callback, unsigned int handle) {
        return factory.CreateTransportsManager(protocol, callback, handle);
    };
    GetVersion getVersion = LumoraVersion::GetVersion;
};

// Shared by up to 20 application clients. Holds the link to the network, the clients, the devices that were
// found with the handles that were given out for them, and the data channel.
//
// Operations return 0 or -1 and log their failures. No lock of the module is held while an operation waits
// for a device, for a socket or for a thread: it looks up what it needs under mMutex, lets go, and looks
// again before it keeps a result, because the device may have left meanwhile. Application callbacks run under
// mDeliveryMutex alone and must not call back.
//
// Order of locks: client API mutex, then mDeliveryMutex, then mMutex, then the leaf locks (mInstanceMutex,
// the registry's). Delivery takes mDeliveryMutex and the registry's lock only, so it never waits for an
// operation.
class LumoraClientModule : public LumoraTransCallback, public LumoraNotifyCallback {
public:
    explicit LumoraClientModule(const std::string& devType, const ClientSources& sources = ClientSources());
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
    friend struct ClientModuleProbe;  // test access to states that no device can cause

    int InitializeCoapService() REQUIRES(mMutex);
    int StartCoapService() REQUIRES(mMutex);
    int CloseCoapService() EXCLUDES(mMutex);
    int RemoveClient(int clientID) EXCLUDES(mDeliveryMutex);
    static int ReleaseClientId(int clientID, unsigned int* clientNum);
    void ReleaseResources() EXCLUDES(mMutex);
    // The caller holds the client API mutex, under which alone the IDs change.
    static bool IsClientInstance(int clientID) NO_THREAD_SAFETY_ANALYSIS;

    void AskForServices(const std::list<std::shared_ptr<lumora::LinkDevice>>& devices, SearchResult& result,
                        LUM_DEVICES_INFO_S& devsInfo) EXCLUDES(mMutex);
    static void NotifyDeviceRemoved(const ClientRegistry::Disconnected& clients);
    void LetSentDataArrive(int clientID, unsigned int handle) EXCLUDES(mMutex);
    void LetLastFramesPass(const std::string& addr, int port) EXCLUDES(mMutex);
    std::optional<int> DestoryTransportOf(unsigned int handle) REQUIRES(mMutex);

    RemoteDevices::Resolved Resolve(unsigned int handle) EXCLUDES(mMutex);

    int SetupTransport(unsigned int handle) EXCLUDES(mMutex);
    int AnnounceClient(int clientID, unsigned int handle, const std::shared_ptr<lumora::LinkDevice>& device)
        EXCLUDES(mMutex);
    // False, and logged, if the device has left or the client is unknown.
    bool RecordConnection(int clientID, unsigned int handle,
                          const std::shared_ptr<lumora::LinkDevice>& device) EXCLUDES(mMutex);
    std::shared_ptr<LumoraTransManager> NewTransport(unsigned int handle) EXCLUDES(mMutex);
    int OpenDataChannel(LumoraTransManager& transport, lumora::LinkDevice& device) EXCLUDES(mMutex);
    int OpenOwnHalf(LumoraTransManager& transport, const std::string& address,
                    const std::shared_ptr<lumora::ChannelKeys>& keys) EXCLUDES(mMutex);
    int KeepTransport(unsigned int handle, const std::shared_ptr<LumoraTransManager>& transport,
                      const std::shared_ptr<lumora::LinkDevice>& device) EXCLUDES(mMutex);
    // Stops the module's current transport and forgets it.
    void DropTransport() EXCLUDES(mMutex);
    std::shared_ptr<LumoraTransManager> CurrentTransport() EXCLUDES(mMutex);
    // What a send needs, looked up in one step.
    struct SendPath {
        bool isHandle = false;
        bool hasDevice = false;
        std::shared_ptr<LumoraTransManager> transport;  // null when no channel is open
    };
    SendPath FindSendPath(unsigned int handle) EXCLUDES(mMutex);
    static int WaitUntilFree(lumora::LinkDevice& device);
    // The whole frame; only its head if the payload is sent apart.
    static int BuildClientFrame(int clientID, const SendDataInfo& info, FrameBuffer& frame);
    static FrameParts ClientFrameParts(const FrameBuffer& frame, const SendDataInfo& info);
    int Deliver(const Recipient& recipient, const ServerFrame& frame) REQUIRES(mDeliveryMutex);

    // Held while the application is called back, so that callbacks come one at a time and none comes after
    // its client has ended.
    lumora::Mutex mDeliveryMutex;
    lumora::Mutex mMutex ACQUIRED_AFTER(mDeliveryMutex);
    ClientRegistry mClients;
    std::atomic<bool> mIsRunning{false};
    std::string mDevServiceType;
    // Replaced only under the client API mutex and mMutex; either one is enough to use it.
    std::shared_ptr<lumora::SmartHomeLink> mSmartHomeLink;
    std::shared_ptr<LumoraAiDescriptor> mDevDescriptor GUARDED_BY(mMutex);
    RemoteDevices mDevices GUARDED_BY(mMutex);
    std::shared_ptr<LumoraTransManager> mTransManager GUARDED_BY(mMutex);  // the one set up last
    std::shared_ptr<LumoraTransManagerFactory> mTransFactory GUARDED_BY(mMutex);
    std::map<unsigned int, std::shared_ptr<LumoraTransManager>> mTransportMap GUARDED_BY(mMutex);
    // A channel may end while it is still being opened, before it has an entry in mTransportMap.
    unsigned int mOpeningHandle GUARDED_BY(mMutex) = 0;  // 0 when none is being opened
    bool mLostWhileOpening GUARDED_BY(mMutex) = false;
    const ClientSources mSources;

    // The instance and the client IDs in use, ascending. Changed only under the client API mutex, but also
    // read by threads that do not hold it.
    static lumora::Mutex mInstanceMutex;  // a leaf lock
    static lumora::NeverDestroyed<std::shared_ptr<LumoraClientModule>> mInstance GUARDED_BY(mInstanceMutex);
    static lumora::NeverDestroyed<std::vector<unsigned int>> mClientInstance GUARDED_BY(mInstanceMutex);
};

}  // namespace lumoraAiModule
