// Lifecycle of the server module, and the registration of the local device's services.
#include "server/server_module.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "base/make_shared.h"
#include "library/bounded_text.h"
#include "library/log.h"
#include "link/smart_home_link_hybird.h"
#include "protocol/control_documents.h"
#include "securec.h"

namespace lumoraAiModule {

using lumora::MutexLock;

LumoraServerModule* LumoraServerModule::mInstance = nullptr;

namespace {

// Null when memory ran out: the caller has a message of its own for that.
LumoraServerModule* NewModule(const std::string& devType) {
    try {
        return std::make_unique<LumoraServerModule>(devType).release();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

}  // namespace

// The type of the first call stays. A second LUM_InitServer with another type is answered by the same device.
LumoraServerModule* LumoraServerModule::CreateInstance(const std::string& devType) {
    LUMORA_TRACE("Enter\n");
    if (mInstance == nullptr) {
        mInstance = NewModule(devType);
    }
    LUMORA_TRACE("Out\n");
    return mInstance;
}

int LumoraServerModule::DestoryInstance() {
    LUMORA_TRACE("Enter\n");
    if (mInstance == nullptr) {
        LUMORA_ERROR("No Lumora instance created, you could not Destroy\n");
        return 0;
    }
    std::unique_ptr<LumoraServerModule>(std::exchange(mInstance, nullptr)).reset();
    LUMORA_TRACE("Out\n");
    return 0;
}

LumoraServerModule::LumoraServerModule(const std::string& devType, const ServerSources& sources)
    : mDevType(devType), mSources(sources) {
    LUMORA_TRACE("Enter\n");
    LUMORA_TRACE("Out\n");
}

// mSmartHomeLink goes before mDevDescriptor: the platform may read the descriptor's text until its handle has
// been freed.
LumoraServerModule::~LumoraServerModule() {
    // Unregister first: a late event or request must not reach a dying object.
    lumora::SmartHomeLinkHybird::WithdrawNotifyCallback(this);
    for (const auto& reachable : mReachableDescriptors) {
        if (const std::shared_ptr<LumoraAiDescriptor> descriptor = reachable.lock()) {
            descriptor->WithdrawCallback(this);
        }
    }
    // A setup request that was still waiting when the module stopped may have opened a channel since: on a
    // platform whose Exit does not wait for requests. None can come any more.
    if (const std::shared_ptr<LumoraTransManager> late = mPublication.Current().mTransManager) {
        late->StopTransports();
    }
    mSmartHomeLink.reset();
    mDevDescriptor.reset();
    mPublication.SetTransport(nullptr);
    mTransFactory.reset();
}

// Runs under mMutex: a request that comes as soon as the platform runs waits until the module is complete. A
// failed start keeps the module, and the next call tries again.
int LumoraServerModule::InitLumoraModule() {
    LUMORA_TRACE("Enter\n");
    const MutexLock lock(mMutex);
    if (mIsInit) {
        LUMORA_ERROR("Lumora Module has been initiliazed!\n");
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
    mIsInit = true;
    LUMORA_TRACE("Out\n");
    return 0;
}

int LumoraServerModule::InitializeCoapService() {
    LUMORA_TRACE("Enter\n");
    mSmartHomeLink = lumora::SmartHomeLink::Create(lumora::LINK_HYBIRD);
    if (mSmartHomeLink == nullptr) {
        LUMORA_ERROR("create SmarthomeLink failure!\n");
        return -1;
    }
    mDevDescriptor = lumora::MakeSharedOrNull<LumoraAiDescriptor>(this, mDevType);
    if (mDevDescriptor == nullptr) {
        LUMORA_ERROR("create mDevDescriptor failure!\n");
        return -1;
    }
    RememberDescriptor();
    mTransFactory = CreateLumTransManagerFactory();
    if (mTransFactory == nullptr) {
        LUMORA_ERROR("create TransManagerFactory failure!\n");
        return -1;
    }
    LUMORA_TRACE("Out\n");
    return 0;
}

// A platform may go on delivering requests through the record of a start that failed, so the destructor has
// to withdraw from each descriptor that is still alive. Those that are gone are dropped here, or repeated
// starts would make the list grow.
void LumoraServerModule::RememberDescriptor() {
    auto& reachable = mReachableDescriptors;
    reachable.erase(std::remove_if(reachable.begin(), reachable.end(),
                                   [](const auto& descriptor) { return descriptor.expired(); }),
                    reachable.end());
    reachable.push_back(mDevDescriptor);
}

int LumoraServerModule::StartCoapService() {
    LUMORA_TRACE("Enter\n");
    if (!mSmartHomeLink->RegisterDeviceDescriptor(mDevDescriptor, this)) {
        LUMORA_ERROR("mSmartHomeLink registerDeviceDescriptor failed!\n");
        return -1;
    }
    if (!mSmartHomeLink->Run()) {
        LUMORA_ERROR("mSmartHomeLink running failed!!\n");
        return -1;
    }
    LUMORA_TRACE("Out\n");
    return 0;
}

// The flag is cleared before the platform stops, and stays clear if stopping fails: LUM_InitServer may then
// be called again.
int LumoraServerModule::CloseCoapService() {
    LUMORA_TRACE("Enter\n");
    if (!mIsInit) {
        LUMORA_ERROR("mSmartHomeLink is not running, you can't close it!\n");
        return -1;
    }
    mIsInit = false;
    if (!mSmartHomeLink->Exit()) {
        LUMORA_ERROR("mSmartHomeLink->exit() failed!\n");
        return -1;
    }
    LUMORA_TRACE("Out\n");
    return 0;
}

// Requests are stopped first, because any of them could open a new channel behind the stop. The channel's
// receive thread is joined without mMutex. An OnData that waits for the API mutex, which this thread holds,
// notices the stop and gives up.
int LumoraServerModule::DeInitLumoraModule() {
    LUMORA_TRACE("Enter\n");
    if (const std::shared_ptr<LumoraTransManager> transport = mPublication.Current().mTransManager) {
        transport->DropRest();  // a request in progress may be handing over a client's last blocks
    }
    // Without mMutex: closing waits for requests in progress, which need it.
    if (CloseCoapService() != 0) {
        LUMORA_ERROR("CloseCoapService failed!!\n");
        return -1;
    }
    LUMORA_STATE("Clear coap resourse success.\n");
    {
        const MutexLock lock(mMutex);
        mPublication.SetServices(nullptr);
    }
    const std::shared_ptr<LumoraTransManager> transport = mPublication.Current().mTransManager;
    if (transport != nullptr) {
        const int ret = transport->StopTransports();
        if (ret != 0) {
            LUMORA_ERROR("StopTransports failed!\n");
            return ret;
        }
        mPublication.SetTransport(nullptr);
    }
    mIsInit = false;
    LUMORA_TRACE("Out\n");
    return 0;
}

// Failures do not restore what was registered before: a device whose description does not fit is found but
// not listed, until a registration succeeds. A copy of the record is kept, so the application may reuse its
// own.
int LumoraServerModule::RegisterLocalDeviceInfo(const LUM_DEVICE_INFO_S* devInfo) {
    LUMORA_TRACE("Enter\n");
    const MutexLock lock(mMutex);
    if (devInfo == nullptr || devInfo->serviceNum == 0) {
        LUMORA_ERROR("invalid input paramers!\n");
        return -1;
    }
    mDevType = lumora::NameText(devInfo->devServiceType);
    if (RegisterServices(*devInfo) != 0) {
        return -1;
    }
    if (memset_s(&mDevInfo, sizeof(mDevInfo), 0, sizeof(mDevInfo)) != 0) {
        LUMORA_ERROR("memset_s failed\n");
        return -1;
    }
    if (memcpy_s(&mDevInfo, sizeof(mDevInfo), devInfo, sizeof(*devInfo)) != 0) {
        LUMORA_ERROR("memcpy_s failed\n");
        return -1;
    }
    if (GetServiceInfoString(mLocalServiceInfo) != 0) {
        LUMORA_ERROR("RegisterAiDevInfo  Failed!!\n");
        return -1;
    }
    if (mLocalServiceInfo.length() > MAX_SERVICE_INFO_LENGTH) {
        LUMORA_ERROR("mLocalServiceInfo exceed the max length!!\n");
        mLocalServiceInfo.clear();
        return -1;
    }
    LUMORA_DETAIL("User register mLocalServiceInfo:%s\n", mLocalServiceInfo.c_str());
    LUMORA_TRACE("Out\n");
    return 0;
}

// A new registration drops all subscriptions. The old services are withdrawn first: between the two steps a
// send fails as for an unknown service, and never reaches subscribers of the old ones. Without memory the
// services made so far stay.
int LumoraServerModule::RegisterServices(const LUM_DEVICE_INFO_S& devInfo) {
    mPublication.SetServices(nullptr);
    mServiceInfos.clear();
    auto services = std::make_shared<ServiceMap>();
    int ret = 0;
    for (unsigned int i = 0; i < devInfo.serviceNum && i < LUM_MAX_SERVICES; ++i) {
        mServiceInfos.push_back(devInfo.serviceInfo[i]);
        auto manager = lumora::MakeSharedOrNull<LumoraServiceManager>();
        if (manager == nullptr) {
            LUMORA_LOG_AS(lumora::LOG_ERROR, "RegisterLocalDeviceInfo",
                          "new memory LumoraServiceManager error!\n");
            ret = -1;
            break;
        }
        services->emplace(lumora::NameText(devInfo.serviceInfo[i].serviceName), std::move(manager));
    }
    mPublication.SetServices(std::move(services));
    return ret;
}

int LumoraServerModule::GetServiceInfoString(std::string& out) {
    return lumoraAiModule::GetServiceInfoString(mDevType, mServiceInfos, out);
}

// Requests call this with mMutex held, although it joins the receive thread. That thread cannot wait for
// mMutex: OnData may only send, and sends take mSendMutex. If stopping fails, the transport stays published,
// so that the next request tries again.
int LumoraServerModule::StopTransport(const char* operation, Rest rest, std::chrono::milliseconds limit) {
    const std::shared_ptr<LumoraTransManager> transport = mPublication.Current().mTransManager;
    if (transport == nullptr) {
        return 0;
    }
    const std::string address = mPublication.RemoteAddress();
    const auto begin = HandOverBudget::Clock::now();
    const int result = transport->StopAfterReceiving(rest, mHandOverBudget.Limit(address, limit, begin));
    const auto end = HandOverBudget::Clock::now();
    mHandOverBudget.OnTaken(address, std::chrono::duration_cast<std::chrono::milliseconds>(end - begin), end);
    if (result == -1) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, operation, "StopTransports failed!\n");
        return -1;
    }
    mPublication.SetTransport(nullptr);
    return 0;
}

}  // namespace lumoraAiModule
