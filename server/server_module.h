// The one object behind the server side's exported functions.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "base/never_destroyed.h"
#include "link/callbacks.h"
#include "link/lumora_ai_descriptor.h"
#include "link/requester.h"
#include "link/smart_home_link.h"
#include "lumora.h"
#include "server/hand_over_budget.h"
#include "server/publication.h"
#include "transport/frame_buffer.h"
#include "transport/transport_manager.h"
#include "version/lumora_version.h"

namespace lumoraAiModule {

// What the module takes from outside. Tests hand in functions that fail or that open no socket.
struct ServerSources {
    using NewTransport = std::shared_ptr<LumoraTransManager> (*)(LumoraTransManagerFactory& factory,
                                                                 LUM_TRANSPORT_E protocol);
    using GetVersion = int (*)(std::string& version);

    NewTransport newTransport = [](LumoraTransManagerFactory& factory, LUM_TRANSPORT_E protocol) {
        return factory.CreateTransportsManager(protocol);
    };
    GetVersion getVersion = LumoraVersion::GetVersion;
    // How long a request waits for a change of the data channel that another one has begun. A stop takes 7 s
    // and the callback in progress, which may never return. Clients wait no longer than this for an answer.
    std::chrono::milliseconds channelWait{60000};
};

// The device: its services and their subscribers, the clients that connected, the data channel to them, and
// the application's callbacks.
//
// Operations return 0 or -1 and log their failures. Requests, starting and registering run under mMutex, one
// after the other. OnCommand and OnEventNotify are called with it held and must not call back. OnData runs on
// the receive thread without it, and may send. Sending runs under mSendMutex and never waits for a request:
// it works with what requests have published.
//
// A request that stops or opens the data channel releases mMutex for that time (ChangeChannel). Another one
// that is about to change the channel waits for its end (AwaitChannel). The others go on.
//
// Order of locks: server API mutex, then mMutex or mSendMutex (never both), then a transport's own. The
// publication's lock is a leaf.
class LumoraServerModule : public LumoraCoapCallback, public LumoraNotifyCallback {
public:
    explicit LumoraServerModule(const std::string& devType, const ServerSources& sources = ServerSources());
    ~LumoraServerModule() override;
    LumoraServerModule(const LumoraServerModule&) = delete;
    LumoraServerModule& operator=(const LumoraServerModule&) = delete;

    // ---- Requests of clients (server_requests.cpp), on the platform's threads ----

    int OnCoapGet(const std::string& key, std::string& reply) override;
    int OnCoapPut(const std::string& key, const std::string& value) override;
    int OnCoapPost(const std::string& key, const std::string& value) override;
    int OnCoapDelete(const std::string& key, const std::string& value) override;
    int OnSetupMediaService(const lumora::LinkDeviceDescriptor::Port& port, std::string& setup) override;
    int OnAddDevice(unsigned int id, const std::string& addr, int port, const std::string& devType) override;
    int OnRemoveDevice(unsigned int id, const std::string& addr, int port,
                       const std::string& devType) override;

    // ---- Lifecycle and registration (server_module.cpp). The caller holds the server API mutex. ----

    // Makes the instance, or gives the existing one. Null when memory ran out.
    static LumoraServerModule* CreateInstance(const std::string& devType);
    static int DestoryInstance();

    int InitLumoraModule();
    int DeInitLumoraModule();
    int RegisterLocalDeviceInfo(const LUM_DEVICE_INFO_S* devInfo);

    // ---- Data to clients (server_send.cpp) ----

    // *sendLength receives the number of payload bytes that went out; a call that is refused before its frame
    // is built leaves it alone.
    int SendDataToClient(const std::string& serviceName, const char* data, unsigned int dataLen,
                         unsigned int* sendLength, unsigned int timeoutMs);

private:
    int InitializeCoapService() REQUIRES(mMutex);
    void RememberDescriptor() REQUIRES(mMutex);
    int StartCoapService() REQUIRES(mMutex);
    int CloseCoapService() EXCLUDES(mMutex);
    int GetServiceInfoString(std::string& out) REQUIRES(mMutex);
    int RegisterServices(const LUM_DEVICE_INFO_S& devInfo) REQUIRES(mMutex);

    int HandleCommand(const std::string& value) REQUIRES(mMutex);
    void RememberClient(int clientID) REQUIRES(mMutex);
    int HandleDestroy(int clientID) REQUIRES(mMutex);
    int ProcessSubscribe(int clientID, const LUM_SUBSCRIBE_SERVICE_S& record) REQUIRES(mMutex);
    int ProcessUnSubscribe(int clientID, const LUM_SUBSCRIBE_SERVICE_S& record) REQUIRES(mMutex);
    int ClearOneServerInfo(int clientID) REQUIRES(mMutex);
    int NotifyApplication(const char* operation, int clientID, int event,
                          const LUM_SUBSCRIBE_SERVICE_S& record) REQUIRES(mMutex);
    void CallOnEventNotify(int clientID, int event, const LUM_SUBSCRIBE_SERVICE_S& record) REQUIRES(mMutex);

    // ---- The data channel (server_channel.cpp) ----

    // Returns when no change of the channel is in progress. False, and logged on behalf of operation, if one
    // does not end in time. mMutex is released while waiting.
    bool AwaitChannel(const char* operation) REQUIRES(mMutex);
    // Calls change, which returns a result, without mMutex. To be called after AwaitChannel, in the same hold
    // of mMutex. Afterwards the channel is as change has left it. All else may be another.
    template <typename Change>
    int ChangeChannel(Change change) REQUIRES(mMutex);
    // The node that sent the request in hand may change the data channel and its clients: it has set the
    // channel up, or no node that holds a key has, or that channel has ended. Logs a refusal. Waits as
    // AwaitChannel does if a node with a key had the channel.
    bool MayChangeChannel(const char* operation) REQUIRES(mMutex);
    // Stops the transport and drops it, after the application has been given the rest of the blocks. On
    // failure it logs, on behalf of operation, and keeps it. Releases mMutex meanwhile.
    int StopTransport(const char* operation, Rest rest, std::chrono::milliseconds limit) REQUIRES(mMutex);
    // The same for the module's own end: without the rest, and with the transport's own result.
    int StopOwnTransport() REQUIRES(mMutex);
    // The requester has set up the channel; port is its node's.
    void SetOwner(std::string& address, int port, int dataPort) REQUIRES(mMutex);
    static int OpenDataChannel(LumoraTransManager& transport, const std::string& address, int port,
                               LUM_OBSERVER_S observer);

    int PacketAndSendData(const Published& published, const std::string& serviceName, const char* data,
                          unsigned int dataLen, unsigned int* sendLength, unsigned int timeoutMs)
        REQUIRES(mSendMutex);
    // The whole frame; only its head if the payload is sent apart.
    static int AllocateServerFrame(FrameBuffer& frame, unsigned int headLen, unsigned int dataLen);
    static int FillServerFrame(FrameBuffer& frame, const std::vector<unsigned int>& clientIds,
                               const std::string& serviceName, unsigned int headLen, const char* data,
                               unsigned int dataLen);
    static FrameParts ServerFrameParts(const FrameBuffer& frame, unsigned int headLen, const char* data,
                                       unsigned int dataLen);

    lumora::Mutex mMutex;
    lumora::Mutex mSendMutex;
    Publication mPublication;
    std::atomic<bool> mIsInit{false};
    std::string mDevType GUARDED_BY(mMutex);
    // Replaced only under the server API mutex and mMutex; either one is enough to use it.
    std::shared_ptr<lumora::SmartHomeLink> mSmartHomeLink;
    std::shared_ptr<LumoraAiDescriptor> mDevDescriptor GUARDED_BY(mMutex);
    // All that requests may still come through, also one whose start failed or that a restart replaced.
    std::vector<std::weak_ptr<LumoraAiDescriptor>> mReachableDescriptors GUARDED_BY(mMutex);
    std::vector<LUM_SERVICE_INFO_S> mServiceInfos GUARDED_BY(mMutex);
    std::shared_ptr<LumoraTransManagerFactory> mTransFactory GUARDED_BY(mMutex);
    std::string mLocalServiceInfo GUARDED_BY(mMutex);
    LUM_DEVICE_INFO_S mDevInfo GUARDED_BY(mMutex) = {};
    std::vector<unsigned int> mClientList GUARDED_BY(mMutex);
    // The node that set up the data channel, if it has proven who it is.
    std::optional<lumora::Requester> mOwner GUARDED_BY(mMutex);
    int mOwnerPort GUARDED_BY(mMutex) = 0;
    HandOverBudget mHandOverBudget GUARDED_BY(mMutex);
    // A request is stopping or opening the data channel, without mMutex.
    bool mChannelChanges GUARDED_BY(mMutex) = false;
    lumora::Condition mChannelChanged;
    const ServerSources mSources;

    static LumoraServerModule* mInstance;  // under the server API mutex
};

}  // namespace lumoraAiModule
