// Lifecycle of the client module, and the registry of its application clients.
#include "client/client_module.h"

#include <algorithm>
#include <utility>

#include "base/make_shared.h"
#include "library/log.h"
#include "link/smart_home_link_hybird.h"

namespace lumoraAiModule {

using lumora::MutexLock;

lumora::Mutex LumoraClientModule::mInstanceMutex;
lumora::NeverDestroyed<std::shared_ptr<LumoraClientModule>> LumoraClientModule::mInstance;
lumora::NeverDestroyed<std::vector<unsigned int>> LumoraClientModule::mClientInstance;

namespace {

constexpr char DEINIT[] = "DeInitLumoraModule";

// ids is ascending, and stays so: the first position that does not hold its own number plus one is that of
// the lowest free ID.
unsigned int TakeLowestFreeId(std::vector<unsigned int>& ids) {
    unsigned int id = 1;
    auto place = ids.begin();
    for (; place != ids.end() && *place == id; ++place) {
        ++id;
    }
    ids.insert(place, id);
    return id;
}

}  // namespace

// The ID is taken before the client works. If starting it fails, the ID stays in use until LUM_DeInitClient
// gives it back: applications call it in their clean-up, for the ID that was written.
std::shared_ptr<LumoraClientModule> LumoraClientModule::CreateInstance(int* clientID,
                                                                       const std::string& devType) {
    LUMORA_TRACE("Enter\n");
    if (clientID == nullptr) {
        LUMORA_ERROR("input param is invalid!\n");
        return nullptr;
    }
    const MutexLock lock(mInstanceMutex);
    if (*mInstance == nullptr) {
        *mInstance = lumora::MakeSharedOrNull<LumoraClientModule>(devType);
    }
    if (*mInstance == nullptr) {
        LUMORA_ERROR("malloc LumoraClientModule failed!\n");
        return nullptr;
    }
    if (mClientInstance->size() >= LUM_MAX_CLIENTS) {
        LUMORA_STATE(
            "The number of application instances has exceeded the maximum[%d]. The clientID application "
            "failed.\n",
            LUM_MAX_CLIENTS);
        *clientID = 0;
        return *mInstance;
    }
    *clientID = static_cast<int>(TakeLowestFreeId(*mClientInstance));
    LUMORA_STATE("Init Lumora client success. device type: %s, clientID: %d. \n", devType.c_str(), *clientID);
    LUMORA_TRACE("Out\n");
    return *mInstance;
}

int LumoraClientModule::DestoryInstance() {
    std::shared_ptr<LumoraClientModule> instance;  // released without the lock held
    {
        const MutexLock lock(mInstanceMutex);
        if (!mClientInstance->empty()) {
            LUMORA_ERROR("At least one Lumora client is running, you could not Destroy!\n");
            return -1;
        }
        instance.swap(*mInstance);
    }
    if (instance == nullptr) {
        LUMORA_WARNING("No Lumora instance created, you could not Destroy\n");
    }
    return 0;
}

// Negative numbers become large ones, which are in no list.
bool LumoraClientModule::IsClientInstance(int clientID) {
    return std::binary_search(mClientInstance->begin(), mClientInstance->end(),
                              static_cast<unsigned int>(clientID));
}

LumoraClientModule::LumoraClientModule(const std::string& devType, const ClientSources& sources)
    : mDevServiceType(devType), mSources(sources) {
    LUMORA_STATE("Register dev ServiceType = %s\n", mDevServiceType.c_str());
}

// mSmartHomeLink goes before mDevDescriptor: the platform may read the descriptor's text until its handle has
// been freed.
LumoraClientModule::~LumoraClientModule() {
    LUMORA_TRACE("Enter\n");
    // Unregister first: a late event, or a frame after a failed stop, must not reach a dying object.
    lumora::SmartHomeLinkHybird::WithdrawNotifyCallback(this);
    if (mTransManager != nullptr) {
        mTransManager->StopTransports();
    }
    mDevices.ClearDevices();
    mClients.Clear();
    mTransportMap.clear();
    mSmartHomeLink.reset();
    mDevDescriptor.reset();
    mTransManager.reset();
    LUMORA_TRACE("Out\n");
}

// The client's record is made first and stays after a failed start, so that LUM_DeInitClient finds it. The
// link is started under mMutex: no event is handled before everything that it needs is there.
int LumoraClientModule::InitLumoraModule(int clientID) {
    LUMORA_TRACE("client [%d] Enter.\n", clientID);
    if (clientID <= 0) {
        LUMORA_ERROR("clientID error!\n");
        return -1;
    }
    const MutexLock lock(mMutex);
    if (!mClients.Add(clientID)) {
        LUMORA_ERROR("new memory error!\n");
        return -1;
    }
    if (mIsRunning) {
        LUMORA_WARNING("Lumora Module has been initiliazed!\n");
        return 0;
    }
    if (InitializeCoapService() != 0) {
        LUMORA_ERROR("InitializeCoapService failed!\n");
        return -1;
    }
    if (StartCoapService() != 0) {
        LUMORA_ERROR("StartCoapService failed!\n");
        mSmartHomeLink.reset();
        mDevDescriptor.reset();
        mTransFactory.reset();
        return -1;
    }
    mIsRunning = true;
    LUMORA_TRACE("Out\n");
    return 0;
}

int LumoraClientModule::InitializeCoapService() {
    mSmartHomeLink = lumora::SmartHomeLink::Create(lumora::LINK_HYBIRD);
    if (mSmartHomeLink == nullptr) {
        LUMORA_ERROR("Create SmarthomeLink failure!\n");
        return -1;
    }
    mDevDescriptor = lumora::MakeSharedOrNull<LumoraAiDescriptor>(mDevServiceType);
    if (mDevDescriptor == nullptr) {
        LUMORA_ERROR("Create mDevDescriptor failure!\n");
        return -1;
    }
    mTransFactory = CreateLumTransManagerFactory();
    if (mTransFactory == nullptr) {
        LUMORA_ERROR("Create TransManagerFactory failure!\n");
        return -1;
    }
    LUMORA_TRACE("Out\n");
    return 0;
}

int LumoraClientModule::StartCoapService() {
    if (!mSmartHomeLink->RegisterDeviceDescriptor(mDevDescriptor, this)) {
        LUMORA_ERROR("mSmartHomeLink registerDeviceDescriptor failed!\n");
        return -1;
    }
    if (!mSmartHomeLink->Run()) {
        LUMORA_ERROR("mSmartHomeLink running failed!!\n");
        return -1;
    }
    return 0;
}

// The flag is cleared before the platform stops, so that searches are refused from then on. It stays clear if
// stopping fails: the next client starts a link of its own.
int LumoraClientModule::CloseCoapService() {
    if (!mIsRunning) {
        LUMORA_ERROR("mSmartHomeLink is not running, you can't close it!\n");
        return -1;
    }
    mIsRunning = false;
    if (!mSmartHomeLink->Exit()) {
        LUMORA_ERROR("mSmartHomeLink->Exit() failed!\n");
        return -1;
    }
    return 0;
}

// The ID is free even if the platform does not stop. An application whose clean-up failed half-way can thus
// begin anew; otherwise 20 such failures would use up all IDs.
int LumoraClientModule::DeInitLumoraModule(int clientID, unsigned int* clientNum) {
    if (clientNum == nullptr) {
        LUMORA_ERROR("clientNum nullptr\n");
        return -1;
    }
    if (RemoveClient(clientID) != 0 || ReleaseClientId(clientID, clientNum) != 0) {
        return -1;
    }
    if (*clientNum != 0) {
        LUMORA_TRACE("Out\n");
        return 0;
    }
    if (const std::shared_ptr<LumoraTransManager> transport = CurrentTransport()) {
        transport->DropRest();  // an event in progress may be waiting for a departed device's last frames
    }
    // Closing waits for events in progress, which may be waiting for mMutex.
    if (CloseCoapService() != 0) {
        LUMORA_ERROR("CloseCoapService failed!!\n");
        return -1;
    }
    LUMORA_DETAIL("CloseCoapService --out!\n");
    ReleaseResources();
    mIsRunning = false;
    LUMORA_TRACE("No client Instance Out\n");
    return 0;
}

// Waits for a callback in progress, so that none comes after its client has ended.
int LumoraClientModule::RemoveClient(int clientID) {
    const MutexLock delivery(mDeliveryMutex);
    if (!mClients.Remove(clientID)) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, DEINIT, "ClientID : %d no resource!!\n", clientID);
        return -1;
    }
    return 0;
}

int LumoraClientModule::ReleaseClientId(int clientID, unsigned int* clientNum) {
    const MutexLock lock(mInstanceMutex);
    const auto found =
        std::find(mClientInstance->begin(), mClientInstance->end(), static_cast<unsigned int>(clientID));
    if (found == mClientInstance->end()) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, DEINIT, "No such CLientID : %d!!\n", clientID);
        return -1;
    }
    mClientInstance->erase(found);
    *clientNum = static_cast<unsigned int>(mClientInstance->size());
    return 0;
}

// mTransportMap is left to the destructor: its transports have been stopped, here or when the next one was
// set up.
void LumoraClientModule::ReleaseResources() {
    SearchResult former;  // released without the lock: freeing a device calls the platform
    std::shared_ptr<LumoraTransManager> transport;
    {
        const MutexLock lock(mMutex);
        mDevices.ClearHandles();
        mClients.ClearDeviceCallbacks();
        mDevices.Replace(former);
        transport.swap(mTransManager);
        LUMORA_LOG_AS(lumora::LOG_DETAIL, DEINIT, "will unlock\n");
    }
    // The receive thread that this joins may be waiting for mMutex.
    if (transport != nullptr) {
        transport->StopTransports();
    }
}

int LumoraClientModule::RegisterEvent(int clientID, LUM_EVENT_CALLBACK callback) {
    LUMORA_TRACE("client [%d] Enter\n", clientID);
    if (callback == nullptr) {
        LUMORA_ERROR("callback is null!\n");
        return -1;
    }
    if (!mClients.SetEventCallback(clientID, callback)) {
        LUMORA_ERROR("ClientID : %d no resource!!\n", clientID);
        return -1;
    }
    LUMORA_TRACE("Out\n");
    return 0;
}

}  // namespace lumoraAiModule
